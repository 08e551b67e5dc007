// koDateTime, koSystemTime with koNetworkTimeEvent, koTimer with koTimerEvent, koTimespan and
// koDuration. What each method means to a script: docs/objects-time.md.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "lib/platform/cascade_time.h"
#include "lib/platform/timed_actions.h"
#include "lib/scripting/CommonAPI/Include/interface_mixins.h"

// The native entries of ifDateTime, through which other objects read and make dates.
struct KelvoIfDateTime {
  CascadeTime::DateStruct (*GetDate)(pscInstance*);
  void (*SetDate)(pscInstance*, CascadeTime::DateStruct date);
};
// The native entries of ifDuration; seconds.
struct KelvoIfDuration {
  int64_t (*GetLength)(pscInstance*);
};

// The date that an object with ifDateTime holds, valid or not; none for any other object, null
// included.
std::optional<CascadeTime::DateStruct> KelvoDateOf(pscInstance* object);

class DateTimeInstance final
    : public MixinForwarder<DateTimeInstance, KelvoObjectInstance<DateTimeInstance>> {
 public:
  static pscClass sm_class;  // koDateTime

  DateTimeInstance() = default;
  explicit DateTimeInstance(const CascadeTime::DateStruct& date) : m_date(date) {}

  template <auto Field>
  int32_t Get() const {
    return m_date.*Field;
  }
  // The field takes the low 16 bits, unchecked: Normalize checks.
  template <auto Field>
  void Set(int32_t value) {
    m_date.*Field = static_cast<uint16_t>(value);
  }

  bool Normalize();
  void AddSeconds(int32_t seconds) { Move(int64_t{seconds} * 1000); }
  void AddMilliseconds(int32_t milliseconds) { Move(milliseconds); }
  void SubtractSeconds(int32_t seconds) { Move(int64_t{seconds} * -1000); }
  void SubtractMilliseconds(int32_t milliseconds) { Move(-int64_t{milliseconds}); }
  std::string ToIsoString() const { return CascadeTime::ToIsoString(m_date); }
  bool FromIsoString(psText text);
  // Limited to what an Integer holds; 0 for what is no date.
  int32_t ToSecondsSinceEpoch() const;
  bool FromSecondsSinceEpoch(int32_t seconds);
  psText GetString();
  bool SetString(psText) { return false; }  // it is set by its fields

  CascadeTime::DateStruct GetDate() const { return m_date; }
  void SetDate(CascadeTime::DateStruct date) { m_date = date; }

 private:
  void Move(int64_t milliseconds);

  CascadeTime::DateStruct m_date;
  char m_text[48] = "";  // what GetString lends; seven fields of up to five digits fit
};

class NetworkTimeEventInstance final
    : public MixinForwarder<NetworkTimeEventInstance, KelvoObjectInstance<NetworkTimeEventInstance>,
                            UserDataMixin> {
 public:
  static pscClass sm_class;  // koNetworkTimeEvent

  NetworkTimeEventInstance() = default;
  explicit NetworkTimeEventInstance(std::string failure_reason)
      : m_successful(failure_reason.empty()), m_failure_reason(std::move(failure_reason)) {}

  bool WasSuccessful() const { return m_successful; }
  std::string GetFailureReason() const { return m_failure_reason; }

 private:
  bool m_successful = true;
  std::string m_failure_reason;
};

// Posts a koNetworkTimeEvent whenever the network-time thread has finished an attempt.
class SystemTimeInstance final
    : public MixinForwarder<SystemTimeInstance, KelvoObjectInstance<SystemTimeInstance>,
                            MessageSourceMixin, UserDataMixin> {
 public:
  static pscClass sm_class;  // koSystemTime

  SystemTimeInstance();
  ~SystemTimeInstance();

  KelvoObjectRef GetUtcDateTime();
  KelvoObjectRef GetLocalDateTime();
  KelvoObjectRef GetZoneDateTime(psText zone);
  bool SetUtcDateTime(pscInstance* date_time);
  bool SetLocalDateTime(pscInstance* date_time);
  std::string GetTimeZone() { return CascadeTime::GetTimeZone(); }
  bool SetTimeZone(psText name) { return CascadeTime::SetTimeZone(name); }
  bool IsValid() { return CascadeTime::IsClockValid(); }
  KelvoObjectRef GetLastNetworkTimeResult();
  std::string GetUtcTimeIsoString();
  std::string GetLocalTimeIsoString();
  std::string GetZoneTimeIsoString(psText zone);

 private:
  uint64_t m_listener = 0;  // 0: the program has no network-time thread
};

