// Guards around operations that must finish in bounded time.
#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "lib/platform/multi_watchdog.h"

namespace watchdog {

// Lets the device be reset when the scope is not left in time.
//
// Like the early-warning guard, it belongs to the thread that runs the operation, and does nothing
// in a program without a watchdog.
class WatchedScope final : public MultiWatchdog::Client {
 public:
  WatchedScope(std::string name, std::chrono::nanoseconds timeout);
  ~WatchedScope() override;

  bool OnTimeout() override { return true; }
  std::string GetName() const override { return m_name; }

 private:
  const std::string m_name;
};

// Calls back when the scope is not left in time, and lets the device be reset when it is not left
// within the same time again.
class EarlyWarningWatchedScope final : public MultiWatchdog::Client {
 public:
  // The callback runs once, on the watchdog's thread with its mutex held: it must not
  // block or throw.
  EarlyWarningWatchedScope(std::string name, std::chrono::nanoseconds timeout,
                           std::function<void()> on_early_warning);
  ~EarlyWarningWatchedScope() override;

  bool OnTimeout() override;
  std::string GetName() const override { return m_name; }

 private:
  const std::string m_name;
  const std::chrono::nanoseconds m_timeout;
  const std::function<void()> m_on_early_warning;
  bool m_warned = false;  // touched on the watchdog's thread only
};

}  // namespace watchdog
