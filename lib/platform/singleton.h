// The base of every process-wide service.
#pragma once

#include <atomic>

#include "lib/platform/assertion.h"

namespace lattix {

// class Service : public lattix::Singleton<Service>. Whoever starts the process creates the one
// object and destroys it, in an order of its choosing; everyone else reaches it with GetInstance().
// There is no creation on first use: the order of creation and destruction matters too much.
//
// A second object, and access before the first one or after it, are assertion failures. Access is
// safe from any thread that was started after the creation and is joined before the destruction.
template <typename T>
class alignas(8) Singleton {
 public:
  Singleton(const Singleton&) = delete;
  Singleton& operator=(const Singleton&) = delete;

  static T& GetInstance() {
    T* instance = static_cast<T*>(sm_instance.load(std::memory_order_acquire));
    CheckPointer(instance);
    return *instance;
  }
  // For the few services that a program may do without.
  static bool Exists() { return sm_instance.load(std::memory_order_acquire) != nullptr; }

 protected:
  Singleton() {
    CheckPointer(this);
    LATTIX_ASSERT_TEXT(sm_instance.load() == nullptr, "sm_instance == __null");
    sm_instance.store(this, std::memory_order_release);
  }
  ~Singleton() {
    LATTIX_ASSERT_TEXT(sm_instance.load() == this, "sm_instance == this");
    sm_instance.store(nullptr, std::memory_order_release);
  }

 private:
  inline static std::atomic<Singleton*> sm_instance{nullptr};
};

}  // namespace lattix
