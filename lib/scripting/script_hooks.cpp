// The hooks are plain functions without a context: what they need of the process are singletons,
// and the host's own answer to a request lies in a static.
//
// Rule of the sleep: what wakes it is called by other threads and by signal handlers, so it touches
// an atomic and one system call, nothing else.
#include "lib/scripting/script_hooks.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <ctime>

#include "lib/scripting/Plumscript/Source/psc.h"
#include "lib/scripting/filename_mapper.h"
#include "lib/scripting/host_files.h"

namespace {

constexpr long kNanoseconds = 1'000'000'000;

void (*g_request)(ScriptRequest) = nullptr;
std::atomic<int> g_wake_fd{-1};  // an eventfd that ends a sleep
static_assert(std::atomic<int>::is_always_lock_free);

void Wake() {
  const int fd = g_wake_fd.load(std::memory_order_relaxed);
  const uint64_t one = 1;
  if (fd >= 0 && ::write(fd, &one, sizeof(one)) < 0) return;  // full: it is readable already
}

timespec MonotonicNow() {
  timespec now;
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return now;
}

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

void Sleep(pscDomain* domain, int32_t milliseconds) {
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

FilenameMapper& Mapper() { return FilenameMapper::GetInstance(); }

}  // namespace

const char* ScriptRequestLog(ScriptRequest request) {
  switch (request) {
    case ScriptRequest::kRestartScript: return "RestartScript requested by script\n";
    case ScriptRequest::kRestartApplication: return "RestartApplication requested by script\n";
    case ScriptRequest::kReboot: return "Reboot requested by Plumscript\n";
    case ScriptRequest::kShutdown: return "Halt requested by script\n";
  }
  return "";
}

psHostHooks CommonScriptHooks(void (*request)(ScriptRequest)) {
  g_request = request;
  psHostHooks hooks;
  hooks.mapFilename = [](psText name, std::string* path) { return Mapper().TryMap(name, path); };
  hooks.openFile = [](const std::string& path, int flags, unsigned mode) {
    return OpenBeneathDrive(path, flags, mode).Release();
  };
  hooks.deleteFile = [](psText name) { return host_files::DeleteFile(Mapper(), name); };
  hooks.deleteDirectory = [](psText name) { return host_files::DeleteDirectory(Mapper(), name); };
  hooks.createDirectory = [](psText name) { return host_files::CreateDirectory(Mapper(), name); };
  hooks.copyFile = [](psText from, psText to) { return host_files::CopyFile(Mapper(), from, to); };
  hooks.moveFile = [](psText from, psText to) { return host_files::MoveFile(Mapper(), from, to); };
  // These log: what the script has printed before comes first.
  hooks.formatDrive = [](psText drive, psText file_system) {
    psHooks().beforeBlocking();
    return host_files::FormatDrive(drive, file_system);
  };
  hooks.ejectDrive = [](psText drive) {
    psHooks().beforeBlocking();
    return host_files::EjectDrive(drive);
  };
  hooks.getDefaultDrive = [] { return Mapper().GetDefaultDrive(); };
  hooks.setDefaultDrive = [](psText drive) { Mapper().SetDefaultDrive(drive); };
  hooks.sleep = Sleep;
  hooks.rebootSystem = [] { g_request(ScriptRequest::kReboot); };
  hooks.shutdownSystem = [] { g_request(ScriptRequest::kShutdown); };
  hooks.restartScript = [] { g_request(ScriptRequest::kRestartScript); };
  hooks.restartApplication = [] { g_request(ScriptRequest::kRestartApplication); };
  return hooks;
}
