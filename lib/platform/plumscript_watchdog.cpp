// The first check after the script's own deadline only takes the counter: what the counter was when
// the deadline was set says nothing about what the script does now.
#include "lib/platform/plumscript_watchdog.h"

#include <utility>

#include "lib/platform/log.h"
#include "lib/platform/monotonic_time.h"

namespace {

constexpr std::chrono::nanoseconds kExtension = std::chrono::seconds(2);
constexpr int kMaxExtensions = PlumscriptWatchdog::kExecutingLimit / kExtension;

int64_t DeadlineAfter(std::chrono::nanoseconds time) {
  return lattix::monotonic_time_after_ns(time.count());
}

}  // namespace

PlumscriptWatchdog::PlumscriptWatchdog(std::string name,
                                       const std::atomic<uint32_t>& progress_counter)
    : m_name(std::move(name)), m_progress_counter(progress_counter) {}

PlumscriptWatchdog::~PlumscriptWatchdog() {
  Pause();
  CheckDestruction();
}

void PlumscriptWatchdog::Arm(std::chrono::seconds timeout) {
  Pause();
  m_extensions = 0;
  Register(DeadlineAfter(timeout));
  m_armed = true;
}

void PlumscriptWatchdog::Pause() {
  if (std::exchange(m_armed, false)) Unregister();
}

void PlumscriptWatchdog::Defer(std::chrono::seconds timeout) {
  if (!m_armed) return;
  m_extensions = 0;
  Client::Defer(DeadlineAfter(timeout));
}

bool PlumscriptWatchdog::OnTimeout() {
  const uint32_t counter = m_progress_counter.load(std::memory_order_relaxed);
  const uint32_t saved = std::exchange(m_saved_counter, counter);
  const int extensions = m_extensions.fetch_add(1);
  const bool stuck = extensions > 0 && counter == saved;
  if (stuck || extensions >= kMaxExtensions) {
    lattix::Log("{} watchdog timeout {}.\n", m_name,
                stuck ? "with script stuck" : "with script executing");
    return true;
  }
  Client::Defer(DeadlineAfter(kExtension));
  return false;
}
