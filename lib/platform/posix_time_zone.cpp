// Whether daylight time holds is decided by the last change at or before a moment, among those of
// the year and of its neighbours: the time of a change may lie up to a week beside its day, so that
// a change can fall into another year than its own.
#include "lib/platform/posix_time_zone.h"

#include <algorithm>
#include <chrono>

namespace lattix {

namespace {

constexpr int32_t kHour = 3600;
constexpr int64_t kDay = 86400;
// Longer than any rule that makes sense; settings and scripts supply them.
constexpr size_t kMaxRule = 128;
constexpr size_t kMinName = 3;
constexpr int32_t kMaxOffsetHours = 24;
constexpr int32_t kMaxChangeHours = 167;
constexpr std::string_view kDefaultChanges = ",M4.1.0/2,M10.5.0/2";

bool IsLetter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }
bool IsDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

// Each member takes its part off the text's front, or returns false.
class PosixTimeZone::Parser {
 public:
  explicit Parser(std::string_view text) : m_text(text) {}

  bool AtEnd() const { return m_text.empty(); }
  bool StartsWith(char c) const { return m_text.starts_with(c); }
  bool Take(char c) {
    if (!StartsWith(c)) return false;
    m_text.remove_prefix(1);
    return true;
  }

  bool TakeName(std::string* name) {
    const bool quoted = Take('<');
    size_t n = 0;
    while (n < m_text.size() &&
           (IsLetter(m_text[n]) ||
            (quoted && (IsDigit(m_text[n]) || m_text[n] == '+' || m_text[n] == '-')))) {
      ++n;
    }
    *name = m_text.substr(0, n);
    m_text.remove_prefix(n);
    return n >= kMinName && (!quoted || Take('>'));
  }

  // [+-]hh[:mm[:ss]] as seconds.
  bool TakeTime(int32_t max_hours, int32_t* seconds) {
    const bool negative = !Take('+') && Take('-');
    int32_t hours = 0, minutes = 0, rest = 0;
    if (!TakeNumber(0, max_hours, &hours)) return false;
    if (Take(':')) {
      if (!TakeNumber(0, 59, &minutes)) return false;
      if (Take(':') && !TakeNumber(0, 59, &rest)) return false;
    }
    *seconds = hours * kHour + minutes * 60 + rest;
    if (negative) *seconds = -*seconds;
    return true;
  }

  bool TakeChange(Change* change) {
    *change = {Change::Day::kDayOfYear, 0, 0, 0, 2 * kHour};
    if (!Take(',')) return false;
    if (Take('J')) {
      change->kind = Change::Day::kJulianWithoutLeapDay;
      if (!TakeNumber(1, 365, &change->day)) return false;
    } else if (Take('M')) {
      change->kind = Change::Day::kWeekdayOfMonth;
      if (!TakeNumber(1, 12, &change->month) || !Take('.') || !TakeNumber(1, 5, &change->week) ||
          !Take('.') || !TakeNumber(0, 6, &change->day)) {
        return false;
      }
    } else if (!TakeNumber(0, 365, &change->day)) {
      return false;
    }
    return !Take('/') || TakeTime(kMaxChangeHours, &change->time);
  }

 private:
  bool TakeNumber(int32_t min, int32_t max, int32_t* number) {
    size_t n = 0;
    int32_t value = 0;
    while (n < m_text.size() && IsDigit(m_text[n]) && value <= max) {
      value = value * 10 + (m_text[n++] - '0');
    }
    m_text.remove_prefix(n);
    *number = value;
    return n > 0 && value >= min && value <= max;
  }

  std::string_view m_text;
};

std::optional<PosixTimeZone> PosixTimeZone::Compile(std::string_view rule) {
  if (rule.size() > kMaxRule) return {};
  PosixTimeZone zone;
  Parser parser(rule);
  int32_t west = 0;
  if (!parser.TakeName(&zone.m_standard_abbreviation) || !parser.TakeTime(kMaxOffsetHours, &west)) {
    return {};
  }
  zone.m_standard = -west;
  if (parser.AtEnd()) return zone;

  zone.m_has_daylight = true;
  if (!parser.TakeName(&zone.m_daylight_abbreviation)) return {};
  west -= kHour;
  if (!parser.AtEnd() && !parser.StartsWith(',') && !parser.TakeTime(kMaxOffsetHours, &west)) {
    return {};
  }
  zone.m_daylight = -west;
  if (parser.AtEnd()) parser = Parser(kDefaultChanges);
  if (!parser.TakeChange(&zone.m_start) || !parser.TakeChange(&zone.m_end) || !parser.AtEnd()) {
    return {};
  }
  return zone;
}

int64_t PosixTimeZone::Change::InYear(int32_t year) const {
  using namespace std::chrono;
  const auto y = std::chrono::year(year);
  sys_days date;
  switch (kind) {
    case Day::kJulianWithoutLeapDay:
      date = sys_days(y / January / 1) + days(day - 1 + (y.is_leap() && day >= 60 ? 1 : 0));
      break;
    case Day::kDayOfYear: date = sys_days(y / January / 1) + days(day); break;
    case Day::kWeekdayOfMonth: {
      const auto in_month = y / std::chrono::month(static_cast<unsigned>(month));
      const weekday on(static_cast<unsigned>(day));
      date = week == 5 ? sys_days(in_month / on[last])
                       : sys_days(in_month / on[static_cast<unsigned>(week)]);
      break;
    }
  }
  return date.time_since_epoch().count() * kDay + time;
}

bool PosixTimeZone::IsDaylightAt(int64_t utc) const {
  if (!m_has_daylight) return false;
  using namespace std::chrono;
  const sys_days today{floor<days>(seconds(utc + m_standard))};
  const int32_t year = int(year_month_day(today).year());
  bool daylight = false;
  int64_t last = INT64_MIN;
  for (int32_t y = year - 1; y <= year + 1; ++y) {
    // When an end and the next start coincide, daylight time lasts all year.
    const int64_t end = m_end.InYear(y) - m_daylight;
    const int64_t start = m_start.InYear(y) - m_standard;
    if (end <= utc && end > last) {
      last = end;
      daylight = false;
    }
    if (start <= utc && start >= last) {
      last = start;
      daylight = true;
    }
  }
  return daylight;
}

int64_t PosixTimeZone::ToUtc(int64_t local) const {
  if (!m_has_daylight) return local - m_standard;
  const int64_t first = local - std::max(m_standard, m_daylight);
  const int64_t second = local - std::min(m_standard, m_daylight);
  return first + OffsetAt(first) == local ? first : second;
}

}  // namespace lattix
