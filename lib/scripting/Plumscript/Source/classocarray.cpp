// koAssociativeArray.
//
// Every entry hangs in one of sixteen bucket lists, newest first; these lists are what enumeration
// walks and what scripts can observe. A lookup in a large array goes through the index instead:
// open addressing with linear probing over all entries, a slot an entry, at most half full.
//
// What a lookup in a very large array costs is waiting for memory. So a slot is one word, which
// tells nearly always whether its entry is worth looking at; an entry with a short key lies in one
// cache line; and keys that are counted up, as scripts like to make them, share the cache lines of
// the index (rule 1).
//
// Rules of this file:
//  1. The slots come in runs of eight. Keys that are alike but for their last characters, and those
//     near each other, have different homes in one run or two; which run it is depends on all of
//     the key and is as good as random.
//  2. Entries with the same hash are found newest first, in the index as in their bucket: in
//     case-sensitive mode several keys that differ in case lie side by side, and a lookup that
//     ignores case takes the newest. Only a seeded index does without: it goes by the whole key in
//     that mode, and a lookup that ignores case walks the bucket.
//  3. enum_entry is null or points at a linked entry, so whatever unlinks an entry advances the
//     enumeration first.
//  4. A value that leaves the array is released after the lock has been let go of: releasing the
//     last reference of an object runs its destructor, which may want other locks.
//  5. No entry lies farther than kLongestProbe behind its home, unless memory is short: an index
//     that would need it has met keys made to collide, and is seeded for good.
#include <sys/random.h>

#include <cstddef>
#include <cstring>
#include <new>

#include "container_tables.h"
#include "containers.h"
#include "ps_heap.h"
#include "ps_native.h"

