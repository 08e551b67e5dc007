#include "lib/scripting/CommonAPI/Include/object_globals.h"

#include "lib/platform/signal_mask.h"

PollThread& KelvoObjectGlobals::GetPollThread() {
  const std::lock_guard lock(m_mutex);
  if (!PollThread::Exists()) {
    const lattix::AllSignalsBlocked blocked;
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
    const lattix::AllSignalsBlocked blocked;
    m_flush_queue = std::make_unique<DispatchQueue>("flush");
  }
  return *m_flush_queue;
}
