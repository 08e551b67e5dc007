// orvex: the player.
//
// What the process consists of, in the order in which it is made. Each function below builds one
// layer, runs the next one on top of it, and takes its own down again, so that the order of the
// tear-down is that of the declarations backwards; where it is not, the code says so. An exception
// unwinds the same way before it ends the process.
#include <ares.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <memory>
#include <optional>

#include "apps/orvex/audio_lines.h"
#include "apps/orvex/console_terminal.h"
#include "apps/orvex/exit_status.h"
#include "apps/orvex/glib_log.h"
#include "apps/orvex/orvex_shell.h"
#include "apps/orvex/pid_file_writer.h"
#include "apps/orvex/preload.h"
#include "lib/hardware/device_secrets/key_files.h"
#include "lib/hardware/hardware_config.h"
#include "lib/hardware/memory_pressure_monitor.h"
#include "lib/hardware/power_manager.h"
#include "lib/hardware/rtc_calibration.h"
#include "lib/hardware/video_input.h"
#include "lib/hardware/watchdog.h"
#include "lib/javascript/dbus_ps_object_server.h"
#include "lib/javascript/html_renderer_launcher.h"
#include "lib/javascript/memory_pressure_grpc_client.h"
#include "lib/platform/assertion.h"
#include "lib/platform/async_signals.h"
#include "lib/platform/bus/dbus_dispatcher.h"
#include "lib/platform/cascade_time.h"
#include "lib/platform/device_file.h"
#include "lib/platform/device_path.h"
#include "lib/platform/firmware_version.h"
#include "lib/platform/log.h"
#include "lib/platform/network_time.h"
#include "lib/platform/poll_thread.h"
#include "lib/platform/registry_bus/registry_client_impl.h"
#include "lib/platform/tracing.h"
#include "lib/scripting/CommonAPI/Include/object_globals.h"

using lattix::Log;

namespace {

// A standard stream that is closed would be the number of the next file opened, a device or the
// registry, and what is printed would go there.
void OpenStandardStreams() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++) {
    // The lowest free number is the one that was just found to be free.
    if (::fcntl(fd, F_GETFD) < 0 && ::open("/dev/null", O_RDWR) < 0) return;
  }
}

// Whoever shuts the system down leaves it, so that no player starts meanwhile.
bool StoppingMarkerExists() {
  struct stat marker;
  return ::lstat(lattix::DevicePath("/var/run/orvex.stopping").c_str(), &marker) == 0;
}

class AresLibrary {
 public:
  AresLibrary() { ::ares_library_init(ARES_LIB_INIT_ALL); }
  ~AresLibrary() { ::ares_library_cleanup(); }
  AresLibrary(const AresLibrary&) = delete;
  AresLibrary& operator=(const AresLibrary&) = delete;
};

class Trace {
 public:
  Trace() { tracing::Start(); }
  ~Trace() { tracing::Stop(); }
  Trace(const Trace&) = delete;
  Trace& operator=(const Trace&) = delete;
};

// The monitor, if there is one, asks for the pressure as long as this exists.
class PeriodicPoll {
 public:
  explicit PeriodicPoll(MemoryPressureMonitor* monitor) : m_monitor(monitor) {
    if (m_monitor != nullptr) m_monitor->StartPeriodicPoll();
  }
  ~PeriodicPoll() {
    if (m_monitor != nullptr) m_monitor->StopPeriodicPoll();
  }
  PeriodicPoll(const PeriodicPoll&) = delete;
  PeriodicPoll& operator=(const PeriodicPoll&) = delete;

 private:
  MemoryPressureMonitor* m_monitor;
};

// The renderer's launcher is in its slot as long as this exists, unless the fast exit takes it.
class RendererLauncherInSlot {
 public:
  RendererLauncherInSlot() {
    auto launcher = CreateHtmlRendererLauncher();
    m_launcher = launcher.get();
    HtmlRendererSlot::Set(std::move(launcher));
  }
  ~RendererLauncherInSlot() { HtmlRendererSlot::Set(nullptr); }
  RendererLauncherInSlot(const RendererLauncherInSlot&) = delete;
  RendererLauncherInSlot& operator=(const RendererLauncherInSlot&) = delete;

