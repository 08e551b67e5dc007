// One loop on the thread in Run waits for the child's end (a pidfd), for the other threads (a
// waker) and for the supervisor's signs of life (a pipe with a name). Other threads leave their
// wish under m_lock and wake it; everything else, the watchdog too, is done there.
//
// Rules of this file:
// 1. The watchdog's callbacks take m_lock while its mutex is held, so nothing calls the watchdog
//    while it holds m_lock.
// 2. Signals from other threads go through the pidfd, which names the child even after its end.
#include "lib/scripting/script_bootstrap.h"

#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <limits>
#include <optional>
#include <regex>
#include <stdexcept>
#include <utility>
#include <vector>

#include "lib/platform/assertion.h"
#include "lib/platform/bootstrap_watchdog.h"
#include "lib/platform/device_file.h"
#include "lib/platform/device_path.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/log.h"
#include "lib/platform/monotonic_time.h"
#include "lib/platform/registry_client.h"
#include "lib/platform/spawn_process.h"

using lattix::ErrnoException;
using lattix::Log;
using lattix::UniqueFd;

namespace {

// A supervisor needs none of the player's rights. A device that has this account runs it there.
constexpr char kAccount[] = "orvex-bootstrap";
constexpr char kAlivePipe[] = "/var/run/orvex-bootstrap.alive";
constexpr char kAliveVariable[] = "ORVEX_BOOTSTRAP_ALIVE";
constexpr char kCrashTrigger[] = "/sys/class/mem/kmsg/trigger_dump";
// The status of a child whose program could not be loaded (spawn_process.h).
constexpr int kNotLoadedStatus = 127;
// Longer silences than a day are no supervision.
constexpr int kMaxSilenceSeconds = 86'400;

std::optional<passwd> SupervisorAccount(std::vector<char>* buffer) {
  if (lattix::InDeviceRoot() || ::geteuid() != 0) return std::nullopt;
  buffer->resize(size_t{64} << 10);
  passwd entry;
  passwd* found = nullptr;
  ::getpwnam_r(kAccount, &entry, buffer->data(), buffer->size(), &found);
  if (!found) return std::nullopt;
  return entry;
}

// The named pipe that a supervisor writes to as a sign of life, as long as the object lasts.
// Without one (no place to make it) there are only the other ways.
class AlivePipe {
 public:
  explicit AlivePipe(const std::optional<passwd>& owner) : m_path(lattix::DevicePath(kAlivePipe)) {
    ::unlink(m_path.c_str());
    if (::mkfifo(m_path.c_str(), 0600) != 0) {
      Log("Failed to create {}: {}\n", kAlivePipe, lattix::ErrorText(errno));
      return;
    }
    // Opened for writing as well: the pipe then never reads as ended between two writers.
    m_fd.Reset(::open(m_path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW));
    if (owner && ::fchown(m_fd.Get(), owner->pw_uid, owner->pw_gid) != 0) {
      Log("Failed to give away {}: {}\n", kAlivePipe, lattix::ErrorText(errno));
    }
  }
  ~AlivePipe() {
    if (m_fd) ::unlink(m_path.c_str());
  }

  int fd() const { return m_fd.Get(); }
  const std::string& path() const { return m_path; }
  // Whether something was written since the last call.
  bool Drain() const {
    char bytes[4096];
    return ::read(m_fd.Get(), bytes, sizeof bytes) > 0;  // the rest is found by the next poll
  }

 private:
  const std::string m_path;
  UniqueFd m_fd;
};

std::string DescribeStatus(const std::string& program, int status) {
  if (status == kNotLoadedStatus) return program + " could not be started";
  return "Child (" + program + ") exited with status " + std::to_string(status);
}

}  // namespace

bool IsInspectorAddress(std::string_view address) {
  static const std::regex kAddress(R"(^([0-9]{1,3}\.){3}[0-9]{1,3}:[0-9]{1,5}$)");
  constexpr size_t kLongest = sizeof("255.255.255.255:65535") - 1;
  return address.size() <= kLongest && std::regex_match(address.begin(), address.end(), kAddress);
}

Bootstrap::Options Bootstrap::ReadOptions(std::string script) {
  Options options;
  options.script = std::move(script);
  options.inspector = Registry::Setting("bootstrap", "inspector");
  options.watchdog_test = !Registry::Setting("bootstrap", "watchdog_test").empty();
  const std::string silence = Registry::Setting("bootstrap", "watchdog");
  int seconds = 0;
  const auto [end, error] =
      std::from_chars(silence.data(), silence.data() + silence.size(), seconds);
  if (!silence.empty() && error == std::errc() && *end == '\0' && seconds >= 0 &&
      seconds <= kMaxSilenceSeconds) {
    options.max_silence = std::chrono::seconds(seconds);
  }
  return options;
}

Bootstrap::Bootstrap(Options options)
    : OnlyOne("Only one Bootstrap may exist at a time"), m_options(std::move(options)) {}

Bootstrap::~Bootstrap() {
  const std::lock_guard lock(m_lock);
  LATTIX_ASSERT(!m_running);
}

void Bootstrap::WakeLocked() {
  if (!std::exchange(m_woken, true)) m_waker.Wake();
}

void Bootstrap::RequestEnd() {
  const std::lock_guard lock(m_lock);
  m_end_requested = true;
  WakeLocked();
}

