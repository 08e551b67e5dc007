// An auto-resetting event between threads.
#pragma once

#include <atomic>
#include <cstdint>

#include "lib/platform/always_magic.h"

// One Set releases one Wait; a Set with nobody waiting is remembered (once) until the next Wait.
// Every operation checks the object's guard first, because the event is reached through an opaque
// pointer from break hooks that may come late.
//
// Set may be called from any thread and from a signal handler, Wait from any thread. Destroyed when
// nobody waits; a Set that has let a waiter go does not touch the event any more.
class SimpleEvent : private lattix::AlwaysMagic<1166418458> {
 public:
  void Set();

  // With a positive timeout (milliseconds) waits at most that long; otherwise without limit. True
  // when the event was raised, at the deadline at the latest; it is lowered then.
  bool Wait(int32_t timeout_ms);

 private:
  std::atomic<uint32_t> m_raised{0};  // 0 or 1
};
