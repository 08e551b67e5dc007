#include "lib/platform/async_signals.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "lib/platform/debug_mode.h"
#include "lib/platform/log.h"
#include "tests/platform/test_support.h"

namespace {

using lattix::SignalDispatcher;
using lattix::SignalObserverScopedLock;

class Observer : public lattix::SignalObserver, public lattix::ChildProcessObserver {
 public:
  void OnSignal(const siginfo_t& info) override {
    m_last = info.si_signo;
    if (m_log) m_log->push_back(m_name);
    m_called.Set();
    if (m_throws) throw std::runtime_error("not now");
  }
  void OnChildExit(const siginfo_t& info) override {
    m_last = info.si_pid;
    ++m_exits;
    m_called.Set();
  }

  std::vector<std::string>* m_log = nullptr;  // touched under the dispatcher's lock only
  std::string m_name;
  bool m_throws = false;
  std::atomic<int> m_last{0};
  std::atomic<int> m_exits{0};
  SimpleEvent m_called;
};

class AsyncSignalsTest : public testing::Test {
 protected:
  // Sends a signal to this process and waits until it has been dispatched.
  void Dispatch(int signal) {
    Observer last;
    m_dispatcher->Attach(signal, &last);
    ASSERT_EQ(kill(getpid(), signal), 0);
    ASSERT_TRUE(Happens(&last.m_called));
    m_dispatcher->Detach(signal, &last);
  }

  BlockedSignals m_blocked;
  std::unique_ptr<SignalDispatcher> m_dispatcher = std::make_unique<SignalDispatcher>();
};

TEST_F(AsyncSignalsTest, ObserversOfASignalAreCalledInOrder) {
  std::vector<std::string> log;
  Observer a;
  Observer b;
  for (Observer* observer : {&a, &b}) observer->m_log = &log;
  a.m_name = "a";
  b.m_name = "b";
  for (Observer* observer : {&a, &b, &a}) m_dispatcher->Attach(SIGTERM, observer);
  m_dispatcher->Attach(SIGHUP, &b);
  Dispatch(SIGTERM);
  m_dispatcher->Detach(SIGTERM, &a);  // the first of its two attachments
  Dispatch(SIGTERM);
  EXPECT_EQ(log, (std::vector<std::string>{"a", "b", "a", "b", "a"}));
  m_dispatcher->Detach(SIGTERM, &a);
  m_dispatcher->Detach(SIGTERM, &b);
  Dispatch(SIGRTMIN + 1);
  m_dispatcher->Detach(SIGHUP, &b);
  EXPECT_EQ(log.size(), 5u);
  EXPECT_EQ(b.m_last, SIGTERM);
}

TEST_F(AsyncSignalsTest, ThrowingObserverIsLoggedAndTheOthersAreCalled) {
  Observer thrower;
  thrower.m_throws = true;
  m_dispatcher->Attach(SIGHUP, &thrower);
  testing::internal::CaptureStderr();
  Dispatch(SIGHUP);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "SignalDispatcher received signal 1\n"
            "Message 'SignalDispatcher received signal {}\n' threw 'not now'\n");
  m_dispatcher->Detach(SIGHUP, &thrower);
}

TEST_F(AsyncSignalsTest, SignalWakerWakesAPollLoop) {
  lattix::SignalWaker waker;
  m_dispatcher->Attach(SIGTERM, &waker);
  Dispatch(SIGTERM);
  pollfd fd = {waker.GetReadFd(), POLLIN, 0};
  EXPECT_EQ(poll(&fd, 1, 30'000), 1);
  waker.Acknowledge();
  m_dispatcher->Detach(SIGTERM, &waker);
}

// The signals of children that end together merge into one; each observer has to hear of its own.
TEST_F(AsyncSignalsTest, EveryObserverHearsOnceOfItsChild) {
  constexpr int kChildren = 20;
  Observer observers[kChildren];
  std::vector<pid_t> children;
  {
    SignalObserverScopedLock lock;
    for (Observer& observer : observers) {
      const pid_t child = fork();
      if (child == 0) _exit(0);
      children.push_back(child);
      m_dispatcher->AttachChildProcess(lock, child, &observer);
    }
    // All have ended before the dispatcher can look.
    siginfo_t info;
    for (pid_t child : children) {
      ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT), 0);
    }
  }
  for (int i = 0; i < kChildren; ++i) {
    EXPECT_TRUE(Happens(&observers[i].m_called)) << i;
    EXPECT_EQ(observers[i].m_last, children[static_cast<size_t>(i)]);
  }
  kill(getpid(), SIGCHLD);
  Dispatch(SIGRTMIN + 1);  // the greater number is received after it
  for (pid_t child : children) EXPECT_EQ(waitpid(child, nullptr, 0), child);
  for (const Observer& observer : observers) EXPECT_EQ(observer.m_exits, 1);
}

