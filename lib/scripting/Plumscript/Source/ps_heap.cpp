// Size-classed free lists over slabs, one cache a thread.
//
// A class is a multiple of 16 bytes. A thread takes blocks from its own list; when it is empty it
// takes a batch that other threads gave back, or carves a new slab. A thread that frees more than
// it allocates (it consumes what another one makes) gives batches back, so memory does not pile up
// on one side. Slabs are never returned to the C library: their blocks are scattered over all
// lists.
//
// A large heap is read at random, and with pages of 4 KiB nearly every such read misses the address
// translation, which costs as much as missing the cache. Once a heap is large its slabs are
// therefore cut from 2 MiB regions that the kernel backs with a huge page each; large tables are
// such regions by themselves. A small heap stays on ordinary pages, so that it takes up what it
// uses.
//
// Under the sanitizers every block is the C library's own, so that a stray access is seen.
#include "ps_heap.h"

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define PS_HEAP_PLAIN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || \
    __has_feature(memory_sanitizer)
#define PS_HEAP_PLAIN 1
#endif
#endif

namespace {

std::atomic<size_t> used{0};
std::atomic<size_t> limit{0};  // 0: not yet known

size_t currentLimit() {
  size_t n = limit.load(std::memory_order_relaxed);
  if (n != 0) return n;
  const auto pages = static_cast<size_t>(sysconf(_SC_PHYS_PAGES));
  const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  n = pages * page / 4 * 3;
  limit.store(n, std::memory_order_relaxed);
  return n;
}

bool account(size_t n) {
  const size_t before = used.fetch_add(n, std::memory_order_relaxed);
  if (n <= currentLimit() && before <= currentLimit() - n) return true;
  used.fetch_sub(n, std::memory_order_relaxed);
  return false;
}

void* largeAlloc(size_t n) {
  if (!account(n)) return nullptr;
  void* block = std::malloc(n);
  if (block == nullptr) used.fetch_sub(n, std::memory_order_relaxed);
  return block;
}

void largeFree(void* block, size_t n) {
  std::free(block);
  used.fetch_sub(n, std::memory_order_relaxed);
}

#ifndef PS_HEAP_PLAIN

constexpr size_t kHugePage = size_t{2} << 20;

// n bytes (a multiple of the huge page), zeroed, at a multiple of it. Where the kernel has no huge
// pages to give they are ordinary ones.
void* mapHuge(size_t n) {
  constexpr int kProtection = PROT_READ | PROT_WRITE;
  constexpr int kFlags = MAP_PRIVATE | MAP_ANONYMOUS;
  void* mapped = mmap(nullptr, n, kProtection, kFlags, -1, 0);
  if (mapped == MAP_FAILED) return nullptr;
  if (reinterpret_cast<uintptr_t>(mapped) % kHugePage != 0) {
    // Ask for more than is needed and give the ends back.
    munmap(mapped, n);
    mapped = mmap(nullptr, n + kHugePage, kProtection, kFlags, -1, 0);
    if (mapped == MAP_FAILED) return nullptr;
    auto* start = static_cast<char*>(mapped);
    const size_t before = -reinterpret_cast<uintptr_t>(start) % kHugePage;
    if (before > 0) munmap(start, before);
    munmap(start + before + n, kHugePage - before);
    mapped = start + before;
  }
  madvise(mapped, n, MADV_HUGEPAGE);
  return mapped;
}

bool isHugeTable(size_t n) { return n >= kHugePage && n % kHugePage == 0; }

struct Block {
  Block* next;
};

constexpr size_t kGrain = 16;
constexpr size_t kClasses = kPsSmallLimit / kGrain;
constexpr size_t kSlabBytes = 32 * 1024;
// What is carved before huge pages are asked for: the second level of the address translation
// reaches about as far with ordinary ones.
constexpr size_t kOrdinaryBytes = size_t{4} << 20;
constexpr uint32_t kBatch = 128;

struct Cache {
  Block* head[kClasses];
  uint32_t count[kClasses];
};
thread_local Cache cache;

// Blocks that threads gave back, a chain a class, and the region that slabs are cut from.
struct Pool {
  std::mutex lock;
  Block* head[kClasses] = {};
  size_t carved = 0;
  char* region = nullptr;
  size_t region_left = 0;
};
Pool& pool() {
  static Pool* the_pool = new Pool;  // outlives every thread
  return *the_pool;
}

void giveBack(size_t cl, uint32_t n) {
  Block* first = cache.head[cl];
  Block* last = first;
  for (uint32_t i = 1; i < n; i++) last = last->next;
  cache.head[cl] = last->next;
  cache.count[cl] -= n;
  const std::lock_guard guard(pool().lock);
  last->next = pool().head[cl];
  pool().head[cl] = first;
}

// Hands a thread's blocks over when it ends.
struct CacheReturn {
  ~CacheReturn() {
    for (size_t cl = 0; cl < kClasses; cl++) {
      if (cache.count[cl] > 0) giveBack(cl, cache.count[cl]);
    }
  }
};

bool takeFromPool(size_t cl) {
  const std::lock_guard guard(pool().lock);
  uint32_t n = 0;
  while (n < kBatch && pool().head[cl] != nullptr) {
    Block* block = pool().head[cl];
    pool().head[cl] = block->next;
    block->next = cache.head[cl];
    cache.head[cl] = block;
    n++;
  }
  cache.count[cl] += n;
  return n > 0;
}

// Memory for a slab, not accounted yet; null when the machine refuses.
char* newSlab() {
  const std::lock_guard guard(pool().lock);
  if (pool().carved < kOrdinaryBytes) {
    pool().carved += kSlabBytes;
    return static_cast<char*>(std::malloc(kSlabBytes));
  }
  if (pool().region_left == 0) {
    pool().region = static_cast<char*>(mapHuge(kHugePage));
    if (pool().region == nullptr) return nullptr;
    pool().region_left = kHugePage;
  }
  char* slab = pool().region;
  pool().region += kSlabBytes;
  pool().region_left -= kSlabBytes;
  return slab;
}

bool carveSlab(size_t cl) {
  if (!account(kSlabBytes)) return false;
  char* slab = newSlab();
  if (slab == nullptr) {
    used.fetch_sub(kSlabBytes, std::memory_order_relaxed);
    return false;
  }
  const size_t size = (cl + 1) * kGrain;
  const size_t n = kSlabBytes / size;
  for (size_t i = n; i-- > 0;) {
    auto* block = reinterpret_cast<Block*>(slab + i * size);
    block->next = cache.head[cl];
    cache.head[cl] = block;
  }
  cache.count[cl] += static_cast<uint32_t>(n);
  return true;
}

__attribute__((noinline)) bool refill(size_t cl) {
  thread_local CacheReturn at_exit;
  (void)at_exit;
  return takeFromPool(cl) || carveSlab(cl);
}

inline size_t classOf(size_t n) { return (n - 1) / kGrain; }

inline void* smallAlloc(size_t n) {
  const size_t cl = classOf(n);
  if (cache.head[cl] == nullptr && !refill(cl)) return nullptr;
  Block* block = cache.head[cl];
  cache.head[cl] = block->next;
  cache.count[cl]--;
  return block;
}

inline void smallFree(void* p, size_t n) {
  const size_t cl = classOf(n);
  auto* block = static_cast<Block*>(p);
  block->next = cache.head[cl];
  cache.head[cl] = block;
  // More than a slab and a batch lie idle: let other threads have some. With one thread the pool
  // would only move blocks in a circle, but the cost is one list walk in a thousand frees.
  if (++cache.count[cl] > 64 * kBatch) giveBack(cl, 32 * kBatch);
}

#endif

}  // namespace

