// The hooks are plain functions, so the one host is found through a static pointer.
//
// Rules of the signal handlers: they touch lock-free atomics, the private root's removal and system
// calls, nothing else. The handler runs on the script's thread, so a script process that it finds
// in a chain is alive for as long as it looks at it, provided a process leaves its chain before it
// dies.
#include "apps/plumscript/host.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "apps/plumscript/line_reader.h"
#include "apps/plumscript/output.h"
#include "apps/plumscript/private_root.h"
#include "lib/platform/device_path.h"
#include "lib/scripting/CommonAPI/Include/class_registry.h"
#include "lib/scripting/Plumscript/Source/hooks.h"

namespace {

Host* g_host = nullptr;

std::atomic<psProc*> g_running{nullptr};  // the process a break goes to
std::atomic<int> g_interrupts{0};         // SIGINTs since the run began
std::atomic<bool> g_session{false};       // a person is at a terminal
std::atomic<bool> g_noted{false};         // a SIGINT between two runs
static_assert(std::atomic<psProc*>::is_always_lock_free && std::atomic<int>::is_always_lock_free);

psProc* Innermost(psProc* p) {
  while (psProc* child = p->chain.load(std::memory_order_acquire)) p = child;
  return p;
}

// What scriptBreak does, without its locks.
void BreakFromSignal(psProc* running) {
  std::atomic<uint32_t>& word = Innermost(running)->break_word;
  uint32_t before = word.load(std::memory_order_relaxed);
  // A request to end outlasts a break.
  while ((before & kPsBreakSticky) == 0 &&
         !word.compare_exchange_weak(before, (before & ~kPsBreakCodeMask) | kPsBreak)) {
  }
  pscSignalBreakFromHandler(running->domain);
}

void OnSignal(int signal) {
  const int saved = errno;
  psProc* running = g_running.load(std::memory_order_relaxed);
  if (signal == SIGINT && running == nullptr && g_session.load(std::memory_order_relaxed)) {
    g_noted.store(true, std::memory_order_relaxed);
  } else if (signal == SIGINT && running != nullptr && g_interrupts.fetch_add(1) == 0) {
    BreakFromSignal(running);
  } else {
    RestoreTerminal();
    RemovePrivateRoot();
    ::signal(signal, SIG_DFL);
    ::raise(signal);  // ends the process when this handler returns and unblocks it
  }
  errno = saved;
}

std::string ResolvedPath(const char* path) {
  char resolved[PATH_MAX];
  return ::realpath(path, resolved) != nullptr ? resolved : "/";
}

// The folder that SD: stands for: the script's own, or the current one for a script that comes out
// of a descriptor ("/dev/stdin").
std::string ScriptFolder(const char* file) {
  if (file == nullptr) return ResolvedPath(".");
  std::string folder = file;
  const size_t slash = folder.rfind('/');
  folder = ResolvedPath(slash == std::string::npos ? "." : folder.substr(0, slash + 1).c_str());
  if (folder == "/dev" || folder.starts_with("/dev/") || folder.starts_with("/proc/")) {
    return ResolvedPath(".");
  }
  return folder;
}

}  // namespace

// --- Host -------------------------------------------------------------------------------------

Host::Host() {
  g_host = this;
  m_mapper.SetCurrentDirectory("SD:/");
  lattix::SetDeviceRootMaker(MakePrivateRoot);
  InstallHooks();

  m_console.putc = [](psIo*, unsigned char ch) {
    const char text = static_cast<char>(ch);
    Out().Write({&text, 1});
  };
  m_console.write = [](psIo*, const char* text, size_t n) { Out().Write({text, n}); };
  m_console.flush = [](psIo*) { Out().Flush(); };
  pscSetPrintHook([](void*, psText text) { Out().Error(text); }, nullptr);
  Out().OnFailure([] {
    if (psProc* running = g_running.load(std::memory_order_relaxed)) scriptRequestEnd(running);
  });

  psInitArguments arguments;
  // Beside the script first, so that a presentation can bring its own version of a library.
  arguments.library_prefixes = {"SYS:/script-lib/", ""};
  scriptInit(std::move(arguments));
  KelvoRegisterClasses();
  m_process = scriptCreateProcess();
}

