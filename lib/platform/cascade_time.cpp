// All conversions go through one count, milliseconds since 1970 on the clock in question, and the
// calendar of <chrono>. The bounds make every step fit: years 1 to 9999 take 49 bits of
// milliseconds, and what a carry can add (65535 of each unit) is small beside that.
#include "lib/platform/cascade_time.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <map>
#include <mutex>
#include <stdexcept>

#include "lib/platform/assertion.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/log.h"
#include "lib/platform/registry_client.h"
#include "lib/platform/system_clock.h"

using lattix::Log;
using lattix::SystemClock;

namespace {

using DateStruct = CascadeTime::DateStruct;
using TimeBase = CascadeTime::TimeBase;
using ZonePtr = CascadeTime::ZonePtr;

constexpr int64_t kNanosecondsPerMillisecond = 1'000'000;
constexpr int64_t kDay = 86'400'000;  // milliseconds, as all counts here

constexpr int64_t FloorDiv(int64_t a, int64_t b) { return a / b - (a % b < 0 ? 1 : 0); }

constexpr int64_t MidnightOf(int year, unsigned month, unsigned day) {
  using namespace std::chrono;
  const sys_days date = std::chrono::year(year) / std::chrono::month(month) / std::chrono::day(day);
  return date.time_since_epoch().count() * kDay;
}
constexpr int64_t kFirst = MidnightOf(1, 1, 1);
constexpr int64_t kEnd = MidnightOf(10000, 1, 1);

bool IsInCalendar(int64_t count) { return count >= kFirst && count < kEnd; }

// Any fields; those out of range carry. A year that is far outside gives a count far outside, as
// the calendar of <chrono> does not reach there.
int64_t CountOf(const DateStruct& d) {
  if (d.year > 9999) return INT64_MAX / 2;
  const int64_t months = int64_t{d.year} * 12 + d.month - 1;
  const int64_t midnight =
      MidnightOf(static_cast<int>(FloorDiv(months, 12)),
                 static_cast<unsigned>(months - FloorDiv(months, 12) * 12 + 1), 1);
  return midnight + (int64_t{d.day} - 1) * kDay + d.hour * int64_t{3'600'000} +
         d.minute * int64_t{60'000} + d.second * int64_t{1000} + d.millisecond;
}

// The count is in the calendar.
DateStruct DateOf(int64_t count) {
  using namespace std::chrono;
  const int64_t day = FloorDiv(count, kDay);
  const sys_days date{days(static_cast<int>(day))};
  const year_month_day ymd(date);
  const int64_t time = count - day * kDay;
  DateStruct d;
  d.year = static_cast<uint16_t>(int(ymd.year()));
  d.month = static_cast<uint16_t>(unsigned(ymd.month()));
  d.day = static_cast<uint16_t>(unsigned(ymd.day()));
  d.hour = static_cast<uint16_t>(time / 3'600'000);
  d.minute = static_cast<uint16_t>(time / 60'000 % 60);
  d.second = static_cast<uint16_t>(time / 1000 % 60);
  d.millisecond = static_cast<uint16_t>(time % 1000);
  d.day_of_week = static_cast<uint16_t>(weekday(date).c_encoding());
  return d;
}

std::optional<TimeBase> TimeBaseOf(int64_t count) {
  int64_t nanoseconds;
  if (__builtin_mul_overflow(count, kNanosecondsPerMillisecond, &nanoseconds)) return {};
  return TimeBase{nanoseconds};
}

int64_t UtcCountOf(TimeBase time) { return FloorDiv(time.nanoseconds, kNanosecondsPerMillisecond); }

int32_t OffsetIn(const CascadeTime::Zone& zone, TimeBase time) {
  return zone.rule.OffsetAt(FloorDiv(time.nanoseconds, 1'000'000'000));
}

// --- Zones ------------------------------------------------------------------------------------

constexpr std::string_view kCustomPrefix = "POSIX:";
// Scripts name custom zones as they like; a device needs a handful.
constexpr size_t kMaxCustomZones = 64;
constexpr char kSection[] = ".ps";
constexpr char kKey[] = "tz";
constexpr std::string_view kDefaultZone = "PST";

using BuiltInZones = std::array<ZonePtr, std::size(kTimeZones)>;

const BuiltInZones& GetBuiltInZones() {
  static const auto& zones = *new BuiltInZones([] {
    BuiltInZones made;
    for (size_t i = 0; i < made.size(); ++i) {
      auto rule = lattix::PosixTimeZone::Compile(kTimeZones[i].rule);
      LATTIX_ASSERT(rule);
      made[i] = std::make_shared<CascadeTime::Zone>(
          CascadeTime::Zone{std::string(kTimeZones[i].key), kTimeZones[i], std::move(*rule)});
    }
    return made;
  }());
  return zones;
}

struct Zones {
  std::mutex mutex;
  std::map<std::string, ZonePtr, std::less<>> custom;  // guarded by mutex
  ZonePtr s_pSystemTimeZone;                           // guarded by mutex; null until first use
};

Zones& TheZones() {
  static auto& zones = *new Zones;
  return zones;
}

ZonePtr FindCustomZone(std::string_view name) {
  Zones& zones = TheZones();
  const std::lock_guard lock(zones.mutex);
  const auto found = zones.custom.find(name);
  if (found != zones.custom.end()) return found->second;
  auto rule = lattix::PosixTimeZone::Compile(name.substr(kCustomPrefix.size()));
  if (!rule) return nullptr;
  auto zone = std::make_shared<CascadeTime::Zone>();
  zone->name = name;
  zone->rule = std::move(*rule);
  zone->row.key = zone->name;
  zone->row.rule = zone->row.key.substr(kCustomPrefix.size());
  zone->row.standard_abbreviation = zone->rule.standard_abbreviation();
  zone->row.daylight_abbreviation = zone->rule.daylight_abbreviation();
  // Who uses one that goes keeps it.
  if (zones.custom.size() == kMaxCustomZones) zones.custom.clear();
  zones.custom.emplace(name, zone);
  return zone;
}

ZonePtr ReadStoredZone() {
  ZonePtr zone;
  try {
    zone = CascadeTime::FindZone(GetRegistryClient().Read(kSection, kKey));
  } catch (const std::exception& e) {
    Log("Unable to read time zone: {}\n", e.what());
  }
  return zone != nullptr ? zone : CascadeTime::FindZone(kDefaultZone);
}

}  // namespace

bool CascadeLibrary_InitializeCascadeTime() {
  SystemClock::Get().Reload();
  ZonePtr zone = ReadStoredZone();
  LATTIX_ASSERT_TEXT(zone != nullptr, "__null != s_pSystemTimeZone");
  Zones& zones = TheZones();
  const std::lock_guard lock(zones.mutex);
  zones.s_pSystemTimeZone = std::move(zone);
  return true;
}

ZonePtr CascadeTime::FindZone(std::string_view name) {
  if (name.starts_with(kCustomPrefix)) return FindCustomZone(name);
  for (size_t i = 0; i < std::size(kTimeZones); ++i) {
    if (kTimeZones[i].key == name) return GetBuiltInZones()[i];
  }
  return nullptr;
}

ZonePtr CascadeTime::CurrentZone() {
  Zones& zones = TheZones();
  {
    const std::lock_guard lock(zones.mutex);
    if (zones.s_pSystemTimeZone != nullptr) return zones.s_pSystemTimeZone;
  }
  ZonePtr stored = ReadStoredZone();
  const std::lock_guard lock(zones.mutex);
  if (zones.s_pSystemTimeZone == nullptr) zones.s_pSystemTimeZone = std::move(stored);
  LATTIX_ASSERT_TEXT(zones.s_pSystemTimeZone != nullptr, "__null != s_pSystemTimeZone");
  return zones.s_pSystemTimeZone;
}

bool CascadeTime::SetTimeZone(std::string_view name) {
  const ZonePtr zone = FindZone(name);
  if (zone == nullptr) return false;
  {
    Zones& zones = TheZones();
    const std::lock_guard lock(zones.mutex);
    zones.s_pSystemTimeZone = zone;
  }
  Changes().Call();
  try {
    GetRegistryClient().Write(kSection, kKey, zone->name);
  } catch (const std::exception& e) {
    Log("Unable to write time zone: {}\n", e.what());
    return false;
  }
  return true;
}

// --- The clock --------------------------------------------------------------------------------

TimeBase CascadeTime::ReadPresentTimeBase() {
  try {
    return {SystemClock::Get().Now()};
  } catch (const lattix::ErrnoException& e) {
    Log("Unable to read system clock: ({}) {}\n", e.error(), e.what());
    return {};
  }
}

bool CascadeTime::SetSystemClock(TimeBase utc) {
  if (!Registry::Setting("networking", "ptp_domain").empty()) {
    Log("Unable to set system clock: it follows the PTP master\n");
    return false;
  }
  try {
    SystemClock::Get().Set(utc.nanoseconds);
    return true;
  } catch (const lattix::ErrnoException& e) {
    Log("Unable to set system clock: ({}) {}\n", e.error(), e.what());
    return false;
  }
}

bool CascadeTime::SetHardwareClock(TimeBase utc) {
  try {
    SystemClock::Get().SetHardwareClock(utc.nanoseconds);
    return true;
  } catch (const lattix::ErrnoException& e) {
    Log("Unable to set hardware clock: ({}) {}\n", e.error(), e.what());
    return false;
  }
}

bool CascadeTime::UnsetHardwareClock() {
  try {
    SystemClock::Get().UnsetHardwareClock();
    return true;
  } catch (const lattix::ErrnoException& e) {
    Log("Unable to unset hardware clock: ({}) {}\n", e.error(), e.what());
    return false;
  }
}

bool CascadeTime::IsClockValid() {
  try {
    return SystemClock::Get().IsValid();
  } catch (const lattix::ErrnoException&) {
    return false;  // a clock that cannot be read
  }
}

lattix::ListenerList<>& CascadeTime::Changes() { return SystemClock::Get().Changes(); }

// --- Conversions ------------------------------------------------------------------------------

DateStruct CascadeTime::ToUtc(TimeBase time) { return DateOf(UtcCountOf(time)); }

DateStruct CascadeTime::ToZone(TimeBase time, const Zone& zone) {
  return DateOf(UtcCountOf(time) + OffsetIn(zone, time) * int64_t{1000});
}

bool CascadeTime::IsValidDate(const DateStruct& d) {
  using namespace std::chrono;
  return d.year >= 1 && d.year <= 9999 && d.hour <= 23 && d.minute <= 59 && d.second <= 59 &&
         d.millisecond <= 999 && d.month <= 12 && d.day <= 31 &&
         year_month_day(std::chrono::year(d.year), std::chrono::month(d.month),
                        std::chrono::day(d.day))
             .ok();
}

std::optional<TimeBase> CascadeTime::FromUtc(const DateStruct& date) {
  if (!IsValidDate(date)) return {};
  return TimeBaseOf(CountOf(date));
}

std::optional<TimeBase> CascadeTime::FromZone(const DateStruct& date, const Zone& zone) {
  if (!IsValidDate(date)) return {};
  const int64_t seconds = FloorDiv(CountOf(date), 1000);
  return TimeBaseOf(zone.rule.ToUtc(seconds) * 1000 + date.millisecond);
}

std::optional<DateStruct> CascadeTime::Moved(const DateStruct& date, int64_t milliseconds) {
  int64_t count;
  if (__builtin_add_overflow(CountOf(date), milliseconds, &count) || !IsInCalendar(count))
    return {};
  return DateOf(count);
}

std::optional<int64_t> CascadeTime::ToSecondsSinceEpoch(const DateStruct& date) {
  const int64_t count = CountOf(date);
  if (!IsInCalendar(count)) return {};
  return FloorDiv(count, 1000);
}

std::optional<DateStruct> CascadeTime::FromSecondsSinceEpoch(int64_t seconds) {
  int64_t count;
  if (__builtin_mul_overflow(seconds, 1000, &count) || !IsInCalendar(count)) return {};
  return DateOf(count);
}

// --- ISO 8601 ---------------------------------------------------------------------------------

std::string CascadeTime::ToIsoString(const DateStruct& d) {
  std::string text = fmt::format("{:04}{:02}{:02}T{:02}{:02}{:02}", d.year, d.month, d.day, d.hour,
                                 d.minute, d.second);
  if (d.millisecond != 0) text += fmt::format(",{:03}", d.millisecond);
  return text;
}

std::string CascadeTime::ToIsoString(TimeBase time, const Zone& zone) {
  const int32_t minutes = OffsetIn(zone, time) / 60;
  std::string text = ToIsoString(ToZone(time, zone));
  if (minutes == 0) return text + 'Z';
  return text + fmt::format("{}{:02}{:02}", minutes > 0 ? '+' : '-', std::abs(minutes) / 60,
                            std::abs(minutes) % 60);
}

std::string CascadeTime::ToUtcIsoString(TimeBase time) { return ToIsoString(ToUtc(time)) + 'Z'; }

namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// Reads from left to right; what it cannot read it throws.
class IsoReader {
 public:
  explicit IsoReader(std::string_view text) : m_text(text) {}

  bool AtEnd() const { return m_at == m_text.size(); }
  std::string_view Rest() const { return m_text.substr(m_at); }
  bool Take(char c) {
    if (!Rest().starts_with(c)) return false;
    ++m_at;
    return true;
  }

  // A field of the date or the time, whose length is fixed.
  uint16_t TakeField(size_t digits) {
    const size_t from = m_at;
    int number = 0;
    for (; m_at < from + digits; ++m_at) {
      if (AtEnd()) throw std::runtime_error("Date specification is too short.");
      const char c = m_text[m_at];
      if (!IsDigit(c)) {
        throw std::runtime_error(
            fmt::format("Non-digit found where digit expected: {} after starting from {} in '{}'",
                        c, from, m_text));
      }
      number = number * 10 + (c - '0');
    }
    return static_cast<uint16_t>(number);
  }

  // The digits of a fraction of a second, as milliseconds.
  uint16_t TakeFraction() {
    RequireDigit();
    int milliseconds = 0;
    for (int weight = 100; !AtEnd() && IsDigit(m_text[m_at]); ++m_at, weight /= 10) {
      milliseconds += (m_text[m_at] - '0') * weight;
    }
    return static_cast<uint16_t>(milliseconds);
  }

  // Two digits of a zone.
  int TakePair() {
    int number = 0;
    for (int i = 0; i < 2; ++i) {
      RequireDigit();
      number = number * 10 + (m_text[m_at++] - '0');
    }
    return number;
  }

  [[noreturn]] void FailNoZone() const {
    throw std::runtime_error(fmt::format("Extra information not recognisable as a timezone {}: {}",
                                         m_text.substr(m_at, 1), m_text));
  }

 private:
  void RequireDigit() const {
    if (AtEnd() || !IsDigit(m_text[m_at])) {
      throw std::runtime_error("Non-digit found where digit expected.");
    }
  }

  const std::string_view m_text;
  size_t m_at = 0;
};

// Seconds ahead of UTC; none when there is no zone.
std::optional<int32_t> TakeZone(IsoReader* reader) {
  if (reader->AtEnd()) return {};
  int32_t offset = 0;
  if (!reader->Take('Z')) {
    const bool negative = reader->Take('-');
    if (!negative && !reader->Take('+')) reader->FailNoZone();
    const int hours = reader->TakePair();
    int minutes = 0;
    if (reader->Take(':') || (!reader->AtEnd() && IsDigit(reader->Rest().front()))) {
      minutes = reader->TakePair();
    }
    if (hours > 24 || minutes > 59) throw std::runtime_error("Time is out of range");
    offset = (hours * 60 + minutes) * (negative ? -60 : 60);
  }
  if (!reader->AtEnd()) throw std::runtime_error("Extra information after timezone");
  return offset;
}

}  // namespace

CascadeTime::IsoText CascadeTime::ReadIsoString(std::string_view text) {
  constexpr size_t kShortest = sizeof("YYYYMMDDThhmmss") - 1;
  if (text.size() < kShortest) throw std::runtime_error("Date specification is too short.");
  IsoReader reader(text);
  DateStruct date;
  date.year = reader.TakeField(4);
  date.month = reader.TakeField(2);
  date.day = reader.TakeField(2);
  if (!reader.Take('T')) reader.FailNoZone();
  date.hour = reader.TakeField(2);
  date.minute = reader.TakeField(2);
  date.second = reader.TakeField(2);
  if (reader.Take(',') || reader.Take('.')) date.millisecond = reader.TakeFraction();
  const std::optional<int32_t> offset = TakeZone(&reader);
  if (!IsValidDate(date)) throw std::runtime_error("Time is out of range");
  return {DateOf(CountOf(date)), offset};  // with its day of the week
}

DateStruct CascadeTime::ParseIsoString(std::string_view text) {
  const auto [date, offset] = ReadIsoString(text);
  if (!offset) return date;
  const std::optional<TimeBase> time = TimeBaseOf(CountOf(date) - *offset * int64_t{1000});
  if (!time) throw std::runtime_error("Unable to convert time to local time");
  return ToLocal(*time);
}