namespace {

// Up to this many entries the buckets are short enough to be walked.
constexpr uint32_t kIndexFrom = 32;
constexpr uint32_t kFirstIndexSize = 128;
constexpr uint32_t kMaxIndexSize = 1u << 30;
constexpr uint32_t kRunBits = 3;  // of a place's number within its run, which is a cache line
// Half full, with keys that nobody has chosen, an index of millions stays below half of this.
constexpr uint32_t kLongestProbe = 512;

// The lowest bits of the hash, which entries of the same run do not share. An address takes what is
// left of a word: the kernel maps no memory above 2^48 unless asked to.
constexpr int kTagBits = 16;
constexpr uint64_t kTagMask = (uint64_t{1} << kTagBits) - 1;
static_assert(sizeof(void*) == sizeof(uint64_t));

psAssocArray* assocOf(pscInstance* self) { return pscData<psAssocArray>(self); }

size_t entrySize(size_t key_length) {
  return offsetof(psAssocEntry, key) + ((key_length + 8) & ~size_t{7});
}

// --- Comparing keys ---------------------------------------------------------------------------

uint64_t loadWord(const char* p) {
  uint64_t word;
  std::memcpy(&word, p, sizeof word);
  return word;
}

// The 1..7 bytes at p in the low bytes of a word, zero bytes above them.
uint64_t loadTail(const char* p, size_t n) {
  if (n >= 4) {
    uint32_t low;
    uint32_t high;
    std::memcpy(&low, p, sizeof low);
    std::memcpy(&high, p + n - 4, sizeof high);
    return low | static_cast<uint64_t>(high) << (8 * (n - 4));
  }
  const auto byte = [p](size_t i) { return uint64_t{static_cast<unsigned char>(p[i])}; };
  return byte(0) | byte(n / 2) << (8 * (n / 2)) | byte(n - 1) << (8 * (n - 1));
}

constexpr uint64_t repeated(uint8_t byte) { return byte * 0x0101010101010101u; }

// Eight bytes at once with A-Z turned into a-z. The additions carry into bit 7 of a byte when its
// low seven bits reach 'A', and when they are beyond 'Z'.
uint64_t foldCase(uint64_t word) {
  const uint64_t low = word & repeated(0x7f);
  const uint64_t from_a = low + repeated(0x80 - 'A');
  const uint64_t beyond_z = low + repeated(0x7f - 'Z');
  const uint64_t upper = from_a & ~beyond_z & ~word & repeated(0x80);
  return word | upper >> 2;
}

// Both compare a stored key (padded with zero bytes) with a text of the same length.
bool sameKey(const char* stored, psText key) {
  const char* p = key.data();
  size_t n = key.size();
  for (; n >= 8; n -= 8, p += 8, stored += 8) {
    if (loadWord(stored) != loadWord(p)) return false;
  }
  return n == 0 || loadWord(stored) == loadTail(p, n);
}

bool sameKeyIgnoringCase(const char* stored, psText key) {
  const char* p = key.data();
  size_t n = key.size();
  for (; n >= 8; n -= 8, p += 8, stored += 8) {
    if (foldCase(loadWord(stored)) != foldCase(loadWord(p))) return false;
  }
  return n == 0 || foldCase(loadWord(stored)) == foldCase(loadTail(p, n));
}

bool isKey(const psAssocEntry* entry, psText key, uint32_t hash, bool case_sensitive) {
  if (entry->hash != hash || entry->key_length != key.size()) return false;
  return sameKey(entry->key, key) || (!case_sensitive && sameKeyIgnoringCase(entry->key, key));
}

// --- Walking all entries ----------------------------------------------------------------------

// Calls visit for every entry, which it may free: one of each bucket in turn, the newer entries of
// a bucket before the older ones. Neighbours in a bucket lie far apart, so following one list at a
// time would wait for memory at every step; sixteen at a time do not, and meet the entries much as
// they were made.
template <class Visit>
void visitAll(psAssocEntry* const* buckets, Visit visit) {
  psAssocEntry* at[psAssocArray::kBuckets];
  std::memcpy(at, buckets, sizeof at);
  for (bool more = true; more;) {
    more = false;
    for (psAssocEntry*& next : at) {
      psAssocEntry* entry = next;
      if (entry == nullptr) continue;
      more = true;
      next = entry->next;
      __builtin_prefetch(next);
      visit(entry);
    }
  }
}

// --- The index --------------------------------------------------------------------------------

// The sum that the hash was made from in its last step: the last character with bit 5 set, plus a
// number that the characters before it make.
uint32_t lastSum(uint32_t hash) {
  constexpr uint32_t kInverse = 1u - (1u << 10) + (1u << 20) - (1u << 30);
  static_assert(kInverse * kPsKeyHashFactor == 1u);
  // Undoes v ^ v >> 6.
  hash ^= hash >> 6;
  hash ^= hash >> 12;
  hash ^= hash >> 24;
  return hash * kInverse;
}

// The secret of the process, made when an index is first seeded.
struct Seed {
  uint64_t start = 0x9e3779b97f4a7c15u;
  uint64_t factor = 0xd1342543de82ef95u;

