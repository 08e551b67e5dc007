// The hooks are plain functions, so the one host is found through a static pointer.
//
// Rules of the signal handlers: they touch lock-free atomics, the private root's removal and system
// calls, nothing else. The handler runs on the script's thread, so a script process that it finds
// in a chain is alive for as long as it looks at it, provided a process leaves its chain before it
// dies.
#include "apps/plumscript/host.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "apps/plumscript/output.h"
#include "apps/plumscript/private_root.h"
#include "lib/platform/device_path.h"
#include "lib/scripting/CommonAPI/Include/class_registry.h"
#include "lib/scripting/Plumscript/Source/hooks.h"
#include "lib/scripting/host_files.h"

namespace {

Host* g_host = nullptr;

std::atomic<psProc*> g_running{nullptr};  // the process a break goes to
std::atomic<int> g_interrupts{0};         // SIGINTs since the run began
std::atomic<bool> g_session{false};       // a person is at a terminal
std::atomic<bool> g_noted{false};         // a SIGINT between two runs
std::atomic<int> g_wake_fd{-1};           // an eventfd that ends a sleep
static_assert(std::atomic<psProc*>::is_always_lock_free && std::atomic<int>::is_always_lock_free);

psProc* Innermost(psProc* p) {
  while (psProc* child = p->chain.load(std::memory_order_acquire)) p = child;
  return p;
}

void Wake() {
  const int fd = g_wake_fd.load(std::memory_order_relaxed);
  const uint64_t one = 1;
  if (fd >= 0 && ::write(fd, &one, sizeof(one)) < 0) return;  // full: it is readable already
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
    RemovePrivateRoot();
    ::signal(signal, SIG_DFL);
    ::raise(signal);  // ends the process when this handler returns and unblocks it
  }
  errno = saved;
}

timespec MonotonicNow() {
  timespec now;
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return now;
}

constexpr long kNanoseconds = 1'000'000'000;

// The time from now to a deadline; false when it has passed.
bool TimeUntil(const timespec& deadline, timespec* left) {
  const timespec now = MonotonicNow();
  left->tv_sec = deadline.tv_sec - now.tv_sec;
  left->tv_nsec = deadline.tv_nsec - now.tv_nsec;
  if (left->tv_nsec < 0) {
    left->tv_nsec += kNanoseconds;
    --left->tv_sec;
  }
  return left->tv_sec >= 0 && (left->tv_sec > 0 || left->tv_nsec > 0);
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
  psHostHooks hooks;
  hooks.mapFilename = [](psText name, std::string* native) {
    return g_host->m_mapper.TryMap(name, native);
  };
  hooks.openFile = [](const std::string& native, int flags, unsigned mode) {
    if (!g_host->m_source.empty() && native == g_host->m_source) {
      return ::open(native.c_str(), flags | O_CLOEXEC, mode);
    }
    return OpenBeneathDrive(native, flags, mode).Release();
  };
  hooks.deleteFile = [](psText name) { return host_files::DeleteFile(g_host->m_mapper, name); };
  hooks.deleteDirectory = [](psText name) {
    return host_files::DeleteDirectory(g_host->m_mapper, name);
  };
  hooks.createDirectory = [](psText name) {
    return host_files::CreateDirectory(g_host->m_mapper, name);
  };
  hooks.copyFile = [](psText from, psText to) {
    return host_files::CopyFile(g_host->m_mapper, from, to);
  };
  hooks.moveFile = [](psText from, psText to) {
    return host_files::MoveFile(g_host->m_mapper, from, to);
  };
  hooks.formatDrive = [](psText drive, psText file_system) {
    Out().Flush();
    return host_files::FormatDrive(drive, file_system);
  };
  hooks.ejectDrive = [](psText drive) {
    Out().Flush();
    return host_files::EjectDrive(drive);
  };
  hooks.getDefaultDrive = [] { return g_host->m_mapper.GetDefaultDrive(); };
  hooks.setDefaultDrive = [](psText drive) { g_host->m_mapper.SetDefaultDrive(drive); };
  hooks.beforeBlocking = [] { Out().Flush(); };
  hooks.sleep = Sleep;
  hooks.enableZoneSupport = [](bool enable) { g_host->m_globals.EnableZoneSupport(enable); };
  hooks.rebootSystem = [] { Request(kExitReboot, "Reboot requested by Plumscript\n"); };
  hooks.shutdownSystem = [] { Request(kExitShutdown, "Halt requested by script\n"); };
  hooks.restartScript = [] { Request(kExitRestartScript, "RestartScript requested by script\n"); };
  hooks.restartApplication = [] {
    Request(kExitRestartApplication, "RestartApplication requested by script\n");
  };
  psInstallHooks(hooks);
}

void Host::Request(ExitStatus status, const char* log) {
  Out().Error(log);
  g_host->m_requested = status;
  if (psProc* running = g_running.load(std::memory_order_relaxed)) scriptRequestEnd(running);
}

void Host::Sleep(pscDomain* domain, int32_t milliseconds) {
  if (milliseconds <= 0) return;
  timespec deadline = MonotonicNow();
  deadline.tv_sec += milliseconds / 1000;
  deadline.tv_nsec += (milliseconds % 1000) * 1'000'000L;
  if (deadline.tv_nsec >= kNanoseconds) {
    deadline.tv_nsec -= kNanoseconds;
    ++deadline.tv_sec;
  }
  // Made by the first sleep. A break that came before the hook was set is seen in the break word.
  if (g_wake_fd < 0) g_wake_fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  pscSetBreakHook(
      domain, [](void*) { Wake(); }, nullptr);
  timespec left;
  while (!pscBreakPending(domain) && TimeUntil(deadline, &left)) {
    pollfd wake = {g_wake_fd, POLLIN, 0};
    uint64_t drained;
    if (::ppoll(&wake, 1, &left, nullptr) > 0 && ::read(g_wake_fd, &drained, sizeof(drained)) < 0 &&
        errno != EAGAIN && errno != EINTR) {
      break;
    }
  }
  pscSetBreakHook(domain, nullptr, nullptr);
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
  ::signal(SIGPIPE, SIG_IGN);  // told by EPIPE instead
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