TEST_F(AsyncSignalsTest, StoppedChildHasNotEnded) {
  Observer observer;
  pid_t child;
  {
    SignalObserverScopedLock lock;
    child = fork();
    if (child == 0) {
      for (;;) pause();
    }
    m_dispatcher->AttachChildProcess(lock, child, &observer);
  }
  kill(child, SIGSTOP);
  siginfo_t info;
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child), &info, WSTOPPED), 0);
  Dispatch(SIGRTMIN + 1);
  EXPECT_EQ(observer.m_exits, 0);
  kill(child, SIGKILL);
  EXPECT_TRUE(Happens(&observer.m_called));
  waitpid(child, nullptr, 0);
}

TEST(DebugModeTest, LastSwitchOfTheCommandLineDecides) {
  const struct {
    const char* command_line;
    bool enabled;
  } kRows[] = {
      {"", false},
      {"quiet console=ttyS0", false},
      {"ps.debug", true},
      {"ps.debug=", true},
      {"ps.debug=1 quiet", true},
      {"ps.debug=00", true},
      {"ps.debug=0", false},
      {"quiet\tps.debug=0\n", false},
      {"quiet ps.debug\n", true},
      {"xps.debug=1 ps.debugger=1 PS.DEBUG", false},
      {"ps.debug=0 ps.debug", true},
      {"  ps.debug=1=0  ", true},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(lattix::CommandLineEnablesDebugMode(row.command_line), row.enabled)
        << row.command_line;
  }
}

class AsyncSignalsDeathTest : public ThreadedDeathTest {};

TEST_F(AsyncSignalsDeathTest, DetachingWhatIsNotAttachedEndsTheProcess) {
  EXPECT_DEATH(
      {
        SignalDispatcher dispatcher;
        Observer observer;
        dispatcher.Attach(SIGTERM, &observer);
        dispatcher.Detach(SIGHUP, &observer);
      },
      "assertion 'i != m_observers.end\\(\\)' failed");
  EXPECT_DEATH(
      {
        SignalDispatcher dispatcher;
        Observer observer;
        SignalObserverScopedLock lock;
        dispatcher.DetachChildProcess(lock, 1, &observer);
      },
      "assertion 'i != m_process_observers.end\\(\\)' failed");
}

// In a process of its own, because debug mode is decided once.
TEST_F(AsyncSignalsDeathTest, DebugModeDispatchesInterruptsOfOneIntervalOnce) {
  EXPECT_EXIT(
      {
        TemporaryRoot root;
        root.Write("/proc/cmdline", "quiet ps.debug\n");
        BlockedSignals blocked;
        Observer observer;
        {
          SignalDispatcher dispatcher;
          dispatcher.Attach(SIGINT, &observer);
          for (int interrupts : {2, 1}) {
            for (int i = 0; i < interrupts; ++i) raise(SIGINT);
            if (!Happens(&observer.m_called)) exit(1);
            lattix::Log("dispatched {}\n", observer.m_last.load());
          }
          dispatcher.Detach(SIGINT, &observer);
        }
        exit(0);
      },
      testing::ExitedWithCode(0),
      "SIGINT received\nSIGINT received\nSignalDispatcher received signal 2\ndispatched 2\n"
      "SIGINT received\nSignalDispatcher received signal 2\ndispatched 2\n$");
}

}  // namespace
