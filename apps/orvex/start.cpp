// The start routine. The presentation is played by a supervisor, if the device has one, or else by
// the autorun invoker on a thread of its own, while this thread serves the console.
//
// In a device root a player that has no terminal, or is asked to by ORVEX_ONCE, ends with its
// presentation: that is how a developer's machine tries a presentation out.
#include <signal.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "apps/orvex/exit_status.h"
#include "apps/orvex/orvex_shell.h"
#include "apps/orvex/pid_file_writer.h"
#include "lib/hardware/hardware_config.h"
#include "lib/hardware/power_manager.h"
#include "lib/platform/async_signals.h"
#include "lib/platform/device_path.h"
#include "lib/platform/firmware_version.h"
#include "lib/platform/log.h"
#include "lib/platform/registry_client.h"
#include "lib/platform/tracing.h"
#include "lib/platform/url_fetch/curl_url_fetcher.h"
#include "lib/scripting/CommonAPI/Include/object_globals.h"
#include "lib/scripting/script_autorun.h"
#include "lib/scripting/script_bootstrap.h"
#include "lib/scripting/storage_scan.h"

using lattix::Log;

namespace {

constexpr char kSystemFolder[] = "SYS:/";
constexpr char kDefaultBootstrap[] = "sys:/bootstrap.js";
constexpr char kUnsupervisedPrompt[] = "Orvex(unsupervised)> ";

// Bit 31 of the hardware flags.
constexpr unsigned kFlashStorageFlag = 31;

bool IsTerminal() { return ::isatty(STDIN_FILENO) != 0; }

bool EndsWithPresentation() {
  if (!lattix::InDeviceRoot()) return false;
  const char* once = std::getenv("ORVEX_ONCE");
  return !IsTerminal() || (once != nullptr && *once != '\0');
}

// Ends the player by SIGINT where there is no console whose line the signal would belong to: beside
// a supervisor, and without a terminal.
class EndOnInterrupt final : public lattix::SignalObserver {
 public:
  EndOnInterrupt() { lattix::SignalDispatcher::GetInstance().Attach(SIGINT, this); }
  ~EndOnInterrupt() { lattix::SignalDispatcher::GetInstance().Detach(SIGINT, this); }

  void OnSignal(const siginfo_t&) override {
    OrvexShell::GetInstance().RequestExit(kExitInterrupted);
  }
};

AutoScriptInvokerOptions InvokerOptions() {
  const HardwareConfig& hardware = HardwareConfig::GetInstance();
  AutoScriptInvokerOptions options;
  options.user_agent = DefaultUserAgent(hardware.GetModel());
  options.device = {hardware.GetModel(), hardware.GetSerial(), lattix::FirmwareVersion()};
  options.has_flash_storage = hardware.HasFlag(kFlashStorageFlag);
  options.has_card_slot = hardware.HasFeature("sd");
  return options;
}

}  // namespace

int OrvexShell::Start() {
  const std::optional<int> status = RunSupervised();
  return status ? *status : RunUnsupervised();
}

int OrvexShell::ProcessStatus() const {
  // A status that was asked for is the caller's business, whatever its number.
  if (IsExitRequested()) return m_requested_status;
  if (m_exit_status != kExitShellFailed) return m_exit_status;
  return HardwareConfig::GetInstance().IsRestricted() ? kExitService : kExitRestart;
}

std::optional<int> OrvexShell::RunSupervised() {
  FilenameMapper& mapper = KelvoObjectGlobals::GetInstance().GetFilenameMapper();
  std::string name = Registry::Setting("autorun", "bootstrap");
  const bool is_default = name.empty();
  if (is_default) {
    mapper.SetCurrentDirectory(kSystemFolder);
    name = kDefaultBootstrap;
  }
  std::string script;
  if (!mapper.TryMap(name, &script)) return std::nullopt;
  script = lattix::DevicePath(script);
  struct stat file;
  if (::stat(script.c_str(), &file) != 0 || S_ISDIR(file.st_mode)) return std::nullopt;
  try {
    // On a device nobody sits in front of a supervisor.
    std::optional<EndOnInterrupt> end_on_interrupt;
    if (lattix::InDeviceRoot()) end_on_interrupt.emplace();
    Bootstrap bootstrap(Bootstrap::ReadOptions(script));
    struct Running {
      OrvexShell& shell;
      Running(OrvexShell& s, Bootstrap* b) : shell(s) { Set(b); }
      ~Running() { Set(nullptr); }
      void Set(Bootstrap* b) {
        const std::lock_guard lock(shell.m_bootstrap_mutex);
        shell.m_bootstrap = b;
        if (b != nullptr && shell.IsExitRequested()) b->RequestEnd();
      }
    } const running(*this, &bootstrap);
    bootstrap.Run();
    return ProcessStatus();
  } catch (const std::exception& e) {
    Log("ERROR: Bootstrap failure '{}': {}\n", name, e.what());
  }
  if (is_default) {
    ForceCrashDump();
    return kExitService;
  }
  return std::nullopt;
}

void OrvexShell::OnPresentationEnd(ScriptInterpreter::ScriptResult result, bool once) {
  switch (result) {
    case ScriptInterpreter::kRestartApplication: RequestExit(kExitRestartApplication); return;
    case ScriptInterpreter::kReboot:
      PowerManager::GetInstance().Reboot(RebootReason::kRequested);
      return;
    case ScriptInterpreter::kShutdown: PowerManager::GetInstance().ShutDown(); return;
    default:
      if (once) RequestExit(result);
      return;
  }
}

int OrvexShell::RunUnsupervised() {
  KelvoObjectGlobals& globals = KelvoObjectGlobals::GetInstance();
  FilenameMapper& mapper = globals.GetFilenameMapper();
  const bool once = EndsWithPresentation();
  const bool has_console = !once || IsTerminal();

  AutoScriptInvokerOptions options = InvokerOptions();
  if (::strcasecmp(mapper.GetCurrentDirectory().ToString().c_str(), kSystemFolder) == 0) {
    const std::string storage = FirstUsableStorage(options.has_flash_storage);
    if (!storage.empty()) mapper.SetCurrentDirectory(storage);
  }

  CurlUrlFetcher fetcher;
  options.fetcher = &fetcher;
  options.first_run_only = once;
  if (has_console) options.console = m_debugger_console->GetIoConsole();
  const std::shared_ptr<AutoScriptInvoker> invoker = CreateAutoScriptInvoker(std::move(options));
  // Goes before what the invoker uses, whichever way this function is left.
  struct InGlobals {
    KelvoObjectGlobals& globals;
    ~InGlobals() { globals.SetAutoScriptInvoker(nullptr); }
  } const in_globals{globals};
  globals.SetAutoScriptInvoker(invoker);
  std::optional<EndOnInterrupt> end_on_interrupt;
  if (!has_console) end_on_interrupt.emplace();
  const int64_t begin = tracing::Now();
  invoker->Start([this, once, begin](ScriptInterpreter::ScriptResult result) {
    tracing::Complete(tracing::Category::kScript, "presentation", begin);
    OnPresentationEnd(result, once);
  });

  if (has_console) {
    RunConsole(kUnsupervisedPrompt);
  } else {
    m_exit_event.Wait(0);
  }

  const int status = ProcessStatus();
  if (!invoker->Stop()) {
    Log("The script does not end; leaving without it\n");
    PidFileWriter::EndAtOnce(status);
  }
  return status;
}
