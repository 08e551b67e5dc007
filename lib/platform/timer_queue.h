// The poll thread's timers: a queue by due time that can also find a timer by what it calls.
//
// Internal to the poll thread. Not safe for several threads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

// The base of every object that receives timer callbacks. It carries no state.
class TimerClient {};

// What a timer calls: target->*method(argument). Two calls are the same when all three are equal.
struct TimerCall {
  using Method = void (TimerClient::*)(void*);

  TimerClient* target;
  Method method;
  void* argument;

  void Run() const { (target->*method)(argument); }
  bool operator==(const TimerCall&) const = default;
};

// Adding, cancelling and taking a timer cost logarithmic time each, on the average of many, also
// when very many timers are pending and when many of them make the same call. The memory is that of
// the most timers that were ever pending.
class TimerQueue {
 public:
  TimerQueue();
  ~TimerQueue();

  // Due times are monotonic nanoseconds; calls with equal due times run in the order
  // they were added.
  void Add(const TimerCall& call, int64_t due);
  // Removes, of the timers that make this call, the one that would run first. No match is no error.
  void Cancel(const TimerCall& call);

  bool IsEmpty() const;
  size_t Size() const;
  // The due time of the first timer. The queue is not empty.
  int64_t NextDue() const;
  // Removes the first timer. The queue is not empty.
  TimerCall TakeFirst();

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};
