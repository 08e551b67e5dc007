// Pending actions lie in one table by cookie; the queues order the cookies. The thread sleeps in
// one poll: on the first monotonic due time as the timeout, on a kernel timer of the wall clock for
// the first moment of local time, and on an event that wakes it. The kernel cancels that timer when
// anyone sets the machine's clock, so a jump is noticed whoever makes it.
//
// Rules of this file:
// 1. An action runs without the mutex, from a copy that is the thread's own: nothing of the table
//    is held across it.
// 2. `running` names the action while it runs; Remove waits for that.
// 3. The wall queue's due times are UTC and hold for one clock and one zone. After a change, which
//    `changed` tells, they are all computed anew before any is looked at.
#include "lib/platform/timed_actions.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "lib/platform/assertion.h"
#include "lib/platform/condition_variable.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/monotonic_time.h"
#include "lib/platform/signal_mask.h"
#include "lib/platform/thread_name.h"
#include "lib/platform/timer_queue.h"
#include "lib/platform/unique_fd.h"

namespace {

using Action = TimedActionQueue::Action;
using Cookie = TimedActionQueue::Cookie;
using Recurrence = TimedActionQueue::Recurrence;
using DateStruct = CascadeTime::DateStruct;

constexpr int64_t kSecond = 1'000'000'000;
constexpr int64_t kMinute = 60 * kSecond;
constexpr int64_t kNever = INT64_MAX;

// The queues of the poll thread order calls; here a call is only the name of an action.
TimerCall CallOf(Cookie cookie) {
  return {nullptr, nullptr, reinterpret_cast<void*>(uintptr_t{cookie})};
}
Cookie CookieOf(const TimerCall& call) {
  return static_cast<Cookie>(reinterpret_cast<uintptr_t>(call.argument));
}

timespec SpecOf(int64_t nanoseconds) { return {nanoseconds / kSecond, nanoseconds % kSecond}; }

}  // namespace

bool TimedActionQueue::Recurrence::Matches(const DateStruct& local) const {
  const auto fits = [](int32_t wanted, uint16_t actual) {
    return wanted == -1 || wanted == actual;
  };
  return fits(year, local.year) && fits(month, local.month) && fits(day, local.day) &&
         fits(day_of_week, local.day_of_week) && fits(hour, local.hour) &&
         fits(minute, local.minute);
}

struct TimedActionQueue::State {
  struct Once {
    Action action;
    std::optional<DateStruct> local;  // in the wall queue with this date, else in the other one
  };
  struct Recurring {
    Recurrence when;
    Action action;
  };

  ~State();

  Cookie Add(Once once, int64_t due);
  void Start();  // with the mutex held
  Cookie NewCookie();
  void Wake() const;

  void Run();
  // Of the rest each is called by the thread, with the mutex held.
  bool RunWhatIsDue(std::unique_lock<std::mutex>* lock);
  void RunAction(std::unique_lock<std::mutex>* lock, Cookie cookie, Action action);
  void FollowChange();
  void ScheduleTick();
  void Tick(std::unique_lock<std::mutex>* lock);
  void Sleep(std::unique_lock<std::mutex>* lock);
  bool ArmWallTimer();
  static std::optional<int64_t> DueOf(const DateStruct& local);
  static int64_t MinuteOf(const DateStruct& local);

  std::mutex mutex;  // guards what follows
  std::unordered_map<Cookie, Once> once;
  std::map<Cookie, Recurring> recurring;
  TimerQueue monotonic;
  TimerQueue wall;
  int64_t tick_due = kNever;  // monotonic
  int64_t last_minute = 0;    // the last one whose beginning was seen
  Cookie last_cookie = 0;
  Cookie running = 0;
  lattix::condition_variable ran;
  bool changed = false;  // clock or zone
  bool quit = false;

  // Made by the first action, and constant from then on.
  lattix::UniqueFd wake;
  lattix::UniqueFd wall_timer;
  std::thread thread;
};

TimedActionQueue::TimedActionQueue() : m_state(std::make_unique<State>()) {}

TimedActionQueue::~TimedActionQueue() = default;

TimedActionQueue::State::~State() {
  if (!thread.joinable()) return;
  {
    const std::lock_guard lock(mutex);
    quit = true;
  }
  Wake();
  thread.join();
}

// --- For the callers --------------------------------------------------------------------------

void TimedActionQueue::State::Start() {
  if (thread.joinable()) return;
  wake.Reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!wake) throw lattix::ErrnoException(errno, "eventfd");
  wall_timer.Reset(::timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK));
  if (!wall_timer) throw lattix::ErrnoException(errno, "timerfd_create");
  const lattix::AllSignalsBlocked blocked;
  thread = std::thread([this] { Run(); });
}

