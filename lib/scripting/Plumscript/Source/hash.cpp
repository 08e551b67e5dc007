// The compiler's hash table.
//
// A table is made for a nominal number of buckets, which is what the histogram tells about. Scripts
// with tens of thousands of names or texts would make those chains long, so the buckets that are
// searched double when the entries outnumber them; the order inside a chain (newest first) is kept,
// because of several entries with one key the newest must be found.
#include "hash.h"

#include <cstdlib>
#include <cstring>

#include "ps_assert.h"

namespace {

struct Entry {
  Entry* next;
  const char* key;
  uint32_t length;
  uint32_t hash;
  alignas(8) unsigned char data[];
};

unsigned char lower(char c) {
  const auto u = static_cast<unsigned char>(c);
  return u >= 'A' && u <= 'Z' ? static_cast<unsigned char>(u | 0x20) : u;
}

}  // namespace

struct psHashTable {
  int32_t data_size;
  int32_t table_size;
  uint32_t mask;  // of the buckets searched
  uint32_t count;
  Entry** buckets;  // mask + 1
};

bool hashEqualFold(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); i++) {
    if (a[i] != b[i] && lower(a[i]) != lower(b[i])) return false;
  }
  return true;
}

psHashTable* hashNew(int32_t data_size, int32_t table_size) {
  psAssert(data_size > 0);
  psAssert(table_size > 0);
  psAssert((table_size & (table_size - 1)) == 0);
  auto* table = static_cast<psHashTable*>(std::malloc(sizeof(psHashTable)));
  auto** buckets =
      static_cast<Entry**>(std::calloc(static_cast<size_t>(table_size), sizeof(Entry*)));
  if (table == nullptr || buckets == nullptr) {
    std::free(table);
    std::free(buckets);
    return nullptr;
  }
  *table = {data_size, table_size, static_cast<uint32_t>(table_size) - 1, 0, buckets};
  return table;
}

void hashFree(psHashTable* table) {
  if (table == nullptr) return;
  for (uint32_t b = 0; b <= table->mask; b++) {
    for (Entry* e = table->buckets[b]; e != nullptr;) {
      Entry* next = e->next;
      std::free(e);
      e = next;
    }
  }
  std::free(table->buckets);
  std::free(table);
}

namespace {

// Doubles the buckets. Each chain splits into two, in order. Without memory the chains stay long.
void grow(psHashTable* table) {
  if (table->mask >= 0x3fffffffu) return;
  const uint32_t size = table->mask + 1;
  auto** buckets = static_cast<Entry**>(std::calloc(size_t{size} * 2, sizeof(Entry*)));
  if (buckets == nullptr) return;
  for (uint32_t b = 0; b < size; b++) {
    Entry** low = &buckets[b];
    Entry** high = &buckets[b + size];
    for (Entry* e = table->buckets[b]; e != nullptr;) {
      Entry* next = e->next;
      e->next = nullptr;
      Entry**& end = (e->hash & size) ? high : low;
      *end = e;
      end = &e->next;
      e = next;
    }
  }
  std::free(table->buckets);
  table->buckets = buckets;
  table->mask = size * 2 - 1;
}

bool add(psHashTable* table, std::string_view key, uint32_t hash, const void* data) {
  if (key.size() > UINT32_MAX) return false;
  if (table->count > table->mask) grow(table);
  const auto size = static_cast<size_t>(table->data_size);
  auto* e = static_cast<Entry*>(std::malloc(sizeof(Entry) + size));
  if (e == nullptr) return false;
  Entry** bucket = &table->buckets[hash & table->mask];
  e->next = *bucket;
  e->key = key.data();
  e->length = static_cast<uint32_t>(key.size());
  e->hash = hash;
  std::memcpy(e->data, data, size);
  *bucket = e;
  table->count++;
  return true;
}

}  // namespace

bool hashAdd(psHashTable* table, std::string_view key, const void* data) {
  return add(table, key, hashFold(key), data);
}

bool hashAddExact(psHashTable* table, std::string_view key, const void* data) {
  return add(table, key, hashExact(key), data);
}

void* hashFindHashed(const psHashTable* table, std::string_view key, uint32_t hash) {
  for (Entry* e = table->buckets[hash & table->mask]; e != nullptr; e = e->next) {
    if (e->hash == hash && hashEqualFold({e->key, e->length}, key)) return e->data;
  }
  return nullptr;
}

void* hashFind(const psHashTable* table, std::string_view key) {
  return hashFindHashed(table, key, hashFold(key));
}

void* hashFindExact(const psHashTable* table, std::string_view key) {
  const uint32_t hash = hashExact(key);
  for (Entry* e = table->buckets[hash & table->mask]; e != nullptr; e = e->next) {
    if (e->hash == hash && std::string_view(e->key, e->length) == key) return e->data;
  }
  return nullptr;
}

void hashRemove(psHashTable* table, std::string_view key) {
  const uint32_t hash = hashFold(key);
  for (Entry** at = &table->buckets[hash & table->mask]; *at != nullptr; at = &(*at)->next) {
    Entry* e = *at;
    if (e->hash != hash || !hashEqualFold({e->key, e->length}, key)) continue;
    *at = e->next;
    std::free(e);
    table->count--;
    return;
  }
}

void hashHistogram(const psHashTable* table, uint32_t* counts, int n) {
  for (int i = 0; i < n; i++) counts[i] = 0;
  if (n <= 0) return;
  // Only the low eight bits of the nominal mask choose a bucket.
  const uint32_t nominal = (static_cast<uint32_t>(table->table_size) - 1) & 0xffu;
  uint32_t lengths[256] = {};
  for (uint32_t b = 0; b <= table->mask; b++) {
    for (const Entry* e = table->buckets[b]; e != nullptr; e = e->next)
      lengths[e->hash & nominal]++;
  }
  for (int32_t b = 0; b < table->table_size; b++) {
    const uint32_t length = b < 256 ? lengths[b] : 0;
    counts[length < static_cast<uint32_t>(n) ? length : static_cast<uint32_t>(n) - 1]++;
  }
}
