// The clock, the time zones and the calendar.
//
// A moment is a TimeBase; what clocks and calendars show is a DateStruct, in UTC or in a zone. The
// process has one current zone, which is kept in the registry (section ".ps", key "tz").
//
// All members may be called from any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "lib/platform/listener_list.h"
#include "lib/platform/posix_time_zone.h"
#include "lib/platform/time_zones.h"

class CascadeTime {
 public:
  // A broken-down time. The fields hold anything that fits until they are checked.
  struct DateStruct {
    uint16_t year = 0;
    uint16_t month = 0;   // 1..12
    uint16_t day = 0;     // 1..31
    uint16_t hour = 0;    // 0..23
    uint16_t minute = 0;  // 0..59
    uint16_t second = 0;  // 0..59: leap seconds have no number
    uint16_t millisecond = 0;
    uint16_t day_of_week = 0;  // 0 = Sunday; not looked at by conversions

    bool operator==(const DateStruct&) const = default;
  };

  // Nanoseconds since 1970-01-01, UTC: from the year 1677 to 2262.
  struct TimeBase {
    int64_t nanoseconds = 0;

    auto operator<=>(const TimeBase&) const = default;
  };

  // A zone of the table, or a custom one: "POSIX:" and a rule, whose key is that whole text, whose
  // abbreviations are the rule's and whose other names are empty. Immutable.
  struct Zone {
    std::string name;  // the key, owned
    TimeZoneRow row;
    lattix::PosixTimeZone rule;
  };
  // Held as long as it is used; a change of the current zone does not touch the old one.
  using ZonePtr = std::shared_ptr<const Zone>;

  // --- The clock ------------------------------------------------------------------------------

  // A clock that cannot be read is logged as "Unable to read system clock: ({}) {}\n" and reads 0.
  static TimeBase ReadPresentTimeBase();
  // Sets the system's clock and the hardware clock. False, and logged, when that is not possible,
  // or when another device rules this one's clock (registry "networking"/"ptp_domain").
  static bool SetSystemClock(TimeBase utc);
  // The hardware clock alone; false, and logged, on failure.
  static bool SetHardwareClock(TimeBase utc);
  static bool UnsetHardwareClock();
  // Whether the clock was set since start, by network, script, operator or hardware clock.
  static bool IsClockValid();
  // Called after the clock was set by this process or the current zone was changed, on the thread
  // that did it.
  static lattix::ListenerList<>& Changes();

  // --- Zones ----------------------------------------------------------------------------------

  // Null for a name that is neither a key of the table, case-sensitively, nor "POSIX:" and a rule.
  static ZonePtr FindZone(std::string_view name);
  // Never null. Reads the registry first where CascadeLibrary_InitializeCascadeTime was not called.
  static ZonePtr CurrentZone();
  // The current zone's name.
  static std::string GetTimeZone() { return CurrentZone()->name; }
  // Makes a zone the current one and writes its name to the registry. False for an unknown name,
  // which changes nothing, and when the name cannot be written, which is logged.
  static bool SetTimeZone(std::string_view name);

  // --- Conversions ----------------------------------------------------------------------------

  static DateStruct ToUtc(TimeBase time);
  static DateStruct ToZone(TimeBase time, const Zone& zone);
  static DateStruct ToLocal(TimeBase time) { return ToZone(time, *CurrentZone()); }

  // None for what is no valid date or lies outside a TimeBase. PosixTimeZone::ToUtc tells what
  // becomes of a local time that is skipped or comes twice.
  static std::optional<TimeBase> FromUtc(const DateStruct& date);
  static std::optional<TimeBase> FromZone(const DateStruct& date, const Zone& zone);
  static std::optional<TimeBase> FromLocal(const DateStruct& date) {
    return FromZone(date, *CurrentZone());
  }

  // Whether all fields are in range and the day exists, in the years 1 to 9999.
  static bool IsValidDate(const DateStruct& date);
  // The date with the milliseconds added and every field in its range, excess carried into the next
  // higher one: the 31st of a month with 30 days is the first of the next one, month 0 the December
  // before, day 0 the last day of the month before. None when the year leaves 1 to 9999.
  static std::optional<DateStruct> Moved(const DateStruct& date, int64_t milliseconds);
  static std::optional<DateStruct> Normalized(const DateStruct& date) { return Moved(date, 0); }

  // None as with Normalized, whose carrying this does first.
  static std::optional<int64_t> ToSecondsSinceEpoch(const DateStruct& date);
  // None outside the years 1 to 9999.
  static std::optional<DateStruct> FromSecondsSinceEpoch(int64_t seconds);

  // --- ISO 8601 -------------------------------------------------------------------------------

  // The basic format, "20240305T070809", with ",010" behind it when there are milliseconds.
  static std::string ToIsoString(const DateStruct& date);
  // The same of a moment as the zone shows it, with "Z", "+0530" or "-0330" behind it.
  static std::string ToIsoString(TimeBase time, const Zone& zone);
  static std::string ToUtcIsoString(TimeBase time);

  struct IsoText {
    DateStruct date;                // valid
    std::optional<int32_t> offset;  // seconds ahead of UTC, when the text has a zone
  };
  // Reads the basic format with an optional fraction ("," or ".", any number of digits, cut to
  // milliseconds) and an optional zone ("Z", "+hh", "+hhmm" or "+hh:mm", or "-"). Throws
  // std::runtime_error with one of the texts in the .cpp.
  static IsoText ReadIsoString(std::string_view text);
  // The same: the date as it is in a text without zone, else the moment as local time.
  static DateStruct ParseIsoString(std::string_view text);
};

// Makes the zone that the registry names the current one, or "PST" when it names none that is
// known; a registry that cannot be read is logged as "Unable to read time zone: {}\n". Also takes
// what the device knows of its clock. Called once at the start of the process, before other
// threads; tests call it again for another device root. Returns true.
bool CascadeLibrary_InitializeCascadeTime();
