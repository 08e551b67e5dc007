// Time zones by POSIX rules: "CET-1CEST,M3.5.0,M10.5.0/3" (POSIX.1-2017, 8.3, "TZ").
//
// The rules are evaluated here and not by the C library, whose zone is one per process, lies in the
// environment and cannot be changed while threads run.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace lattix {

// A compiled rule. Immutable; any thread. Times are seconds since 1970, UTC or local, that lie in
// the years 1 to 9999 or a day beside them.
class PosixTimeZone {
 public:
  // Nothing for a text that is no rule: "std offset [dst [offset] [,start[/time],end[/time]]]".
  // Names have at least three letters, or stand in "<>" with digits and signs too. Offsets count
  // west of Greenwich, up to 24:59:59. A start and an end are "Jn", "n" or "Mm.w.d"; their time of
  // day (02:00:00 if none is given) goes from -167 to 167 hours. Without them daylight time lasts
  // from the first Sunday of April to the last of October; without an offset it is one hour ahead.
  static std::optional<PosixTimeZone> Compile(std::string_view rule);

  // Seconds that local time is ahead of UTC.
  int32_t OffsetAt(int64_t utc) const { return IsDaylightAt(utc) ? m_daylight : m_standard; }
  bool IsDaylightAt(int64_t utc) const;

  // The moment at which clocks show a local time. Of an hour that comes twice, the first one. A
  // time that is skipped is taken as what the clock would show had it not been put forward: 02:30
  // in a gap from 02:00 to 03:00 is the moment that clocks show as 03:30.
  int64_t ToUtc(int64_t local) const;

  const std::string& standard_abbreviation() const { return m_standard_abbreviation; }
  // Empty without daylight time.
  const std::string& daylight_abbreviation() const { return m_daylight_abbreviation; }

 private:
  class Parser;

  // A change of clocks: a day of the year, and the time of that day as the clocks show it before.
  struct Change {
    enum class Day { kJulianWithoutLeapDay, kDayOfYear, kWeekdayOfMonth };
    Day kind;
    int32_t day;   // 1..365, 0..365, or the day of the week, 0 = Sunday
    int32_t week;  // 1..5, 5 = the last
    int32_t month;
    int32_t time;  // seconds

    // As seconds since 1970 on the clocks before the change.
    int64_t InYear(int32_t year) const;
  };

  int32_t m_standard = 0;  // seconds ahead of UTC
  int32_t m_daylight = 0;
  bool m_has_daylight = false;
  Change m_start = {};
  Change m_end = {};
  std::string m_standard_abbreviation;
  std::string m_daylight_abbreviation;
};

}  // namespace lattix