  Seed() {
    uint64_t random[2];
    if (getrandom(random, sizeof random, GRND_NONBLOCK) != sizeof random) return;
    start ^= random[0];
    factor = random[1] | 1;
  }
};

// Multiplication to 128 bits spreads each word over the sum of both halves.
uint64_t mixed(uint64_t word, uint64_t factor) {
  const auto product = static_cast<unsigned __int128>(word) * factor;
  return static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
}

// Of the key as it is, or of its folded form.
[[gnu::noinline]] uint64_t secretHash(psText key, bool case_sensitive) {
  static const Seed seed;
  uint64_t h = seed.start ^ key.size();
  const char* p = key.data();
  const auto add = [&](uint64_t word) {
    h = mixed(h ^ (case_sensitive ? word : foldCase(word)), seed.factor);
  };
  size_t n = key.size();
  for (; n >= 8; n -= 8, p += 8) add(loadWord(p));
  if (n > 0) add(loadTail(p, n));
  return mixed(h, seed.factor);
}

// Where the index looks for a key first, and what it compares there.
struct Start {
  uint32_t home;
  uint64_t tag;
};

Start startOf(const psAssocArray* me, psText key, uint32_t hash) {
  if (__builtin_expect(me->seeded, 0)) {
    const uint64_t secret = secretHash(key, me->case_sensitive);
    return {static_cast<uint32_t>(secret >> kTagBits) & me->index_mask, secret & kTagMask};
  }
  const uint32_t sum = lastSum(hash);
  const uint32_t run = ((sum >> kRunBits) * 0x9e3779b1u) >> me->index_shift;
  return {run << kRunBits | (sum & ((1u << kRunBits) - 1)), hash & kTagMask};
}
Start startOf(const psAssocArray* me, const psAssocEntry* entry) {
  return startOf(me, {entry->key, entry->key_length}, entry->hash);
}
uint32_t following(const psAssocArray* me, uint32_t place) { return (place + 1) & me->index_mask; }

uint64_t tagOf(psAssocSlot slot) { return slot.word & kTagMask; }
psAssocSlot slotOf(const psAssocEntry* entry, uint64_t tag) {
  return {reinterpret_cast<uint64_t>(entry) << kTagBits | tag};
}
psAssocEntry* entryOf(psAssocSlot slot) {  // null for a free one
  return reinterpret_cast<psAssocEntry*>(slot.word >> kTagBits);
}
bool isFree(psAssocSlot slot) { return slot.word == 0; }

// Where a probe for a key ends: at its entry, or else at a free place.
struct Probe {
  uint32_t place;
  bool crossed;  // an entry with the same tag was passed on the way
  Start start;
};

Probe probe(const psAssocArray* me, psText key, uint32_t hash, bool case_sensitive) {
  const Start start = startOf(me, key, hash);
  bool crossed = false;
  for (uint32_t place = start.home;; place = following(me, place)) {
    const psAssocSlot slot = me->index[place];
    if (isFree(slot)) return {place, crossed, start};
    if (tagOf(slot) != start.tag) continue;
    if (isKey(entryOf(slot), key, hash, case_sensitive)) return {place, crossed, start};
    crossed = true;
  }
}

bool isTooFar(const psAssocArray* me, const Probe& at) {
  return ((at.place - at.start.home) & me->index_mask) > kLongestProbe && !me->seeded;
}

// Puts an entry behind all others of its home (they are newer).
void indexOlder(psAssocArray* me, const psAssocEntry* entry) {
  const Start start = startOf(me, entry);
  uint32_t place = start.home;
  while (!isFree(me->index[place])) place = following(me, place);
  me->index[place] = slotOf(entry, start.tag);
}

// Puts an entry in front of those with the same tag, the ones with the same hash among them, which
// move down one place each. The entry may be one of them: then it moves to the front.
void indexNewest(psAssocArray* me, psAssocEntry* entry) {
  const Start start = startOf(me, entry);
  psAssocSlot carried = slotOf(entry, start.tag);
  for (uint32_t place = start.home;; place = following(me, place)) {
    psAssocSlot& slot = me->index[place];
    if (isFree(slot)) {
      slot = carried;
      return;
    }
    if (tagOf(slot) != tagOf(carried)) continue;
    std::swap(slot, carried);
    if (entryOf(carried) == entry) return;
  }
}

// Takes an entry out and closes the gap, so that no probe ever meets a hole before its goal.
void indexRemove(psAssocArray* me, const psAssocEntry* entry) {
  const Start start = startOf(me, entry);
  const uint64_t word = slotOf(entry, start.tag).word;
  uint32_t hole = start.home;
  while (me->index[hole].word != word) hole = following(me, hole);
  for (uint32_t place = following(me, hole); !isFree(me->index[place]);
       place = following(me, place)) {
    const psAssocSlot slot = me->index[place];
    const uint32_t from_home = (place - startOf(me, entryOf(slot)).home) & me->index_mask;
    if (from_home < ((place - hole) & me->index_mask)) continue;
    me->index[hole] = slot;
    hole = place;
  }
  me->index[hole] = {};
}

size_t indexBytes(const psAssocArray* me) {
  return me->index != nullptr ? (size_t{me->index_mask} + 1) * sizeof(psAssocSlot) : 0;
}

// Replaces the index by an empty one; the old one is left to the caller. False when refused.
bool newIndex(psAssocArray* me, uint32_t size) {
  void* block = psAllocTable(size_t{size} * sizeof(psAssocSlot));
  if (block == nullptr) return false;
  me->index = static_cast<psAssocSlot*>(block);
  me->index_mask = size - 1;
  me->index_shift = static_cast<uint32_t>(__builtin_clz(size)) + 1 + kRunBits;
  return true;
}

void fillIndex(psAssocArray* me) {
  visitAll(me->buckets, [me](const psAssocEntry* entry) { indexOlder(me, entry); });
}

// Goes over to the secret hash, or to another form of it.
[[gnu::cold]] void seedIndex(psAssocArray* me) {
  me->seeded = true;
  std::memset(me->index, 0, indexBytes(me));
  fillIndex(me);
}

void buildIndex(psAssocArray* me) {
  if (newIndex(me, kFirstIndexSize)) fillIndex(me);  // else the buckets still lead everywhere
}

bool growIndex(psAssocArray* me) {
  psAssocSlot* old = me->index;
  const size_t old_bytes = indexBytes(me);
  const uint32_t old_size = me->index_mask + 1;
  if (old_size >= kMaxIndexSize || !newIndex(me, old_size * 2)) return false;
  psFreeTable(old, old_bytes);
  fillIndex(me);
  return true;
}

// Makes sure that the index, if there is one, can take another entry.
bool reserveIndex(psAssocArray* me) {
  if (me->index == nullptr) {
    if (me->count >= kIndexFrom) buildIndex(me);
    return true;
  }
  const uint32_t size = me->index_mask + 1;
  if (me->count < size / 2 || growIndex(me)) return true;
  return me->count < size - size / 16;  // memory is short: rather slow than not at all
}

// --- Entries ----------------------------------------------------------------------------------

void linkNewest(psAssocArray* me, psAssocEntry* entry) {
  psAssocEntry** bucket = &me->buckets[psKeyBucket(entry->hash)];
  entry->prev = nullptr;
  entry->next = *bucket;
  if (*bucket != nullptr) (*bucket)->prev = entry;
  *bucket = entry;
}

void unlink(psAssocArray* me, psAssocEntry* entry) {
  (entry->prev != nullptr ? entry->prev->next : me->buckets[psKeyBucket(entry->hash)]) =
      entry->next;
  if (entry->next != nullptr) entry->next->prev = entry->prev;
}

// Puts the enumeration on the first entry of a bucket or of those behind it.
void enumerateFrom(psAssocArray* me, int bucket) {
  while (bucket < psAssocArray::kBuckets && me->buckets[bucket] == nullptr) bucket++;
  me->enum_bucket = bucket;
  me->enum_entry = bucket < psAssocArray::kBuckets ? me->buckets[bucket] : nullptr;
}

void advanceEnumeration(psAssocArray* me) {
  me->enum_entry = me->enum_entry->next;
  if (me->enum_entry == nullptr) return enumerateFrom(me, me->enum_bucket + 1);
  __builtin_prefetch(me->enum_entry);
}

psAssocEntry* newEntry(psText key, uint32_t hash, const psTypedValue& value) {
  if (key.size() > kPsMaxTextLength) return nullptr;
  const size_t size = entrySize(key.size());
  auto* entry = static_cast<psAssocEntry*>(psAlloc(size));
  if (entry == nullptr) return nullptr;
  psCopyRaw(&entry->value, value);
  entry->hash = hash;
  entry->key_length = static_cast<uint32_t>(key.size());
  std::memset(reinterpret_cast<char*>(entry) + size - 8, 0, 8);
  if (!key.empty()) std::memcpy(entry->key, key.data(), key.size());
  return entry;
}

void freeEntry(psAssocEntry* entry) { psFree(entry, entrySize(entry->key_length)); }

// Returns what has to be released: the value of the entry replaced, the value itself when memory is
// refused, or else an unset value.
psTypedValue addReplace(psAssocArray* me, psText key, uint32_t hash, const psTypedValue& value) {
  Probe at = {};
  psAssocEntry* entry;
  if (me->index != nullptr) {
    at = probe(me, key, hash, me->case_sensitive);
    entry = entryOf(me->index[at.place]);
  } else {
    entry = psAssocFind(me, key, hash, me->case_sensitive);
  }
  if (entry != nullptr) {
    // Seen from outside, the entry is deleted and a new one comes in at the head of the bucket;
    // keys that match have the same length, so the new one fits where the old one lies.
    if (me->enum_entry == entry) advanceEnumeration(me);
    if (!key.empty()) std::memmove(entry->key, key.data(), key.size());
    if (entry->prev != nullptr) {
      unlink(me, entry);
      linkNewest(me, entry);
      if (at.crossed) indexNewest(me, entry);
    }
    const psTypedValue old = entry->value;
    psCopyRaw(&entry->value, value);
    return old;
  }
  entry = newEntry(key, hash, value);
  if (entry == nullptr) return value;
  const psAssocSlot* probed = me->index;
  if (!reserveIndex(me)) {
    freeEntry(entry);
    return value;
  }
  linkNewest(me, entry);
  if (me->index != nullptr) {
    if (me->index == probed && isTooFar(me, at)) {
      seedIndex(me);
    } else if (me->index == probed && !at.crossed) {
      me->index[at.place] = slotOf(entry, at.start.tag);
    } else {
      indexNewest(me, entry);
    }
  }
  me->count++;
  return psUninitializedValue();
}

// Takes all entries off, into a chain through their next pointers, and the index with them.
struct Detached {
  psAssocEntry* buckets[psAssocArray::kBuckets];
  psAssocSlot* index;
  size_t index_bytes;
};

Detached detachAll(psAssocArray* me) {
  Detached detached;
  std::memcpy(detached.buckets, me->buckets, sizeof detached.buckets);
  detached.index = me->index;
  detached.index_bytes = indexBytes(me);
  std::memset(me->buckets, 0, sizeof me->buckets);
  me->index = nullptr;
  me->seeded = false;
  me->count = 0;
  me->enum_entry = nullptr;
  return detached;
}

void releaseDetached(const Detached& detached) {
  psFreeTable(detached.index, detached.index_bytes);
  visitAll(detached.buckets, [](psAssocEntry* entry) {
    ReleaseValue(&entry->value);
    freeEntry(entry);
  });
}

psTypedValue lookUp(psAssocArray* me, psText key, uint32_t hash, bool case_sensitive) {
  const psAssocEntry* entry = psAssocFind(me, key, hash, case_sensitive);
  return entry != nullptr ? psCopyValue(entry->value) : psInvalidValue();
}

// --- ifAssociativeArray -----------------------------------------------------------------------

psTypedValue Lookup(pscInstance* self, psText key) {
  psAssocArray* me = assocOf(self);
  const uint32_t hash = psKeyHash(key);
  const psGuard guard(me->lock);
  return lookUp(me, key, hash, me->case_sensitive);
}

void AddReplace(pscInstance* self, psText key, psTypedValue value) {
  psAssocArray* me = assocOf(self);
  const uint32_t hash = psKeyHash(key);
  psTypedValue old;
  {
    const psGuard guard(me->lock);
    old = addReplace(me, key, hash, value);
  }
  ReleaseValue(&old);
}

bool DoesExist(pscInstance* self, psText key) {
  psAssocArray* me = assocOf(self);
  const uint32_t hash = psKeyHash(key);
  const psGuard guard(me->lock);
  return psAssocFind(me, key, hash, me->case_sensitive) != nullptr;
}

bool Delete(pscInstance* self, psText key) {
  psAssocArray* me = assocOf(self);
  const uint32_t hash = psKeyHash(key);
  psAssocEntry* entry;
  {
    const psGuard guard(me->lock);
    entry = psAssocFind(me, key, hash, me->case_sensitive);
    if (entry == nullptr) return false;
    if (me->enum_entry == entry) advanceEnumeration(me);
    if (me->index != nullptr) indexRemove(me, entry);
    unlink(me, entry);
    me->count--;
  }
  ReleaseValue(&entry->value);
  freeEntry(entry);
  return true;
}

void Clear(pscInstance* self) {
  psAssocArray* me = assocOf(self);
  Detached detached;
  {
    const psGuard guard(me->lock);
    detached = detachAll(me);
  }
  releaseDetached(detached);
}

void SetModeCaseSensitive(pscInstance* self) {
  psAssocArray* me = assocOf(self);
  const psGuard guard(me->lock);
  me->case_sensitive = true;
  if (me->seeded) seedIndex(me);
}

// Scripts rely on this: object.member ignores case even in case-sensitive mode.
psTypedValue FastLookup(pscInstance* self, psText key, int bucket) {
  psAssocArray* me = assocOf(self);
  const uint32_t hash = psKeyHash(key);
  if (psKeyBucket(hash) != bucket) return psInvalidValue();
  const psGuard guard(me->lock);
  return lookUp(me, key, hash, false);
}

psTypedValue LookupCi(pscInstance* self, psText key) {
  psAssocArray* me = assocOf(self);
  const uint32_t hash = psKeyHash(key);
  const psGuard guard(me->lock);
  return lookUp(me, key, hash, false);
}

void Append(pscInstance* self, pscInstance* other) {
  if (other == nullptr || other == self || other->psc_class != &clAssociativeArray) return;
  // The other array is copied under its own lock first: holding both would deadlock with a thread
  // that appends the other way round.
  psAssocEntry* copies = nullptr;
  {
    psAssocArray* from = assocOf(other);
    const psGuard guard(from->lock);
    psAssocEntry** last = &copies;
    for (psAssocEntry* entry : from->buckets) {
      for (; entry != nullptr; entry = entry->next) {
        *last = newEntry({entry->key, entry->key_length}, entry->hash, entry->value);
        if (*last == nullptr) break;
        psRetainValue(&entry->value);
        last = &(*last)->next;
      }
      if (entry != nullptr) break;
    }
    *last = nullptr;
  }
  {
    psAssocArray* me = assocOf(self);
    const psGuard guard(me->lock);
    for (psAssocEntry* copy = copies; copy != nullptr; copy = copy->next) {
      copy->value = addReplace(me, {copy->key, copy->key_length}, copy->hash, copy->value);
    }
  }
  while (copies != nullptr) {
    psAssocEntry* next = copies->next;
    ReleaseValue(&copies->value);
    freeEntry(copies);
    copies = next;
  }
}

// --- ifEnum -----------------------------------------------------------------------------------

void Reset(pscInstance* self) {
  psAssocArray* me = assocOf(self);
  const psGuard guard(me->lock);
  enumerateFrom(me, 0);
}

psTypedValue Next(pscInstance* self) {
  psAssocArray* me = assocOf(self);
  const psGuard guard(me->lock);
  const psAssocEntry* entry = me->enum_entry;
  if (entry == nullptr) return psInvalidValue();
  pscInstance* key = psNewString(self->domain, {entry->key, entry->key_length});
  advanceEnumeration(me);
  return key != nullptr ? psStringObjectValue(key) : psInvalidValue();
}

bool IsNext(pscInstance* self) {
  psAssocArray* me = assocOf(self);
  const psGuard guard(me->lock);
  return me->enum_entry != nullptr;
}

bool IsEmpty(pscInstance* self) {
  psAssocArray* me = assocOf(self);
  const psGuard guard(me->lock);
  return me->count == 0;
}

// --- The class --------------------------------------------------------------------------------

// The virtual machine calls Lookup, AddReplace, FastLookup and LookupCi through the record below.
constexpr fundes kAssociativeArrayFunctions[] = {
    psMethod<Lookup>("Lookup"),         psMethod<AddReplace>("AddReplace"),
    psMethod<DoesExist>("DoesExist"),   psMethod<Delete>("Delete"),
    psMethod<Clear>("Clear"),           psMethod<SetModeCaseSensitive>("SetModeCaseSensitive"),
    psMethod<FastLookup>("FastLookup"), psMethod<LookupCi>("LookupCi"),
    psMethod<Append>("Append"),         {},
};

constexpr psIfAssociativeArray kAssociativeArrayMethods = {
    Lookup,     AddReplace, DoesExist, Delete, Clear, SetModeCaseSensitive,
    FastLookup, LookupCi,   Append,
};

constexpr psInterface kInterfaces[] = {
    {"ifAssociativeArray", kAssociativeArrayFunctions, &kAssociativeArrayMethods},
    psEnumTables<Reset, Next, IsNext, IsEmpty>::kInterface,
};

bool init(pscInstance* self) {
  new (&assocOf(self)->lock) psRecursiveLock;  // all else begins as zero
  return true;
}

void destroy(pscInstance* self) {
  psAssocArray* me = assocOf(self);
  releaseDetached(detachAll(me));
  me->lock.~psRecursiveLock();
}

void enumRefs(pscInstance* self, void* arg, psRefCallback callback) {
  psAssocArray* me = assocOf(self);
  const psGuard guard(me->lock);
  visitAll(me->buckets, [&](const psAssocEntry* entry) {
    const psTypedValue& v = entry->value;
    if (psIs(v, kPsCountedFlags) && v.value.psc != nullptr) callback(arg, v.value.psc);
  });
}

void detachStrings(pscInstance* self) {
  psAssocArray* me = assocOf(self);
  const psGuard guard(me->lock);
  visitAll(me->buckets, [&](psAssocEntry* entry) { psDetachString(self->domain, &entry->value); });
}

}  // namespace

