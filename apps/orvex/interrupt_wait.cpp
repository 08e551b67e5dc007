#include "apps/orvex/interrupt_wait.h"

#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <vector>

#include "lib/platform/errno_exception.h"
#include "lib/platform/monotonic_time.h"

namespace {

constexpr int kSignals[] = {SIGINT, SIGHUP};

}  // namespace

InterruptWait::InterruptWait() {
  for (const int signal : kSignals) lattix::SignalDispatcher::GetInstance().Attach(signal, this);
}

InterruptWait::~InterruptWait() {
  for (const int signal : kSignals) lattix::SignalDispatcher::GetInstance().Detach(signal, this);
}

void InterruptWait::OnSignal(const siginfo_t&) {
  if (m_interrupted.exchange(true)) return;
  m_waker.Wake();
  m_stop.request_stop();
}

void InterruptWait::Check() const {
  if (m_interrupted) throw std::runtime_error("Interrupted");
}

bool InterruptWait::Poll(std::span<pollfd> descriptors, int64_t deadline) const {
  std::vector<pollfd> all(descriptors.begin(), descriptors.end());
  all.push_back({m_waker.GetReadFd(), POLLIN, 0});
  for (;;) {
    Check();
    const int64_t left = std::max<int64_t>(deadline - lattix::get_monotonic_time(), 0);
    const timespec timeout = {left / 1'000'000'000, left % 1'000'000'000};
    const int ready = ::ppoll(all.data(), all.size(), &timeout, nullptr);
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) throw lattix::ErrnoException(errno, "ppoll");
    Check();
    std::copy_n(all.begin(), descriptors.size(), descriptors.begin());
    return ready > 0;
  }
}
