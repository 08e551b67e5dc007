// The guards register last in construction and unregister first in destruction, so the watchdog's
// thread only ever meets whole objects.
#include "lib/platform/watched_scope.h"

#include <utility>

#include "lib/platform/monotonic_time.h"

namespace watchdog {

WatchedScope::WatchedScope(std::string name, std::chrono::nanoseconds timeout)
    : m_name(std::move(name)) {
  Register(lattix::monotonic_time_after_ns(timeout.count()));
}

WatchedScope::~WatchedScope() {
  Unregister();
  CheckDestruction();
}

EarlyWarningWatchedScope::EarlyWarningWatchedScope(std::string name,
                                                   std::chrono::nanoseconds timeout,
                                                   std::function<void()> on_early_warning)
    : m_name(std::move(name)), m_timeout(timeout), m_on_early_warning(std::move(on_early_warning)) {
  Register(lattix::monotonic_time_after_ns(timeout.count()));
}

EarlyWarningWatchedScope::~EarlyWarningWatchedScope() {
  Unregister();
  CheckDestruction();
}

bool EarlyWarningWatchedScope::OnTimeout() {
  if (std::exchange(m_warned, true)) return true;
  m_on_early_warning();
  Defer(lattix::monotonic_time_after_ns(m_timeout.count()));
  return false;
}

}  // namespace watchdog
