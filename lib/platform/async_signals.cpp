// The dispatcher thread waits for the dispatched signals and for SIGUSR1, which is
// its order to end.
//
// The kernel keeps one pending SIGCHLD however many children end, and tells one process id with it.
// So every SIGCHLD makes the dispatcher look at all the observed children, without reaping them;
// otherwise children that end together would cost all but one observer its notification.
#include "lib/platform/async_signals.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <ctime>
#include <latch>
#include <map>
#include <thread>
#include <utility>
#include <vector>

#include "lib/platform/assertion.h"
#include "lib/platform/condition_variable.h"
#include "lib/platform/debug_mode.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/log.h"
#include "lib/platform/monotonic_time.h"
#include "lib/platform/thread_name.h"

namespace lattix {

namespace {

constexpr int kStopSignal = SIGUSR1;
// How often debug mode looks whether its SIGINT handler has run.
constexpr timespec kInterruptCheckInterval = {0, 100'000'000};
// Observers do not block, so the thread ends at once; a device that cannot even do that within
// this time is hung.
constexpr int64_t kStopTimeoutMs = 10'000;

constexpr char kReceivedMessage[] = "SignalDispatcher received signal {}\n";

// Counts the runs of debug mode's SIGINT handler.
std::atomic<unsigned> g_interrupts{0};
static_assert(std::atomic<unsigned>::is_always_lock_free);

void OnDebugInterrupt(int) {
  const int saved_errno = errno;
  constexpr char kMessage[] = "SIGINT received\n";
  [[maybe_unused]] const ssize_t n = write(STDERR_FILENO, kMessage, sizeof kMessage - 1);
  g_interrupts.fetch_add(1);
  errno = saved_errno;
}

sigset_t DispatchedSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (int signal : {SIGTERM, SIGHUP, SIGCHLD, SIGRTMIN + 1, SIGRTMIN + 2}) sigaddset(&set, signal);
  if (!IsDebugMode()) sigaddset(&set, SIGINT);
  return set;
}

void SetMask(int how, const sigset_t& set) {
  if (const int error = pthread_sigmask(how, &set, nullptr)) {
    Log("pthread_sigmask failed: {}\n", ErrorText(error));
    LATTIX_ASSERT(false);
  }
}

void InstallDebugInterruptHandler() {
  struct sigaction action {};
  action.sa_handler = OnDebugInterrupt;
  action.sa_flags = SA_RESTART;
  sigaction(SIGINT, &action, nullptr);
}

}  // namespace

void ConfigureSignals(int how) {
  if (IsDebugMode()) InstallDebugInterruptHandler();
  SetMask(how == kBlockSignals ? SIG_BLOCK : SIG_UNBLOCK, DispatchedSignals());
}

struct SignalDispatcher::Impl {
  std::mutex m_mutex;  // guards all but the latch and the thread; held while observers run
  std::vector<std::pair<int, SignalObserver*>> m_observers;  // in the order of their attachment
  std::map<pid_t, ChildProcessObserver*> m_process_observers;
  bool m_unheard_termination = false;  // a SIGTERM came while nobody observed it
  bool m_finished = false;
  condition_variable m_finish;
  std::latch m_started{1};
  std::thread m_thread;

  void Run();
  void Receive(const siginfo_t& info);
  void DispatchChild(const siginfo_t& info);
};

namespace {

template <typename Call>
void CallObserver(Call call) {
  try {
    call();
  } catch (...) {
    LogThrown(kReceivedMessage);
  }
}

bool ChildStillExists(const siginfo_t& info) {
  return info.si_code == CLD_STOPPED || info.si_code == CLD_CONTINUED ||
         info.si_code == CLD_TRAPPED;
}

}  // namespace

void SignalDispatcher::Impl::DispatchChild(const siginfo_t& info) {
  const auto notify = [this](auto registration, const siginfo_t& exit) {
    ChildProcessObserver* const observer = registration->second;
    const auto next = m_process_observers.erase(registration);
    CallObserver([&] { observer->OnChildExit(exit); });
    return next;
  };
  if (!ChildStillExists(info)) {
    const auto named = m_process_observers.find(info.si_pid);
    if (named != m_process_observers.end()) notify(named, info);
  }
  for (auto i = m_process_observers.begin(); i != m_process_observers.end();) {
    siginfo_t exit{};
    const bool ended =
        waitid(P_PID, static_cast<id_t>(i->first), &exit, WEXITED | WNOHANG | WNOWAIT) == 0 &&
        exit.si_pid == i->first;
    i = ended ? notify(i, exit) : std::next(i);
  }
}

