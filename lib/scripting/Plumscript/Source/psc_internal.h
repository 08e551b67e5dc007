// What the files of the component system share among themselves.
#pragma once

#include "psc.h"

// Holds psc_ref_and_list_lock for a scope (not at all while the process has one thread), with the
// possibility to let go of it in between.
class pscListLock {
 public:
  pscListLock() : needed_(!psSingleThreaded()) { lock(); }
  ~pscListLock() {
    if (held_) unlock();
  }
  pscListLock(const pscListLock&) = delete;
  pscListLock& operator=(const pscListLock&) = delete;
  void lock() {
    if (needed_) psc_ref_and_list_lock.lock();
    held_ = true;
  }
  void unlock() {
    if (needed_) psc_ref_and_list_lock.unlock();
    held_ = false;
  }

 private:
  bool needed_;
  bool held_ = false;
};

inline void pscMarkChanged() {
  if (!psSingleThreaded()) psc_changed.store(true, std::memory_order_relaxed);
}
