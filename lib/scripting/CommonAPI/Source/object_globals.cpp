#include "lib/scripting/CommonAPI/Include/object_globals.h"

#include <csignal>

namespace {

// A thread gets the signal mask of the one that starts it. Signals are taken by threads that know
// what to do with them: the script's, or one made for the purpose.
class AllSignalsBlocked {
 public:
  AllSignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &m_before);
  }
  ~AllSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
  AllSignalsBlocked(const AllSignalsBlocked&) = delete;
  AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;

 private:
  sigset_t m_before;
};

}  // namespace

PollThread& KelvoObjectGlobals::GetPollThread() {
  const std::lock_guard lock(m_mutex);
  if (!PollThread::Exists()) {
    const AllSignalsBlocked blocked;
    m_poll_thread = std::make_unique<PollThread>();
  }
  return PollThread::GetInstance();
}

HardwareConfig& KelvoObjectGlobals::GetHardwareConfig() {
  const std::lock_guard lock(m_mutex);
  if (!HardwareConfig::Exists()) m_hardware_config = std::make_unique<HardwareConfig>();
  return HardwareConfig::GetInstance();
}

DispatchQueue& KelvoObjectGlobals::GetFlushQueue() {
  const std::lock_guard lock(m_mutex);
  if (m_flush_queue == nullptr) {
    const AllSignalsBlocked blocked;
    m_flush_queue = std::make_unique<DispatchQueue>("flush");
  }
  return *m_flush_queue;
}
