// The player has many threads when it forks, so the child may rely on nothing that another thread
// could have been holding: between fork and exec it calls async-signal-safe functions only. All
// that takes memory or locks (the argument and environment vectors, the account's groups, the
// paths) is prepared in the parent, in a SpawnPlan.
#include "lib/platform/spawn_process.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "lib/platform/assertion.h"
#include "lib/platform/debug_mode.h"
#include "lib/platform/device_path.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/log.h"
#include "lib/platform/monotonic_time.h"

using lattix::ErrnoException;
using lattix::ErrorText;
using lattix::Log;
using lattix::UniqueFd;

namespace {

constexpr int kChildFailedStatus = 127;
// Long enough for a program that writes its files before it ends, on a slow card.
constexpr std::chrono::nanoseconds kDefaultWaitTimeout = std::chrono::seconds(60);
// Entries of the account databases are small; a larger one is refused by the look-up itself.
constexpr size_t kAccountBufferSize = 64 * 1024;
constexpr int kMaxGroups = 1024;

constexpr char kNullDevice[] = "/dev/null";

struct Pipe {
  UniqueFd read_end;
  UniqueFd write_end;
};

// Ends above the standard streams: an end in their place would be overwritten when the child's
// streams are connected.
Pipe MakePipe() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw ErrnoException(errno, "pipe");
  Pipe pipe;
  for (int i = 0; i < 2; ++i) {
    UniqueFd& end = i == 0 ? pipe.read_end : pipe.write_end;
    end.Reset(ends[i]);
    if (ends[i] > STDERR_FILENO) continue;
    end.Reset(fcntl(ends[i], F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  }
  if (!pipe.read_end || !pipe.write_end) throw ErrnoException(errno, "fcntl");
  return pipe;
}

struct Account {
  uid_t user;
  gid_t group;
  std::vector<gid_t> groups;
};

Account LookUpAccount(const std::string& user, const std::string& group) {
  std::vector<char> buffer(kAccountBufferSize);
  Account account{};
  passwd entry;
  passwd* found = nullptr;
  getpwnam_r(user.c_str(), &entry, buffer.data(), buffer.size(), &found);
  if (!found) throw std::runtime_error("User not found");
  account.user = entry.pw_uid;
  account.group = entry.pw_gid;
  if (!group.empty()) {
    ::group group_entry;
    ::group* found_group = nullptr;
    getgrnam_r(group.c_str(), &group_entry, buffer.data(), buffer.size(), &found_group);
    if (!found_group) throw std::runtime_error("Group not found");
    account.group = group_entry.gr_gid;
  }
  int count = kMaxGroups;
  account.groups.resize(static_cast<size_t>(count));
  getgrouplist(user.c_str(), account.group, account.groups.data(), &count);
  account.groups.resize(static_cast<size_t>(std::clamp(count, 0, kMaxGroups)));
  return account;
}

std::vector<char*> PointersTo(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  pointers.reserve(strings.size() + 1);
  for (std::string& s : strings) pointers.push_back(s.data());
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace

// Everything the child needs, readable without a further allocation.
struct SpawnPlan {
  unsigned flags;
  std::vector<std::string> arguments;
  std::vector<char*> argv;
  std::vector<std::string> environment;
  std::vector<char*> envp;
  const char* directory;     // null for none
  const char* process_name;  // null for none
  std::optional<Account> account;
  std::string kernel_log;
  pid_t parent;
  int child_streams[3] = {-1, -1, -1};  // the child's ends of the pipes

  bool Has(SpawnProcess::Flags flag) const { return flags & flag; }
};

// --- In the child ---

namespace {

void WriteToStderr(std::initializer_list<const char*> parts) {
  char line[256];
  size_t length = 0;
  for (const char* part : parts) {
    const size_t n = std::min(strlen(part), sizeof line - length);
    memcpy(line + length, part, n);
    length += n;
  }
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line, length);
}

[[noreturn]] void FailChild(const char* text) {
  const char* reason = strerrordesc_np(errno);
  WriteToStderr({text, ": ", reason ? reason : "Unknown error", "\n"});
  _exit(kChildFailedStatus);
}

void MoveToStream(int fd, int stream, const char* failure) {
  if (dup2(fd, stream) < 0) FailChild(failure);
}

void OpenAsStream(const char* path, int flags, int stream, const char* open_failure,
                  const char* dup_failure) {
  const int fd = open(path, flags | O_CLOEXEC);
  if (fd < 0) FailChild(open_failure);
  if (fd != stream) {
    MoveToStream(fd, stream, dup_failure);
    return;
  }
  // The stream was closed, so the file has landed in its place, where it must survive the exec.
  if (fcntl(fd, F_SETFD, 0) < 0) FailChild(dup_failure);
}

void CloseAllButStreams() {
  if (syscall(SYS_close_range, STDERR_FILENO + 1, ~0u, 0) == 0) return;
  const long limit = sysconf(_SC_OPEN_MAX);
  for (int fd = STDERR_FILENO + 1; fd < limit; ++fd) close(fd);
}

// Keeps the right to bind ports below 1024 and nothing else across the change of the user. The
// kernel's own calls are used, since a library that allocates has no place in a forked child.
void KeepPrivilegedPorts() {
  constexpr uint32_t kPorts = 1u << CAP_NET_BIND_SERVICE;
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
  data[0] = {kPorts, kPorts, kPorts};
  if (syscall(SYS_capset, &header, data) != 0) FailChild("cap_set_flag");
  if (prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_RAISE, CAP_NET_BIND_SERVICE, 0, 0) != 0) {
    FailChild("prctl");
  }
}

void DropPrivileges(const Account& account) {
  if (prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0) != 0) FailChild("prctl");
  if (setgroups(account.groups.size(), account.groups.data()) != 0) FailChild("setgroups");
  if (setgid(account.group) != 0) FailChild("setgid");
  if (setuid(account.user) != 0) FailChild("setuid");
  KeepPrivilegedPorts();
}

void TakeTerminal() {
  // SIGTTOU would stop a background group that changes the foreground group.
  signal(SIGTTOU, SIG_IGN);
  tcsetpgrp(STDIN_FILENO, getpgrp());
  for (int job_control : {SIGTSTP, SIGTTIN, SIGTTOU}) signal(job_control, SIG_DFL);
}

// Connects standard input, output and error as the flags say.
void ConnectStreams(const SpawnPlan& plan) {
  struct Stream {
    int fd;
    unsigned null_flag;
    unsigned kernel_log_flag;
    const char* dup_failure;
  };
  // Standard error first: messages about the others are to come out of the child's own.
  constexpr Stream kStreams[] = {
      {STDERR_FILENO, SpawnProcess::kNullStderr, SpawnProcess::kKernelLogStderr,
       "Failed to dup to stderr"},
      {STDOUT_FILENO, SpawnProcess::kNullStdout, SpawnProcess::kKernelLogStdout,
       "Failed to dup to stdout"},
      {STDIN_FILENO, SpawnProcess::kNullStdin, 0, "Failed to dup stdin"},
  };
  for (const Stream& stream : kStreams) {
    if (plan.child_streams[stream.fd] >= 0) {
      MoveToStream(plan.child_streams[stream.fd], stream.fd, stream.dup_failure);
    } else if (plan.flags & stream.null_flag) {
      OpenAsStream(kNullDevice, O_RDWR, stream.fd, "Failed to open /dev/null", stream.dup_failure);
    } else if (plan.flags & stream.kernel_log_flag) {
      // In a device root it is a plain file, which others append to as well.
      OpenAsStream(plan.kernel_log.c_str(), O_WRONLY | O_APPEND, stream.fd,
                   "Failed to open /dev/kmsg", stream.dup_failure);
    }
  }
}

[[noreturn]] void RunChild(const SpawnPlan& plan) {
  environ = const_cast<char**>(plan.envp.data());
  ConnectStreams(plan);
  CloseAllButStreams();
  if (plan.Has(SpawnProcess::kNewSession)) {
    setsid();
  } else if (plan.Has(SpawnProcess::kNewProcessGroup)) {
    setpgid(0, 0);
  }
  if (plan.Has(SpawnProcess::kForeground)) TakeTerminal();
  if (plan.process_name) prctl(PR_SET_NAME, plan.process_name, 0, 0, 0);
  if (plan.account) DropPrivileges(*plan.account);
  if (plan.Has(SpawnProcess::kEndWithParent)) {
    // After the change of the user, which clears it. A parent that ended before is not told again.
    if (prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0) != 0) FailChild("prctl");
    if (getppid() != plan.parent) _exit(kChildFailedStatus);
  }
  if (plan.directory && chdir(plan.directory) != 0) FailChild("chdir");
  lattix::ConfigureSignals(lattix::kUnblockSignals);
  // What this process ignores stays ignored across exec, and a pipeline's first program would then
  // complain of its reader's end instead of ending quietly.
  for (int ignored : {SIGPIPE, SIGXFSZ}) signal(ignored, SIG_DFL);
  execvp(plan.argv[0], plan.argv.data());
  _exit(kChildFailedStatus);
}

}  // namespace

