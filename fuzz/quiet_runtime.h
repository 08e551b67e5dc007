// The runtime as the fuzz targets that run scripts need it: silent, with a bounded heap, and with
// every wait interrupted at once, as nobody will ever post a message.
#pragma once

#include <cstddef>

#include "hooks.h"
#include "ps_heap.h"
#include "publicapis.h"
#include "run.h"

// The process that runs: what the host is asked to wait for is broken in it.
inline psProc* current = nullptr;

// Called before each input; starts the runtime once.
inline void initOnce() {
  constexpr size_t kMemory = size_t{256} << 20;
  static const bool done = [] {
    pscSetPrintHook([](void*, psText) {}, nullptr);
    psHeapSetLimit(kMemory);
    psHostHooks hooks;
    hooks.beforeBlocking = [] { scriptBreak(current, kPsBreak); };
    psInstallHooks(hooks);
    scriptInit({});
    return true;
  }();
  (void)done;
}
