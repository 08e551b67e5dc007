// The supervisor's life, with a real JavaScript runtime.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "lib/platform/multi_watchdog.h"
#include "lib/platform/spawn_process.h"
#include "lib/scripting/script_bootstrap.h"
#include "tests/platform/test_support.h"

namespace {

namespace fs = std::filesystem;

class BootstrapTest : public testing::Test {
 protected:
  BootstrapTest() { fs::create_directories(m_root.path() + "/var/run"); }

  Bootstrap::Options Script(const std::string& text) {
    m_root.Write("/bootstrap.js", text);
    Bootstrap::Options options;
    options.script = m_root.path() + "/bootstrap.js";
    return options;
  }
  // Why the run failed; empty when it did not.
  static std::string Run(Bootstrap& bootstrap) {
    try {
      bootstrap.Run();
      return {};
    } catch (const std::exception& error) {
      return error.what();
    }
  }
  std::string Run(const Bootstrap::Options& options) {
    Bootstrap bootstrap(options);
    return Run(bootstrap);
  }
  // Waits for a file that the supervisor writes, and gives its content.
  std::string Awaited(const std::string& name) {
    for (int i = 0; i < 30'000; i += 10) {
      const std::string content = m_root.Read(name);
      if (!content.empty() && content.back() == '\n') return content;
      SimpleEvent().Wait(10);
    }
    ADD_FAILURE() << name << " did not come";
    return {};
  }

  const BlockedSignals m_signals;
  const TemporaryRoot m_root;
};

TEST_F(BootstrapTest, EndsAsItsSupervisorDoes) {
  struct {
    const char* text;
    const char* failure;
  } const kRows[] = {
      {"if (typeof gc != 'function' || !process.env.ORVEX_BOOTSTRAP_ALIVE) process.exit(9)", ""},
      {"process.exit(3)", "Child (node) exited with status 3"},
      {"process.kill(process.pid, 'SIGKILL')", "Child (node) exited with signal 9"},
      {"not JavaScript", "Child (node) exited with status 1"},
      // The player's stream ends when it does; until then there is nothing to read.
      {"process.stdin.on('end', () => process.exit(5)).resume(); setTimeout(() => process.exit(0), "
       "50)",
       ""},
  };
  for (const auto& row : kRows) EXPECT_EQ(Run(Script(row.text)), row.failure) << row.text;
  Bootstrap::Options options = Script("");
  options.program = "/nonexistent/node";
  EXPECT_EQ(Run(options), "/nonexistent/node could not be started");
  EXPECT_FALSE(fs::exists(m_root.path() + "/var/run/orvex-bootstrap.alive"));
}

TEST_F(BootstrapTest, IsKilledWithItsChildrenHoweverItResists) {
  Bootstrap::Options options = Script(
      "process.on('SIGTERM', () => {});\n"
      "const child = require('child_process').spawn(process.execPath, ['-e', 'setInterval(() => "
      "{}, "
      "1e6)']);\n"
      "require('fs').writeFileSync(process.env.ORVEX_ROOT + '/child', child.pid + '\\n');\n"
      "setInterval(() => {}, 1e6)");
  options.end_limit = std::chrono::milliseconds(300);
  Bootstrap bootstrap(options);
  std::string failure = "none yet";
  std::thread runner([&] { failure = Run(bootstrap); });
  const pid_t child = std::stoi(Awaited("/child"));
  const lattix::UniqueFd process(static_cast<int>(::syscall(SYS_pidfd_open, child, 0)));
  testing::internal::CaptureStderr();
  bootstrap.Kill();
  runner.join();
  EXPECT_NE(testing::internal::GetCapturedStderr().find("Trying harder."), std::string::npos);
  EXPECT_EQ(failure, "");
  pollfd ended{process.Get(), POLLIN, 0};
  EXPECT_EQ(::poll(&ended, 1, 30'000), 1);
  bootstrap.Kill();  // nothing is left to kill

  Bootstrap::Options never = Script("process.exit(3)");
  Bootstrap* second = nullptr;
  EXPECT_THROW(second = new Bootstrap(never), std::runtime_error);
  EXPECT_EQ(second, nullptr);
}

TEST_F(BootstrapTest, EndsInOrderWhenAskedTo) {
  Bootstrap bootstrap(
      Script("process.on('SIGTERM', () => process.exit(7));\n"
             "require('fs').writeFileSync(process.env.ORVEX_ROOT + '/up', '\\n');\n"
             "setInterval(() => {}, 1e6)"));
  std::thread ender([&] {
    Awaited("/up");
    bootstrap.RequestEnd();
  });
  EXPECT_EQ(Run(bootstrap), "");
  ender.join();
}

// Stands in for the device's watchdog: asks its client as soon as a sign of life was seen.
class ImpatientWatchdog final : public MultiWatchdog {
 public:
  void ExpireNow() override {}
  void SetRunning(bool) override {}
  void Reevaluate() override {}
  void AddClient(Client* client) override {
    m_asker = std::thread([this, client] { gave_up = client->OnTimeout(); });
  }
  void RemoveClient(Client*) override {
    if (m_asker.joinable()) m_asker.join();
  }
  void CheckClientNotRegistered(Client*) override {}
  bool gave_up = true;

 private:
  std::thread m_asker;
};

TEST_F(BootstrapTest, IsWatchedFromItsFirstSignOfLife) {
  const auto watchdog = std::make_unique<ImpatientWatchdog>();
  testing::internal::CaptureStderr();
  EXPECT_EQ(Run(Script("require('fs').writeFileSync(process.env.ORVEX_BOOTSTRAP_ALIVE, '.');\n"
                       "setInterval(() => {}, 1e6)")),
            "Child (node) exited with signal 6");
  EXPECT_NE(testing::internal::GetCapturedStderr().find("Telling Node to abort.\n"),
            std::string::npos);
  EXPECT_FALSE(watchdog->gave_up);
}

TEST_F(BootstrapTest, DiesWithThePlayer) {
  // The thread that started the child stands for the player. It must not end before the child runs:
  // unlike the player's end, that is not noticed by the child.
  SpawnProcess child("sh", {"-c", "echo; exec sleep 1000"});
  std::thread([&] {
    child.Execute(SpawnProcess::kEndWithParent | SpawnProcess::kPipeStdout);
    char byte;
    EXPECT_EQ(::read(child.GetStdout(), &byte, 1), 1);
  }).join();
  EXPECT_THROW(child.Wait(), SpawnProcess::ChildWasKilledBySignal);
}

TEST_F(BootstrapTest, ReadsOnlyGoodAddresses) {
  for (const char* good : {"127.0.0.1:9229", "999.0.0.1:1"}) EXPECT_TRUE(IsInspectorAddress(good));
  for (const char* bad : {"", "127.0.0.1", "localhost:1", "127.0.0.1:123456", "127.0.0.1:1\n",
                          "1.2.3.4:5 --eval=x"}) {
    EXPECT_FALSE(IsInspectorAddress(bad)) << bad;
  }
  m_root.Write("/sys/class/mem/kmsg/trigger_dump", "");
  ForceCrashDump();
  EXPECT_EQ(m_root.Read("/sys/class/mem/kmsg/trigger_dump"), "4");
}

}  // namespace
