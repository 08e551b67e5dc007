// The supervised mode: a JavaScript supervisor, the bootstrap, runs the presentation and drives the
// player.
//
// The supervisor is a child process (node) of the thread that runs it, in a process group of its
// own. It is told to end by SIGTERM, gets SIGKILL when it does not, and dies with the player
// however the player ends. What a supervisor may rely on is in docs/supervisor.md.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "lib/platform/condition_variable.h"
#include "lib/platform/only_one.h"
#include "lib/platform/poll_waker.h"
#include "lib/platform/unique_fd.h"

class BootstrapWatchdog;

// Whether an address is one that the JavaScript inspector is told: four numbers and a port
// ("127.0.0.1:9229").
bool IsInspectorAddress(std::string_view address);

class Bootstrap : OnlyOne<Bootstrap> {
 public:
  struct Options {
    // The supervisor's script, a native path.
    std::string script;
    // Where the JavaScript inspector listens; one that is no such address is left out silently.
    std::string inspector;
    // How long the supervisor may go without a sign of life. Negative: kDefaultSilence, counted
    // from its first sign, so that one that gives none is not supervised; zero: for ever.
    std::chrono::seconds max_silence{-1};
    // A supervisor that is silent for too long is only reported.
    bool watchdog_test = false;

    std::string program = "node";
    std::chrono::nanoseconds end_limit = std::chrono::seconds(5);  // from SIGTERM to SIGKILL
  };
  static constexpr std::chrono::seconds kDefaultSilence{60};

  // From the registry: "inspector", "watchdog" (seconds) and "watchdog_test" of "bootstrap".
  static Options ReadOptions(std::string script);

  // A second object at a time throws "Only one Bootstrap may exist at a time".
  explicit Bootstrap(Options options);
  // Not while Run is running.
  ~Bootstrap();

  // Starts the supervisor and returns when it has ended with status 0, or because it was asked to.
  // Throws an exception with the reason when it cannot be started, ends with another status or by
  // a signal. Called once.
  void Run();

  // Ends the supervisor and waits until it is gone; from any thread but the one in Run. Without one
  // running nothing happens, except that a later Run returns at once. A supervisor that survives is
  // a broken invariant ("Failed to kill running bootstrap").
  void Kill();
  // Asks for the same and returns at once. From any thread, Run's too, not from a signal handler.
  void RequestEnd();

  // Kills the supervisor that is running in this process, if any, with all that it has started: for
  // a process that is about to end at once. Takes no lock and waits for nothing; from any thread. A
  // Run under way does not return any more.
  static void KillAtOnce();

  // The supervisor is alive: what its reports over other ways than its pipe come down to. From any
  // thread.
  void Alive();

 private:
  void Supervise();
  // On the thread in Run.
  void NoteAlive();
  // On the watchdog's thread.
  void SendAbort();
  void WakeLocked();

  const Options m_options;
  PollWaker m_waker;

  std::mutex m_lock;
  lattix::condition_variable m_changed;
  // Guarded by m_lock.
  bool m_end_requested = false;
  bool m_alive = false;
  bool m_woken = false;  // m_waker has a byte in it
  bool m_running = false;
  // A pidfd of the child, invalid when there is none; the thread in Run, which alone changes it,
  // reads it without the lock.
  lattix::UniqueFd m_process;

  std::unique_ptr<BootstrapWatchdog> m_watchdog;  // touched by the thread in Run only

  // The running supervisor's process group; 0 for none. It goes after the child was collected,
  // which is too soon for its number to name another one.
  inline static std::atomic<pid_t> sm_group{0};
  inline static std::atomic<bool> sm_process_ends{false};
};

// The answer to a device whose own supervisor does not work: prints "Forcing crash\n" and writes 4
// to the kernel's crash-dump trigger. Returns where the kernel has none (a failure is logged).
void ForceCrashDump();
