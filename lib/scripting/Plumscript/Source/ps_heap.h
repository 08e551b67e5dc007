// Memory for script objects.
//
// Small blocks (up to kPsSmallLimit bytes) come from size-classed free lists, one set a thread, so
// that creating and dropping the short-lived boxes of an expression costs a few instructions.
// Larger blocks go to the C library. Everything counts against one process-wide limit, so a script
// that asks for the world is refused (status 12 or 26) long before the machine is short of memory.
//
// Sizes are passed back on free: blocks carry no header. All functions may be called from any
// thread; a block may be freed on another thread than the one that made it.
#pragma once

#include <cstddef>

constexpr size_t kPsSmallLimit = 512;

// A block of n bytes (n > 0), not initialised, aligned to 16; null when the limit or the machine
// refuses.
void* psAlloc(size_t n);
// Gives back a block of n bytes obtained here; null is ignored.
void psFree(void* block, size_t n);
// Resizes a block, keeping its contents up to the smaller size. Returns null when refused, in which
// case the old block stays valid. Large blocks are moved by the kernel where it can.
void* psRealloc(void* block, size_t old_size, size_t new_size);

// A zeroed block for a table that is read at random, which psFreeTable takes back with its size. A
// multiple of 2 MiB gets huge pages, all of which are resident soon; it is the wrong place for what
// is filled from one end.
void* psAllocTable(size_t n);
void psFreeTable(void* table, size_t n);

// Bytes in use, counting a whole slab for the small blocks it feeds.
size_t psHeapUsed();
// Replaces the limit (bytes). The default is three quarters of the machine's memory.
void psHeapSetLimit(size_t bytes);