void Bootstrap::Kill() {
  RequestEnd();
  // Both of the waits that ending a child may take, and something for a slow machine.
  const int64_t deadline =
      lattix::monotonic_time_after_ns((2 * m_options.end_limit + std::chrono::seconds(10)).count());
  std::unique_lock lock(m_lock);
  const bool ended = m_changed.wait_until(lock, deadline, [this] { return !m_running; });
  LATTIX_ASSERT_TEXT(ended, "Failed to kill running bootstrap");
}

void Bootstrap::KillAtOnce() {
  sm_process_ends = true;
  if (const pid_t group = sm_group) ::kill(-group, SIGKILL);
}

void Bootstrap::Alive() {
  const std::lock_guard lock(m_lock);
  m_alive = true;
  WakeLocked();
}

void Bootstrap::Run() {
  {
    const std::lock_guard lock(m_lock);
    if (m_end_requested) return;
    m_running = true;
  }
  // What other threads see of the run ends with it, whatever ends it.
  struct Ending {
    Bootstrap& bootstrap;
    ~Ending() {
      bootstrap.m_watchdog.reset();
      sm_group = 0;
      const std::lock_guard lock(bootstrap.m_lock);
      bootstrap.m_process.Reset();
      bootstrap.m_running = false;
      bootstrap.m_changed.notify_all();
    }
  } ending{*this};
  Supervise();
}

void Bootstrap::Supervise() {
  std::vector<std::string> arguments{"--expose-gc"};
  if (IsInspectorAddress(m_options.inspector)) {
    arguments.push_back("--inspect=" + m_options.inspector);
  }
  arguments.push_back(m_options.script);
  SpawnProcess child(m_options.program, std::move(arguments));
  child.SetProcessName("bootstrap");

  std::vector<char> buffer;
  const std::optional<passwd> account = SupervisorAccount(&buffer);
  unsigned flags = SpawnProcess::kPipeStdin | SpawnProcess::kNewProcessGroup |
                   SpawnProcess::kEndWithParent | SpawnProcess::kGroupEndsWithChild;
  if (account) {
    child.SetUser(kAccount);
    flags |= SpawnProcess::kDropPrivileges;
  }
  const AlivePipe alive(account);
  if (alive.fd() >= 0) child.AddEnvironment(kAliveVariable, alive.path());

  sm_group = child.Execute(flags);
  UniqueFd process(static_cast<int>(::syscall(SYS_pidfd_open, child.GetPid(), 0)));
  if (!process) {
    const int error = errno;
    child.KillAndWait(SIGKILL, m_options.end_limit);
    throw ErrnoException(error, "pidfd_open");
  }
  {
    const std::lock_guard lock(m_lock);
    m_process = std::move(process);
  }
  if (m_options.max_silence.count() > 0) NoteAlive();

  for (;;) {
    pollfd fds[] = {
        {m_process.Get(), POLLIN, 0}, {m_waker.GetReadFd(), POLLIN, 0}, {alive.fd(), POLLIN, 0}};
    if (::poll(fds, std::size(fds), -1) < 0) {
      if (errno == EINTR) continue;
      const int error = errno;
      child.KillAndWait(SIGKILL, m_options.end_limit);
      throw ErrnoException(error, "poll");
    }
    if (fds[2].revents && alive.Drain()) NoteAlive();
    if (fds[1].revents) {
      m_waker.Acknowledge();
      std::unique_lock lock(m_lock);
      m_woken = false;
      const bool is_alive = std::exchange(m_alive, false);
      const bool end = m_end_requested;
      lock.unlock();
      if (end) {
        child.KillAndWait(SIGTERM, m_options.end_limit);
        return;
      }
      if (is_alive) NoteAlive();
    }
    if (fds[0].revents) {
      // Not this end is to be judged: it comes from the process's own.
      while (sm_process_ends) ::pause();
      const int status = child.Wait();
      if (status != 0) throw std::runtime_error(DescribeStatus(m_options.program, status));
      return;
    }
  }
}

void Bootstrap::NoteAlive() {
  if (m_options.max_silence.count() == 0) return;
  const std::chrono::nanoseconds silence =
      m_options.max_silence.count() > 0 ? m_options.max_silence : kDefaultSilence;
  const int64_t deadline = lattix::monotonic_time_after_ns(silence.count());
  if (m_watchdog) {
    m_watchdog->Defer(deadline);
    return;
  }
  m_watchdog = std::make_unique<BootstrapWatchdog>(
      BootstrapWatchdog::Supervisor{.is_test_mode = [this] { return m_options.watchdog_test; },
                                    .is_running =
                                        [this] {
                                          const std::lock_guard lock(m_lock);
                                          return static_cast<bool>(m_process);
                                        },
                                    .abort = [this] { SendAbort(); }},
      deadline);
}

void Bootstrap::SendAbort() {
  const std::lock_guard lock(m_lock);
  if (m_process) ::syscall(SYS_pidfd_send_signal, m_process.Get(), SIGABRT, nullptr, 0);
}

void ForceCrashDump() {
  Log("Forcing crash\n");
  try {
    lattix::WriteDeviceFile(kCrashTrigger, "4");
  } catch (const std::exception& error) {
    Log("Failed to write {}: {}\n", kCrashTrigger, error.what());
  }
}
