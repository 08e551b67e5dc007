// What a reboot ends with is always SIGTERM to this process, whoever sends it: the service manager
// on a device, this file in a device root. So there is one way to end, the fast exit.
#include "lib/hardware/power_manager.h"

#include <signal.h>
#include <unistd.h>

#include <string>

#include "lib/platform/device_file.h"
#include "lib/platform/device_path.h"
#include "lib/platform/log.h"
#include "lib/platform/spawn_process.h"

using lattix::Log;

void PowerManager::Reboot(RebootReason reason) {
  Log("Rebooting the system (reason {})\n", static_cast<int>(reason));
  Ask("reboot");
}

void PowerManager::ShutDown() {
  Log("Shutting the system down\n");
  Ask("poweroff");
}

void PowerManager::Suspend(std::optional<unsigned> seconds) {
  Log("Suspending the system\n");
  if (lattix::InDeviceRoot()) return;
  constexpr char kAlarm[] = "/sys/class/rtc/rtc0/wakealarm";
  if (seconds) {
    lattix::WriteDeviceFile(kAlarm, "0");  // an alarm that is set refuses another
    lattix::WriteDeviceFile(kAlarm, "+" + std::to_string(*seconds));
  }
  lattix::WriteDeviceFile("/sys/power/state", "mem");
}

void PowerManager::Ask(const char* verb) {
  if (lattix::InDeviceRoot()) {
    ::kill(::getpid(), SIGTERM);
    return;
  }
  try {
    // It returns when the request is queued. A device that stays up after all is told in the log.
    SpawnProcess manager("systemctl", {"--no-block", verb});
    manager.Execute(SpawnProcess::kNullStdin | SpawnProcess::kNewSession);
    const int status = manager.Wait();
    if (status != 0) Log("systemctl {} failed with status {}\n", verb, status);
  } catch (const std::exception& e) {
    Log("systemctl {} failed: {}\n", verb, e.what());
  }
}