void* psAlloc(size_t n) {
#ifndef PS_HEAP_PLAIN
  if (n <= kPsSmallLimit) return smallAlloc(n);
#endif
  return largeAlloc(n);
}

void psFree(void* block, size_t n) {
  if (block == nullptr) return;
#ifndef PS_HEAP_PLAIN
  if (n <= kPsSmallLimit) return smallFree(block, n);
#endif
  largeFree(block, n);
}

void* psRealloc(void* block, size_t old_size, size_t new_size) {
  if (block == nullptr) return psAlloc(new_size);
#ifdef PS_HEAP_PLAIN
  const bool large = true;
#else
  const bool large = old_size > kPsSmallLimit && new_size > kPsSmallLimit;
#endif
  if (large) {
    if (new_size > old_size && !account(new_size - old_size)) return nullptr;
    void* moved = std::realloc(block, new_size);
    if (moved == nullptr) {
      if (new_size > old_size) used.fetch_sub(new_size - old_size, std::memory_order_relaxed);
      return nullptr;
    }
    if (new_size < old_size) used.fetch_sub(old_size - new_size, std::memory_order_relaxed);
    return moved;
  }
  void* moved = psAlloc(new_size);
  if (moved == nullptr) return nullptr;
  std::memcpy(moved, block, old_size < new_size ? old_size : new_size);
  psFree(block, old_size);
  return moved;
}

void* psAllocTable(size_t n) {
  if (!account(n)) return nullptr;
#ifndef PS_HEAP_PLAIN
  void* table = isHugeTable(n) ? mapHuge(n) : std::calloc(1, n);
#else
  void* table = std::calloc(1, n);
#endif
  if (table == nullptr) used.fetch_sub(n, std::memory_order_relaxed);
  return table;
}

void psFreeTable(void* table, size_t n) {
  if (table == nullptr) return;
#ifndef PS_HEAP_PLAIN
  if (isHugeTable(n)) {
    munmap(table, n);
    used.fetch_sub(n, std::memory_order_relaxed);
    return;
  }
#endif
  largeFree(table, n);
}

size_t psHeapUsed() { return used.load(std::memory_order_relaxed); }

void psHeapSetLimit(size_t bytes) { limit.store(bytes, std::memory_order_relaxed); }
