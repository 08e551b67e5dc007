// Starting programs and ending them.
//
// An object describes one program and owns at most one running child of it. It belongs to one
// thread; only the child observer is called elsewhere (on the signal dispatcher's thread). Failures
// of the parent's system calls are lattix::ErrnoException with the failing call's name; what fails
// in the child ends the child with status 127, after a message on its standard error.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "lib/platform/async_signals.h"
#include "lib/platform/unique_fd.h"

struct SpawnPlan;

class SpawnProcess {
 public:
  // Options of Execute. For each stream at most one of its options; without one the child shares
  // the player's. Of the process group and the session at most one.
  enum Flags : unsigned {
    kPipeStdin = 1u << 0,   // a pipe that the parent writes (GetStdin)
    kPipeStdout = 1u << 1,  // pipes that the parent reads (GetStdout, GetStderr)
    kPipeStderr = 1u << 2,
    kNullStdin = 1u << 3,  // /dev/null
    kNullStdout = 1u << 4,
    kNullStderr = 1u << 5,
    kKernelLogStdout = 1u << 6,  // /dev/kmsg
    kKernelLogStderr = 1u << 7,
    kNewProcessGroup = 1u << 8,
    kNewSession = 1u << 9,
    // The child's group becomes the foreground group of the terminal on descriptor 0 until the
    // child has been waited for; implies kNewProcessGroup unless it is a new session.
    kForeground = 1u << 10,
    // Run as the user and group that are set, keeping only the right to bind privileged ports.
    kDropPrivileges = 1u << 11,
    // Wait aborts the process when the child does not end within the wait timeout.
    kAbortOnWaitTimeout = 1u << 12,
    // The kernel kills the child when the thread that called Execute ends, however it does: for
    // children that must not outlive the player's fast exit or its crash.
    kEndWithParent = 1u << 13,
    // When the child is collected, what is left of its process group is killed. Goes with
    // kNewProcessGroup or kNewSession.
    kGroupEndsWithChild = 1u << 14,
  };

  // A child that a signal ended, told by Wait and Reap.
  class ChildWasKilledBySignal : public std::runtime_error {
   public:
    ChildWasKilledBySignal(const std::string& program, int signal)
        : std::runtime_error("Child (" + program + ") exited with signal " +
                             std::to_string(signal)),
          m_signal(signal) {}
    int signal() const { return m_signal; }

   private:
    int m_signal;
  };

  // The program is found along PATH when its name has no slash; it gets its own name and then
  // the arguments.
  explicit SpawnProcess(std::string program, std::vector<std::string> args = {});
  // Closes the pipes and detaches the observer. A child that has ended is reaped, a running one
  // goes on by itself.
  ~SpawnProcess();
  SpawnProcess(const SpawnProcess&) = delete;
  SpawnProcess& operator=(const SpawnProcess&) = delete;

  // What follows applies to the next Execute.
  void AddEnvironment(std::string name, std::string value);
  void SetWorkingDirectory(std::string directory);
  // Names; the group is the user's own unless one is set. Looked up by Execute, which throws
  // std::runtime_error "User not found" or "Group not found".
  void SetUser(std::string user);
  void SetGroup(std::string group);
  // The child's name (15 characters) until its program has been loaded.
  void SetProcessName(std::string name);
  // Hears of the end of the child once, through the signal dispatcher, which must exist; it must
  // outlive this object or the notification. Null for none.
  void SetChildObserver(lattix::ChildProcessObserver* observer);
  void SetWaitTimeout(std::chrono::nanoseconds timeout);

  // Starts the program. There must be no child. A program that cannot be loaded shows as a child
  // that ends with status 127.
  pid_t Execute(unsigned int flags);

  // The child's process id, 0 when there is none.
  pid_t GetPid() const { return m_child_pid; }

  // The parent's ends of the pipes, -1 when not requested or closed. They stay open after the child
  // has ended, except that KillAndWait closes them.
  int GetStdin() const { return m_stdin.Get(); }
  int GetStdout() const { return m_stdout.Get(); }
  int GetStderr() const { return m_stderr.Get(); }
  void CloseStdin() { m_stdin.Reset(); }

  // Waits for the child to end and returns its exit status; there must be a child. Throws
  // ChildWasKilledBySignal when a signal ended it. The child is gone in either case.
  int Wait();
  // The same for a child that has ended already; throws std::runtime_error "Child hasn't exited
  // yet" when it has not.
  int Reap();

  // Sends a signal to the child; throws std::runtime_error "No child in SpawnProcess::Kill" when
  // there is none.
  void Kill(int signal);
  // Closes the child's standard input, sends the signal, and sends SIGKILL when the child has not
  // ended after the timeout. Returns when the child is gone; one that survives SIGKILL for the
  // timeout is a broken invariant.
  void KillAndWait(int signal, const std::chrono::nanoseconds& timeout);

 private:
  class Watch;
  struct Terminal;

  void MakePlan(unsigned int flags, SpawnPlan* plan) const;
  bool WaitForExit(std::chrono::nanoseconds timeout) const;
  void SendSignal(int signal, const char* caller);
  // Collects the child; 0 when it is still running and that is allowed.
  pid_t Collect(int options, int* status);
  void ForgetChild();
  int ExitStatus(int status) const;

  const std::string m_program;
  const std::vector<std::string> m_args;
  std::vector<std::pair<std::string, std::string>> m_environment;
  std::string m_directory;
  std::string m_user;
  std::string m_group;
  std::string m_process_name;
  std::chrono::nanoseconds m_wait_timeout;
  std::unique_ptr<Watch> m_watch;
  std::unique_ptr<Terminal> m_terminal;  // what to restore when the child is gone

  pid_t m_child_pid = 0;
  bool m_abort_on_wait_timeout = false;
  bool m_group_ends_with_child = false;
  lattix::UniqueFd m_stdin;
  lattix::UniqueFd m_stdout;
  lattix::UniqueFd m_stderr;
};
