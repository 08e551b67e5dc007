// The player itself: ending it, its clock, its versions, its log, scripts that the operator starts.
#include "apps/orvex/commands_system.h"

#include <signal.h>
#include <sys/stat.h>

#include <climits>
#include <cstdio>
#include <ctime>
#include <optional>
#include <string>

#include "apps/orvex/command_numbers.h"
#include "apps/orvex/console_terminal.h"
#include "apps/orvex/exit_status.h"
#include "apps/orvex/interruptible_output.h"
#include "apps/orvex/orvex_shell.h"
#include "lib/hardware/boot_versions.h"
#include "lib/hardware/device_secrets.h"
#include "lib/hardware/hardware_config.h"
#include "lib/hardware/power_manager.h"
#include "lib/platform/async_signals.h"
#include "lib/platform/cascade_time.h"
#include "lib/platform/device_path.h"
#include "lib/platform/firmware_version.h"
#include "lib/platform/kernel_log.h"
#include "lib/platform/log.h"
#include "lib/platform/registry_client.h"
#include "lib/platform/spawn_process.h"
#include "lib/scripting/script_interpreter.h"

namespace commands {

namespace {

constexpr char kPtpStatusPath[] = "/var/run/ptp-status";

// The words from that one on, with single spaces between them.
std::string JoinedFrom(const CommandLine& command, size_t first) {
  std::string text;
  for (size_t i = first; i < command.words.size(); ++i) {
    if (i > first) text += ' ';
    text += command.words[i];
  }
  return text;
}

// Ends the run when the operator's terminal vanishes: nobody could break it any more.
class EndOnHangUp final : public lattix::SignalObserver {
 public:
  explicit EndOnHangUp(ScriptInterpreter& interpreter) : m_interpreter(interpreter) {
    lattix::SignalDispatcher::GetInstance().Attach(SIGHUP, this);
  }
  ~EndOnHangUp() { lattix::SignalDispatcher::GetInstance().Detach(SIGHUP, this); }

  void OnSignal(const siginfo_t&) override { m_interpreter.Stop(); }

