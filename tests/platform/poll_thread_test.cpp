#include "lib/platform/poll_thread.h"

#include <poll.h>

#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "lib/platform/monotonic_time.h"
#include "tests/platform/test_support.h"

namespace {

using lattix::get_monotonic_time;
using lattix::monotonic_time_after_ms;

// Runs a function on the poll thread, once it is in a callback.
class Recorder : public TimerClient {
 public:
  virtual ~Recorder() = default;
  virtual void Record(void* argument) { m_calls.push_back(reinterpret_cast<intptr_t>(argument)); }
  void Run(void* function) { (*static_cast<std::function<void()>*>(function))(); }
  void Finish(void*) { m_finished.Set(); }

  // Written on the poll thread, read once Finished.
  std::vector<intptr_t> m_calls;
  SimpleEvent m_finished;
};

void* Number(intptr_t number) { return reinterpret_cast<void*>(number); }

class PollThreadTest : public testing::Test {
 protected:
  // Makes the calls on the poll thread as one callback.
  void OnPollThread(std::function<void()> function) {
    Recorder recorder;
    m_thread.AddTimer(&recorder, &Recorder::Run, &function, 0);
    m_thread.AddTimer(&recorder, &Recorder::Finish, nullptr, 1);
    ASSERT_TRUE(Happens(&recorder.m_finished));
    // Waits until the callback itself is over.
    m_thread.CancelTimer(&recorder, &Recorder::Finish, nullptr);
  }
  // Returns when all timers due until now have run.
  void RunDueTimers() {
    Recorder recorder;
    m_thread.AddTimer(&recorder, &Recorder::Finish, nullptr, get_monotonic_time());
    ASSERT_TRUE(Happens(&recorder.m_finished));
    // Waits until the callback itself is over.
    m_thread.CancelTimer(&recorder, &Recorder::Finish, nullptr);
  }

  PollThread m_thread;
};

// A waker that counts and can do something more.
class CountingWaker : public PollableWaker {
 public:
  void OnWoken() override {
    if (m_action) m_action();
    m_woken.Set();
  }
  bool IsWoken() { return Happens(&m_woken); }

