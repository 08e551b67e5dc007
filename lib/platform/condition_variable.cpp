// The standard class waits on the monotonic clock only through entry points that some of the
// device's C libraries and the thread checker lack; setting the clock when the variable is made
// works everywhere.
#include "lib/platform/condition_variable.h"

#include <cerrno>
#include <ctime>
#include <stdexcept>

#include "lib/platform/assertion.h"

namespace lattix {

condition_variable::condition_variable() {
  pthread_condattr_t attributes;
  int ret = pthread_condattr_init(&attributes);
  LATTIX_ASSERT(!ret);
  ret = pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
  LATTIX_ASSERT(!ret);
  ret = pthread_cond_init(&cond, &attributes);
  LATTIX_ASSERT(!ret);
  pthread_condattr_destroy(&attributes);
}

condition_variable::~condition_variable() {
  const int ret = pthread_cond_destroy(&cond);
  LATTIX_ASSERT(!ret);
}

void condition_variable::notify_one() { LATTIX_ASSERT(!pthread_cond_signal(&cond)); }

void condition_variable::notify_all() { LATTIX_ASSERT(!pthread_cond_broadcast(&cond)); }

void condition_variable::wait(std::unique_lock<std::mutex>& lock) {
  LATTIX_ASSERT(!pthread_cond_wait(&cond, lock.mutex()->native_handle()));
}

std::cv_status condition_variable::do_wait_until(std::unique_lock<std::mutex>& lock,
                                                 int64_t deadline) {
  constexpr int64_t kNanosecondsPerSecond = 1'000'000'000;
  if (deadline < 0) deadline = 0;  // long past, but the kernel takes no negative time
  timespec ts;
  ts.tv_sec = deadline / kNanosecondsPerSecond;
  ts.tv_nsec = deadline % kNanosecondsPerSecond;
  switch (pthread_cond_timedwait(&cond, lock.mutex()->native_handle(), &ts)) {
    case 0: return std::cv_status::no_timeout;
    case ETIMEDOUT: return std::cv_status::timeout;
    default:
      throw std::runtime_error(
          "lattix::condition_variable::do_wait_until failed in pthread_cond_timedwait");
  }
}

}  // namespace lattix
