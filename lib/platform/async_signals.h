// Signals, received on a thread of their own.
//
// Every thread blocks the dispatched signals: SIGTERM, SIGHUP, SIGCHLD, SIGRTMIN+1, SIGRTMIN+2 and,
// unless debug mode is on, SIGINT. main() calls ConfigureSignals before it starts any thread, so
// all inherit the mask; then it creates the dispatcher, whose thread waits for the signals and
// calls the observers in ordinary thread context. In debug mode SIGINT keeps a handler, so that a
// debugger or an impatient developer always gets through, and observers hear of it within 100 ms.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <memory>
#include <mutex>

#include "lib/platform/poll_waker.h"
#include "lib/platform/singleton.h"

namespace lattix {

enum SignalConfiguration {
  kBlockSignals = 0,
  kUnblockSignals = 1,  // in a forked child, before it executes its program
};

// Blocks or unblocks the dispatched signals in the calling thread, and in debug mode installs the
// handler for SIGINT, which prints "SIGINT received\n". Unblocking is safe in a forked child when
// the parent has called this function before. A failure is logged and fails an assertion.
void ConfigureSignals(int how);

// Observers are called on the dispatcher's thread with its mutex held: they must not attach or
// detach and must not block. What an observer throws is logged. After Detach has returned, no call
// is running or will come.
class SignalObserver {
 public:
  // info.si_signo is the signal.
  virtual void OnSignal(const siginfo_t& info) = 0;

 protected:
  ~SignalObserver() = default;
};

class ChildProcessObserver {
 public:
  // The child info.si_pid has ended. Called once a registration. How it ended is learned by waiting
  // for it; whoever does so may already have done it.
  virtual void OnChildExit(const siginfo_t& info) = 0;

 protected:
  ~ChildProcessObserver() = default;
};

// A signal observer that wakes a poll loop.
class SignalWaker : public SignalObserver, public PollWaker {
 public:
  void OnSignal(const siginfo_t&) override { Wake(); }
};

class SignalObserverScopedLock;

class SignalDispatcher : public Singleton<SignalDispatcher> {
 public:
  // Returns once the thread is receiving.
  SignalDispatcher();
  // Ends the thread; an observer that never returns is a broken invariant.
  ~SignalDispatcher();

  // Observers of a signal are called in the order they were attached, each as often as it was
  // attached. A SIGTERM that came while nobody observed it is dispatched to the next one who does:
  // one that is sent while a process starts must end it. From any thread, not from an observer.
  void Attach(int signal, SignalObserver* observer);
  // Removes the first such attachment, which must exist.
  void Detach(int signal, SignalObserver* observer);

  // The observer hears once of the end of the child, and is then detached by itself. The lock
  // that proves the caller's right has to be held since before the fork: then the child's end
  // cannot be dispatched before the observer is there. A second observer of the same child
  // replaces the first.
  void AttachChildProcess(const SignalObserverScopedLock& lock, pid_t child,
                          ChildProcessObserver* observer);
  // The attachment must still exist: the child's end has not been dispatched.
  void DetachChildProcess(const SignalObserverScopedLock& lock, pid_t child,
                          ChildProcessObserver* observer);

 private:
  friend class SignalObserverScopedLock;
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};

// Holds the dispatcher's mutex: no observer runs meanwhile. Not recursive.
class SignalObserverScopedLock {
 public:
  SignalObserverScopedLock();

 private:
  std::lock_guard<std::mutex> m_lock;
};

}  // namespace lattix
