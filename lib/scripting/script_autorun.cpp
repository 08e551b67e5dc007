// One pass of Invoke: wait for a storage with a script (WaitForStorages), ask the recovery server
// for an override, run the script until it has ended for good, recover when it failed. A recovery
// script that asks to be restarted has repaired something, and the pass begins anew.
//
// Everything happens on the thread that calls Invoke. Others only set flags and wake: Stop and the
// operator's interrupt through m_interrupt, the web server through m_poke, both with a flag beside
// the pipe so that a pipe nobody reads holds one byte at most. The running interpreter is reached
// under m_lock.
#include "lib/scripting/script_autorun.h"

#include <poll.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <mutex>
#include <optional>
#include <stop_token>
#include <thread>
#include <vector>

#include "lib/platform/assertion.h"
#include "lib/platform/async_signals.h"
#include "lib/platform/condition_variable.h"
#include "lib/platform/device_path.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/log.h"
#include "lib/platform/monotonic_time.h"
#include "lib/platform/only_one.h"
#include "lib/platform/poll_waker.h"
#include "lib/platform/registry_client.h"
#include "lib/platform/thread_name.h"
#include "lib/scripting/Plumscript/Source/psiocon.h"
#include "lib/scripting/autorun_archive.h"
#include "lib/scripting/autorun_storages.h"
#include "lib/scripting/error_report.h"
#include "lib/scripting/script_runtime.h"

using lattix::Log;

