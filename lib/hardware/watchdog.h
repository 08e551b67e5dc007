// The device's hardware watchdog, and the thread that prods it.
#pragma once

#include <chrono>
#include <memory>

#include "lib/platform/multi_watchdog.h"

// Owns "/dev/watchdog". Once it is open the hardware resets the device unless it is prodded, also
// after this process has ended, whatever the reason: closing does not stop it. So a process that
// ends in order leaves the next one as much time as the hardware gives.
class MultiWatchdogImpl final : public MultiWatchdog {
 public:
  struct Timing {
    std::chrono::nanoseconds startup = std::chrono::seconds(150);  // to enter the running phase
    std::chrono::nanoseconds shutdown = std::chrono::seconds(60);  // to end, after leaving it
    // A fraction of the kernel's 20 seconds, so that a few late prods do no harm.
    std::chrono::nanoseconds prod_interval = std::chrono::seconds(5);
    // How much later than announced the reset of ExpireNow may come.
    std::chrono::nanoseconds expiry_margin = std::chrono::seconds(5);
  };

  // Opens the device and starts the thread "WatchDog", in the start-up phase. Throws
  // lattix::ErrnoException when the device cannot be opened.
  MultiWatchdogImpl() : MultiWatchdogImpl(Timing()) {}
  explicit MultiWatchdogImpl(const Timing& timing);
  // Ends the thread, prods once more and closes the device. No client is registered any more.
  ~MultiWatchdogImpl() override;

  void ExpireNow() override;
  void SetRunning(bool running) override;
  void Reevaluate() override;
  void AddClient(Client* client) override;
  void RemoveClient(Client* client) override;
  void CheckClientNotRegistered(Client* client) override;

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};
