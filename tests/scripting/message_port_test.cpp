// koMessagePort: queueing, waiting, breaks, the watchdog.
#include "clmessageport.h"

#include <csignal>
#include <thread>

#include "clglobal.h"
#include "component_test.h"
#include "hooks.h"
#include "lib/platform/monotonic_time.h"
#include "lib/platform/multi_watchdog.h"

namespace {

using component_test::Core;
using component_test::describe;
using component_test::Value;

constexpr int64_t kMillisecond = 1'000'000;

// Stands in for the process's watchdog: tells which clients are supervised.
class RecordingWatchdog final : public MultiWatchdog {
 public:
  void ExpireNow() override {}
  void SetRunning(bool) override {}
  void Reevaluate() override {}
  void AddClient(Client* client) override {
    clients.push_back(client);
    supervising = true;
  }
  void RemoveClient(Client* client) override {
    std::erase(clients, client);
    supervising = !clients.empty();
  }
  void CheckClientNotRegistered(Client* client) override {
    EXPECT_EQ(std::count(clients.begin(), clients.end(), client), 0);
  }

  // Seconds from now to the deadline of the one client, rounded up; -1 without a client.
  int64_t secondsLeft() const {
    if (clients.empty()) return -1;
    constexpr int64_t kSecond = 1'000'000'000;
    return (clients[0]->GetDeadline() - lattix::get_monotonic_time() + kSecond - 1) / kSecond;
  }

  std::vector<Client*> clients;
  std::atomic<bool> supervising{false};
};

class MessagePort : public testing::Test {
 protected:
  ~MessagePort() override { psInstallHooks({}); }

  Value event(int number) { return Value(psNewInt(core.domain(), number)); }
  void post(int number) {
    EXPECT_TRUE(methods->PostMessage(port.object(), event(number).take().value.psc));
  }
  std::string wait(int32_t timeout) {
    return describe(Value(methods->WaitMessage(port.object(), timeout)));
  }
  std::string call(const char* name, const std::vector<component_test::Arg>& args = {}) {
    return describe(core.call(port.object(), name, args));
  }

