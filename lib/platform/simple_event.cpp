// One word that carries the event, and the kernel's wait on its value: a wait sleeps only while the
// word is 0, so a Set before it is seen and one during it wakes. A mutex and a condition variable
// would do for threads, but a break may come from a signal handler that interrupts the waiting
// thread itself, anywhere in the wait.
#include "lib/platform/simple_event.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <ctime>

#include "lib/platform/monotonic_time.h"

namespace {

static_assert(std::atomic<uint32_t>::is_always_lock_free && sizeof(std::atomic<uint32_t>) == 4);

// False at the deadline, true for every other reason to look at the word again. Null: no deadline.
bool SleepWhileZero(std::atomic<uint32_t>* word, const timespec* deadline) {
  const long result = syscall(SYS_futex, word, FUTEX_WAIT_BITSET_PRIVATE, 0, deadline, nullptr,
                              FUTEX_BITSET_MATCH_ANY);
  return result == 0 || errno != ETIMEDOUT;
}

}  // namespace

void SimpleEvent::Set() {
  CheckMagic(this);
  if (m_raised.exchange(1, std::memory_order_acq_rel) == 1) return;
  // The waiter may have seen the word and be gone with the event: the kernel only takes the address
  // for a name. errno is the interrupted code's.
  const int saved = errno;
  syscall(SYS_futex, &m_raised, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
  errno = saved;
}

bool SimpleEvent::Wait(int32_t timeout_ms) {
  CheckMagic(this);
  constexpr int64_t kNanosecondsPerSecond = 1'000'000'000;
  const bool limited = timeout_ms > 0;
  const int64_t due = limited ? lattix::monotonic_time_after_ms(timeout_ms) : 0;
  timespec deadline{};
  deadline.tv_sec = due / kNanosecondsPerSecond;
  deadline.tv_nsec = due % kNanosecondsPerSecond;
  for (bool in_time = true;;) {
    if (m_raised.exchange(0, std::memory_order_acq_rel) == 1) return true;
    if (!in_time) return false;
    in_time = SleepWhileZero(&m_raised, limited ? &deadline : nullptr);
  }
}
