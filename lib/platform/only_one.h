// A guard for classes of which one object may exist at a time.
#pragma once

#include <atomic>
#include <stdexcept>

#include "lib/platform/assertion.h"

// class Invoker : OnlyOne<Invoker>. Unlike a singleton the object is reached by ordinary
// references, and a second one is no broken invariant but an error that the caller can handle: the
// constructor throws std::runtime_error with the class's message. Callable from any thread.
template <typename T>
class OnlyOne {
 public:
  OnlyOne(const OnlyOne&) = delete;
  OnlyOne& operator=(const OnlyOne&) = delete;

 protected:
  explicit OnlyOne(const char* message) {
    bool expected = false;
    if (!sm_extant.compare_exchange_strong(expected, true)) throw std::runtime_error(message);
  }
  ~OnlyOne() {
    bool expected = true;
    LATTIX_ASSERT(sm_extant.compare_exchange_strong(expected, false));
  }

 private:
  inline static std::atomic<bool> sm_extant{false};
};