  HtmlRendererLauncher& launcher() { return *m_launcher; }

 private:
  HtmlRendererLauncher* m_launcher;
};

// The board's clock governor raises the frequencies while a player runs.
void TellSystemMonitor() {
  try {
    lattix::WriteDeviceFile("/sys/system_monitor/system_status", "p");
  } catch (const std::exception& e) {
    Log("Failed to write Rockchip system_monitor: {}\n", e.what());
  }
}

// Whatever depends on the clock has its own listener (CascadeTime::Changes). This is for whoever
// reads a log whose times jump.
void TellClockChange() {
  Log("The network has set the clock to {}\n",
      CascadeTime::ToUtcIsoString(CascadeTime::ReadPresentTimeBase()));
}

int RunShell() {
  OrvexShell shell;
  MultiWatchdog& watchdog = MultiWatchdog::GetInstance();
  watchdog.SetRunning(true);
  const int status = shell.Start();
  watchdog.SetRunning(false);
  return status;
}

// What the script host and its scripts reach.
int RunServices() {
  PowerManager power_manager;
  NetworkTimeThread network_time(TellClockChange);
  KeyFileSecrets secrets;
  KelvoObjectGlobals globals;
  DbusPsObjectServerFactory object_server_factory;
  const std::unique_ptr<MemoryPressureMonitor> monitor = MemoryPressureMonitor::Create();
  std::optional<MemoryPressureGRPCClient> pressure_client;
  std::unique_ptr<RTCCalibration> rtc_calibration;
  int status;
  {
    RendererLauncherInSlot renderer;
    if (monitor != nullptr) monitor->AddListener(&pressure_client.emplace(renderer.launcher()));
    // Ends before the launcher, which the monitor tells.
    const PeriodicPoll periodic_poll(monitor.get());
    OpenAudioLines();
    rtc_calibration = std::make_unique<RTCCalibrationDummyImpl>();
    status = RunShell();
  }
  rtc_calibration.reset();
  MuteAudioLines();
  return status;
}

int RunOnHardware() {
  HardwareConfig hardware_config;
  TellSystemMonitor();
  RouteGlibLog();
  VideoInput video_input;
  PollThread poll_thread;
  Trace trace;
  if (!CascadeLibrary_InitializeCascadeTime()) {
    ::puts("Failed to initialise cascade.\r");
    return kExitService;
  }
  return RunServices();
}

int RunSupervised() {
  AresLibrary ares;
  // The watchdog is made first, as it limits the time that all the rest takes to start, and goes
  // before the bus connection, whose thread may have to be waited for.
  std::optional<EnsureDBusDispatcher> bus;
  int status;
  {
    MultiWatchdogImpl watchdog;
    bus.emplace(true);
    status = RunOnHardware();
    RestoreConsoleTerminal();
  }
  Log("Orvex application tarsk-{} exit\n", lattix::FirmwareVersionText());
  return status;
}

int RunPlayer() {
  OpenStandardStreams();
  UseRegistryBus();
  StripPreload("jemalloc");
  ::setvbuf(stderr, nullptr, _IONBF, 0);
  if (::getpgrp() != ::getpid()) {
    Log("Orvex application is not a process group leader. This is bad.\n");
  }
  Log("Orvex application tarsk-{} starting\n", lattix::FirmwareVersionText());
  lattix::ConfigureSignals(lattix::kBlockSignals);
  for (const int ignored : {SIGPIPE, SIGXFSZ, SIGTTIN, SIGTTOU}) ::signal(ignored, SIG_IGN);
  SetUpConsoleTerminal();
  if (::setvbuf(stdout, nullptr, _IONBF, 0) != 0) {
    ::perror("setvbuf");
    LATTIX_ASSERT(false);
  }
  std::set_terminate(lattix::TerminateHandler);
  lattix::SignalDispatcher signal_dispatcher;
  PidFileWriter pid_file_writer;
  const FlowingOutput flowing_output;
  return StoppingMarkerExists() ? kExitTerminated : RunSupervised();
}

}  // namespace

int main() {
  try {
    return RunPlayer();
  } catch (...) {
    // Caught so that the stack is unwound; the terminate handler reports it.
    throw;
  }
}
