#include "lib/platform/spawn_process.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <string>

#include "lib/platform/errno_exception.h"
#include "tests/platform/test_support.h"

namespace {

using std::chrono::seconds;

std::string ReadToEnd(int fd) {
  std::string text;
  char buffer[256];
  ssize_t n;
  while ((n = read(fd, buffer, sizeof buffer)) > 0) text.append(buffer, static_cast<size_t>(n));
  return text;
}

// What a shell script prints to both streams, run with the flags.
std::string Output(SpawnProcess& process, unsigned flags = 0) {
  process.Execute(flags | SpawnProcess::kPipeStdout);
  const std::string output = ReadToEnd(process.GetStdout());
  EXPECT_EQ(process.Wait(), 0);
  return output;
}

SpawnProcess Shell(const std::string& script) { return SpawnProcess("sh", {"-c", script}); }

TEST(SpawnProcessTest, StreamsArePipes) {
  SpawnProcess process = Shell("tr a-z A-Z; echo problem >&2; exit 7");
  const pid_t child = process.Execute(SpawnProcess::kPipeStdin | SpawnProcess::kPipeStdout |
                                      SpawnProcess::kPipeStderr);
  EXPECT_EQ(process.GetPid(), child);
  ASSERT_EQ(write(process.GetStdin(), "hello", 5), 5);
  process.CloseStdin();
  EXPECT_EQ(ReadToEnd(process.GetStdout()), "HELLO");
  EXPECT_EQ(ReadToEnd(process.GetStderr()), "problem\n");
  EXPECT_EQ(process.Wait(), 7);
  EXPECT_EQ(process.GetPid(), 0);
}

TEST(SpawnProcessTest, StreamsAreDevices) {
  TemporaryRoot root;
  root.Write("/dev/kmsg", "");
  SpawnProcess process = Shell("cat; echo out; echo problem >&2");
  process.Execute(SpawnProcess::kNullStdin | SpawnProcess::kNullStdout |
                  SpawnProcess::kKernelLogStderr);
  EXPECT_EQ(process.Wait(), 0);
  EXPECT_EQ(root.Read("/dev/kmsg"), "problem\n");
}

TEST(SpawnProcessTest, MissingKernelLogEndsTheChildWithAMessage) {
  TemporaryRoot root;
  SpawnProcess process = Shell("exit 0");
  process.Execute(SpawnProcess::kKernelLogStdout | SpawnProcess::kPipeStderr);
  EXPECT_EQ(ReadToEnd(process.GetStderr()),
            "Failed to open /dev/kmsg: No such file or directory\n");
  EXPECT_EQ(process.Wait(), 127);
}

TEST(SpawnProcessTest, ChildGetsNothingItWasNotGiven) {
  // The shell's own descriptors are 0 to 2; ls opens the folder as the next one.
  const int inherited = dup(STDOUT_FILENO);
  SpawnProcess process("ls", {"/proc/self/fd"});
  EXPECT_EQ(Output(process), "0\n1\n2\n3\n");
  close(inherited);
}

TEST(SpawnProcessTest, ChildHasItsOwnSettings) {
  setenv("ORVEX_TEST_KEPT", "kept", 1);
  setenv("ORVEX_TEST_CHANGED", "before", 1);
  SpawnProcess process =
      Shell("echo $ORVEX_TEST_KEPT $ORVEX_TEST_CHANGED \"$ORVEX_TEST_NEW\"; pwd");
  process.AddEnvironment("ORVEX_TEST_CHANGED", "after");
  process.AddEnvironment("ORVEX_TEST_NEW", "a=b  c");
  process.SetWorkingDirectory("/usr");
  EXPECT_EQ(Output(process), "kept after a=b  c\n/usr\n");
  EXPECT_STREQ(getenv("ORVEX_TEST_CHANGED"), "before");

  SpawnProcess lost = Shell("exit 0");
  lost.SetWorkingDirectory("/no/such/folder");
  lost.Execute(SpawnProcess::kPipeStderr);
  EXPECT_EQ(ReadToEnd(lost.GetStderr()), "chdir: No such file or directory\n");
  EXPECT_EQ(lost.Wait(), 127);
}

TEST(SpawnProcessTest, ChildReceivesTheSignalsThatThePlayerBlocks) {
  BlockedSignals blocked;
  SpawnProcess process("grep", {"SigBlk", "/proc/self/status"});
  EXPECT_EQ(Output(process), "SigBlk:\t0000000000000000\n");
}

TEST(SpawnProcessTest, ChildLeadsItsGroupOrSession) {
  // Fields after the parenthesised name: state, parent, group, session.
  const std::string script = "read -r line </proc/$$/stat; set -- ${line##*) }; echo $$ $3 $4";
  SpawnProcess group = Shell(script);
  const std::string session = std::to_string(getsid(0));
  std::string pid =
      std::to_string(group.Execute(SpawnProcess::kNewProcessGroup | SpawnProcess::kPipeStdout));
  EXPECT_EQ(ReadToEnd(group.GetStdout()), pid + " " + pid + " " + session + "\n");
  group.Wait();
  SpawnProcess leader = Shell(script);
  pid = std::to_string(leader.Execute(SpawnProcess::kNewSession | SpawnProcess::kPipeStdout));
  EXPECT_EQ(ReadToEnd(leader.GetStdout()), pid + " " + pid + " " + pid + "\n");
  leader.Wait();
}

TEST(SpawnProcessTest, DroppedPrivilegesLeaveTheLowPorts) {
  SpawnProcess unknown = Shell("exit 0");
  unknown.SetUser("no-such-user");
  EXPECT_THROW(unknown.Execute(SpawnProcess::kDropPrivileges), std::runtime_error);
  EXPECT_EQ(unknown.GetPid(), 0);

  SpawnProcess process = Shell("id -u; id -g; grep Cap[EA] /proc/self/status");
  process.SetUser("nobody");
  process.SetGroup("daemon");
  if (geteuid() == 0) {
    EXPECT_EQ(Output(process, SpawnProcess::kDropPrivileges),
              "65534\n1\nCapEff:\t0000000000000400\nCapAmb:\t0000000000000400\n");
  } else {
    process.Execute(SpawnProcess::kDropPrivileges | SpawnProcess::kPipeStderr);
    EXPECT_EQ(ReadToEnd(process.GetStderr()), "setgroups: Operation not permitted\n");
    EXPECT_EQ(process.Wait(), 127);
  }
}

TEST(SpawnProcessTest, MissingProgramIsAChildThatFails) {
  SpawnProcess process("/no/such/program");
  process.Execute(0);
  EXPECT_EQ(process.Wait(), 127);
  EXPECT_NE(process.Execute(0), 0);  // and another may follow
  EXPECT_EQ(process.Wait(), 127);
}

TEST(SpawnProcessTest, ChildEndedByASignalIsDescribed) {
  SpawnProcess process("sleep", {"1000"});
  process.Execute(0);
  EXPECT_THROW(process.Reap(), std::runtime_error);
  process.Kill(SIGKILL);
  try {
    process.Wait();
    FAIL();
  } catch (const SpawnProcess::ChildWasKilledBySignal& e) {
    EXPECT_STREQ(e.what(), "Child (sleep) exited with signal 9");
    EXPECT_EQ(e.signal(), SIGKILL);
  }
  EXPECT_EQ(process.GetPid(), 0);
}

TEST(SpawnProcessTest, OperationsWithoutAChildAreErrors) {
  SpawnProcess process("true");
  const auto message = [&](auto operation) -> std::string {
    try {
      operation();
    } catch (const std::runtime_error& e) {
      return e.what();
    }
    return "";
  };
  EXPECT_EQ(message([&] { process.Kill(SIGTERM); }), "No child in SpawnProcess::Kill");
  EXPECT_EQ(message([&] { process.KillAndWait(SIGTERM, seconds(1)); }),
            "No child in SpawnProcess::KillAndWait");
  process.Execute(0);
  EXPECT_EQ(message([&] { process.Kill(12345); }), "Invalid argument");
  EXPECT_EQ(process.Wait(), 0);
}

TEST(SpawnProcessTest, KillAndWaitClosesTheInputFirst) {
  SpawnProcess process = Shell("trap '' TERM; echo; cat");
  process.Execute(SpawnProcess::kPipeStdin | SpawnProcess::kPipeStdout);
  char ready;
  ASSERT_EQ(read(process.GetStdout(), &ready, 1), 1);
  testing::internal::CaptureStderr();
  process.KillAndWait(SIGTERM, seconds(30));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(process.GetPid(), 0);
  EXPECT_EQ(process.GetStdout(), -1);
}

TEST(SpawnProcessTest, KillAndWaitTriesHarder) {
  SpawnProcess process = Shell("trap '' TERM; echo; while :; do sleep 1000 & wait; done");
  const pid_t child = process.Execute(SpawnProcess::kPipeStdout | SpawnProcess::kNewProcessGroup);
  char ready;
  ASSERT_EQ(read(process.GetStdout(), &ready, 1), 1);
  testing::internal::CaptureStderr();
  process.KillAndWait(SIGTERM, std::chrono::milliseconds(50));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "PID " + std::to_string(child) + " didn't exit from signal 15. Trying harder.\n");
  kill(-child, SIGKILL);  // what the shell has left behind
}