// --- In the parent ---

// Stands between the dispatcher and the user's observer, because the dispatcher detaches an
// observer by itself and only the notification tells that it did.
class SpawnProcess::Watch final : public lattix::ChildProcessObserver {
 public:
  explicit Watch(lattix::ChildProcessObserver* observer) : m_observer(observer) {}
  ~Watch() { Detach(); }

  void Attach(const lattix::SignalObserverScopedLock& lock, pid_t child) {
    lattix::SignalDispatcher::GetInstance().AttachChildProcess(lock, child, this);
    m_child = child;
  }
  void Detach() {
    if (!lattix::SignalDispatcher::Exists()) return;
    lattix::SignalObserverScopedLock lock;
    if (m_child == 0) return;
    lattix::SignalDispatcher::GetInstance().DetachChildProcess(lock, m_child, this);
    m_child = 0;
  }

  void OnChildExit(const siginfo_t& info) override {
    m_child = 0;
    m_observer->OnChildExit(info);
  }

 private:
  lattix::ChildProcessObserver* const m_observer;
  pid_t m_child = 0;  // 0 when not attached; guarded by the dispatcher's lock
};

// The terminal on descriptor 0 as it was before a child took it over; restored on destruction.
struct SpawnProcess::Terminal {
  const pid_t group = tcgetpgrp(STDIN_FILENO);
  termios attributes;
  const bool has_attributes = tcgetattr(STDIN_FILENO, &attributes) == 0;

