// The services that script objects reach.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>

#include "lib/hardware/hardware_config.h"
#include "lib/platform/dispatch_queue.h"
#include "lib/platform/poll_thread.h"
#include "lib/platform/singleton.h"
#include "lib/scripting/filename_mapper.h"

class AutoScriptInvoker;

// Created by whoever starts the process, before the first script, and destroyed after the last
// object is gone. Members may be called from any thread.
class KelvoObjectGlobals : public lattix::Singleton<KelvoObjectGlobals> {
 public:
  KelvoObjectGlobals() = default;

  FilenameMapper& GetFilenameMapper() { return m_filename_mapper; }

  // The process's poll thread. A program whose scripts may need none does not create it: the first
  // object that asks starts it, with all signals blocked, and it ends with the globals.
  PollThread& GetPollThread();

  // The unit's description. Like the poll thread: of whoever starts the process, or made for the
  // first object that asks.
  HardwareConfig& GetHardwareConfig();

  // Where files are made durable without the script waiting for the medium. As with the poll
  // thread, the first user starts it; what is still queued when the globals go is dropped.
  DispatchQueue& GetFlushQueue();

  // What plays the device's presentation; null in a program that runs scripts by itself, and while
  // the player is supervised. Whoever sets it takes it back before the script runtime's services
  // go. The class is the script host's, which this library knows nothing of: hence the shared
  // pointer, which can destroy what it does not know.
  std::shared_ptr<AutoScriptInvoker> GetAutoScriptInvoker() const {
    const std::lock_guard lock(m_mutex);
    return m_invoker;
  }
  void SetAutoScriptInvoker(std::shared_ptr<AutoScriptInvoker> invoker) {
    const std::lock_guard lock(m_mutex);
    m_invoker.swap(invoker);  // the one before is destroyed without the lock
  }

  // Whether scripts place their widgets in zones; off until a script asks for it.
  bool IsZoneSupportEnabled() const { return m_zone_support; }
  void EnableZoneSupport(bool enable) { m_zone_support = enable; }

  // Whether the operator has opened everything that manufacture may do, on a unit that allows it.
  bool IsManufacturingMode() const { return m_manufacturing_mode; }
  void EnableManufacturingMode() { m_manufacturing_mode = true; }

 private:
  FilenameMapper m_filename_mapper;
  std::atomic<bool> m_zone_support{false};
  std::atomic<bool> m_manufacturing_mode{false};
  mutable std::mutex m_mutex;
  // Guarded by m_mutex; null: somebody else's, or none.
  std::unique_ptr<PollThread> m_poll_thread;
  std::unique_ptr<HardwareConfig> m_hardware_config;
  std::unique_ptr<DispatchQueue> m_flush_queue;
  std::shared_ptr<AutoScriptInvoker> m_invoker;
};
