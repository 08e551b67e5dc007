// What the virtual machine and native code need of the containers without going through an
// interface. Every function takes the container's lock itself unless it says otherwise.
#pragma once

#include "cllist.h"
#include "psc.h"

// Gives an element that is a StringConstant a koString of its own (Invalid when memory is refused);
// leaves any other as it is. Caller holds the container's lock or is alone.
void psDetachString(pscDomain* domain, psTypedValue* element);

// --- koArray ----------------------------------------------------------------------------------
//
// The elements lie in one block, element 0 at `elements`, with `front` free slots before it that
// Shift leaves behind and Unshift uses up; so both ends move in amortised constant time. Slots
// 0..tail are used; one of them that was never set has a zero word. Nothing has been written to the
// slots above tail, so the memory behind them is not even touched.
struct psArray {
  psTypedValue* elements;
  int32_t capacity;  // slots the array counts as its own, from element 0 on
  int32_t tail;      // index of the last used slot, -1 when empty
  int32_t front;     // slots of the block before element 0
  int32_t block;     // slots of the whole block; front + capacity <= block
  int32_t enumidx;
  bool resizable;
  psRecursiveLock lock;
};

// A koArray; null when memory is refused or the capacity is negative.
pscInstance* pscCreateArray(pscDomain* domain, int32_t capacity, bool resizable);
// Takes the value over; dropped when there is no room. Caller holds the lock or is alone.
void psArrayPush(psArray* array, psTypedValue value);
void psArraySetEntry(psArray* array, int32_t index, psTypedValue value);

// Element i as it lies in the array, no reference taken; Invalid outside 0..tail and for an unset
// slot. Caller holds the lock or is alone.
inline psTypedValue psArrayElement(const psArray* array, int32_t index) {
  if (static_cast<uint32_t>(index) >= static_cast<uint32_t>(array->tail + 1)) {
    return psInvalidValue();
  }
  const psTypedValue& v = array->elements[index];
  return v.meta != 0 ? v : psInvalidValue();
}

// --- koByteArray ------------------------------------------------------------------------------
//
// Bytes 0..tail are used; what lies above them in the block is not defined and reads as 0.
struct psByteArray {
  uint8_t* bytes;
  int32_t capacity;
  int32_t tail;  // -1 when empty
  int32_t enumidx;
  bool resizable;
  psRecursiveLock lock;
};

// A resizable koByteArray with a copy of the bytes; null when memory is refused.
pscInstance* psNewByteArray(pscDomain* domain, const void* data, size_t size);
// The bytes 0..tail. Caller holds the lock or is alone; valid until the next change.
inline psText psByteArrayText(const psByteArray* array) {
  return array->tail < 0 ? psText("", 0)
                         : psText(reinterpret_cast<const char*>(array->bytes),
                                  static_cast<size_t>(array->tail) + 1);
}

// --- koAssociativeArray -----------------------------------------------------------------------
//
// Sixteen buckets give the order of enumeration: bucket 0 to 15, in each the newest entry first. A
// large array has an index beside them (open addressing over all entries by hash), so that a lookup
// costs the same at any size. The hash folds ASCII case, the comparison decides.
//
// The hash is fixed, as the buckets follow from it, and so anybody can make keys that share it. An
// index that meets such keys goes over to a hash of its own, which nobody outside the process
// knows.
struct psAssocEntry {
  psAssocEntry* next;  // in its bucket, older
  psAssocEntry* prev;  // newer; null for the newest
  psTypedValue value;
  uint32_t hash;  // psKeyHash of the key
  uint32_t key_length;
  char key[];  // NUL-terminated, as it was given; zero bytes up to a multiple of 8
};

// A place in the index: the address of an entry above 16 bits of the hash that the index goes by,
// so that a place that does not match costs no second cache miss.
struct psAssocSlot {
  uint64_t word;  // 0: free
};

struct psAssocArray {
  static constexpr int kBuckets = 16;
  psAssocEntry* buckets[kBuckets];
  psAssocSlot* index;    // null while the array is small
  uint32_t index_mask;   // places - 1; a power of two of them
  uint32_t index_shift;  // 32 - log2(runs of places)
  uint32_t count;
  int32_t enum_bucket;
  psAssocEntry* enum_entry;  // the entry Next gives; null at the end
  bool case_sensitive;
  bool seeded;  // the index goes by the secret hash
  psRecursiveLock lock;
};

// The case-folding hash of a key; the bucket is derived from it.
constexpr uint32_t kPsKeyHashFactor = 1025;
constexpr uint32_t psKeyHash(psText key) {
  uint32_t h = 0;
  for (char c : key) {
    uint32_t v = (static_cast<unsigned char>(c) | 0x20u) + h;
    v *= kPsKeyHashFactor;
    h = v ^ (v >> 6);
  }
  return h;
}
constexpr int psKeyBucket(uint32_t hash) {
  uint32_t g = hash * 9u;
  return static_cast<int>((g ^ (g >> 11)) & 15u);
}

// The entry with that key, or null; the newest one when several match. Caller holds the lock or is
// alone; valid until the next change.
psAssocEntry* psAssocFind(psAssocArray* array, psText key, uint32_t hash, bool case_sensitive);
// Inserts (replacing an entry with the same key under the array's own comparison), newest in its
// bucket; takes the value over. Dropped when memory is refused. Caller holds the lock or is alone.
void psAssocAddReplace(psAssocArray* array, psText key, uint32_t hash, psTypedValue value);

pscInstance* psNewAssociativeArray(pscDomain* domain);
