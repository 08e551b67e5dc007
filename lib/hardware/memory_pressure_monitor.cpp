// The kernel averages over 10 seconds, so that asking more often than every few seconds tells
// nothing new, and costs an idle player wake-ups.
#include "lib/hardware/memory_pressure_monitor.h"

#include <cstdio>

#include "lib/platform/device_file.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/log.h"
#include "lib/platform/monotonic_time.h"
#include "lib/platform/poll_thread.h"
#include "lib/platform/registry_client.h"

using lattix::Log;

namespace {

constexpr int64_t kPollMilliseconds = 5000;
constexpr double kStalledPercent = 10;

// "some avg10=0.12 avg60=..." or "full avg10=...", of the kernel's document on pressure stall
// information.
double Average(const std::string& figures, const char* row) {
  const size_t at = figures.find(row);
  double percent = 0;
  if (at == std::string::npos ||
      std::sscanf(figures.c_str() + at, "%*s avg10=%lf", &percent) != 1) {
    return 0;
  }
  return percent;
}

bool IsDisabled() {
  const std::string setting = Registry::Setting("html", "mpm");
  return setting == "0" || setting == "off" || setting == "no" || setting == "false";
}

}  // namespace

MemoryPressure MemoryPressureOf(const std::string& figures) {
  if (Average(figures, "full") >= kStalledPercent) return MemoryPressure::kCritical;
  if (Average(figures, "some") >= kStalledPercent) return MemoryPressure::kModerate;
  return MemoryPressure::kNone;
}

std::unique_ptr<MemoryPressureMonitor> MemoryPressureMonitor::Create() {
  if (IsDisabled()) {
    Log("MemoryPressureMonitor: disabled via registry key html/mpm\n");
    return nullptr;
  }
  return std::unique_ptr<MemoryPressureMonitor>(new MemoryPressureMonitor);
}

MemoryPressureMonitor::~MemoryPressureMonitor() {
  if (PollThread::Exists()) StopPeriodicPoll();
}

void MemoryPressureMonitor::StartPeriodicPoll() {
  PollThread::GetInstance().AddTimer(this, &MemoryPressureMonitor::Poll, nullptr,
                                     lattix::monotonic_time_after_ms(kPollMilliseconds));
}

void MemoryPressureMonitor::StopPeriodicPoll() {
  PollThread::GetInstance().CancelTimer(this, &MemoryPressureMonitor::Poll, nullptr);
}

void MemoryPressureMonitor::Poll(void*) {
  std::string figures;
  try {
    figures = lattix::ReadDeviceFile("/proc/pressure/memory");
  } catch (const lattix::ErrnoException&) {
    return;  // no such figures: the timer is not set again
  }
  const MemoryPressure level = MemoryPressureOf(figures);
  if (level != m_level) {
    m_level = level;
    for (Listener* listener : m_listeners) listener->OnMemoryPressure(level);
  }
  StartPeriodicPoll();
}
