// koTimer and koTimerEvent. A started timer is one action of the timer service; the cookie that
// names it is the script's side only, so starting, stopping and destroying need no lock.
#include <stdexcept>

#include "lib/platform/assertion.h"
#include "lib/platform/monotonic_time.h"
#include "lib/scripting/CommonAPI/Include/time_objects.h"

constinit TimedActionQueue* TimerInstance::sm_timers = nullptr;

bool TimerInstance::koInitClass(pscClass*) {
  LATTIX_ASSERT_TEXT(sm_timers == nullptr, "!sm_timers");
  sm_timers = new TimedActionQueue;
  return true;
}

void TimerInstance::koUninitClass(pscClass*) {
  delete sm_timers;
  sm_timers = nullptr;
}

void TimerInstance::SetTime(int32_t hour, int32_t minute, int32_t second, int32_t millisecond) {
  m_elapsed = false;
  m_hour = hour;
  m_minute = minute;
  m_second = second;
  m_millisecond = millisecond;
}

void TimerInstance::SetElapsed(int32_t seconds, int32_t milliseconds) {
  m_elapsed = true;
  m_second = seconds;
  m_millisecond = milliseconds;
}

void TimerInstance::SetDate(int32_t year, int32_t month, int32_t day) {
  m_elapsed = false;
  m_year = year;
  m_month = month;
  m_day = day;
}

void TimerInstance::SetDayOfWeek(int32_t day_of_week) {
  m_elapsed = false;
  m_day_of_week = day_of_week;
}

bool TimerInstance::SetDateTime(pscInstance* date_time) {
  const std::optional<CascadeTime::DateStruct> date = KelvoDateOf(date_time);
  if (!date) return false;
  SetDate(date->year, date->month, date->day);
  SetDayOfWeek(date->day_of_week);
  SetTime(date->hour, date->minute, date->second, date->millisecond);
  return true;
}

namespace {

// A date out of numbers that may be anything; one that does not fit becomes one that is not valid.
CascadeTime::DateStruct DateFrom(int32_t year, int32_t month, int32_t day, int32_t hour,
                                 int32_t minute, int32_t second, int32_t millisecond) {
  const auto field = [](int32_t value) {
    return value == static_cast<uint16_t>(value) ? static_cast<uint16_t>(value) : UINT16_MAX;
  };
  CascadeTime::DateStruct date;
  date.year = field(year);
  date.month = field(month);
  date.day = field(day);
  date.hour = field(hour);
  date.minute = field(minute);
  date.second = field(second);
  date.millisecond = field(millisecond);
  return date;
}

}  // namespace

bool TimerInstance::Start() {
  Stop();
  const auto fire = [this] { Fire(); };
  if (m_elapsed) {
    const int64_t delay = m_second * int64_t{1'000'000'000} + m_millisecond * int64_t{1'000'000};
    m_kind = Kind::kElapsed;
    m_cookie = sm_timers->AddAtMonotonicTime(lattix::get_monotonic_time() + delay, fire);
  } else if (m_year != kAny && m_month != kAny && m_day != kAny && m_hour != kAny &&
             m_minute != kAny) {
    if (m_second == kAny) return false;
    // Before the action is there: it may run at once, and puts the kind back.
    m_kind = Kind::kAbsolute;
    m_cookie = sm_timers->AddAtLocalTime(
        DateFrom(m_year, m_month, m_day, m_hour, m_minute, m_second, m_millisecond), fire);
  } else {
    if (m_second != 0 || m_millisecond != 0) return false;
    m_kind = Kind::kRecurring;
    m_cookie = sm_timers->AddRecurring({.year = m_year,
                                        .month = m_month,
                                        .day = m_day,
                                        .day_of_week = m_day_of_week,
                                        .hour = m_hour,
                                        .minute = m_minute},
                                       fire);
  }
  if (m_cookie == 0) m_kind = Kind::kNone;
  return m_cookie != 0;
}

void TimerInstance::Stop() {
  const TimedActionQueue::Cookie cookie = std::exchange(m_cookie, 0);
  if (cookie == 0) return;
  try {
    sm_timers->Remove(cookie);
  } catch (const std::runtime_error&) {
    // A timer that fires once has fired: there is nothing to stop.
    LATTIX_ASSERT(m_kind != Kind::kRecurring);
  }
  m_kind = Kind::kNone;
}

void TimerInstance::Fire() {
  Kind absolute = Kind::kAbsolute;
  m_kind.compare_exchange_strong(absolute, Kind::kNone);
  PostMessage<TimerEventInstance>(*this);
}

namespace {

constexpr fundes kTimerFunctions[] = {
    koMethod<static_cast<void (TimerInstance::*)(int32_t, int32_t, int32_t)>(
        &TimerInstance::SetTime)>("SetTime"),
    koMethod<static_cast<void (TimerInstance::*)(int32_t, int32_t, int32_t, int32_t)>(
        &TimerInstance::SetTime)>("SetTime"),
    koMethod<&TimerInstance::SetElapsed>("SetElapsed"),
    koMethod<&TimerInstance::SetDate>("SetDate"),
    koMethod<&TimerInstance::SetDayOfWeek>("SetDayOfWeek"),
    koMethod<&TimerInstance::SetDateTime>("SetDateTime"),
    koMethod<&TimerInstance::Start>("Start"),
    koMethod<&TimerInstance::Stop>("Stop"),
    {},
};
constexpr psInterface kTimerInterfaces[] = {
    MessageSourceMixin::kInterface<TimerInstance>,
    UserDataMixin::kInterface<TimerInstance>,
    IdentityMixin::kInterface<TimerInstance>,
    {"ifTimer", kTimerFunctions},
};
constexpr psInterface kTimerEventInterfaces[] = {
    UserDataMixin::kInterface<TimerEventInstance>,
    SourceIdentityMixin::kInterface<TimerEventInstance>,
};

}  // namespace

constinit pscClass TimerInstance::sm_class = KelvoClass<TimerInstance>("koTimer", kTimerInterfaces);
constinit pscClass TimerEventInstance::sm_class =
    KelvoClass<TimerEventInstance>("koTimerEvent", kTimerEventInterfaces);