  RecordingWatchdog watchdog;
  Core core;
  Value port{pscNewComponentByName(core.domain(), "koMessagePort")};
  const psIfMessagePort* methods =
      static_cast<const psIfMessagePort*>(pscGetMethods(port.object(), "ifMessagePort"));
};

TEST_F(MessagePort, GivesMessagesInTheirOrder) {
  EXPECT_EQ(call("GetMessage"), "invalid");
  EXPECT_EQ(call("PeekMessage"), "invalid");
  EXPECT_EQ(call("IsEmpty"), "true");
  post(1);
  post(2);
  core.callValues(port.object(), pscFindMemberFunction(port.object(), "PostMessage", 1).function,
                  {psObjectValue(psNewInt(core.domain(), 3))});
  EXPECT_EQ(call("IsEmpty"), "false");
  EXPECT_EQ(call("PeekMessage"), "<koInt 1>");
  EXPECT_EQ(call("PeekMessage"), "<koInt 1>");
  EXPECT_EQ(call("GetMessage"), "<koInt 1>");
  EXPECT_EQ(call("WaitMessage", {0}), "<koInt 2>");
  EXPECT_EQ(call("IsNext"), "true");
  EXPECT_EQ(call("Next"), "<koInt 3>");
  EXPECT_EQ(call("GetMessage"), "invalid");
}

TEST_F(MessagePort, WaitsAsLongAsItIsTold) {
  post(1);
  EXPECT_EQ(wait(60'000), "<koInt 1>");
  // The event is still raised from the post above; the wait must not end on it.
  const int64_t before = lattix::get_monotonic_time();
  EXPECT_EQ(wait(30), "invalid");
  EXPECT_GE(lattix::get_monotonic_time() - before, 30 * kMillisecond);
}

TEST_F(MessagePort, TellsTheHostBeforeItBlocksOnly) {
  static int told;
  told = 0;
  psHostHooks hooks;
  hooks.beforeBlocking = [] { told++; };
  psInstallHooks(hooks);
  post(1);
  wait(0);
  call("GetMessage");
  EXPECT_EQ(told, 0);
  wait(1);
  EXPECT_EQ(told, 1);
  core.callValues(nullptr, &kPsGlobalFunctions[0], {psIntegerValue(1)});
  EXPECT_EQ(told, 2);
  core.callValues(nullptr, &kPsGlobalFunctions[0], {psIntegerValue(0)});
  EXPECT_EQ(told, 2);
}

TEST_F(MessagePort, GlobalWaitTakesPortsOnly) {
  const auto global_wait = [&](psTypedValue object) {
    return describe(
        core.callValues(nullptr, &kPsGlobalFunctions[31], {psIntegerValue(60'000), object}));
  };
  post(5);
  EXPECT_EQ(global_wait(port.copy()), "<koInt 5>");
  EXPECT_EQ(global_wait(psObjectValue(psNewList(core.domain()))), "invalid");
  EXPECT_EQ(global_wait(psInvalidValue()), "invalid");
}

TEST_F(MessagePort, TakesPostsFromManyThreads) {
  constexpr int kThreads = 4;
  constexpr int kEach = 500;
  std::vector<std::thread> senders;
  for (int t = 0; t < kThreads; t++) {
    senders.emplace_back([&, t] {
      for (int i = 0; i < kEach; i++) post(t * kEach + i);
    });
  }
  std::vector<int> next(kThreads);
  for (int n = 0; n < kThreads * kEach; n++) {
    const Value message(methods->WaitMessage(port.object(), 0));
    ASSERT_NE(message.object(), nullptr);
    const int number = static_cast<int>(IntVal(&message.get()));
    EXPECT_EQ(number % kEach, next[static_cast<size_t>(number / kEach)]++);
    if (n % 100 == 0) pscGarbageCollect(core.domain());
  }
  for (std::thread& sender : senders) sender.join();
  EXPECT_EQ(call("IsEmpty"), "true");
}

// A break may come at any moment around the beginning of a wait: before the hook is there, too.
TEST_F(MessagePort, ABreakIsNeverLost) {
  std::atomic<uint32_t> break_word{0};
  core.domain()->running_break_word = &break_word;
  for (int i = 0; i < 300; i++) {
    std::thread breaker([&] {
      break_word = kPsBreak;
      pscSignalBreak(core.domain());
    });
    EXPECT_EQ(wait(0), "invalid");
    breaker.join();
    break_word = 0;
  }
  // Nothing of them is left.
  post(1);
  EXPECT_EQ(wait(0), "<koInt 1>");
  EXPECT_EQ(wait(1), "invalid");
  core.domain()->running_break_word = nullptr;
}

std::atomic<uint32_t> handler_word{0};
pscDomain* handler_domain = nullptr;

TEST_F(MessagePort, ASignalHandlerBreaksTheWaitItInterrupts) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "the thread checker holds signals back until after the wait";
#endif
  core.domain()->running_break_word = &handler_word;
  handler_domain = core.domain();
  struct sigaction action = {};
  struct sigaction before;
  action.sa_handler = [](int) {
    handler_word = kPsBreak;
    pscSignalBreakFromHandler(handler_domain);
  };
  action.sa_flags = SA_RESTART;  // the harder case: the kernel resumes the wait
  sigaction(SIGUSR1, &action, &before);
  const pthread_t waiting = pthread_self();
  for (int i = 0; i < 300; i++) {
    std::thread breaker([=] { pthread_kill(waiting, SIGUSR1); });
    EXPECT_EQ(wait(0), "invalid");
    breaker.join();
    handler_word = 0;
  }
  sigaction(SIGUSR1, &before, nullptr);
  core.domain()->running_break_word = nullptr;
}

TEST_F(MessagePort, AWatchdogSupervisesTheScriptBetweenWaits) {
  EXPECT_EQ(call("SetWatchdogTimeout", {-1}), "-1");
  EXPECT_EQ(call("SetWatchdogTimeout", {30}), "0");
  EXPECT_EQ(call("SetWatchdogTimeout", {-5}), "-1");
  EXPECT_EQ(watchdog.secondsLeft(), 30);

  call("DeferWatchdog", {90});
  EXPECT_EQ(watchdog.secondsLeft(), 90);
  call("DeferWatchdog", {50});  // never earlier
  call("DeferWatchdog", {-1});
  call("DeferWatchdog");
  EXPECT_EQ(watchdog.secondsLeft(), 90);

  std::thread sender([&] {
    while (watchdog.supervising) std::this_thread::yield();  // until the wait has begun
    post(1);
  });
  EXPECT_EQ(wait(0), "<koInt 1>");
  sender.join();
  EXPECT_EQ(watchdog.secondsLeft(), 30);

  pscNotifyStopped(core.domain());
  EXPECT_EQ(watchdog.secondsLeft(), -1);
  pscNotifyRunning(core.domain());
  EXPECT_EQ(watchdog.secondsLeft(), 30);
  EXPECT_EQ(call("SetWatchdogTimeout", {40}), "30");
  EXPECT_EQ(watchdog.secondsLeft(), 40);
  EXPECT_EQ(call("SetWatchdogTimeout", {0}), "40");
  EXPECT_EQ(watchdog.secondsLeft(), -1);
  pscNotifyRunning(core.domain());
  EXPECT_EQ(watchdog.secondsLeft(), -1);

  call("SetWatchdogTimeout", {7});
  port = Value();
  EXPECT_EQ(watchdog.secondsLeft(), -1);
}

TEST_F(MessagePort, NativeCodeCannotFillTheMemoryWithEvents) {
  testing::internal::CaptureStderr();
  for (int i = 0; i < kPsMaxWaitingEvents; i++) post(i);
  const Value message = event(1);
  EXPECT_FALSE(methods->PostMessage(port.object(), message.object()));
  EXPECT_FALSE(methods->HasRoom(port.object()));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "koMessagePort: 100000 events are waiting, new ones are dropped\n");
  wait(0);
  EXPECT_TRUE(methods->HasRoom(port.object()));
  post(1);
}

TEST_F(MessagePort, APortInItsOwnQueueIsCollected) {
  ASSERT_TRUE(methods->PostMessage(port.object(), port.copy().value.psc));
  post(1);
  EXPECT_EQ(pscGarbageCollect(core.domain()).orphaned, 0);
  port = Value();
  EXPECT_EQ(pscGarbageCollect(core.domain()).orphaned, 3);
}

}  // namespace
