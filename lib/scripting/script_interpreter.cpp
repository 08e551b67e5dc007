// A script process with a debug session beside it. The session's shell is what the virtual machine
// calls when a run stops on an error; during a run it is DebugShellWrapper, which finds the
// interpreter by the session and decides whether the debugger's own shell gets to see the error.
//
// The process exists as long as the interpreter, so a break or a stop from another thread always
// has a process to go to. Run clears the break word first and then looks at m_stopped, Stop does it
// the other way round: one of the two sees the other.
#include "lib/scripting/script_interpreter.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <new>
#include <optional>
#include <span>
#include <stdexcept>

#include "lib/platform/assertion.h"
#include "lib/platform/async_signals.h"
#include "lib/platform/console_owner.h"
#include "lib/platform/device_file.h"
#include "lib/platform/digest/file_digest.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/log.h"
#include "lib/platform/monotonic_time.h"
#include "lib/platform/unique_fd.h"
#include "lib/scripting/Plumscript/Source/clglobal.h"
#include "lib/scripting/Plumscript/Source/publicapis.h"
#include "lib/scripting/Plumscript/Source/run.h"
#include "lib/scripting/Plumscript/Source/run_debugger.h"
#include "lib/scripting/filename_mapper.h"
#include "lib/scripting/script_main.h"
#include "lib/scripting/script_runtime.h"

using lattix::Log;