TEST(SpawnProcessTest, ReapedElsewhereIsReported) {
  SpawnProcess process("true");
  const pid_t child = process.Execute(0);
  ASSERT_EQ(waitpid(child, nullptr, 0), child);
  testing::internal::CaptureStderr();
  EXPECT_THROW(process.Wait(), lattix::ErrnoException);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "waitpid for true(" + std::to_string(child) + ") failed: 10 No child processes\n");
  EXPECT_EQ(process.GetPid(), 0);
}

class Observer : public lattix::ChildProcessObserver {
 public:
  void OnChildExit(const siginfo_t&) override { m_called.Set(); }
  SimpleEvent m_called;
};

TEST(SpawnProcessTest, ObserverHearsOfTheEnd) {
  BlockedSignals blocked;
  lattix::SignalDispatcher dispatcher;
  Observer observer;
  SpawnProcess process("true");
  process.SetChildObserver(&observer);
  for (int i = 0; i < 20; ++i) {
    process.Execute(0);
    ASSERT_TRUE(Happens(&observer.m_called));
    EXPECT_EQ(process.Reap(), 0);
  }
  // Waited for, or left alone, before the dispatcher gets to it.
  for (int i = 0; i < 20; ++i) {
    SpawnProcess other("true");
    other.SetChildObserver(&observer);
    other.Execute(0);
    other.Wait();
    other.Execute(0);
  }
}