  ~Terminal() {
    // This process is in a background group now and would be stopped for what it does here.
    sigset_t stop;
    sigset_t before;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTTOU);
    pthread_sigmask(SIG_BLOCK, &stop, &before);
    if (group > 0) tcsetpgrp(STDIN_FILENO, group);
    if (has_attributes) tcsetattr(STDIN_FILENO, TCSADRAIN, &attributes);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
  }
};

SpawnProcess::SpawnProcess(std::string program, std::vector<std::string> args)
    : m_program(std::move(program)), m_args(std::move(args)), m_wait_timeout(kDefaultWaitTimeout) {}

SpawnProcess::~SpawnProcess() {
  if (m_child_pid) waitpid(m_child_pid, nullptr, WNOHANG);
}

void SpawnProcess::AddEnvironment(std::string name, std::string value) {
  m_environment.emplace_back(std::move(name), std::move(value));
}

void SpawnProcess::SetWorkingDirectory(std::string directory) {
  m_directory = std::move(directory);
}

void SpawnProcess::SetUser(std::string user) { m_user = std::move(user); }

void SpawnProcess::SetGroup(std::string group) { m_group = std::move(group); }

void SpawnProcess::SetProcessName(std::string name) { m_process_name = std::move(name); }

void SpawnProcess::SetChildObserver(lattix::ChildProcessObserver* observer) {
  m_watch = observer ? std::make_unique<Watch>(observer) : nullptr;
}

