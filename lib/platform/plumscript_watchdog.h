// The watchdog over a running script.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

#include "lib/platform/multi_watchdog.h"

// The script has to come back to its event loop, which calls Defer, before the deadline. A script
// that misses it is not given up at once: as long as the virtual machine's progress counter moves
// it is executing, and gets two seconds at a time, up to a limit. A counter that has stood still
// for two seconds after the deadline means a script stuck in a native call.
//
// Arm, Pause and Defer belong to the script's thread. Works, and supervises nothing, in a program
// without a watchdog.
class PlumscriptWatchdog final : public MultiWatchdog::Client {
 public:
  // The time by which an executing script may overrun its deadline before it is given up.
  static constexpr std::chrono::seconds kExecutingLimit{60};

  // The name is the interpreter's. The counter is only read and must outlive the watchdog.
  PlumscriptWatchdog(std::string name, const std::atomic<uint32_t>& progress_counter);
  ~PlumscriptWatchdog() override;

  // Starts to supervise with a deadline that lies the timeout (above 0) from now. Armed already, it
  // gets that new deadline.
  void Arm(std::chrono::seconds timeout);
  // Stops supervising until armed again: waiting for an event is not being stuck.
  void Pause();
  bool IsArmed() const { return m_armed; }
  // Moves the deadline to that time from now; never earlier. Without effect when paused.
  void Defer(std::chrono::seconds timeout);

  bool OnTimeout() override;
  std::string GetName() const override { return m_name; }

 private:
  const std::string m_name;
  const std::atomic<uint32_t>& m_progress_counter;
  bool m_armed = false;  // the script thread's

  // By how many extensions the present deadline has been overrun; 0 when the script has deferred it
  // since. Written by both threads: the last one to move the deadline is right about it.
  std::atomic<int> m_extensions{0};
  uint32_t m_saved_counter = 0;  // at the previous check; the watchdog thread's
};