// A child that takes over the terminal, seen from a process that leads a session with one.
TEST(SpawnProcessTest, TerminalComesBackFromAForegroundChild) {
  const int master = posix_openpt(O_RDWR | O_NOCTTY);
  ASSERT_GE(master, 0);
  ASSERT_EQ(grantpt(master) | unlockpt(master), 0);
  const std::string terminal = ptsname(master);
  const auto play = [&] {
    setsid();
    const int fd = open(terminal.c_str(), O_RDWR);
    if (fd < 0 || dup2(fd, STDIN_FILENO) < 0) return 1;
    // The fields of stat from the group on: group, session, terminal, its foreground group.
    SpawnProcess process = Shell(
        "stty raw; read -r line </proc/$$/stat; set -- ${line##*) }; "
        "[ $3 = $6 ] && [ $3 = $$ ]");
    process.Execute(SpawnProcess::kForeground);
    if (process.Wait() != 0) return 2;
    if (tcgetpgrp(STDIN_FILENO) != getpgrp()) return 3;
    termios attributes;
    if (tcgetattr(STDIN_FILENO, &attributes) != 0 || !(attributes.c_lflag & ICANON)) return 4;
    return 0;
  };
  const pid_t child = fork();
  if (child == 0) _exit(play());
  int status;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(WEXITSTATUS(status), 0);
  close(master);
}

class SpawnProcessDeathTest : public ThreadedDeathTest {};

TEST_F(SpawnProcessDeathTest, WaitAbortsWhenAskedTo) {
  EXPECT_DEATH(
      {
        SpawnProcess process = Shell("read x; exit 0");
        process.SetWaitTimeout(std::chrono::milliseconds(10));
        process.Execute(SpawnProcess::kPipeStdin | SpawnProcess::kAbortOnWaitTimeout);
        process.Wait();
      },
      "Abort due to timeout on waitpid\n");
}

TEST_F(SpawnProcessDeathTest, ReapNeedsAChild) {
  EXPECT_DEATH(SpawnProcess("true").Reap(), "assertion 'm_child_pid' failed");
}

}  // namespace