  std::function<void()> m_action;
  SimpleEvent m_woken;
};

TEST_F(PollThreadTest, RunsTimersInDueOrderAndEqualOnesInTheOrderTheyWereAdded) {
  Recorder recorder;
  const int64_t now = get_monotonic_time();
  OnPollThread([&] {
    m_thread.AddTimer(&recorder, &Recorder::Record, Number(3), now - 5);
    m_thread.AddTimer(&recorder, &Recorder::Record, Number(4), now - 5);
    m_thread.AddTimer(&recorder, &Recorder::Record, Number(1), now - 9);
    m_thread.AddTimer(&recorder, &Recorder::Record, Number(5), now - 5);
    m_thread.AddTimer(&recorder, &Recorder::Record, Number(2), now - 9);
  });
  RunDueTimers();
  EXPECT_EQ(recorder.m_calls, (std::vector<intptr_t>{1, 2, 3, 4, 5}));
}

TEST_F(PollThreadTest, EarlierTimerOfAnotherThreadShortensTheWait) {
  Recorder recorder;
  m_thread.AddTimer(&recorder, &Recorder::Record, nullptr, monotonic_time_after_ms(3'600'000));
  RunDueTimers();
  m_thread.AddTimer(&recorder, &Recorder::Finish, nullptr, monotonic_time_after_ms(1));
  EXPECT_TRUE(Happens(&recorder.m_finished));
  m_thread.CancelTimer(&recorder, &Recorder::Record, nullptr);
  EXPECT_TRUE(recorder.m_calls.empty());
}

TEST_F(PollThreadTest, CancelTakesTheFirstTimerThatMakesTheSameCall) {
  struct Derived : Recorder {
    void Record(void* argument) override { Recorder::Record(argument); }
  } derived;
  Recorder recorder;
  const int64_t now = get_monotonic_time();
  OnPollThread([&] {
    m_thread.AddTimer(&derived, &Recorder::Record, Number(1), now - 1);
    m_thread.AddTimer(&derived, &Recorder::Record, Number(1), now - 3);
    m_thread.AddTimer(&derived, &Recorder::Record, Number(2), now - 2);
    m_thread.CancelTimer(&derived, &Recorder::Record, Number(1));
    m_thread.CancelTimer(&recorder, &Recorder::Record, Number(2));  // another target
    m_thread.CancelTimer(&derived, &Recorder::Finish, Number(2));   // another method
    m_thread.CancelTimer(&derived, &Recorder::Record, Number(3));   // another argument
  });
  RunDueTimers();
  EXPECT_EQ(derived.m_calls, (std::vector<intptr_t>{2, 1}));
}

TEST_F(PollThreadTest, TimerIsOverBeforeItsCallBegins) {
  Recorder recorder;
  int runs = 0;
  std::function<void()> function = [&] {
    ++runs;
    m_thread.AddTimer(&recorder, &Recorder::Run, &function, 0);
    if (runs == 3) m_thread.CancelTimer(&recorder, &Recorder::Run, &function);
  };
  m_thread.AddTimer(&recorder, &Recorder::Run, &function, 0);
  RunDueTimers();
  EXPECT_EQ(runs, 3);
  m_thread.CancelTimer(&recorder, &Recorder::Run, &function);
}

// Each of these timers is the earliest; were each a wake-up, the waker's pipe would fill and the
// poll thread would wait for itself.
TEST_F(PollThreadTest, CallbackMayAddMoreTimersThanAPipeHolds) {
  constexpr int64_t kTimers = 100'000;
  Recorder recorder;
  OnPollThread([&] {
    for (int64_t i = kTimers; i > 0; --i) {
      m_thread.AddTimer(&recorder, &Recorder::Record, nullptr, i + 1);
    }
  });
  RunDueTimers();
  EXPECT_EQ(recorder.m_calls.size(), static_cast<size_t>(kTimers));
}

TEST_F(PollThreadTest, EveryWakeIsOneCall) {
  CountingWaker waker;
  int calls = 0;
  SimpleEvent all;
  waker.m_action = [&] {
    if (++calls == 3) all.Set();
  };
  m_thread.Attach(&waker, POLLIN);
  for (int i = 0; i < 3; ++i) waker.GetWaker().Wake();
  EXPECT_TRUE(Happens(&all));
  m_thread.Detach(&waker);
  EXPECT_EQ(calls, 3);
}

TEST_F(PollThreadTest, ClientDetachedEarlierInThePassIsNotCalled) {
  CountingWaker first;
  CountingWaker second;
  bool second_called = false;
  first.m_action = [&] { m_thread.Detach(&second); };
  second.m_action = [&] { second_called = true; };
  OnPollThread([&] {
    m_thread.Attach(&first, POLLIN);
    m_thread.Attach(&second, POLLIN);
    first.GetWaker().Wake();
    second.GetWaker().Wake();
  });
  EXPECT_TRUE(first.IsWoken());
  m_thread.Detach(&first);
  OnPollThread([] {});
  EXPECT_FALSE(second_called);
}

TEST_F(PollThreadTest, ChangedEventsApplyAtOnce) {
  CountingWaker waker;
  m_thread.Attach(&waker, 0);
  waker.GetWaker().Wake();
  OnPollThread([] {});
  m_thread.ChangeEvents(&waker, POLLIN);
  EXPECT_TRUE(waker.IsWoken());
  m_thread.Detach(&waker);
}

TEST_F(PollThreadTest, DetachEndsTheCallsOfAnotherThread) {
  for (int i = 0; i < 200; ++i) {
    auto waker = std::make_unique<CountingWaker>();
    m_thread.Attach(waker.get(), POLLIN);
    waker->GetWaker().Wake();
    m_thread.Detach(waker.get());
  }
}

// The slots of detached clients must not count against the limit, wherever the loop is.
TEST_F(PollThreadTest, AnyNumberOfClientsMayComeAndGo) {
  CountingWaker waker;
  const auto come_and_go = [&] {
    for (size_t i = 0; i < 4 * PollThread::MAX_CLIENTS; ++i) {
      m_thread.Attach(&waker, POLLIN);
      m_thread.Detach(&waker);
    }
  };
  come_and_go();
  OnPollThread(come_and_go);
  CountingWaker last;
  m_thread.Attach(&last, POLLIN);
  last.GetWaker().Wake();
  EXPECT_TRUE(last.IsWoken());
  m_thread.Detach(&last);
}

TEST_F(PollThreadTest, TryAttachRefusesOneClientTooMany) {
  std::vector<std::unique_ptr<CountingWaker>> wakers;
  OnPollThread([&] {
    do {
      wakers.push_back(std::make_unique<CountingWaker>());
    } while (m_thread.TryAttach(wakers.back().get(), POLLIN));
  });
  EXPECT_EQ(wakers.size() - 1, PollThread::MAX_CLIENTS - 2);  // the thread itself takes one
  for (const auto& waker : wakers) m_thread.Detach(waker.get());
}

class PollThreadDeathTest : public ThreadedDeathTest {};

TEST_F(PollThreadDeathTest, TooManyClientsAreListed) {
  EXPECT_DEATH(
      {
        PollThread thread;
        CountingWaker waker;
        for (size_t i = 0; i < PollThread::MAX_CLIENTS; ++i) thread.Attach(&waker, POLLIN);
      },
      "PollThread exceeded maximum number of clients. Client dump:\n"
      "  0x[0-9a-f]+:[0-9]+ \\(.*Waker\\)\n(.*\n)*.*m_clients.size\\(\\) < MAX_CLIENTS");
}

TEST_F(PollThreadDeathTest, ClientLeftBehindEndsTheProcess) {
  EXPECT_DEATH(
      {
        CountingWaker waker;
        PollThread thread;
        thread.Attach(&waker, POLLIN);
      },
      "PollThread client still attached: .*CountingWaker\n"
      "Poll thread exiting with 1 clients still present:\n");
}

TEST_F(PollThreadDeathTest, TimerLeftBehindEndsTheProcess) {
  EXPECT_DEATH(
      {
        Recorder recorder;
        PollThread thread;
        thread.AddTimer(&recorder, &Recorder::Record, nullptr, monotonic_time_after_ms(3'600'000));
      },
      "Poll thread exiting with 1 timer clients still present:\n");
}

TEST_F(PollThreadDeathTest, ChangingTheEventsOfNoClientEndsTheProcess) {
  EXPECT_DEATH(
      {
        CountingWaker waker;
        PollThread thread;
        thread.ChangeEvents(&waker, POLLIN);
      },
      "assertion 'false' failed");
}

TEST_F(PollThreadDeathTest, WakerTakesNoOtherEvent) {
  EXPECT_DEATH(CountingWaker().OnEvents(POLLIN | POLLHUP),
               "PollableWaker::OnEvents called with unexpected events 0x11\n.*"
               "assertion 'events == 0x001' failed");
}

}  // namespace
