// One contiguous store. A list of small blocks would avoid moving bytes when it grows, but every
// patch and every exchange of ranges would have to find its block first; growing by doubling moves
// each byte twice at most.
#include "ramdisk.h"

#include <algorithm>

void rdInsert(psRamdisk& rd, uint32_t position, const uint8_t* bytes, uint32_t n) {
  psAssert(position <= rd.bytes.size());
  rd.bytes.insert(rd.bytes.begin() + position, bytes, bytes + n);
}

void rdExchange(psRamdisk& rd, uint32_t first, uint32_t middle) {
  psAssert(first <= middle && middle <= rd.bytes.size());
  std::rotate(rd.bytes.begin() + first, rd.bytes.begin() + middle, rd.bytes.end());
}