void SpawnProcess::SetWaitTimeout(std::chrono::nanoseconds timeout) { m_wait_timeout = timeout; }

void SpawnProcess::MakePlan(unsigned int flags, SpawnPlan* plan) const {
  plan->flags = flags;
  plan->arguments.push_back(m_program);
  plan->arguments.insert(plan->arguments.end(), m_args.begin(), m_args.end());
  plan->argv = PointersTo(plan->arguments);
  const size_t arg = plan->argv.size() - 1;
  LATTIX_ASSERT(arg == m_args.size() + 1);

  for (char** variable = environ; variable && *variable; ++variable) {
    plan->environment.emplace_back(*variable);
  }
  for (const auto& [name, value] : m_environment) {
    std::erase_if(plan->environment,
                  [start = name + "="](const std::string& v) { return v.starts_with(start); });
    plan->environment.push_back(name + "=" + value);
  }
  plan->envp = PointersTo(plan->environment);

  plan->directory = m_directory.empty() ? nullptr : m_directory.c_str();
  plan->process_name = m_process_name.empty() ? nullptr : m_process_name.c_str();
  if (flags & kDropPrivileges) plan->account = LookUpAccount(m_user, m_group);
  plan->kernel_log = lattix::DevicePath("/dev/kmsg");
  plan->parent = getpid();
}

pid_t SpawnProcess::Execute(unsigned int flags) {
  LATTIX_ASSERT(!m_child_pid);
  if (flags & kForeground && !(flags & kNewSession)) flags |= kNewProcessGroup;
  if (m_watch) m_watch->Detach();  // of a child that was waited for before its end was dispatched

  SpawnPlan plan;
  MakePlan(flags, &plan);
  Pipe streams[3];
  for (int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    constexpr unsigned kPipeFlags[] = {kPipeStdin, kPipeStdout, kPipeStderr};
    if (!(flags & kPipeFlags[stream])) continue;
    streams[stream] = MakePipe();
    plan.child_streams[stream] =
        (stream == STDIN_FILENO ? streams[stream].read_end : streams[stream].write_end).Get();
  }
  auto terminal = flags & kForeground ? std::make_unique<Terminal>() : nullptr;
  (void)lattix::IsDebugMode();  // read here, where it is allowed to allocate

  pid_t child;
  {
    // Held over the fork, so that the child's end is not dispatched before its observer is there.
    std::optional<lattix::SignalObserverScopedLock> lock;
    if (m_watch) lock.emplace();
    child = fork();
    if (child == 0) RunChild(plan);
    if (child < 0) throw ErrnoException(errno, "fork");
    // The child does the same; whoever is first, the group exists when either goes on. Fails when
    // the child has already executed its program, which is after its own call.
    if (flags & kNewProcessGroup && !(flags & kNewSession)) setpgid(child, child);
    if (m_watch) m_watch->Attach(*lock, child);
  }

  m_child_pid = child;
  m_abort_on_wait_timeout = flags & kAbortOnWaitTimeout;
  m_group_ends_with_child = flags & kGroupEndsWithChild;
  m_terminal = std::move(terminal);
  m_stdin = std::move(streams[STDIN_FILENO].write_end);
  m_stdout = std::move(streams[STDOUT_FILENO].read_end);
  m_stderr = std::move(streams[STDERR_FILENO].read_end);
  return child;
}

