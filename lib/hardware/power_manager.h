// Rebooting the device and switching it off.
#pragma once

#include <optional>

#include "lib/platform/singleton.h"

// Why the device is rebooted; the number is part of the log line.
enum class RebootReason {
  kRequested = 4,  // a script, the script host or the operator asked for it
};

// The one place that may stop the machine. On a device the service manager is asked, which ends
// this process by SIGTERM as its own first step. In a device root the machine is not ours: the
// request is logged and ends this process only, in the way that the device's SIGTERM would.
//
// Callable from any thread; both requests return, the end comes a little later. A second request
// changes nothing.
class PowerManager : public lattix::Singleton<PowerManager> {
 public:
  void Reboot(RebootReason reason);
  void ShutDown();
  // Suspends the system and returns when it runs again; with a number of seconds, it wakes up by
  // itself after so long. In a device root the request is only logged. Throws
  // lattix::ErrnoException.
  void Suspend(std::optional<unsigned> seconds);

 private:
  void Ask(const char* verb);
};
