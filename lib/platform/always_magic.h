// A guard against pointers to objects that are gone.
#pragma once

#include <cstdint>

#include "lib/platform/assertion.h"

namespace lattix {

// The first member or a base of a long-lived object that is passed between threads or through the
// opaque pointer of a C callback. Each class has its own N. The guard holds N from construction to
// destruction and 0 afterwards, so a callback that arrives for a dead or a different object stops
// the process at the callback's entry instead of corrupting memory.
template <uint32_t N>
class alignas(8) AlwaysMagic {
 public:
  AlwaysMagic() : m_magic(N) {}
  // The write goes through volatile, or it would be dropped: nothing may legally read it.
  ~AlwaysMagic() { *const_cast<volatile uint32_t*>(&m_magic) = 0; }
  // The guard is no part of an object's value.
  AlwaysMagic(const AlwaysMagic&) : AlwaysMagic() {}
  AlwaysMagic& operator=(const AlwaysMagic&) { return *this; }

  // Checks the pointer, then the word; a mismatch prints "Pointer=%p\n" and fails the assertion
  // "Invalid pointer". Callable from any thread that may use the object.
  static void CheckMagic(const AlwaysMagic* guard) {
    CheckPointer(guard);
    if (*const_cast<const volatile uint32_t*>(&guard->m_magic) != N) InvalidPointer(guard);
  }

 private:
  uint32_t m_magic;
};

}  // namespace lattix
