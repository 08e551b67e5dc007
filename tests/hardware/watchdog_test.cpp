#include "lib/hardware/watchdog.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <optional>
#include <string>

#include "lib/platform/errno_exception.h"
#include "lib/platform/monotonic_time.h"
#include "lib/platform/unique_fd.h"
#include "tests/platform/test_support.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// What comes out of a pipe, waited for piece by piece.
class Stream {
 public:
  explicit Stream(int fd) : m_fd(fd) {}
  // Whether the text comes, after what has been seen before.
  bool Brings(const std::string& text) {
    const int64_t deadline = lattix::monotonic_time_after_ms(30'000);
    for (;;) {
      const size_t found = m_text.find(text);
      if (found != std::string::npos) {
        m_text.erase(0, found + text.size());
        return true;
      }
      const int64_t left = (deadline - lattix::get_monotonic_time()) / 1'000'000;
      pollfd fd = {m_fd.Get(), POLLIN, 0};
      if (left <= 0 || poll(&fd, 1, static_cast<int>(left)) <= 0) return false;
      char buffer[4096];
      const ssize_t n = read(m_fd.Get(), buffer, sizeof buffer);
      if (n <= 0) return false;
      m_text.append(buffer, static_cast<size_t>(n));
    }
  }
  bool IsQuiet() const {
    pollfd fd = {m_fd.Get(), POLLIN, 0};
    return m_text.empty() && poll(&fd, 1, 0) == 0;
  }

 private:
  const lattix::UniqueFd m_fd;
  std::string m_text;
};

// Standard error as a stream, while the object lasts.
class CapturedStderr {
 public:
  CapturedStderr() : CapturedStderr(MakePipe()) {}
  ~CapturedStderr() { dup2(m_before.Get(), STDERR_FILENO); }
  Stream* operator->() { return &m_stream; }

 private:
  struct Pipe {
    int ends[2];
  };
  static Pipe MakePipe() {
    Pipe made;
    EXPECT_EQ(pipe2(made.ends, O_CLOEXEC), 0);
    return made;
  }
  explicit CapturedStderr(Pipe made) : m_before(dup(STDERR_FILENO)), m_stream(made.ends[0]) {
    dup2(made.ends[1], STDERR_FILENO);
    close(made.ends[1]);
  }

  lattix::UniqueFd m_before;
  Stream m_stream;
};

// A device root whose watchdog is a fifo: every prod is one byte to be read.
class WatchdogTest : public ThreadedDeathTest {
 protected:
  WatchdogTest() {
    m_root.Write("/proc/meminfo", "MemTotal: 1 kB\n");
    std::filesystem::create_directory(m_root.path() + "/dev");
    const std::string path = m_root.path() + "/dev/watchdog";
    EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
    m_device.emplace(open(path.c_str(), O_RDWR | O_CLOEXEC));
  }

  TemporaryRoot m_root;
  std::optional<Stream> m_device;
};

class Client final : public MultiWatchdog::Client {
 public:
  using MultiWatchdog::Client::CheckDestruction;
  using MultiWatchdog::Client::Register;
  using MultiWatchdog::Client::Unregister;

  bool OnTimeout() override {
    m_asked.Set();
    if (!m_stuck && m_extends) Defer(lattix::monotonic_time_after_ms(3'600'000));
    return m_stuck;
  }
  std::string GetName() const override { return "client"; }

