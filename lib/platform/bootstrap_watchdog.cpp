// A hung supervisor gets one order to abort and some time to leave its record. The time has a
// random part: devices that hang together, because of one server or one broken update, then do not
// all write their records, end and come back at the same moment.
#include "lib/platform/bootstrap_watchdog.h"

#include <chrono>
#include <random>
#include <utility>

#include "lib/platform/log.h"
#include "lib/platform/monotonic_time.h"

namespace {

// The test mode's line comes once in this time.
constexpr std::chrono::nanoseconds kTestModeInterval = std::chrono::seconds(10);
// A crash record is written to a slow card; well below what a watcher of the device would wait.
constexpr int kMinAbortSeconds = 10;
constexpr int kMaxAbortSeconds = 20;

}  // namespace

BootstrapWatchdog::BootstrapWatchdog(Supervisor supervisor, int64_t deadline)
    : m_supervisor(std::move(supervisor)) {
  Register(deadline);
}

BootstrapWatchdog::~BootstrapWatchdog() {
  Unregister();
  CheckDestruction();
}

bool BootstrapWatchdog::OnTimeout() {
  if (m_supervisor.is_test_mode()) {
    lattix::Log("bootstrap.js not responding, but watchdog in test mode\n");
    Defer(lattix::monotonic_time_after_ns(kTestModeInterval.count()));
    return false;
  }
  if (!m_supervisor.is_running() || std::exchange(m_told_to_abort, true)) return true;
  std::random_device random;
  const int seconds = std::uniform_int_distribution(kMinAbortSeconds, kMaxAbortSeconds)(random);
  lattix::Log("Telling Node to abort.\n");
  m_supervisor.abort();
  Defer(lattix::monotonic_time_after_ms(1000 * seconds));
  return false;
}
