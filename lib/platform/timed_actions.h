// Actions at a later time: after a delay, at a moment of wall-clock time, or whenever the calendar
// matches. The service behind scripts' timers.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "lib/platform/cascade_time.h"

// Actions run one after the other on the queue's thread ("TimedAQ"), with no lock held; they may
// add and remove, but must not throw or block for long. The thread is started, with all signals
// blocked, by the first action, and sleeps until something is due: a queue without actions costs
// nothing.
//
// Adding and removing take logarithmic time, and may be done from any thread until destruction
// begins. What cannot be had from the system for the thread is an exception (ErrnoException,
// std::system_error). Destruction waits for the running action and drops the pending ones.
class TimedActionQueue {
 public:
  using Action = std::function<void()>;
  // Names a pending action; never 0.
  using Cookie = uint32_t;

  // A pattern for local time, -1 for "any". Every field that is set has to match: with a day and a
  // day of the week, the action runs when that day falls on it.
  struct Recurrence {
    int32_t year = -1;
    int32_t month = -1;
    int32_t day = -1;
    int32_t day_of_week = -1;
    int32_t hour = -1;
    int32_t minute = -1;

    bool Matches(const CascadeTime::DateStruct& local) const;
  };

  TimedActionQueue();
  ~TimedActionQueue();
  TimedActionQueue(const TimedActionQueue&) = delete;
  TimedActionQueue& operator=(const TimedActionQueue&) = delete;

  // Once, when the monotonic clock has passed `due` (nanoseconds).
  Cookie AddAtMonotonicTime(int64_t due, Action action);
  // Once, when clocks in the current zone have reached the date; at once for one that has passed.
  // When clock or zone is changed before, the new ones count. 0, and nothing added, for what is no
  // valid date.
  Cookie AddAtLocalTime(const CascadeTime::DateStruct& date, Action action);
  // Each time a minute begins whose local time matches. A minute that the clock jumps over is not
  // seen; one that it jumps into is, when it is the next one.
  Cookie AddRecurring(const Recurrence& when, Action action);

  // When this returns the action neither runs nor will run; only an action that removes itself goes
  // on to its end. So the caller holds no lock that an action takes. Throws std::runtime_error
  // "Cookie not found in remove" for one that is not pending: an action that runs once is over
  // before it starts (and removing it while it runs waits, then throws).
  void Remove(Cookie cookie);

 private:
  struct State;

  std::unique_ptr<State> m_state;
};