 private:
  ScriptInterpreter& m_interpreter;
};

// Runs a script until it asks for something other than to be run again.
void RunScript(const CommandLine& command, const std::string& file, int argc,
               const char* const* argv) {
  ScriptInterpreterOptions options;
  options.console = command.orvex.debugger_console().GetIoConsole();
  options.debug = !Registry::Setting("plumscript", "debug").empty();
  options.interruptible = true;
  for (;;) {
    const auto interpreter = CreateScriptInterpreter(options);
    const EndOnHangUp end_on_hang_up(*interpreter);
    switch (interpreter->Run(file, "", argc, argv, nullptr)) {
      case ScriptInterpreter::kRestartScript:
        command.Print("Script requested the script be restarted.");
        continue;
      case ScriptInterpreter::kRestartApplication:
        command.orvex.EndConsole(kExitRestartApplication);
        return;
      case ScriptInterpreter::kReboot:
        command.Print("Script requested a reboot.");
        PowerManager::GetInstance().Reboot(RebootReason::kRequested);
        return;
      case ScriptInterpreter::kFileError: command.Print("Script not found."); return;
      default: interpreter->PrintErrors(); return;
    }
  }
}

int ScriptDebug(const CommandLine& command) {
  const std::string_view argument = command.argument(2);
  if (command.argument_count() == 2 && argument == "on") {
    GetRegistryClient().Write("plumscript", "debug", "1");
    command.Print("Automatic script debugging is enabled");
    return 0;
  }
  if (command.argument_count() == 2 && argument == "off") {
    GetRegistryClient().DeleteKey("plumscript", "debug");
    command.Print("Automatic script debugging is disabled.");
    return 0;
  }
  command.Print("Invalid argument to \"script debug\". Try \"help script\"");
  return 1;
}

std::string ZoneName() {
  const std::string name = CascadeTime::GetTimeZone();
  return name.empty() ? "???" : name;
}

int SetDate(const CommandLine& command) {
  CascadeTime::DateStruct date;
  const bool complete =
      std::sscanf(command.words[1], "%04hu/%02hu/%02hu", &date.year, &date.month, &date.day) == 3 &&
      std::sscanf(command.words[2], "%02hu:%02hu:%02hu", &date.hour, &date.minute, &date.second) ==
          3;
  if (!complete || !CascadeTime::IsValidDate(date)) {
    command.Print("Incorrect time format.");
    return 1;
  }
  const auto utc = CascadeTime::FromLocal(date);
  if (!utc) {
    command.Print("Unable to convert time to GMT.");
    return 1;
  }
  if (CascadeTime::SetSystemClock(*utc)) return 0;
  if (Registry::Setting("networking", "ptp_domain").empty()) {
    command.Print("Unable to set date and time.");
  } else {
    command.Print("Unable to set date and time due to being a PTP slave.");
  }
  return 1;
}

void PrintZone(const CommandLine& command, const CascadeTime::Zone& zone) {
  const std::string_view description =
      zone.row.description.empty() ? zone.row.standard_abbreviation : zone.row.description;
  command.Print("{} ({})", zone.name, description);
}

}  // namespace

int Exit(const CommandLine& command) {
  if (command.argument_count() > 0) {
    command.Print("usage: exit");
    return 1;
  }
  command.orvex.EndConsole(HardwareConfig::GetInstance().IsRestricted() ? kExitService
                                                                        : kExitRestart);
  return 0;
}

// Every form of it, `script debug` too, first ends what runs: the change counts for the next run.
int Script(const CommandLine& command) {
  const bool ended = command.orvex.EndPlayback();
  const size_t count = command.argument_count();
  if (count > 0 && command.argument(1) == "debug") return ScriptDebug(command);
  if (count > 0 && command.argument(1).empty()) {
    command.Print("Invalid argument. Try \"help script\"");
    return 1;
  }
  if (!ended) {
    command.Print("The running script does not end.");
    return 1;
  }
  if (count == 0) {
    RunScript(command, "", 0, nullptr);
  } else {
    RunScript(command, command.words[1], static_cast<int>(count - 1), command.words.data() + 2);
  }
  return 0;
}

// Says the same whether the code was accepted or not, so that the answer helps nobody to guess it.
int Mfg(const CommandLine& command) {
  try {
    if (command.argument_count() == 1 && DeviceSecrets::Exists() &&
        DeviceSecrets::GetInstance().IsUnlockCode(command.argument(1))) {
      command.orvex.OpenManufacturing();
    }
  } catch (const std::exception& e) {
    lattix::Log("mfg: {}\n", e.what());
  }
  command.Print("All tests passed.");
  return 0;
}

int Reboot(const CommandLine& command) {
  if (command.argument_count() > 0) return command.Usage();
  PowerManager::GetInstance().Reboot(RebootReason::kRequested);
  return 0;
}

int Shutdown(const CommandLine& command) {
  if (command.argument_count() > 0) return command.Usage();
  PowerManager::GetInstance().ShutDown();
  return 0;
}

int Suspend(const CommandLine& command) {
  std::optional<unsigned> seconds;
  const auto number = ParseNumber(command.argument(1), UINT_MAX, 10);
  if (number && *number > 0) seconds = static_cast<unsigned>(*number);
  if (command.argument_count() > 1 || (command.argument_count() == 1 && !seconds)) {
    command.Print("Usage: suspend [time in seconds]");
    return 1;
  }
  PowerManager::GetInstance().Suspend(seconds);
  return 0;
}

int Date(const CommandLine& command) {
  switch (command.argument_count()) {
    case 0: {
      const auto date = CascadeTime::ToLocal(CascadeTime::ReadPresentTimeBase());
      command.Print("{:4}/{:02}/{:02} {:02}:{:02}:{:02} ({})", date.year, date.month, date.day,
                    date.hour, date.minute, date.second, ZoneName());
      return 0;
    }
    case 2: return SetDate(command);
    default:
      command.Print("Read or set the date and time in the current time zone.");
      command.Usage();
      return -1;
  }
}

int TimeZone(const CommandLine& command) {
  if (command.argument_count() > 1) return command.Usage();
  const std::string name(command.argument(1));
  if (name.empty()) {
    PrintZone(command, *CascadeTime::CurrentZone());
  } else if (name == "list") {
    for (const TimeZoneRow& row : kTimeZones) command.Print("{}", row.key);
  } else if (CascadeTime::FindZone(name) == nullptr) {
    command.Print("Invalid time zone.");
    return 1;
  } else {
    command.Print("Setting time zone to '{}'", name);
    return CascadeTime::SetTimeZone(name) ? 0 : 1;
  }
  return 0;
}

int Version(const CommandLine& command) {
  command.Print("Device family:        {}", HardwareConfig::GetFamily());
  command.Print("Board:                {}", HardwareConfig::GetInstance().GetBoardName());
  command.Print("OrvexOS version: {}", lattix::FirmwareVersion());
  command.Print("Boot loader version:  {}", ReadBootVersion());
  command.Print("Rescue version:       {}", ReadRescueVersion());
  return 0;
}

int Uptime(const CommandLine& command) {
  timespec now = {};
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  command.Print("Device uptime: {}", UptimeText(now.tv_sec));
  return 0;
}

std::string UptimeText(int64_t seconds) {
  const std::string clock =
      fmt::format("{}:{:02}:{:02}", seconds % 86400 / 3600, seconds % 3600 / 60, seconds % 60);
  const int64_t days = seconds / 86400;
  if (days == 0) return clock;
  return fmt::format("{} day{} {}", days, days == 1 ? "" : "s", clock);
}

int FactoryReset(const CommandLine& command) {
  if (command.argument_count() != 1 || command.argument(1) != "confirm") return command.Usage();
  RegistryClient& registry = GetRegistryClient();
  registry.DeleteAll();
  registry.Flush();
  PowerManager::GetInstance().Reboot(RebootReason::kRequested);
  return 0;
}

int Log(const CommandLine& command) {
  if (command.argument_count() > 0) return command.Usage();
  const InterruptibleOutput output(command.shell);
  output.ShowText(lattix::KernelLog::Open()->ReadAll());
  return 0;
}

int UnsetRtc(const CommandLine& command) {
  if (command.argument_count() > 0) return command.Usage();
  if (CascadeTime::UnsetHardwareClock()) return 0;
  command.Print("{}: the real time clock cannot be unset", command.name());
  return 1;
}

// The time synchronisation writes its state into a small file whenever it changes.
int PtpStatus(const CommandLine& command) {
  struct stat status;
  if (::stat(lattix::DevicePath(kPtpStatusPath).c_str(), &status) != 0) {
    command.Print("PTP status: {}", "disabled");
    return 0;
  }
  // The machine's clock, which a file's times are on: a device root's own may be far from it.
  timespec now = {};
  ::clock_gettime(CLOCK_REALTIME, &now);
  command.Print("PTP status: {}", lattix::ReadSystemLine(kPtpStatusPath));
  command.Print("Changed {}s ago", std::max<int64_t>(now.tv_sec - status.st_mtim.tv_sec, 0));
  return 0;
}

int SystemShell(const CommandLine& command) {
  if (command.argument_count() == 0) {
    command.Print("Usage: {} <shell command>", command.name());
    return 1;
  }
  SpawnProcess shell("/bin/sh", {"-c", JoinedFrom(command, 1)});
  const ProgramTerminal terminal;
  shell.Execute(SpawnProcess::kForeground);
  const int status = shell.Wait();
  if (status != 0) command.Print("Exit status: {}", status);
  return 0;
}

int NotImplemented(const CommandLine& command) {
  command.Print("Error: command \"{}\" currently not implemented", command.name());
  return 1;
}

}  // namespace commands
