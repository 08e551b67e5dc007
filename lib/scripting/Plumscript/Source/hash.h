// The compiler's hash table: chained entries, fixed-size data copied in. Keys are not copied; the
// caller keeps them alive.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

struct psHashTable;

// The hash every table uses; the folding form does not see the case of ASCII letters. hashStart,
// hashStep for each byte and hashEnd give the same value to a scanner that goes over the text
// anyway.
constexpr uint32_t hashStep(uint32_t h, unsigned char c) {
  h = (h + c) * 1025u;
  return h ^ (h >> 6);
}
constexpr uint32_t hashFoldStep(uint32_t h, unsigned char c) {
  return hashStep(h, static_cast<unsigned char>(c | 0x20u));
}
constexpr uint32_t hashEnd(uint32_t h) {
  h += h << 3;
  h ^= h >> 11;
  return h + (h << 15);
}
constexpr uint32_t hashFold(std::string_view key) {
  uint32_t h = 0;
  for (char c : key) h = hashFoldStep(h, static_cast<unsigned char>(c));
  return hashEnd(h);
}
constexpr uint32_t hashExact(std::string_view key) {
  uint32_t h = 0;
  for (char c : key) h = hashStep(h, static_cast<unsigned char>(c));
  return hashEnd(h);
}
// Equality ignoring the case of ASCII letters.
bool hashEqualFold(std::string_view a, std::string_view b);

// data_size bytes of data an entry, table_size buckets (a power of two).
psHashTable* hashNew(int32_t data_size, int32_t table_size);
void hashFree(psHashTable* table);
// Inserts at the head of the key's bucket; no check for duplicates. The exact form hashes and later
// compares case-sensitively. Returns false when memory is refused.
bool hashAdd(psHashTable* table, std::string_view key, const void* data);
bool hashAddExact(psHashTable* table, std::string_view key, const void* data);
// The data of the first entry with an equal key, or null. Valid until the table is freed.
void* hashFind(const psHashTable* table, std::string_view key);
void* hashFindExact(const psHashTable* table, std::string_view key);
// The same for a caller that has the folding hash already.
void* hashFindHashed(const psHashTable* table, std::string_view key, uint32_t hash);
// Takes the first entry with an equal key out; nothing happens when there is none.
void hashRemove(psHashTable* table, std::string_view key);
// Zeroes the n counters; each of the table_size buckets adds 1 to the counter of its chain length,
// or to the last one when the length is n or more.
void hashHistogram(const psHashTable* table, uint32_t* counts, int n);