  std::atomic<bool> m_stuck = false;
  std::atomic<bool> m_extends = true;
  SimpleEvent m_asked;
};

constexpr char kGaveUp[] =
    "Giving up due to watchdog failure\n"
    "----------------meminfo-----------------\nMemTotal: 1 kB\n";
constexpr char kLate[] = "Watchdog client 'client' failed to prod in a timely manner.\n";

TEST_F(WatchdogTest, MissingDeviceIsAnError) {
  std::filesystem::remove(m_root.path() + "/dev/watchdog");
  try {
    MultiWatchdogImpl watchdog;
    FAIL();
  } catch (const lattix::ErrnoException& e) {
    EXPECT_EQ(e.context(), "/dev/watchdog");
  }
  EXPECT_FALSE(MultiWatchdog::Exists());
}

TEST_F(WatchdogTest, ProdsAtOnceAtIntervalsAndAtTheEnd) {
  CapturedStderr log;
  {
    MultiWatchdogImpl watchdog({.prod_interval = milliseconds(1)});
    EXPECT_TRUE(
        log->Brings("Kernel watchdog timeout could not be set: Inappropriate ioctl for "
                    "device\n"));
    EXPECT_TRUE(m_device->Brings("ppppp"));
  }
  {
    MultiWatchdogImpl watchdog({.prod_interval = seconds(1000)});
    EXPECT_TRUE(m_device->Brings("p"));
  }
  EXPECT_TRUE(m_device->Brings("p"));
}

TEST_F(WatchdogTest, StartUpAndShutDownHaveADeadline) {
  for (bool running : {false, true}) {
    CapturedStderr log;
    MultiWatchdogImpl watchdog({.startup = running ? seconds(1000) : seconds(0),
                                .shutdown = seconds(0),
                                .prod_interval = milliseconds(1)});
    if (running) {
      EXPECT_TRUE(m_device->Brings("pp"));
      watchdog.SetRunning(true);
      watchdog.SetRunning(false);
    }
    EXPECT_TRUE(log->Brings(kGaveUp));
  }
}

TEST_F(WatchdogTest, ClientsCountInTheRunningPhaseOnly) {
  CapturedStderr log;
  MultiWatchdogImpl watchdog({.prod_interval = milliseconds(1)});
  Client client;
  client.m_stuck = true;
  client.Register(0);
  EXPECT_TRUE(m_device->Brings("ppp"));
  watchdog.SetRunning(true);
  EXPECT_TRUE(log->Brings(kLate));
  EXPECT_TRUE(log->Brings(kGaveUp));
  client.Unregister();
  client.CheckDestruction();
}

TEST_F(WatchdogTest, ClientThatMadeProgressIsAskedAgainAtItsNewDeadline) {
  CapturedStderr log;
  MultiWatchdogImpl watchdog({.prod_interval = seconds(1000)});
  watchdog.SetRunning(true);
  Client client;
  client.Register(lattix::monotonic_time_after_ms(10));
  EXPECT_TRUE(Happens(&client.m_asked));
  EXPECT_TRUE(log->Brings(kLate));
  client.Unregister();
  client.Unregister();
  client.m_extends = false;  // a client that forgets to extend neither spins nor is forgotten
  client.Register(0);
  EXPECT_TRUE(Happens(&client.m_asked));
  EXPECT_TRUE(Happens(&client.m_asked));
  client.Unregister();
  client.CheckDestruction();
}

TEST_F(WatchdogTest, NothingIsProddedAfterGivingUpUntilTheEnd) {
  CapturedStderr log;
  {
    MultiWatchdogImpl watchdog({.startup = seconds(0), .prod_interval = milliseconds(1)});
    EXPECT_TRUE(log->Brings(kGaveUp));
    watchdog.SetRunning(true);
    watchdog.Reevaluate();
    EXPECT_TRUE(m_device->IsQuiet());
  }
  EXPECT_TRUE(m_device->Brings("p"));
  EXPECT_TRUE(m_device->IsQuiet());
}

TEST_F(WatchdogTest, ExpiryIsAnnouncedAndMissed) {
  CapturedStderr log;
  MultiWatchdogImpl watchdog({.expiry_margin = seconds(-5)});
  EXPECT_TRUE(m_device->Brings("p"));
  watchdog.ExpireNow();
  EXPECT_TRUE(
      log->Brings("Unable to read watchdog time left or timeout: Inappropriate ioctl for "
                  "device\nWatchdog will expire in under 5 seconds...\n"
                  "Watchdog did not expire as expected\n"));
  EXPECT_TRUE(m_device->IsQuiet());
}

TEST_F(WatchdogTest, DestroyingARegisteredClientEndsTheProcess) {
  EXPECT_DEATH(
      {
        MultiWatchdogImpl watchdog;
        Client client;
        client.Register(lattix::monotonic_time_after_ms(3'600'000));
        client.CheckDestruction();
      },
      "Watchdog client still unexpectedly registered 'client'\n");
}

}  // namespace