bool SpawnProcess::WaitForExit(std::chrono::nanoseconds timeout) const {
  // The child is not reaped yet, so its id cannot have gone to another process.
  const UniqueFd process(static_cast<int>(syscall(SYS_pidfd_open, m_child_pid, 0)));
  if (!process) {
    if (errno == ESRCH) return true;  // reaped behind our back; waitpid will tell
    throw ErrnoException(errno, "pidfd_open");
  }
  const int64_t deadline = lattix::monotonic_time_after_ns(timeout.count());
  for (;;) {
    constexpr int64_t kNanosecondsPerSecond = 1'000'000'000;
    const int64_t left = std::max<int64_t>(deadline - lattix::get_monotonic_time(), 0);
    const timespec wait = {left / kNanosecondsPerSecond, left % kNanosecondsPerSecond};
    pollfd fd = {process.Get(), POLLIN, 0};
    const int ready = ppoll(&fd, 1, &wait, nullptr);
    if (ready >= 0) return ready > 0;
    if (errno != EINTR) throw ErrnoException(errno, "ppoll");
  }
}

pid_t SpawnProcess::Collect(int options, int* status) {
  if (m_group_ends_with_child) {
    // While the ended child has not been collected, its group's id cannot go to another one.
    siginfo_t ended{};
    int waited;
    do {
      waited = waitid(P_PID, static_cast<id_t>(m_child_pid), &ended, WEXITED | WNOWAIT | options);
    } while (waited < 0 && errno == EINTR);
    if (waited == 0 && ended.si_pid == m_child_pid) kill(-m_child_pid, SIGKILL);
  }
  pid_t result;
  do {
    result = waitpid(m_child_pid, status, options);
  } while (result < 0 && errno == EINTR);
  if (result < 0) {
    const int error = errno;
    Log("waitpid for {}({}) failed: {} {}\n", m_program, m_child_pid, error, ErrorText(error));
    ForgetChild();
    throw ErrnoException(error, "waitpid");
  }
  if (result > 0) ForgetChild();
  return result;
}

void SpawnProcess::ForgetChild() {
  m_child_pid = 0;
  m_terminal.reset();
}

int SpawnProcess::ExitStatus(int status) const {
  if (WIFSIGNALED(status)) throw ChildWasKilledBySignal(m_program, WTERMSIG(status));
  return WEXITSTATUS(status);
}

int SpawnProcess::Wait() {
  LATTIX_ASSERT(m_child_pid);
  if (m_abort_on_wait_timeout && !WaitForExit(m_wait_timeout)) {
    Log("Abort due to timeout on waitpid\n");
    std::abort();
  }
  int status;
  Collect(0, &status);
  return ExitStatus(status);
}

int SpawnProcess::Reap() {
  LATTIX_ASSERT(m_child_pid);
  int status;
  if (Collect(WNOHANG, &status) == 0) throw std::runtime_error("Child hasn't exited yet");
  return ExitStatus(status);
}

void SpawnProcess::SendSignal(int signal, const char* caller) {
  if (kill(m_child_pid, signal) == 0) return;
  const int error = errno;
  Log("Failed to send signal {} to {}.\n", signal, m_child_pid);
  throw ErrnoException(error, caller);
}

void SpawnProcess::Kill(int signal) {
  if (!m_child_pid) throw std::runtime_error("No child in SpawnProcess::Kill");
  SendSignal(signal, "Kill");
}

void SpawnProcess::KillAndWait(int signal, const std::chrono::nanoseconds& timeout) {
  if (!m_child_pid) throw std::runtime_error("No child in SpawnProcess::KillAndWait");
  m_stdin.Reset();
  SendSignal(signal, "KillAndWait");
  m_stdout.Reset();
  m_stderr.Reset();
  if (!WaitForExit(timeout)) {
    Log("PID {} didn't exit from signal {}. Trying harder.\n", m_child_pid, signal);
    SendSignal(SIGKILL, "KillAndWait");
    if (!WaitForExit(timeout)) {
      Log("PID {} didn't exit from KILL.\n", m_child_pid);
      LATTIX_ASSERT(false);
    }
  }
  int status;
  Collect(0, &status);
}
