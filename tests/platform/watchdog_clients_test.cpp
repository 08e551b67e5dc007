#include <algorithm>
#include <vector>

#include "lib/platform/bootstrap_watchdog.h"
#include "lib/platform/monotonic_time.h"
#include "lib/platform/plumscript_watchdog.h"
#include "lib/platform/watched_scope.h"
#include "tests/platform/test_support.h"

namespace {

using lattix::get_monotonic_time;
using std::chrono::seconds;

// Holds the registrations; the tests ask the clients themselves.
class RecordingWatchdog : public MultiWatchdog {
 public:
  void ExpireNow() override {}
  void SetRunning(bool) override {}
  void Reevaluate() override {}
  void AddClient(Client* client) override { m_clients.push_back(client); }
  void RemoveClient(Client* client) override { std::erase(m_clients, client); }
  void CheckClientNotRegistered(Client* client) override {
    EXPECT_EQ(std::count(m_clients.begin(), m_clients.end(), client), 0);
  }

  std::vector<Client*> m_clients;
};

// Seconds from now until the client's deadline, rounded.
double SecondsLeft(const MultiWatchdog::Client& client) {
  return static_cast<double>(client.GetDeadline() - get_monotonic_time()) / 1e9;
}

class WatchdogClientsTest : public testing::Test {
 protected:
  RecordingWatchdog m_watchdog;
  std::atomic<uint32_t> m_counter{0xfffffffe};
};

TEST_F(WatchdogClientsTest, StuckScriptGetsOneGraceAfterItsDeadline) {
  PlumscriptWatchdog script("autorun", m_counter);
  script.Arm(seconds(0));
  testing::internal::CaptureStderr();
  EXPECT_FALSE(script.OnTimeout());
  EXPECT_NEAR(SecondsLeft(script), 2, 1);
  EXPECT_TRUE(script.OnTimeout());
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "autorun watchdog timeout with script stuck.\n");
}

TEST_F(WatchdogClientsTest, ExecutingScriptIsExtendedUpToTheLimit) {
  PlumscriptWatchdog script("autorun", m_counter);
  script.Arm(seconds(0));
  testing::internal::CaptureStderr();
  const int extensions = PlumscriptWatchdog::kExecutingLimit / seconds(2);
  for (int i = 0; i < extensions; ++i) {
    EXPECT_FALSE(script.OnTimeout());
    ++m_counter;  // wraps around on the way
  }
  EXPECT_TRUE(script.OnTimeout());
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "autorun watchdog timeout with script executing.\n");
}

TEST_F(WatchdogClientsTest, ScriptThatComesBackStartsAnew) {
  PlumscriptWatchdog script("autorun", m_counter);
  script.Arm(seconds(0));
  EXPECT_FALSE(script.OnTimeout());
  script.Defer(seconds(1));  // less than what the extension gave: the deadline stays
  EXPECT_NEAR(SecondsLeft(script), 2, 0.9);
  EXPECT_FALSE(script.OnTimeout());
  script.Defer(seconds(30));
  EXPECT_NEAR(SecondsLeft(script), 30, 1);
}

TEST_F(WatchdogClientsTest, OnlyAnArmedScriptIsRegistered) {
  PlumscriptWatchdog script("autorun", m_counter);
  script.Defer(seconds(5));
  EXPECT_TRUE(m_watchdog.m_clients.empty());
  script.Arm(seconds(60));
  script.Arm(seconds(10));  // earlier than before
  EXPECT_EQ(m_watchdog.m_clients, (std::vector<MultiWatchdog::Client*>{&script}));
  EXPECT_NEAR(SecondsLeft(script), 10, 1);
  script.Pause();
  script.Pause();
  EXPECT_TRUE(m_watchdog.m_clients.empty());
  EXPECT_FALSE(script.IsArmed());
  script.Arm(seconds(10));  // destroyed while armed
}

TEST_F(WatchdogClientsTest, ScopesWatchUntilTheyAreLeft) {
  int warnings = 0;
  {
    watchdog::WatchedScope scope("mount", seconds(20));
    watchdog::EarlyWarningWatchedScope early("format", seconds(10), [&] { ++warnings; });
    ASSERT_EQ(m_watchdog.m_clients.size(), 2u);
    EXPECT_EQ(m_watchdog.m_clients[0]->GetName(), "mount");
    EXPECT_NEAR(SecondsLeft(scope), 20, 1);
    EXPECT_TRUE(scope.OnTimeout());
    EXPECT_FALSE(early.OnTimeout());
    EXPECT_NEAR(SecondsLeft(early), 10, 1);
    EXPECT_TRUE(early.OnTimeout());
  }
  EXPECT_EQ(warnings, 1);
  EXPECT_TRUE(m_watchdog.m_clients.empty());
}

TEST_F(WatchdogClientsTest, HungSupervisorIsToldToAbortBeforeTheReset) {
  bool test_mode = true;
  bool running = true;
  int aborts = 0;
  BootstrapWatchdog bootstrap(
      {[&] { return test_mode; }, [&] { return running; }, [&] { ++aborts; }}, 0);
  testing::internal::CaptureStderr();
  EXPECT_FALSE(bootstrap.OnTimeout());
  EXPECT_GT(SecondsLeft(bootstrap), 1);
  test_mode = false;
  EXPECT_FALSE(bootstrap.OnTimeout());
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "bootstrap.js not responding, but watchdog in test mode\n"
            "Telling Node to abort.\n");
  EXPECT_TRUE(bootstrap.OnTimeout());
  EXPECT_EQ(aborts, 1);

  running = false;
  BootstrapWatchdog without({[&] { return test_mode; }, [&] { return running; }, [&] { ++aborts; }},
                            0);
  EXPECT_TRUE(without.OnTimeout());
  EXPECT_EQ(aborts, 1);
}

TEST(WatchdogClientsAloneTest, ProgramWithoutAWatchdogSupervisesNothing) {
  std::atomic<uint32_t> counter{0};
  PlumscriptWatchdog script("tool", counter);
  script.Arm(seconds(1));
  script.Defer(seconds(2));
  watchdog::WatchedScope scope("mount", seconds(20));
}

}  // namespace
