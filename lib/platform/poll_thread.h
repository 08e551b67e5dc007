// The process's one event loop for native code: file descriptors and timers, served on one thread.
//
// An object that owns a descriptor is a Pollable and attaches itself; an object that wants a call
// at a later time is a TimerClient and adds a timer. Callbacks run on the poll thread with the
// poll thread's recursive mutex held. So a callback may attach, detach, change events, add and
// cancel timers (its own too), but must not block and must not throw; another thread that calls
// any of these waits until the running callback is over. That gives the rule that makes
// destruction safe: once Detach or CancelTimer has returned on another thread, no such callback is
// running or will run. It also gives the trap: a thread that holds a lock which a callback takes
// must not call in here.
//
// A client detaches and cancels before it is destroyed, in its destructor's first lines, and is not
// destroyed while one of its own callbacks runs.
#pragma once

#include <cstdint>
#include <memory>
#include <type_traits>

#include "lib/platform/poll_waker.h"
#include "lib/platform/singleton.h"
#include "lib/platform/timer_queue.h"

class Pollable {
 public:
  // The descriptor to poll. Asked on the poll thread before every poll, with its mutex held; -1 is
  // polled for nothing.
  virtual int GetFd() const = 0;
  // The events that the poll returned, never 0: the requested ones and POLLERR, POLLHUP, POLLNVAL.
  virtual void OnEvents(short revents) = 0;
  // For classes that have a use for it; the poll thread never calls it. Fails the assertion "false"
  // unless overridden.
  virtual void OnActivity();

 protected:
  ~Pollable() = default;
};

// A waker that the poll thread serves: every Wake of it becomes one call of OnWoken on the poll
// thread. Attach it with POLLIN. The object's user wakes it through GetWaker, from any thread.
class PollableWaker : public Pollable {
 public:
  int GetFd() const override { return m_waker.GetReadFd(); }
  // Acknowledges the wake, then calls OnWoken. Events other than POLLIN are a broken invariant.
  void OnEvents(short events) override;

  virtual ~PollableWaker() = default;

  virtual void OnWoken() {}

  PollWaker& GetWaker() { return m_waker; }

 private:
  PollWaker m_waker;
};

// All members may be called from any thread. The interface calls return without waiting for the
// loop, which is woken when they change what it waits for.
class PollThread : public lattix::Singleton<PollThread> {
 public:
  // One less is the greatest number of clients, of which the thread itself takes one.
  static constexpr size_t MAX_CLIENTS = 256;

  // Starts the thread.
  PollThread();
  // Ends it. A client still attached or a timer still pending is a broken invariant: its owner
  // would wait for a call that never comes, or is gone already.
  ~PollThread();

  // The client is called when the descriptor has one of the events (POLLIN ...). Clients are served
  // in the order they were attached. Too many clients: the table is printed and the process ends.
  // Where a script or a peer decides how many there are, use TryAttach.
  void Attach(Pollable* client, short events);
  // As Attach, but false, and nothing attached, when there is no room.
  bool TryAttach(Pollable* client, short events);
  // Removes the client's oldest attachment; none is no error.
  void Detach(Pollable* client);
  // Changes the events of the client's oldest attachment, which must exist.
  void ChangeEvents(Pollable* client, short events);

  // Calls (target->*method)(argument) once, when the monotonic clock (nanoseconds) has passed
  // `due`; timers with equal due times run in the order they were added. A timer is over before its
  // call begins, so a periodic one adds itself anew in its callback. The same call may be pending
  // several times.
  template <typename T>
  void AddTimer(std::type_identity_t<T>* target, void (T::*method)(void*), void* argument,
                int64_t due) {
    AddTimerCall({target, static_cast<TimerCall::Method>(method), argument}, due);
  }
  // Removes the first timer, by due time, that would make this very call; none is no error.
  template <typename T>
  void CancelTimer(std::type_identity_t<T>* target, void (T::*method)(void*), void* argument) {
    CancelTimerCall({target, static_cast<TimerCall::Method>(method), argument});
  }

 private:
  class NoOpPollableWaker;
  struct Impl;

  void AddTimerCall(const TimerCall& call, int64_t due);
  void CancelTimerCall(const TimerCall& call);

  std::unique_ptr<Impl> m_impl;
};