Cookie TimedActionQueue::State::NewCookie() {
  do {
    ++last_cookie;
  } while (last_cookie == 0 || once.contains(last_cookie) || recurring.contains(last_cookie));
  return last_cookie;
}

void TimedActionQueue::State::Wake() const {
  const uint64_t one = 1;
  const bool woken = ::write(wake.Get(), &one, sizeof(one)) == sizeof(one) || errno == EAGAIN;
  LATTIX_ASSERT(woken);
}

Cookie TimedActionQueue::State::Add(Once entry, int64_t due) {
  TimerQueue& queue = entry.local ? wall : monotonic;
  const Cookie cookie = NewCookie();
  const bool is_first = queue.IsEmpty() || due < queue.NextDue();
  once.emplace(cookie, std::move(entry));
  queue.Add(CallOf(cookie), due);
  if (is_first) Wake();
  return cookie;
}

Cookie TimedActionQueue::AddAtMonotonicTime(int64_t due, Action action) {
  const std::lock_guard lock(m_state->mutex);
  m_state->Start();
  return m_state->Add({std::move(action), {}}, due);
}

Cookie TimedActionQueue::AddAtLocalTime(const DateStruct& date, Action action) {
  const std::lock_guard lock(m_state->mutex);
  // With the mutex: a change of the zone from here on finds the action in the queue.
  const std::optional<int64_t> due = State::DueOf(date);
  if (!due) return 0;
  m_state->Start();
  return m_state->Add({std::move(action), date}, *due);
}

Cookie TimedActionQueue::AddRecurring(const Recurrence& when, Action action) {
  const std::lock_guard lock(m_state->mutex);
  m_state->Start();
  const Cookie cookie = m_state->NewCookie();
  m_state->recurring.emplace(cookie, State::Recurring{when, std::move(action)});
  if (m_state->tick_due == kNever) {
    m_state->ScheduleTick();
    m_state->Wake();
  }
  return cookie;
}

void TimedActionQueue::Remove(Cookie cookie) {
  State& state = *m_state;
  Action dropped;  // destroyed without the mutex: what it owns may call in here
  std::unique_lock lock(state.mutex);
  bool found = true;
  if (const auto recurring = state.recurring.find(cookie); recurring != state.recurring.end()) {
    dropped = std::move(recurring->second.action);
    state.recurring.erase(recurring);
  } else if (const auto once = state.once.find(cookie); once != state.once.end()) {
    (once->second.local ? state.wall : state.monotonic).Cancel(CallOf(cookie));
    dropped = std::move(once->second.action);
    state.once.erase(once);
  } else {
    found = false;
  }
  if (std::this_thread::get_id() != state.thread.get_id()) {
    state.ran.wait(lock, [&] { return cookie == 0 || state.running != cookie; });
  }
  if (!found) throw std::runtime_error("Cookie not found in remove");
}

// --- The thread -------------------------------------------------------------------------------

void TimedActionQueue::State::Run() {
  lattix::SetThreadName("TimedAQ");
  // Not by Start: whoever calls that holds the mutex, which the listener takes.
  const uint64_t listener = CascadeTime::Changes().Add([this] {
    const std::lock_guard lock(mutex);
    changed = true;
    Wake();
  });
  std::unique_lock lock(mutex);
  changed = true;  // it may have come before the listener did
  while (!quit) {
    if (std::exchange(changed, false)) FollowChange();
    if (!RunWhatIsDue(&lock)) Sleep(&lock);
  }
  lock.unlock();
  CascadeTime::Changes().Remove(listener);
}

// At most one action, since it may take long enough for others to become due.
bool TimedActionQueue::State::RunWhatIsDue(std::unique_lock<std::mutex>* lock) {
  const int64_t now = lattix::get_monotonic_time();
  TimerQueue* due = nullptr;
  if (!monotonic.IsEmpty() && monotonic.NextDue() <= now) {
    due = &monotonic;
  } else if (tick_due <= now) {
    Tick(lock);
    return true;
  } else if (!wall.IsEmpty() && wall.NextDue() <= CascadeTime::ReadPresentTimeBase().nanoseconds) {
    due = &wall;
  } else {
    return false;
  }
  const Cookie cookie = CookieOf(due->TakeFirst());
  const auto entry = once.find(cookie);
  Action action = std::move(entry->second.action);
  once.erase(entry);
  RunAction(lock, cookie, std::move(action));
  return true;
}

void TimedActionQueue::State::RunAction(std::unique_lock<std::mutex>* lock, Cookie cookie,
                                        Action action) {
  running = cookie;
  lock->unlock();
  action();
  action = {};
  lock->lock();
  running = 0;
  ran.notify_all();
}