constinit pscClass clAssociativeArray = [] {
  pscClass cl;
  cl.ln_Name = "koAssociativeArray";
  cl.interfaces = kInterfaces;
  cl.instance_size = sizeof(psAssocArray);
  cl.init = init;
  cl.destroy = destroy;
  cl.enum_refs = enumRefs;
  cl.break_refs = Clear;
  cl.detach_strings = detachStrings;
  return cl;
}();

psAssocEntry* psAssocFind(psAssocArray* array, psText key, uint32_t hash, bool case_sensitive) {
  if (array->index == nullptr || (array->seeded && array->case_sensitive && !case_sensitive)) {
    psAssocEntry* entry = array->buckets[psKeyBucket(hash)];
    for (; entry != nullptr; entry = entry->next) {
      if (isKey(entry, key, hash, case_sensitive)) return entry;
    }
    return nullptr;
  }
  return entryOf(array->index[probe(array, key, hash, case_sensitive).place]);
}

void psAssocAddReplace(psAssocArray* array, psText key, uint32_t hash, psTypedValue value) {
  const psTypedValue old = addReplace(array, key, hash, value);
  ReleaseValue(&old);
}

pscInstance* psNewAssociativeArray(pscDomain* domain) {
  return pscNewComponentByClass(domain, &clAssociativeArray);
}
