// An auto-resetting event between threads.
#pragma once

#include <cstdint>
#include <mutex>

#include "lib/platform/always_magic.h"
#include "lib/platform/condition_variable.h"

// One Set releases one Wait; a Set with nobody waiting is remembered (once) until the next Wait.
// Every operation checks the object's guard first, because the event is reached through an opaque
// pointer from break hooks that may come late.
//
// Set and Wait may be called from any thread. Destroyed when nobody waits.
class SimpleEvent : private lattix::AlwaysMagic<1166418458> {
 public:
  void Set();

  // With a positive timeout (milliseconds) waits at most that long; otherwise without limit. True
  // when the event was raised, at the deadline at the latest; it is lowered then.
  bool Wait(int32_t timeout_ms);

 private:
  std::mutex m_mutex;
  lattix::condition_variable m_raised;
  bool m_set = false;  // guarded by m_mutex
};
