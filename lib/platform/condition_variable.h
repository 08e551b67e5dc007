// A condition variable on the monotonic clock, whose failures are checked.
#pragma once

#include <pthread.h>

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace lattix {

// As std::condition_variable, with deadlines that are readings of get_monotonic_time(): a change of
// the wall clock neither shortens nor lengthens a wait. Failures of the operations that cannot fail
// in a correct program are assertion failures.
//
// All operations but destruction may be called from any thread. Destroyed when nobody waits.
class condition_variable {
 public:
  condition_variable();
  ~condition_variable();
  condition_variable(const condition_variable&) = delete;
  condition_variable& operator=(const condition_variable&) = delete;

  void notify_one();
  void notify_all();

  // The lock is held by the caller, and again when the wait returns. May return without a
  // notification: check the condition again.
  void wait(std::unique_lock<std::mutex>& lock);
  template <typename Predicate>
  void wait(std::unique_lock<std::mutex>& lock, Predicate ready) {
    while (!ready()) wait(lock);
  }

  // Waits until notified or until the deadline. Throws std::runtime_error
  // "lattix::condition_variable::do_wait_until failed in pthread_cond_timedwait" when the wait
  // fails with anything but a timeout.
  std::cv_status wait_until(std::unique_lock<std::mutex>& lock, int64_t deadline) {
    return do_wait_until(lock, deadline);
  }
  // Whether the condition held, at the deadline at the latest.
  template <typename Predicate>
  bool wait_until(std::unique_lock<std::mutex>& lock, int64_t deadline, Predicate ready) {
    while (!ready()) {
      if (do_wait_until(lock, deadline) == std::cv_status::timeout) return ready();
    }
    return true;
  }

 private:
  std::cv_status do_wait_until(std::unique_lock<std::mutex>& lock, int64_t deadline);

  pthread_cond_t cond;
};

}  // namespace lattix
