// The store that a function's code grows in while it is compiled: bytes are appended, patched
// behind the writer, taken back to an earlier position, and ranges change places.
//
// Positions are code offsets. Allocation failure is std::bad_alloc, which the compiler's entry
// points turn into an error.
#pragma once

#include <cstdint>
#include <vector>

#include "ps_assert.h"

struct psRamdisk {
  std::vector<uint8_t> bytes;
};

inline uint32_t rdPosition(const psRamdisk& rd) { return static_cast<uint32_t>(rd.bytes.size()); }
inline void rdAppend(psRamdisk& rd, uint8_t byte) { rd.bytes.push_back(byte); }
inline uint8_t rdRead(const psRamdisk& rd, uint32_t position) {
  psAssert(position < rd.bytes.size());
  return rd.bytes[position];
}
inline void rdWrite(psRamdisk& rd, uint32_t position, uint8_t byte) {
  psAssert(position < rd.bytes.size());
  rd.bytes[position] = byte;
}
// Drops everything from the position on.
inline void rdSeek(psRamdisk& rd, uint32_t position) {
  psAssert(position <= rd.bytes.size());
  rd.bytes.resize(position);
}
// Makes room for n bytes at a position; what was there and behind it moves up.
void rdInsert(psRamdisk& rd, uint32_t position, const uint8_t* bytes, uint32_t n);
// [first, middle) and [middle, end) change places.
void rdExchange(psRamdisk& rd, uint32_t first, uint32_t middle);