Host::~Host() {
  if (m_process != nullptr) scriptDestroyProcess(m_process);
  scriptUninit();
  Out().OnFailure(nullptr);
  pscSetPrintHook(nullptr, nullptr);
  psInstallHooks({});
  RemovePrivateRoot();
  g_host = nullptr;
}

void Host::InstallHooks() {
  psHostHooks hooks = CommonScriptHooks(Request);
  hooks.openFile = [](const std::string& native, int flags, unsigned mode) {
    if (!g_host->m_source.empty() && native == g_host->m_source) {
      return ::open(native.c_str(), flags | O_CLOEXEC, mode);
    }
    return OpenBeneathDrive(native, flags, mode).Release();
  };
  // A file that holds no text is all that the compiler would say of it.
  hooks.decipherSource = [](const std::string&, std::string*) {
    Out().Error("Enciphered scripts run on a player only, which has the keys\n");
    return false;
  };
  hooks.beforeBlocking = [] { Out().Flush(); };
  hooks.enableZoneSupport = [](bool enable) { g_host->m_globals.EnableZoneSupport(enable); };
  psInstallHooks(hooks);
}

void Host::Request(ScriptRequest request) {
  Out().Error(ScriptRequestLog(request));
  g_host->m_requested = static_cast<ExitStatus>(request);
  if (psProc* running = g_running.load(std::memory_order_relaxed)) scriptRequestEnd(running);
}

void Host::SetScript(const char* file) { SetPrivateRootFolder(ScriptFolder(file)); }

ExitStatus Host::CompileFile(const char* file) {
  struct stat status;
  const int error = ::stat(file, &status) != 0 ? errno : S_ISDIR(status.st_mode) ? EISDIR : 0;
  if (error != 0) {
    Out().Error(std::string("plumscript: ") + file + ": " + std::strerror(error) + "\n");
    return kExitFileError;
  }
  SetScript(file);
  m_source = file;
  const bool compiled = scriptCompileFile(m_process, file, file);
  m_source.clear();
  PrintCompileErrors();
  return compiled ? kExitNormal : kExitLoadError;
}

void Host::PrintCompileErrors() {
  std::string text;
  while (scriptNextCompileError(m_process, &text)) {
    if (!text.ends_with('\n')) text += '\n';
    Out().Error(text);
  }
}

void Host::PrintCompileErrors(const psCompileErrors& errors) {
  for (const psCompileError& error : errors) {
    std::string text = scriptCompileErrorText(error);
    if (!text.ends_with('\n')) text += '\n';
    Out().Error(text);
  }
}

void Host::PrintRuntimeError() {
  std::string text = scriptGetRuntimeErrorText(m_process);
  if (!text.ends_with('\n')) text += '\n';
  Out().Error(text);
}

void Host::TakeBreaks() {
  g_interrupts = 0;
  g_running = m_process;
  if (TakeInterrupt()) scriptBreak(m_process, kPsBreak);
}

void Host::LeaveBreaks() { g_running = nullptr; }

Host::Run::Run(Host& host) { host.TakeBreaks(); }
Host::Run::~Run() { LeaveBreaks(); }

Host::Pause::Pause(Host& host) : m_host(host) { LeaveBreaks(); }
Host::Pause::~Pause() { m_host.TakeBreaks(); }

// --- Signals and the end ----------------------------------------------------------------------

void TakeSignals() {
  struct sigaction action = {};
  action.sa_handler = OnSignal;
  ::sigfillset(&action.sa_mask);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    // One that is ignored (a background job, nohup) stays ignored.
    struct sigaction before;
    if (::sigaction(signal, nullptr, &before) == 0 && before.sa_handler == SIG_IGN) continue;
    ::sigaction(signal, &action, nullptr);
  }
  // Told by EPIPE and EFBIG instead.
  for (const int signal : {SIGPIPE, SIGXFSZ}) ::signal(signal, SIG_IGN);
}

void BeginSession() { g_session = true; }

bool TakeInterrupt() { return g_noted.exchange(false); }

int FinishOutput(int status) {
  Output& out = Out();
  out.Flush();
  if (out.failure() == 0) return status;
  if (out.failure() == EPIPE) return kExitOutputClosed;
  out.Error(std::string("plumscript: standard output: ") + std::strerror(out.failure()) + "\n");
  return kExitOutputError;
}