std::optional<int64_t> TimedActionQueue::State::DueOf(const DateStruct& local) {
  const auto time = CascadeTime::FromLocal(local);
  return time ? std::optional(time->nanoseconds) : std::nullopt;
}

void TimedActionQueue::State::FollowChange() {
  std::vector<TimerCall> calls;
  while (!wall.IsEmpty()) calls.push_back(wall.TakeFirst());
  for (const TimerCall& call : calls) {
    // A date at the very end of time may lie beyond it in the new zone.
    wall.Add(call, DueOf(*once.at(CookieOf(call)).local).value_or(kNever));
  }
  if (tick_due == kNever) return;
  const int64_t seen = last_minute;
  ScheduleTick();
  // The network's time puts a clock forward a little once an hour. When that is the step into the
  // next minute, it has begun all the same.
  if (last_minute == seen + 1) {
    last_minute = seen;
    tick_due = lattix::get_monotonic_time();
  }
}

// Any number that differs between neighbouring minutes and is the same within one.
int64_t TimedActionQueue::State::MinuteOf(const DateStruct& local) {
  return CascadeTime::ToSecondsSinceEpoch(local).value_or(0) / 60;
}

// A tick that comes a moment early, as the two clocks do not run alike, finds a minute that was
// seen already and waits for the rest of it.
void TimedActionQueue::State::ScheduleTick() {
  const CascadeTime::TimeBase now = CascadeTime::ReadPresentTimeBase();
  const DateStruct local = CascadeTime::ToLocal(now);
  const int64_t into_minute =
      (local.second * int64_t{1000} + local.millisecond) * 1'000'000 + now.nanoseconds % 1'000'000;
  tick_due = lattix::monotonic_time_after_ns(kMinute - into_minute);
  last_minute = MinuteOf(local);
}

void TimedActionQueue::State::Tick(std::unique_lock<std::mutex>* lock) {
  if (recurring.empty()) {
    tick_due = kNever;
    return;
  }
  const DateStruct local = CascadeTime::ToLocal(CascadeTime::ReadPresentTimeBase());
  const bool begins = MinuteOf(local) != last_minute;
  ScheduleTick();
  if (!begins) return;
  // Actions may add and remove entries: the next one is found by its cookie.
  for (auto next = recurring.begin(); next != recurring.end() && !quit;) {
    const Cookie cookie = next->first;
    if (next->second.when.Matches(local)) RunAction(lock, cookie, next->second.action);
    next = recurring.upper_bound(cookie);
  }
}

// Sets the kernel's timer to the first moment of the wall queue. Whether there is anything to watch
// the wall clock for. A clock that was set since the timer was last looked at is told only once,
// here or by the timer.
bool TimedActionQueue::State::ArmWallTimer() {
  if (wall.IsEmpty() && recurring.empty()) return false;
  timespec machine;
  ::clock_gettime(CLOCK_REALTIME, &machine);
  // Without a moment to wait for, the timer only tells of changes.
  int64_t wait = 365 * 24 * 60 * kMinute;
  if (!wall.IsEmpty()) {
    wait = std::clamp<int64_t>(wall.NextDue() - CascadeTime::ReadPresentTimeBase().nanoseconds, 1,
                               wait);
  }
  const itimerspec when = {{}, SpecOf(machine.tv_sec * kSecond + machine.tv_nsec + wait)};
  const int armed = ::timerfd_settime(wall_timer.Get(), TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET,
                                      &when, nullptr);
  LATTIX_ASSERT(armed == 0 || errno == ECANCELED);
  changed |= armed != 0;
  return true;
}

void TimedActionQueue::State::Sleep(std::unique_lock<std::mutex>* lock) {
  const int64_t due = std::min(tick_due, monotonic.IsEmpty() ? kNever : monotonic.NextDue());
  const nfds_t watched = ArmWallTimer() ? 2 : 1;
  if (changed) return;
  pollfd events[] = {{wake.Get(), POLLIN, 0}, {wall_timer.Get(), POLLIN, 0}};
  lock->unlock();
  const timespec left = SpecOf(std::max<int64_t>(due - lattix::get_monotonic_time(), 0));
  const int ready = ::ppoll(events, watched, due == kNever ? nullptr : &left, nullptr);
  LATTIX_ASSERT(ready >= 0 || errno == EINTR);
  uint64_t count;
  if (ready > 0 && events[0].revents != 0) {
    const bool acknowledged = ::read(wake.Get(), &count, sizeof(count)) == sizeof(count);
    LATTIX_ASSERT(acknowledged);
  }
  const bool clock_was_set = ready > 0 && events[1].revents != 0 &&
                             ::read(wall_timer.Get(), &count, sizeof(count)) < 0 &&
                             errno == ECANCELED;
  lock->lock();
  changed |= clock_was_set;
}