namespace {

constexpr int kNoStorage = -1;
constexpr std::chrono::milliseconds kSplashInterval(250);
// For which Stop waits for a script inside a native call.
constexpr std::chrono::milliseconds kStopPatience = std::chrono::seconds(10);
// Answers without a script, or failures, after which a device that has nothing to run reboots: that
// brings up its network and its storages anew.
constexpr unsigned kLastResortRequests = 3;
// A recovery script that somebody has left for the case that there is nothing else.
constexpr char kLocalRecoveryScript[] = "tmp:/recover2.plm";

bool IsSet(const char* section, const char* key) {
  return !Registry::Setting(section, key).empty();
}

int DecimalSetting(const char* section, const char* key) {
  const std::string text = Registry::Setting(section, key);
  int value = 0;
  std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

// The invoker without a network.
class NoFetcher final : public UrlFetcher {
 public:
  Response Fetch(const Request&, std::stop_token) override {
    Response response;
    response.message = "No network";
    return response;
  }
};

// The splash of a player without a display.
class LogSplash final : public AutorunSplash {
 public:
  void Show(std::span<const std::string> lines, double) override {
    std::string text;
    for (const std::string& line : lines) text += (text.empty() ? "" : " / ") + line;
    if (std::exchange(m_shown, text) != text) Log("Splash: {}\n", text);
  }
  void Hide() override { m_shown.clear(); }

 private:
  std::string m_shown;
};

// A waker with a flag: however often it is raised, one byte is in the pipe.
class Doorbell {
 public:
  void Ring() {
    if (!m_rung.exchange(true)) m_waker.Wake();
  }
  // Only when the descriptor is readable.
  void Acknowledge() {
    m_waker.Acknowledge();
    m_rung = false;
  }
  void Silence() {
    pollfd readable = {m_waker.GetReadFd(), POLLIN, 0};
    if (::poll(&readable, 1, 0) > 0) Acknowledge();
  }
  int GetReadFd() const { return m_waker.GetReadFd(); }

 private:
  PollWaker m_waker;
  std::atomic<bool> m_rung{false};
};

// SIGINT while the invoker waits. It keeps itself detached otherwise: a script has its own.
class Sigint : private lattix::SignalObserver {
 public:
  Sigint() : m_attached(lattix::SignalDispatcher::Exists()) {
    if (m_attached) lattix::SignalDispatcher::GetInstance().Attach(SIGINT, this);
  }
  ~Sigint() {
    if (m_attached) lattix::SignalDispatcher::GetInstance().Detach(SIGINT, this);
  }
  Sigint(const Sigint&) = delete;
  Sigint& operator=(const Sigint&) = delete;

  Doorbell bell;

 private:
  void OnSignal(const siginfo_t&) override { bell.Ring(); }

  const bool m_attached;
};

class AutoScriptInvokerImpl final : public AutoScriptInvoker, OnlyOne<AutoScriptInvokerImpl> {
 public:
  explicit AutoScriptInvokerImpl(AutoScriptInvokerOptions options);
  ~AutoScriptInvokerImpl() override;

  ScriptResult Invoke() override;
  void Start(std::function<void(ScriptResult)> on_end) override;
  bool Stop() override;
  bool IsRunning() const override { return m_running; }
  void Interrupt() override;
  void Poke() override { m_poke.Ring(); }

 private:
  // What came of one script.
  struct Outcome {
    ScriptResult result = ScriptInterpreter::kNormal;
    bool offered_debugger = false;
    bool debugged = false;

    bool IsError() const {
      return result >= ScriptInterpreter::kLoadError && result <= ScriptInterpreter::kFileError;
    }
  };
  // What a step of a pass leads to: the invoker's result, or nothing for the next step.
  using Step = std::optional<ScriptResult>;

  // What has ended a wait.
  struct Woken {
    bool storage = false;
    bool poke = false;
    bool interrupt = false;  // the operator's
    bool recovery = false;
  };

  template <typename... Args>
  void Trace(fmt::format_string<Args...> format, Args&&... args) const {
    if (m_trace) lattix::LogFormatted(format, fmt::make_format_args(args...));
  }
  void ShowSplash(std::initializer_list<std::string> lines, double progress = -1);
  void Tell(const std::string& line) const;
  std::stop_token StopToken();

  ScriptResult Discover();
  static RecoveryMode InitialMode(const NetworkRecovery& recovery, int storage_index);
  bool Bail() const { return m_told_to_stop || m_gave_up; }
  int WaitForStorages();
  std::optional<int> Decide(bool scanned, double waited);
  bool FallBackToRecovery();
  Woken Wait(const char* what, Sigint& sigint, StorageWatch* storages, PollWaker* recovery,
             int64_t deadline);

  bool WaitForOverrideRecoveryDownload(NetworkRecovery& recovery);
  void MoveToPeriodicMode(NetworkRecovery& recovery);
  bool HasOtherAutorun(int storage_index);
  Step CheckForOverride(NetworkRecovery& recovery, bool* start_over);
  Step RunAutoruns(int storage_index, NetworkRecovery& recovery);
  Step RunPeriodicRecovery();
  Step LastResortRecovery(int reason, NetworkRecovery& recovery);
  std::string FindLastResortScript(NetworkRecovery& recovery, bool* start_over);

  Outcome RunAutorun(int storage_index);
  enum class Kind { kAutorun, kRecovery };
  class Running;
  Outcome RunScript(const std::string& script, const std::string& hash_source, Kind kind);
  void Report(const Outcome& outcome, const std::string& error, const std::string& script);
  bool OperatorDebugs(const Outcome& outcome);
  void OnRecoveryResult(const RecoveryResult& result);

  const AutoScriptInvokerOptions m_options;
  NoFetcher m_no_fetcher;
  UrlFetcher& m_fetcher = m_options.fetcher != nullptr ? *m_options.fetcher : m_no_fetcher;
  LogSplash m_log_splash;
  AutorunSplash& m_splash = m_options.splash != nullptr ? *m_options.splash : m_log_splash;
  const ScriptRuntime m_runtime;

  const bool m_trace = DecimalSetting("networking", "recovery_trace") != 0;
  const bool m_debug = IsSet("plumscript", "debug");
  const bool m_interruptible = IsSet("plumscript", "interruptible");
  const std::string m_recovery_url = m_options.fetcher != nullptr ? RecoveryUrl() : "";
  AutorunStorages m_storages;

  // The invoking thread's.
  bool m_gave_up = false;  // an operator has ended a wait, and Invoke with it
  bool m_crash_dump = false;
  bool m_told_default = false;   // of this wait
  bool m_told_recovery = false;  // the same

  Doorbell m_interrupt;
  Doorbell m_poke;
  std::atomic<bool> m_told_to_stop{false};
  std::atomic<bool> m_periodic_script{false};  // a recovery script came while a script ran

  std::mutex m_lock;
  lattix::condition_variable m_ended;
  std::stop_source m_stop;                 // guarded by m_lock
  bool m_periodic = false;                 // guarded by m_lock; a script that comes is to be run
  bool m_current_is_autorun = false;       // guarded by m_lock
  ScriptInterpreter* m_current = nullptr;  // guarded by m_lock
  std::thread m_thread;                    // the owner's
  std::atomic<bool> m_running{false};      // changed under m_lock
};

AutorunStorages::Options StorageOptions(const AutoScriptInvokerOptions& options, bool trace) {
  AutorunStorages::Options storages;
  storages.trace = trace;
  storages.external_only = IsSet("autorun", "external_storage_only");
  storages.diagnostic = IsSet("autorun", "diagnostic");
  storages.has_flash = options.has_flash_storage;
  if (storages.external_only) Log("Only considering external storage for autoruns.\n");
  if (storages.diagnostic) Log("Autorun diagnostic enabled.\n");
  return storages;
}

AutoScriptInvokerImpl::AutoScriptInvokerImpl(AutoScriptInvokerOptions options)
    : OnlyOne("Only one AutoScriptInvoker may exist at a time"),
      m_options(std::move(options)),
      m_storages(StorageOptions(m_options, m_trace)) {
  if (m_debug) Log("Autorun debugging enabled.\n");
}

AutoScriptInvokerImpl::~AutoScriptInvokerImpl() {
  Stop();
  if (m_thread.joinable()) m_thread.join();
}

// --- Starting, stopping, waking ---------------------------------------------------------------

void AutoScriptInvokerImpl::Start(std::function<void(ScriptResult)> on_end) {
  LATTIX_ASSERT(!m_running);
  if (m_thread.joinable()) m_thread.join();
  m_told_to_stop = false;
  m_stop = std::stop_source();
  m_running = true;
  m_thread = std::thread([this, on_end = std::move(on_end)] {
    lattix::SetThreadName("autorun");
    const ScriptResult result = Invoke();
    if (on_end) on_end(result);
    const std::lock_guard lock(m_lock);
    m_running = false;
    m_ended.notify_all();
  });
}

bool AutoScriptInvokerImpl::Stop() {
  {
    std::unique_lock lock(m_lock);
    m_told_to_stop = true;
    m_stop.request_stop();
    if (m_current != nullptr) m_current->Stop();
    m_interrupt.Ring();
    const int64_t deadline = lattix::monotonic_time_after_ms(kStopPatience.count());
    if (!m_ended.wait_until(lock, deadline, [this] { return !m_running; })) {
      Log("The script does not end: it is inside a native call.\n");
      return false;
    }
  }
  if (m_thread.joinable()) m_thread.join();
  return true;
}

void AutoScriptInvokerImpl::Interrupt() {
  const std::lock_guard lock(m_lock);
  if (m_current == nullptr) {
    m_interrupt.Ring();
  } else if (m_debug || m_interruptible) {
    m_current->AsyncInterrupt(ScriptInterpreter::InterruptDisposition::kBreak);
  }
}

// On the recovery thread. Only a script that came while a presentation runs is news to nobody else.
void AutoScriptInvokerImpl::OnRecoveryResult(const RecoveryResult& result) {
  const std::lock_guard lock(m_lock);
  if (!result.has_script || !m_periodic) return;
  m_periodic_script = true;
  if (m_current != nullptr && m_current_is_autorun) m_current->Stop();
}

void AutoScriptInvokerImpl::ShowSplash(std::initializer_list<std::string> lines, double progress) {
  m_splash.Show({lines.begin(), lines.size()}, progress);
}

void AutoScriptInvokerImpl::Tell(const std::string& line) const {
  if (m_options.console == nullptr) {
    Log("{}", line);
  } else {
    io_write(m_options.console, line);
    io_flush(m_options.console);
  }
}

// Until the deadline (monotonic; negative: none) or until something has happened. An operator's
// interrupt counts only when the device allows it, being told to stop always.
AutoScriptInvokerImpl::Woken AutoScriptInvokerImpl::Wait(const char* what, Sigint& sigint,
                                                         StorageWatch* storages,
                                                         PollWaker* recovery, int64_t deadline) {
  Woken woken;
  pollfd fds[] = {
      {storages != nullptr ? storages->GetFd() : -1, POLLIN, 0},
      {m_interrupt.GetReadFd(), POLLIN, 0},
      {sigint.bell.GetReadFd(), POLLIN, 0},
      {m_poke.GetReadFd(), POLLIN, 0},
      {recovery != nullptr ? recovery->GetReadFd() : -1, POLLIN, 0},
  };
  timespec timeout = {};
  if (deadline >= 0) {
    const int64_t left = std::max<int64_t>(deadline - lattix::get_monotonic_time(), 0);
    timeout = {left / 1'000'000'000, left % 1'000'000'000};
  }
  if (::ppoll(fds, std::size(fds), deadline >= 0 ? &timeout : nullptr, nullptr) < 0) {
    if (errno != EINTR) Log("{} poll failed: {}\n", what, lattix::ErrorText(errno));
    return woken;
  }
  const bool may_interrupt = m_interruptible || m_debug;
  if (fds[0].revents != 0 && storages->Acknowledge()) {
    Log("Something was mounted or unmounted.\n");
    woken.storage = true;
  }
  if (fds[1].revents != 0) {
    m_interrupt.Acknowledge();
    if (may_interrupt || m_told_to_stop) Log("{} user bail out\n", what);
    woken.interrupt = may_interrupt;
  }
  if (fds[2].revents != 0) {
    sigint.bell.Acknowledge();
    Log("{} got SIGINT\n", what);
    woken.interrupt |= may_interrupt;
  }
  if (fds[3].revents != 0) {
    m_poke.Acknowledge();
    Log("DWS poked us.\n");
    woken.poke = true;
  }
  if (fds[4].revents != 0) {
    recovery->Acknowledge();
    woken.recovery = true;
  }
  return woken;
}

// --- The pass ---------------------------------------------------------------------------------

AutoScriptInvoker::ScriptResult AutoScriptInvokerImpl::Invoke() {
  try {
    return Discover();
  } catch (const lattix::ErrnoException& error) {
    Log("Unable to look for autoruns: {}: {}\n", error.context(), error.what());
  } catch (const std::exception& error) {
    Log("Unable to look for autoruns: {}\n", error.what());
  }
  return ScriptInterpreter::kRuntimeError;
}

AutoScriptInvoker::ScriptResult AutoScriptInvokerImpl::Discover() {
  m_crash_dump = HasCrashDump();
  m_gave_up = false;
  m_periodic = false;
  m_periodic_script = false;
  NetworkRecovery::Options options;
  options.url = m_recovery_url;
  options.user_agent = m_options.user_agent;
  options.device = m_options.device;
  options.trace = m_trace;
  options.on_result = [this](const RecoveryResult& result) { OnRecoveryResult(result); };
  NetworkRecovery recovery(m_fetcher, std::move(options));
  for (bool first = true;; first = false) {
    const int storage_index = WaitForStorages();
    if (Bail()) {
      Trace("Bailing out of invoking autorun.\n");
      return ScriptInterpreter::kNormal;
    }
    if (first) recovery.Start(InitialMode(recovery, storage_index));
    Step end;
    if (storage_index == kNoStorage) {
      Log("No autorun. Forcing recovery.\n");
      end = LastResortRecovery(ScriptInterpreter::kFileError, recovery);
    } else {
      Trace("autorun_storage_index={}\n", storage_index);
      // The server is waited for once: a script that restarts must not stand still for it.
      bool start_over = false;
      if (first && recovery.IsPossible()) {
        end = CheckForOverride(recovery, &start_over);
        if (!end && !start_over) start_over = HasOtherAutorun(storage_index);
      }
      if (!end && !start_over) {
        if (recovery.IsPossible()) MoveToPeriodicMode(recovery);
        end = RunAutoruns(storage_index, recovery);
      }
    }
    if (end) return *end;  // with the recovery, whose thread ends
    // Nothing is asked for between the passes: what the next one runs is an answer to itself.
    recovery.SetMode(RecoveryMode::kDisabled);
  }
}

RecoveryMode AutoScriptInvokerImpl::InitialMode(const NetworkRecovery& recovery,
                                                int storage_index) {
  if (!recovery.IsPossible()) return RecoveryMode::kDisabled;
  return storage_index == kNoStorage ? RecoveryMode::kLastResort : RecoveryMode::kOverride;
}

// --- Waiting for a storage --------------------------------------------------------------------

int AutoScriptInvokerImpl::WaitForStorages() {
  Trace("WaitForStorages()\n");
  m_told_default = false;
  m_told_recovery = false;
  // Watched before they are looked at, so that nothing falls between.
  StorageWatch watch;
  Sigint sigint;
  m_interrupt.Silence();  // what was meant for a script; being told to stop has a flag too
  const int64_t start = lattix::get_monotonic_time();
  const int64_t patience = std::chrono::nanoseconds(m_options.default_autorun_wait).count();
  bool scan = true;
  for (;;) {
    if (Bail()) return kNoStorage;
    if (scan) {
      Trace("Looking for storages...\n");
      m_storages.Scan(FilenameMapper::GetInstance());
    }
    const int64_t now = lattix::get_monotonic_time();
    const double waited = patience > 0 ? static_cast<double>(now - start) / patience : 1;
    if (const std::optional<int> decision = Decide(scan, waited)) return *decision;

    int64_t deadline = -1;
    if (now < start + patience) {
      const int64_t tick = std::chrono::nanoseconds(kSplashInterval).count();
      deadline = m_told_default ? std::min(now + tick, start + patience) : start + patience;
    }
    const Woken woken = Wait("WaitForStorages", sigint, &watch, nullptr, deadline);
    m_gave_up |= woken.interrupt;
    scan = woken.storage || woken.poke;
  }
}

// What to do now, given that the fraction `waited` of the time for something better has passed; 1
// and more: all of it. Nothing: wait on.
std::optional<int> AutoScriptInvokerImpl::Decide(bool scanned, double waited) {
  const int best = m_storages.Best();
  const bool only_default = best >= 0 && AutorunStorages::IsDefault(best);
  if (best >= 0 && !only_default) {
    Log("WaitForStorages found autorun: {}\n", m_storages.GetScriptPath(best));
    return best;
  }
  if (m_storages.AnyChecking()) {
    if (scanned) {
      Log("At least one storage device is still being checked. Deferring autorun decision.\n");
    }
    ShowSplash({"Checking filesystems..."});
    return {};
  }
  if (only_default) {
    if (waited >= 1) {
      Log("Accepting default autorun\n");
      return best;
    }
    if (!std::exchange(m_told_default, true)) {
      Log("Not accepting default autorun yet. Still waiting for something better.\n");
    }
    ShowSplash({"Waiting for storage..."}, waited);
    return {};
  }
  m_told_default = false;
  if (waited >= 1 && FallBackToRecovery()) return kNoStorage;
  if (!scanned) return {};
  Tell("No usable autorun script found yet\n");
  if (m_interruptible) Tell(InterruptPrompt());
  const bool for_recovery = !m_recovery_url.empty() && !m_storages.HasRecoveryStorage();
  ShowSplash({"Usable storage device not found",
              fmt::format("Please insert {}{}",
                          m_options.has_card_slot ? "microSD card" : "storage device",
                          for_recovery ? " for recovery" : "")});
  return {};
}

// Nothing to run has come up. A recovery script itself lies in temporary storage, so a device
// without any medium can run one as long as it has that.
bool AutoScriptInvokerImpl::FallBackToRecovery() {
  const bool told = std::exchange(m_told_recovery, true);
  if (m_recovery_url.empty()) {
    if (!told) Log("Would like to recover but there's no recovery URL\n");
    return false;
  }
  if (!m_storages.HasRecoveryStorage()) {
    std::string path;
    if (!FilenameMapper::GetInstance().TryMap(kRecoveryScript, &path)) {
      if (!told) {
        Log("WaitForStorages wants to fall back to network recovery but can't due to no storage\n");
      }
      return false;
    }
    Log("WaitForStorages fall back to network recovery (no storage)\n");
  }
  ShowSplash({"Attempting Network Recovery"});
  return true;
}

// --- Running ----------------------------------------------------------------------------------

AutoScriptInvokerImpl::Step AutoScriptInvokerImpl::RunAutoruns(int storage_index,
                                                               NetworkRecovery& recovery) {
  for (;;) {
    const Outcome outcome = RunAutorun(storage_index);
    if (Bail()) return ScriptInterpreter::kNormal;
    if (m_periodic_script.exchange(false)) return RunPeriodicRecovery();
    switch (outcome.result) {
      case ScriptInterpreter::kNormal:
      case ScriptInterpreter::kRestartApplication:
      case ScriptInterpreter::kReboot:
      case ScriptInterpreter::kShutdown: return outcome.result;
      case ScriptInterpreter::kRestartScript: {
        m_storages.Scan(FilenameMapper::GetInstance());
        const int best = m_storages.Best();
        // The medium has been taken out meanwhile: whatever comes is waited for.
        if (best < 0) return {};
        if (AutorunStorages::IsDefault(best) && !AutorunStorages::IsDefault(storage_index)) {
          return {};
        }
        storage_index = best;
        continue;
      }
      default: break;
    }
    if (m_options.first_run_only) return outcome.result;
    m_storages.MarkAutorunBad(storage_index, outcome.result == ScriptInterpreter::kLoadError
                                                 ? AutorunStatus::kLoadError
                                                 : AutorunStatus::kRuntimeError);
    if (OperatorDebugs(outcome)) return outcome.result;
    if (Bail()) return ScriptInterpreter::kNormal;
    Log("Load or runtime error in autorun. Forcing recovery.\n");
    return LastResortRecovery(outcome.result == ScriptInterpreter::kLoadError
                                  ? ScriptInterpreter::kLoadError
                                  : ScriptInterpreter::kRuntimeError,
                              recovery);
  }
}

AutoScriptInvokerImpl::Outcome AutoScriptInvokerImpl::RunAutorun(int storage_index) {
  const std::string script = m_storages.GetScriptPath(storage_index);
  Trace("Running autorun '{}'\n", script);
  FilenameMapper& mapper = FilenameMapper::GetInstance();
  if (m_storages.GetStatus(storage_index) != AutorunStatus::kAutorunZip) {
    // A script finds the files beside it by name.
    mapper.SetCurrentDirectory(script.substr(0, script.find('/') + 1));
    return RunScript(script, {}, Kind::kAutorun);
  }
  const AutorunArchive archive = ExtractAutorunArchive(mapper, script, StopToken());
  if (archive.script.empty()) {
    Outcome outcome;
    outcome.result = ScriptInterpreter::kLoadError;
    if (!Bail()) {
      Tell("Error: " + archive.error + "\n");
      Report(outcome, archive.error, script);
    }
    return outcome;
  }
  mapper.SetCurrentDirectory("tmp:/");
  return RunScript(archive.script, script, Kind::kAutorun);
}

// Makes a run known to those who may stop it, for as long as it lasts.
class AutoScriptInvokerImpl::Running {
 public:
  Running(AutoScriptInvokerImpl& invoker, ScriptInterpreter& interpreter, Kind kind)
      : m_invoker(invoker) {
    const std::lock_guard lock(m_invoker.m_lock);
    m_invoker.m_current = &interpreter;
    m_invoker.m_current_is_autorun = kind == Kind::kAutorun;
    if (m_invoker.m_told_to_stop ||
        (m_invoker.m_current_is_autorun && m_invoker.m_periodic_script)) {
      interpreter.Stop();
    }
  }
  ~Running() {
    const std::lock_guard lock(m_invoker.m_lock);
    m_invoker.m_current = nullptr;
  }
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;

 private:
  AutoScriptInvokerImpl& m_invoker;
};

AutoScriptInvokerImpl::Outcome AutoScriptInvokerImpl::RunScript(const std::string& script,
                                                                const std::string& hash_source,
                                                                Kind kind) {
  Outcome outcome;
  m_splash.Hide();
  ScriptInterpreterOptions options;
  options.console = m_options.console;
  options.debug = m_debug;
  options.interruptible = m_interruptible || m_debug;
  options.debug_choice = m_options.debug_choice;
  std::unique_ptr<ScriptInterpreter> interpreter;
  try {
    interpreter = CreateScriptInterpreter(options);
  } catch (const std::exception& error) {
    Log("{}\n", error.what());
    outcome.result = ScriptInterpreter::kRuntimeError;
    return outcome;
  }
  {
    const Running running(*this, *interpreter, kind);
    outcome.result = interpreter->Run(script, hash_source, 0, nullptr, nullptr);
  }
  outcome.offered_debugger = interpreter->WasOfferedDebugger();
  outcome.debugged = interpreter->WasDebugged();
  if (outcome.IsError() && !Bail()) {
    interpreter->PrintErrors();
    const std::vector<std::string>& errors = interpreter->GetErrors();
    if (!errors.empty()) Report(outcome, errors.front(), script);
  }
  if (outcome.result == ScriptInterpreter::kRestartScript) Log("Script restart requested.\n");
  if (outcome.result == ScriptInterpreter::kRestartApplication) {
    Log("Application restart requested.\n");
  }
  return outcome;
}

// On the console, in the log and to the recovery server.
void AutoScriptInvokerImpl::Report(const Outcome& outcome, const std::string& error,
                                   const std::string& script) {
  ScriptFailure failure;
  failure.kind = outcome.result == ScriptInterpreter::kRuntimeError
                     ? ScriptFailure::Kind::kRuntimeError
                     : ScriptFailure::Kind::kLoadError;
  failure.error = error;
  failure.script = script;
  failure.for_debugger = outcome.debugged || m_options.first_run_only;
  MaybeReportErrorToNetwork(m_fetcher, m_recovery_url, m_options.user_agent,
                            FilenameMapper::GetInstance(), failure, m_crash_dump, StopToken());
}

std::stop_token AutoScriptInvokerImpl::StopToken() {
  const std::lock_guard lock(m_lock);
  return m_stop.get_token();
}

// After a failure, when an operator may interrupt and has not had the choice during the run. To
// debug means that the failure is left as it is: nothing is recovered, the console stays.
bool AutoScriptInvokerImpl::OperatorDebugs(const Outcome& outcome) {
  if (outcome.offered_debugger || !(m_debug || m_interruptible)) return false;
  Log("{}", DebugPrompt());
  m_interrupt.Silence();
  Sigint sigint;
  const int64_t deadline = lattix::monotonic_time_after_ms(m_options.debug_choice.count());
  while (!Bail() && lattix::get_monotonic_time() < deadline) {
    if (Wait("WaitForDebug", sigint, nullptr, nullptr, deadline).interrupt) return !Bail();
  }
  return false;
}

// --- Recovery ---------------------------------------------------------------------------------

// *start_over when the override has asked for a restart: the storages are then not what they were.
AutoScriptInvokerImpl::Step AutoScriptInvokerImpl::CheckForOverride(NetworkRecovery& recovery,
                                                                    bool* start_over) {
  Log("Checking for network recovery override.\n");
  const bool found = WaitForOverrideRecoveryDownload(recovery);
  if (Bail()) {
    Trace("Bailing out of invoking autorun.\n");
    return ScriptInterpreter::kNormal;
  }
  Log("Recovery moving from override to periodic mode.\n");
  if (!found) return {};
  recovery.SetMode(RecoveryMode::kPeriodic);
  Log("Running override recovery '{}'\n", kRecoveryScript);
  const Outcome outcome = RunScript(std::string(kRecoveryScript), {}, Kind::kRecovery);
  if (Bail()) return ScriptInterpreter::kNormal;
  if (outcome.result == ScriptInterpreter::kRestartScript) {
    *start_over = true;
    return {};
  }
  if (!outcome.IsError()) return outcome.result;
  Log("Override recovery script failed.\n");
  if (OperatorDebugs(outcome)) return outcome.result;
  if (Bail()) return ScriptInterpreter::kNormal;
  Log("AutoScriptInvokerImpl::Invoke rebooting due to override recovery script load/runtime "
      "error.\n");
  return ScriptInterpreter::kReboot;
}

// The server was waited for long enough to take a medium out, or to put a better one in.
bool AutoScriptInvokerImpl::HasOtherAutorun(int storage_index) {
  m_storages.Scan(FilenameMapper::GetInstance());
  return m_storages.Best() != storage_index;
}

void AutoScriptInvokerImpl::MoveToPeriodicMode(NetworkRecovery& recovery) {
  const std::lock_guard lock(m_lock);
  m_periodic = true;
  recovery.SetMode(RecoveryMode::kPeriodic);
}

// True when there is an override script; false when the server has none, or has not said so in
// time.
bool AutoScriptInvokerImpl::WaitForOverrideRecoveryDownload(NetworkRecovery& recovery) {
  Sigint sigint;
  PollWaker waker;
  bool extended = !IsSet("networking", "slow_interface");
  const int64_t wait = m_options.override_wait.count();
  int64_t deadline = lattix::monotonic_time_after_ms(wait);
  bool found = false;
  unsigned answers = 0;
  recovery.NotifyResult(&waker);
  while (!Bail()) {
    const RecoveryResult result = recovery.GetResult();
    if (std::exchange(answers, result.count) != result.count) {
      found = result.has_script;
      if (found || result.valid) break;
    }
    if (lattix::get_monotonic_time() >= deadline) {
      if (std::exchange(extended, true)) break;
      Log("A slow network interface is configured so let's wait a bit longer before giving up on "
          "network recovery override.\n");
      deadline = lattix::monotonic_time_after_ms(wait);
    }
    const Woken woken = Wait("WaitForOverrideRecoveryDownload", sigint, nullptr, &waker, deadline);
    m_gave_up |= woken.interrupt;
    if (!woken.recovery) continue;
    Log("WaitForOverrideRecoveryDownload woken up due to server response\n");
    recovery.NotifyResult(&waker);
  }
  recovery.NotifyResult(nullptr);
  return found;
}

// The server has sent a recovery script while a presentation ran; it takes that one's place.
AutoScriptInvokerImpl::Step AutoScriptInvokerImpl::RunPeriodicRecovery() {
  Log("Running periodic recovery '{}'\n", kRecoveryScript);
  const Outcome outcome = RunScript(std::string(kRecoveryScript), {}, Kind::kRecovery);
  if (Bail()) return ScriptInterpreter::kNormal;
  if (outcome.result == ScriptInterpreter::kRestartScript) {
    m_storages.ForgetBad();
    return {};
  }
  if (!outcome.IsError()) return outcome.result;
  Log("Periodic recovery script failed.\n");
  if (OperatorDebugs(outcome)) return outcome.result;
  if (Bail()) return ScriptInterpreter::kNormal;
  Log("Forcing reboot due to periodic recovery script runtime/load error\n");
  return ScriptInterpreter::kReboot;
}

AutoScriptInvokerImpl::Step AutoScriptInvokerImpl::LastResortRecovery(int reason,
                                                                      NetworkRecovery& recovery) {
  Log("LastResortRecovery\n");
  Log("Begin last resort recovery due to {}\n", reason);
  {
    const std::lock_guard lock(m_lock);
    m_periodic = false;
    m_periodic_script = false;
  }
  bool start_over = false;
  const std::string script = FindLastResortScript(recovery, &start_over);
  if (Bail()) {
    Log("Bailing out of last resort recovery.\n");
    return ScriptInterpreter::kNormal;
  }
  if (start_over) return {};
  if (script.empty()) {
    if (recovery.IsPossible()) {
      Log("Forcing reboot due to lack of last resort recovery script\n");
      return ScriptInterpreter::kReboot;
    }
    if (reason == ScriptInterpreter::kFileError) {
      Log("Network recovery is not possible. Autorun not found. Reporting error upstream.\n");
      return ScriptInterpreter::kFileError;
    }
    if (!m_debug) {
      Log("Network recovery is not possible. Script debugging is not enabled. Force reboot.\n");
      return ScriptInterpreter::kReboot;
    }
    Log("Network recovery is not possible. Script debugging is enabled. Reporting error "
        "upstream.\n");
    return static_cast<ScriptResult>(reason);
  }

  Log("Running last resort recovery '{}'\n", script);
  const Outcome outcome = RunScript(script, {}, Kind::kRecovery);
  if (Bail()) {
    Log("Bailing out of last resort recovery.\n");
    return ScriptInterpreter::kNormal;
  }
  if (outcome.result == ScriptInterpreter::kRestartScript) {
    m_storages.ForgetBad();
    return {};
  }
  if (!outcome.IsError()) return outcome.result;
  Log("Last resort recovery script failed.\n");
  if (OperatorDebugs(outcome)) return outcome.result;
  if (Bail()) return ScriptInterpreter::kNormal;
  Log("Forcing reboot due to last resort recovery script runtime/load error\n");
  return ScriptInterpreter::kReboot;
}

// The script to run, or "" when there is none. A storage with an autorun that is put in while the
// server is asked is better than any recovery: *start_over.
std::string AutoScriptInvokerImpl::FindLastResortScript(NetworkRecovery& recovery,
                                                        bool* start_over) {
  const FilenameMapper& mapper = FilenameMapper::GetInstance();
  if (recovery.IsPossible()) {
    ShowSplash({"Attempting Network Recovery"});
    Sigint sigint;
    StorageWatch watch;
    PollWaker waker;
    // Started for it, the thread has made its first request already, or is about to.
    const bool started_for_it = recovery.GetMode() == RecoveryMode::kLastResort;
    unsigned answers = started_for_it ? 0 : recovery.GetResult().count;
    const unsigned last = answers + kLastResortRequests;
    recovery.NotifyResult(&waker);
    if (!started_for_it) {
      recovery.SetMode(RecoveryMode::kLastResort);
      recovery.RequestNow();
    }
    std::string script;
    // What would have been next is no reason to leave the failure of the best unmended.
    const int known = m_storages.Best();
    bool look = true;  // what has come since the storages were last looked at is not in the watch
    while (!Bail() && script.empty() && answers < last) {
      if (std::exchange(look, false)) {
        m_storages.Scan(mapper);
        const int best = m_storages.Best();
        *start_over = best >= 0 && best != known && !AutorunStorages::IsDefault(best);
        if (*start_over) break;
      }
      const RecoveryResult result = recovery.GetResult();
      if (result.count > answers) {
        answers = result.count;
        Log("Recovery server response code: {}\n", result.status);
        if (result.has_script) script = kRecoveryScript;
        continue;
      }
      const Woken woken = Wait("LastResortRecovery", sigint, &watch, &waker, -1);
      m_gave_up |= woken.interrupt;
      if (woken.recovery) recovery.NotifyResult(&waker);
      look = woken.storage || woken.poke;
    }
    recovery.NotifyResult(nullptr);
    if (!script.empty() || *start_over || Bail()) return script;
  }
  Log("Looking for recovery script at '{}'\n", kLocalRecoveryScript);
  std::string path;
  struct stat status;
  if (!mapper.TryMap(kLocalRecoveryScript, &path)) return {};
  return ::stat(lattix::DevicePath(path).c_str(), &status) == 0 && S_ISREG(status.st_mode)
             ? kLocalRecoveryScript
             : "";
}

}  // namespace

std::unique_ptr<AutoScriptInvoker> CreateAutoScriptInvoker(AutoScriptInvokerOptions options) {
  return std::make_unique<AutoScriptInvokerImpl>(std::move(options));
}