class TimerEventInstance final
    : public MixinForwarder<TimerEventInstance, KelvoObjectInstance<TimerEventInstance>,
                            UserDataMixin, SourceIdentityMixin> {
 public:
  static pscClass sm_class;  // koTimerEvent
};

// Fires on the timer service's thread, which reads the port, the user data and the identity, and
// puts the kind of an absolute timer back. All else is the script's.
class TimerInstance final
    : public MixinForwarder<TimerInstance, KelvoObjectInstance<TimerInstance>, MessageSourceMixin,
                            UserDataMixin, IdentityMixin> {
 public:
  static pscClass sm_class;  // koTimer

  ~TimerInstance() { Stop(); }

  // The timer service lives from the preparation of the class to its tear-down.
  static bool koInitClass(pscClass*);
  static void koUninitClass(pscClass*);

  void SetTime(int32_t hour, int32_t minute, int32_t second) { SetTime(hour, minute, second, 0); }
  void SetTime(int32_t hour, int32_t minute, int32_t second, int32_t millisecond);
  void SetElapsed(int32_t seconds, int32_t milliseconds);
  void SetDate(int32_t year, int32_t month, int32_t day);
  void SetDayOfWeek(int32_t day_of_week);
  bool SetDateTime(pscInstance* date_time);
  bool Start();
  void Stop();

 private:
  static constexpr int32_t kAny = -1;
  enum class Kind { kNone, kAbsolute, kRecurring, kElapsed };

  void Fire();

  static TimedActionQueue* sm_timers;

  bool m_elapsed = false;
  int32_t m_year = kAny;
  int32_t m_month = kAny;
  int32_t m_day = kAny;
  int32_t m_day_of_week = kAny;
  int32_t m_hour = kAny;
  int32_t m_minute = kAny;
  int32_t m_second = kAny;    // in elapsed mode the delay
  int32_t m_millisecond = 0;  // and the rest of it
  std::atomic<Kind> m_kind = Kind::kNone;
  TimedActionQueue::Cookie m_cookie = 0;  // 0: not scheduled
};

// A stopwatch on the monotonic clock.
class TimespanInstance final
    : public MixinForwarder<TimespanInstance, KelvoObjectInstance<TimespanInstance>> {
 public:
  static pscClass sm_class;  // koTimespan

  TimespanInstance() { Mark(); }

  void Mark();
  int32_t TotalMilliseconds() const;
  int32_t TotalSeconds() const;
  int32_t GetSecondsToISO8601Date(psText date) const;

 private:
  int64_t m_mark;  // milliseconds
};

// A signed length of time. It stops at the ends of its range, which no sum of a script's numbers
// reaches in a life.
class DurationInstance final
    : public MixinForwarder<DurationInstance, KelvoObjectInstance<DurationInstance>> {
 public:
  static pscClass sm_class;  // koDuration

  void Reset() { m_seconds = 0; }
  // The components have the sign of the whole.
  int32_t GetHours() const;
  int32_t GetMinutes() const { return static_cast<int32_t>(m_seconds / 60 % 60); }
  int32_t GetSeconds() const { return static_cast<int32_t>(m_seconds % 60); }
  int32_t GetTotalSeconds() const;
  // One component is replaced by any number, which the others then carry.
  void SetHours(int32_t hours);
  void SetMinutes(int32_t minutes);
  void SetSeconds(int32_t seconds);
  void SetTotalSeconds(int32_t seconds) { m_seconds = seconds; }
  bool AddDuration(pscInstance* duration);
  bool FromString(psText text);
  bool FromTimeOfDay(pscInstance* date_time);
  std::string GetString() const;

  int64_t GetLength() const { return m_seconds; }

 private:
  int64_t m_seconds = 0;
};
