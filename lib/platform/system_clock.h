// The wall clock, and the battery-backed clock behind it.
//
// The one class that knows whether they are the machine's. On a device they are the kernel's clock
// and the board's real-time clock. In a device root they are the machine's clock plus an offset
// that is kept in the root ("/var/lib/orvex/clock"), so that setting them changes nothing outside.
// All code that reads wall time reads it here, through CascadeTime (cascade_time.h).
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>

#include "lib/platform/listener_list.h"

namespace lattix {

// Times are nanoseconds since 1970, UTC. All members may be called from any thread; failures are
// ErrnoException.
class SystemClock {
 public:
  // Lives as long as the process.
  static SystemClock& Get();

  int64_t Now();
  // Sets the clock, and the hardware clock with it, and tells the listeners. A time before 1970, or
  // one that the clock cannot hold, is EINVAL; nothing has changed then. A hardware clock that
  // cannot be set is logged: the clock is right all the same.
  void Set(int64_t utc);

  // ENOENT on a board without such a clock.
  void SetHardwareClock(int64_t utc);
  // Makes the hardware clock one that was never set, as after a change of its battery.
  void UnsetHardwareClock();

  // Whether the clock can be believed: it was set since the process started, or started from a
  // hardware clock that had been set.
  bool IsValid();

  // Called, on the thread that sets it, after the clock was set. A clock that somebody outside the
  // process sets is not told here; whoever waits for wall time asks the kernel
  // (TFD_TIMER_CANCEL_ON_SET).
  ListenerList<>& Changes() { return m_changes; }

  // Forgets what is known of the clock: at the start of a process, and of a test with another root.
  void Reload();

 private:
  // What the device root keeps.
  struct RootState {
    int64_t offset = 0;
    bool hardware_is_set = true;  // the machine's own clock plays the part
  };

  SystemClock();
  RootState LoadRoot();
  void SaveRoot(const RootState& state);

  ListenerList<> m_changes;
  std::mutex m_mutex;  // one change at a time
  std::atomic<bool> m_in_root;
  std::atomic<int64_t> m_offset;  // 0 on a device
  std::atomic<bool> m_was_set;
  std::optional<bool> m_hardware_is_set;  // guarded by m_mutex; none: not asked yet
};

}  // namespace lattix
