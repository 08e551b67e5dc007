// How short of memory the device is.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "lib/platform/timer_queue.h"

enum class MemoryPressure {
  kNone,
  kModerate,  // some tasks have waited for memory for 10 % of the last 10 seconds
  kCritical,  // all of them have
};

// The level that a text in the form of "/proc/pressure/memory" tells; what it lacks counts as none.
MemoryPressure MemoryPressureOf(const std::string& figures);

// Reads the kernel's pressure stall figures ("/proc/pressure/memory") every few seconds on the poll
// thread's timers and tells its listeners when the level has changed. A kernel that has no such
// figures is asked once.
class MemoryPressureMonitor : public TimerClient {
 public:
  // Called on the poll thread, with its mutex held: must not block.
  class Listener {
   public:
    virtual void OnMemoryPressure(MemoryPressure level) = 0;

   protected:
    ~Listener() = default;
  };

  // Null when the registry key "html" / "mpm" disables it ("0", "off", "no" or "false"), which is
  // logged.
  static std::unique_ptr<MemoryPressureMonitor> Create();

  // Stops the periodic poll.
  ~MemoryPressureMonitor();
  MemoryPressureMonitor(const MemoryPressureMonitor&) = delete;
  MemoryPressureMonitor& operator=(const MemoryPressureMonitor&) = delete;

  // To be called before the poll starts; the listener outlives it.
  void AddListener(Listener* listener) { m_listeners.push_back(listener); }

  // The poll thread exists. When Stop has returned no listener is being called.
  void StartPeriodicPoll();
  void StopPeriodicPoll();

 private:
  MemoryPressureMonitor() = default;
  void Poll(void*);

  std::vector<Listener*> m_listeners;
  MemoryPressure m_level = MemoryPressure::kNone;  // touched on the poll thread
};