void SignalDispatcher::Impl::Receive(const siginfo_t& info) {
  LogUnlessBlocked(kReceivedMessage, info.si_signo);
  std::lock_guard lock(m_mutex);
  if (info.si_signo == SIGCHLD) {
    DispatchChild(info);
    return;
  }
  bool heard = false;
  for (const auto& attachment : m_observers) {
    if (attachment.first != info.si_signo) continue;
    heard = true;
    CallObserver([&] { attachment.second->OnSignal(info); });
  }
  if (!heard && info.si_signo == SIGTERM) m_unheard_termination = true;
}

void SignalDispatcher::Impl::Run() {
  SetThreadName("signals");
  const bool debug = IsDebugMode();
  sigset_t set = DispatchedSignals();
  sigaddset(&set, kStopSignal);
  if (debug) InstallDebugInterruptHandler();
  SetMask(SIG_BLOCK, set);
  unsigned interrupts_seen = g_interrupts.load();
  m_started.count_down();
  for (;;) {
    siginfo_t info{};
    const int signal =
        debug ? sigtimedwait(&set, &info, &kInterruptCheckInterval) : sigwaitinfo(&set, &info);
    if (signal == kStopSignal) break;
    if (signal >= 0) {
      Receive(info);
    } else if (errno == EAGAIN) {
      const unsigned interrupts = g_interrupts.load();
      if (std::exchange(interrupts_seen, interrupts) == interrupts) continue;
      siginfo_t interrupt{};
      interrupt.si_signo = SIGINT;
      Receive(interrupt);
    } else if (errno != EINTR) {
      Log("sigwaitinfo failed with {}: {}\n", errno, ErrorText(errno));
    }
  }
  std::lock_guard lock(m_mutex);
  m_finished = true;
  m_finish.notify_one();
}

SignalDispatcher::SignalDispatcher() : m_impl(std::make_unique<Impl>()) {
  m_impl->m_thread = std::thread([impl = m_impl.get()] { impl->Run(); });
  m_impl->m_started.wait();
}

SignalDispatcher::~SignalDispatcher() {
  pthread_kill(m_impl->m_thread.native_handle(), kStopSignal);
  {
    std::unique_lock lock(m_impl->m_mutex);
    LATTIX_ASSERT(m_impl->m_finish.wait_until(lock, monotonic_time_after_ms(kStopTimeoutMs),
                                              [this] { return m_impl->m_finished; }));
  }
  m_impl->m_thread.join();
}

void SignalDispatcher::Attach(int signal, SignalObserver* observer) {
  std::lock_guard lock(m_impl->m_mutex);
  m_impl->m_observers.emplace_back(signal, observer);
  if (signal == SIGTERM && std::exchange(m_impl->m_unheard_termination, false)) {
    kill(getpid(), SIGTERM);
  }
}

void SignalDispatcher::Detach(int signal, SignalObserver* observer) {
  std::lock_guard lock(m_impl->m_mutex);
  auto& m_observers = m_impl->m_observers;
  const auto i = std::find(m_observers.begin(), m_observers.end(), std::pair(signal, observer));
  LATTIX_ASSERT(i != m_observers.end());
  m_observers.erase(i);
}

SignalObserverScopedLock::SignalObserverScopedLock()
    : m_lock(SignalDispatcher::GetInstance().m_impl->m_mutex) {}

void SignalDispatcher::AttachChildProcess(const SignalObserverScopedLock&, pid_t child,
                                          ChildProcessObserver* observer) {
  m_impl->m_process_observers[child] = observer;
}

void SignalDispatcher::DetachChildProcess(const SignalObserverScopedLock&, pid_t child,
                                          ChildProcessObserver* observer) {
  auto& m_process_observers = m_impl->m_process_observers;
  auto i = m_process_observers.find(child);
  if (i != m_process_observers.end() && i->second != observer) i = m_process_observers.end();
  LATTIX_ASSERT(i != m_process_observers.end());
  m_process_observers.erase(i);
}

}  // namespace lattix
