// The watchdog over the supervisor process.
#pragma once

#include <functional>

#include "lib/platform/multi_watchdog.h"

// The supervisor reports that it is alive through whoever runs it, who calls Defer. When it
// stops, it is told to abort, so that its crash is recorded; the device is reset when that
// does not end it.
class BootstrapWatchdog final : public MultiWatchdog::Client {
 public:
  // How the watchdog reaches the supervisor and the settings. Called on the watchdog's thread with
  // its mutex held: must not block or throw.
  struct Supervisor {
    // Whether the setting "watchdog_test" of "bootstrap" is on: then the device is never reset.
    std::function<bool()> is_test_mode;
    std::function<bool()> is_running;
    // Makes the process end with a crash record (SIGABRT).
    std::function<void()> abort;
  };

  // Supervises from now on.
  BootstrapWatchdog(Supervisor supervisor, int64_t deadline);
  ~BootstrapWatchdog() override;

  bool OnTimeout() override;
  std::string GetName() const override { return "BootstrapWatchdog"; }

 private:
  const Supervisor m_supervisor;
  bool m_told_to_abort = false;  // touched on the watchdog's thread only
};