namespace {

// A script's device path with its NUL.
constexpr size_t kPathRoom = 512;
constexpr size_t kLongestError = 256;

std::string WithoutLineEnd(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  return text;
}

// Standard output as a console that cannot be read.
psIo StandardOutput() {
  psIo io;
  io.putc = [](psIo*, unsigned char ch) { std::fputc(ch, stdout); };
  io.write = [](psIo*, const char* text, size_t n) { std::fwrite(text, 1, n, stdout); };
  io.flush = [](psIo*) { std::fflush(stdout); };
  return io;
}

uint32_t RandomSeed() {
  uint32_t seed = 0;
  try {
    const lattix::UniqueFd fd = lattix::OpenDevice("/dev/urandom", O_RDONLY);
    if (::read(fd.Get(), &seed, sizeof(seed)) == sizeof(seed)) return seed;
  } catch (const lattix::ErrnoException&) {
  }
  return static_cast<uint32_t>(lattix::get_monotonic_time());
}

std::string SerialConsole() {
  const char* console = std::getenv("CONSOLE_SERIAL");
  return console != nullptr ? console : "";
}

bool StandardInputIs(const std::string& terminal) {
  char name[64];
  if (::ttyname_r(STDIN_FILENO, name, sizeof(name)) != 0) return false;
  return terminal == name || "/dev/" + terminal == name;
}

std::string ConsolePrompt(const char* without_console, const char* what) {
  const std::string serial = SerialConsole();
  if (serial.empty()) return without_console;
  if (StandardInputIs(serial)) {
    return fmt::format("Press SVC button or Ctrl-C on serial to {}\n", what);
  }
  const std::string first = "connect to " + serial;
  return fmt::format("Press SVC button or {} and press Ctrl-C to {}\n", first, what);
}

class ScriptInterpreterImpl final : public ScriptInterpreter,
                                    private ScriptRuntime::RequestHandler,
                                    private lattix::SignalObserver {
 public:
  explicit ScriptInterpreterImpl(const ScriptInterpreterOptions& options);
  ~ScriptInterpreterImpl() override;

  void AsyncInterrupt(InterruptDisposition disposition) override;
  ScriptResult Run(const std::string& file, const std::string& hash_source, int argc,
                   const char* const* argv, ScriptInterpreterEventObserver* observer) override;
  void Stop() override;
  const std::vector<std::string>& GetErrors() const override { return m_errors; }
  void PrintErrors() override;
  bool WasOfferedDebugger() const override { return m_offered_debugger; }
  bool WasDebugged() const override { return m_debugged; }

 private:
  class Attached;

  // The live interpreters by their debug sessions.
  static void AddObject(psDebugSession* session, ScriptInterpreterImpl* object);
  void RemoveObject(psDebugSession* session);
  static ScriptInterpreterImpl* FindObject(psDebugSession* session);

  static psStatus DebugShellWrapper(psProc* p);
  psStatus OnRuntimeError(psProc* p);
  psStatus EnterDebugger(psProc* p);
  bool CanDebug() const { return m_debugger_shell != nullptr; }
  // Invites the operator; true when an interrupt has come in time.
  bool WaitForDebugChoice();

  void OnScriptRequest(ScriptRequest request) override;
  // At the debugger's prompt it abandons the line; statements that were typed there, it breaks.
  void OnSignal(const siginfo_t&) override {
    if (m_in_debugger && lattix::IsConsoleRead()) return;
    AsyncInterrupt(InterruptDisposition::kBreak);
  }
  void ForgetInterrupts();

  ScriptResult Fail(ScriptResult result, std::string error);
  std::optional<ScriptResult> Load(const std::string& file, const std::string& hash_source);
  ScriptResult RunMain(std::span<const char* const> arguments);

  const ScriptInterpreterOptions m_options;
  const ScriptRuntime m_runtime;
  psIo m_standard_output = StandardOutput();
  psIo* const m_console = m_options.console != nullptr ? m_options.console : &m_standard_output;
  psDebugSession* m_session = nullptr;
  // The debugger's own shell; null: this console has none.
  psStatus (*m_debugger_shell)(psProc*) = nullptr;
  psProc* m_process = nullptr;

  // Readable while an interrupt has not been looked at by the operator's choice.
  const lattix::UniqueFd m_interrupt{::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
  std::mutex m_stop_lock;  // held while a break or a stop is asked for
  std::atomic<bool> m_stopped{false};
  std::atomic<bool> m_in_debugger{false};

  // The running thread's.
  std::vector<std::string> m_errors;
  std::optional<ScriptRequest> m_request;
  bool m_offered_debugger = false;
  bool m_debugged = false;
  bool m_told = false;  // the console has had the error
  bool m_interactive = false;

  static std::mutex sm_lock;
  static std::map<psDebugSession*, ScriptInterpreterImpl*> sm_objects;  // guarded by sm_lock
  static std::atomic<bool> sm_running;
};

std::mutex ScriptInterpreterImpl::sm_lock;
std::map<psDebugSession*, ScriptInterpreterImpl*> ScriptInterpreterImpl::sm_objects;
std::atomic<bool> ScriptInterpreterImpl::sm_running{false};

// --- The registry of interpreters -------------------------------------------------------------

void ScriptInterpreterImpl::AddObject(psDebugSession* session, ScriptInterpreterImpl* object) {
  const std::lock_guard lock(sm_lock);
  LATTIX_ASSERT(sm_objects.find(session) == sm_objects.end());
  sm_objects.emplace(session, object);
}

void ScriptInterpreterImpl::RemoveObject(psDebugSession* session) {
  const std::lock_guard lock(sm_lock);
  const auto found = sm_objects.find(session);
  LATTIX_ASSERT(found != sm_objects.end());
  LATTIX_ASSERT(found->second == this);
  sm_objects.erase(found);
}

ScriptInterpreterImpl* ScriptInterpreterImpl::FindObject(psDebugSession* session) {
  const std::lock_guard lock(sm_lock);
  const auto found = sm_objects.find(session);
  if (found == sm_objects.end()) {
    Log("ScriptInterpreterImpl::FindObject failed to find script object.\n");
    Log("Object dump {} objects:\n", sm_objects.size());
    for (const auto& [ps, si] : sm_objects) {
      Log(" ps({}) -> si({})\n", static_cast<const void*>(ps), static_cast<const void*>(si));
    }
    Log("Looking for {}\n", static_cast<const void*>(session));
  }
  LATTIX_ASSERT(found != sm_objects.end());
  return found->second;
}

// --- Making and ending ------------------------------------------------------------------------

ScriptInterpreterImpl::ScriptInterpreterImpl(const ScriptInterpreterOptions& options)
    : m_options(options) {
  m_session = DebugCreateSession(nullptr, m_console);
  if (m_session == nullptr) throw std::runtime_error("Failed to create debug session");
  if (m_console->read_line != nullptr) m_debugger_shell = m_session->shell;
  m_process = scriptCreateProcess();
  if (m_process == nullptr) {
    DebugDeleteSession(m_session);
    throw std::runtime_error("Failed to create Plumscript process");
  }
  AddObject(m_session, this);
}

ScriptInterpreterImpl::~ScriptInterpreterImpl() {
  RemoveObject(m_session);
  scriptDestroyProcess(m_process);
  DebugDeleteSession(m_session);
}

// --- From other threads -----------------------------------------------------------------------

void ScriptInterpreterImpl::AsyncInterrupt(InterruptDisposition disposition) {
  // A break would take back the end that a stop has asked for.
  const std::lock_guard lock(m_stop_lock);
  if (m_stopped) return;
  switch (disposition) {
    case InterruptDisposition::kBreak: {
      scriptBreak(m_process, kPsBreak);
      const uint64_t one = 1;
      // Full is readable too.
      if (::write(m_interrupt.Get(), &one, sizeof(one)) < 0) return;
      return;
    }
    case InterruptDisposition::kEnd: scriptRequestEnd(m_process); return;
  }
  LATTIX_ASSERT_TEXT(false, "unknown interrupt disposition");
}

void ScriptInterpreterImpl::Stop() {
  const std::lock_guard lock(m_stop_lock);
  m_stopped = true;
  scriptRequestEnd(m_process);
  const uint64_t one = 1;
  if (::write(m_interrupt.Get(), &one, sizeof(one)) < 0) return;
}

// --- The run ----------------------------------------------------------------------------------

// What holds while a run lasts: the requests of its script and the operator's interrupts come here.
class ScriptInterpreterImpl::Attached {
 public:
  explicit Attached(ScriptInterpreterImpl& owner)
      : m_owner(owner),
        m_signals(owner.m_options.interruptible && lattix::SignalDispatcher::Exists()) {
    ScriptRuntime::SetRequestHandler(&owner);
    if (m_signals) lattix::SignalDispatcher::GetInstance().Attach(SIGINT, &owner);
  }
  ~Attached() {
    if (m_signals) lattix::SignalDispatcher::GetInstance().Detach(SIGINT, &m_owner);
    ScriptRuntime::SetRequestHandler(nullptr);
  }
  Attached(const Attached&) = delete;
  Attached& operator=(const Attached&) = delete;

 private:
  ScriptInterpreterImpl& m_owner;
  const bool m_signals;
};

ScriptInterpreter::ScriptResult ScriptInterpreterImpl::Run(
    const std::string& file, const std::string& hash_source, int argc, const char* const* argv,
    ScriptInterpreterEventObserver* observer) {
  m_errors.clear();
  m_request.reset();
  m_offered_debugger = false;
  m_debugged = false;
  m_told = false;
  // The runtime has one domain, and a domain one script.
  if (sm_running.exchange(true)) return Fail(kRuntimeError, "Another script is running");
  struct NotRunning {
    ~NotRunning() { sm_running = false; }
  } const not_running;

  psSeedRandom(RandomSeed());
  m_process->stop_on_error = false;
  m_process->break_word = 0;
  if (m_stopped) scriptRequestEnd(m_process);

  if (const std::optional<ScriptResult> failed = Load(file, hash_source)) return *failed;
  if (observer != nullptr) observer->OnScriptLoaded(*this);
  if (m_process->mod->main_function == nullptr) return Fail(kRuntimeError, "No Sub Main()");
  return RunMain({argv, static_cast<size_t>(argc)});
}

ScriptInterpreter::ScriptResult ScriptInterpreterImpl::Fail(ScriptResult result,
                                                            std::string error) {
  m_errors.push_back(std::move(error));
  return result;
}

// Nothing when the script has compiled.
std::optional<ScriptInterpreter::ScriptResult> ScriptInterpreterImpl::Load(
    const std::string& file, const std::string& hash_source) {
  m_interactive = file.empty();
  if (m_interactive) {
    if (!CanDebug()) return Fail(kFileError, "The console cannot be read");
    scriptCompileText(m_process, "sub main()\nstop\nend sub\n", "");
    return {};
  }
  const FilenameMapper& mapper = FilenameMapper::GetInstance();
  std::string path;
  if (!mapper.TryMap(file, &path) || path.size() >= kPathRoom) {
    return Fail(kFileError, "Failed to map filename");
  }
  const lattix::UniqueFd fd = OpenBeneathDrive(path, O_RDONLY, 0);
  struct stat status;
  if (!fd || ::fstat(fd.Get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    return Fail(kFileError, "File not found");
  }

  try {
    std::string hashed_path = path;
    if (!hash_source.empty()) hashed_path = mapper.Map(hash_source);
    const lattix::UniqueFd hashed = OpenBeneathDrive(hashed_path, O_RDONLY, 0);
    if (!hashed) throw lattix::ErrnoException(errno, hashed_path);
    // Whatever lies there is read to its end, and that may be far.
    const std::string hash = FileSha1(hashed.Get(), [this] {
      if (m_stopped) throw std::runtime_error("Cancelled");
    });
    Log("Loading '{}' ({})\n", file, hash);
  } catch (const std::exception& error) {
    Log("Failed to produce hash for '{}': {}\n", file, error.what());
  }

  if (scriptCompileFile(m_process, path, path)) return {};
  std::string error;
  while (scriptNextCompileError(m_process, &error)) {
    m_errors.push_back(WithoutLineEnd(error.substr(0, kLongestError)));
  }
  return kLoadError;
}

ScriptInterpreter::ScriptResult ScriptInterpreterImpl::RunMain(
    std::span<const char* const> arguments) {
  ForgetInterrupts();  // they were meant for an earlier run
  auto* const before = std::exchange(m_session->shell, DebugShellWrapper);
  bool normal;
  {
    const Attached attached(*this);
    normal = RunMainWithArgs(m_process, m_console, m_session, arguments);
  }
  m_session->shell = before;
  if (m_request) return static_cast<ScriptResult>(*m_request);
  if (normal) return kNormal;
  return Fail(kRuntimeError, WithoutLineEnd(scriptGetRuntimeErrorText(m_process)));
}

void ScriptInterpreterImpl::OnScriptRequest(ScriptRequest request) {
  m_request = request;
  scriptRequestEnd(m_process);
}

// --- Runtime errors ---------------------------------------------------------------------------

psStatus ScriptInterpreterImpl::DebugShellWrapper(psProc* p) {
  return FindObject(p->debug_session)->OnRuntimeError(p);
}

// The run goes on with the status returned: 255 continues it.
psStatus ScriptInterpreterImpl::OnRuntimeError(psProc* p) {
  const psStatus status = p->last_status;
  const std::string text = scriptGetRuntimeErrorText(p);
  io_flush(m_console);
  if (m_stopped || m_request) return kPsNormalEnd;
  m_told = true;
  if (m_interactive) return EnterDebugger(p);
  if (status == kPsBreak) {
    Log("Script interrupted via Ctrl-C\n");
    if (CanDebug() && (m_options.debug || m_options.interruptible)) {
      m_offered_debugger = true;
      return EnterDebugger(p);
    }
    return status;
  }
  Log("Script runtime error: {}\n", WithoutLineEnd(text));
  if (CanDebug() && m_options.debug) {
    m_offered_debugger = true;
    return EnterDebugger(p);
  }
  if (CanDebug() && m_options.interruptible) {
    m_offered_debugger = true;
    io_printf(m_console, "Runtime error: %sPress Ctrl-C to debug\n", text.c_str());
    io_flush(m_console);
    if (WaitForDebugChoice()) {
      Log("Script interrupted via Ctrl-C\n");
      return EnterDebugger(p);
    }
    return status;
  }
  const std::string serial = SerialConsole();
  if ((m_options.debug || m_options.interruptible) && !serial.empty()) {
    Log("Debugger is not available on serial port; {}.\n", "the script has no console to read");
  }
  io_printf(m_console, "Runtime error: %s\n", WithoutLineEnd(text).c_str());
  io_flush(m_console);
  return status;
}

// The console is the debugger's until the script goes on.
psStatus ScriptInterpreterImpl::EnterDebugger(psProc* p) {
  const lattix::ConsoleHold hold;
  m_debugged = true;
  m_in_debugger = true;
  const psStatus status = m_debugger_shell(p);
  m_in_debugger = false;
  ForgetInterrupts();  // what they broke has stopped, and the operator has chosen
  return status;
}

void ScriptInterpreterImpl::ForgetInterrupts() {
  uint64_t drained;
  if (::read(m_interrupt.Get(), &drained, sizeof(drained)) < 0) return;
}

bool ScriptInterpreterImpl::WaitForDebugChoice() {
  Log("{}", DebugPrompt());
  const int64_t deadline = lattix::monotonic_time_after_ms(m_options.debug_choice.count());
  for (;;) {
    const int64_t left = deadline - lattix::get_monotonic_time();
    if (left <= 0) return false;
    const timespec timeout = {left / 1'000'000'000, left % 1'000'000'000};
    pollfd interrupt = {m_interrupt.Get(), POLLIN, 0};
    if (::ppoll(&interrupt, 1, &timeout, nullptr) <= 0) continue;
    uint64_t drained;
    if (::read(m_interrupt.Get(), &drained, sizeof(drained)) < 0) continue;
    return !m_stopped;
  }
}

void ScriptInterpreterImpl::PrintErrors() {
  if (m_errors.empty() || m_told) return;
  if (m_errors.size() == 1) {
    io_write(m_console, "Error: " + m_errors.front() + "\n");
  } else {
    io_write(m_console, "Errors during load:\n");
    for (const std::string& error : m_errors) io_write(m_console, "  " + error + "\n");
  }
  io_flush(m_console);
}

}  // namespace

std::unique_ptr<ScriptInterpreter> CreateScriptInterpreter(
    const ScriptInterpreterOptions& options) {
  return std::make_unique<ScriptInterpreterImpl>(options);
}

std::string DebugPrompt() { return ConsolePrompt("Press SVC to debug.\n", "debug"); }
std::string InterruptPrompt() {
  return ConsolePrompt("Press SVC button to interrupt\n", "interrupt");
}
