// The flag carries the event, the condition variable only wakes: so a wake-up that finds the flag
// lowered (another waiter took it) waits on, and one at the deadline still takes a raised flag.
#include "lib/platform/simple_event.h"

#include "lib/platform/monotonic_time.h"

void SimpleEvent::Set() {
  CheckMagic(this);
  std::lock_guard lock(m_mutex);
  m_set = true;
  // Notified under the lock: the waiter may destroy the event as soon as it has it.
  m_raised.notify_all();
}

bool SimpleEvent::Wait(int32_t timeout_ms) {
  CheckMagic(this);
  const auto raised = [this] { return m_set; };
  std::unique_lock lock(m_mutex);
  if (timeout_ms > 0) {
    if (!m_raised.wait_until(lock, lattix::monotonic_time_after_ms(timeout_ms), raised)) {
      return false;
    }
  } else {
    m_raised.wait(lock, raised);
  }
  m_set = false;
  return true;
}
