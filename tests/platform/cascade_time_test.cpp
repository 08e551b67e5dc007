// Zones against the C library's reading of the same rules, and the calendar, ISO 8601, the clock of
// a device root and the kept zone.
#include "lib/platform/cascade_time.h"

#include <ctime>

#include "lib/platform/registry_client.h"
#include "lib/platform/system_clock.h"
#include "tests/platform/test_support.h"

namespace {

using DateStruct = CascadeTime::DateStruct;
using TimeBase = CascadeTime::TimeBase;

DateStruct Date(int year, int month, int day, int hour = 0, int minute = 0, int second = 0,
                int millisecond = 0) {
  DateStruct d;
  d.year = static_cast<uint16_t>(year);
  d.month = static_cast<uint16_t>(month);
  d.day = static_cast<uint16_t>(day);
  d.hour = static_cast<uint16_t>(hour);
  d.minute = static_cast<uint16_t>(minute);
  d.second = static_cast<uint16_t>(second);
  d.millisecond = static_cast<uint16_t>(millisecond);
  return d;
}

std::string Text(const std::optional<DateStruct>& d) {
  return d ? CascadeTime::ToIsoString(*d) + " " + std::to_string(d->day_of_week) : "none";
}

// --- Zones ------------------------------------------------------------------------------------

// Every hour of two years, and moments of half a century, as the C library sees them. It knows one
// zone a process, so this runs in a child.
[[noreturn]] void CompareWithLibrary(std::string_view rule) {
  const auto zone = lattix::PosixTimeZone::Compile(rule);
  std::string explicit_rule(rule);
  const bool changes = zone && !zone->daylight_abbreviation().empty();
  if (changes && rule.find(',') == rule.npos) explicit_rule += ",M4.1.0/2,M10.5.0/2";
  setenv("TZ", explicit_rule.c_str(), 1);
  tzset();
  const auto differs = [&](time_t t) {
    tm local;
    localtime_r(&t, &local);
    if (zone && local.tm_gmtoff == zone->OffsetAt(t)) return false;
    fprintf(stderr, "%s at %ld: not %ld\n", explicit_rule.c_str(), t, local.tm_gmtoff);
    return true;
  };
  constexpr time_t k1972 = 63'072'000, k2024 = 1'704'067'200, k2026 = 1'767'225'600;
  for (time_t t = k2024; t < k2026; t += 3600) {
    if (differs(t) || differs(t - 1)) exit(1);
  }
  for (time_t t = k1972; t < 2 * k2024 - k1972; t += 500'003) {
    if (differs(t)) exit(1);
  }
  exit(0);
}

TEST(Zones, RulesMeanWhatTheyMeanToTheCLibrary) {
  std::vector<std::string_view> rules = {
      "EST5EDT,J60/0,J305/23:59:59",    "EST5EDT,59,364/1:30", "<-03>3<-02>,M3.5.0/-2,M10.5.0/-1",
      "IST-1GMT0,M10.5.0,M3.5.0/1",     "XXX24:59:59",         "WGT3WGST,M3.5.0/-2,M10.5.0/-1",
      "ABC-14:00DEF-15,M2.1.0,M11.5.6",
  };
  for (const TimeZoneRow& row : kTimeZones) {
    if (std::find(rules.begin(), rules.end(), row.rule) == rules.end()) rules.push_back(row.rule);
  }
  for (const std::string_view rule : rules) {
    EXPECT_EXIT(CompareWithLibrary(rule), testing::ExitedWithCode(0), "") << rule;
  }
}

TEST(Zones, OnlyRulesAreAccepted) {
  for (const char* rule : {"",
                           "E",
                           "EST",
                           "EST25",
                           "EST5:60",
                           "EST5EDT,",
                           "EST5EDT,M3.2.0",
                           "EST5EDT,M3.2.0,M13.1.0",
                           "EST5EDT,M3.2.0,M0.1.0",
                           "EST5EDT,M3.6.0,M11.1.0",
                           "EST5EDT,M3.2.7,M11.1.0",
                           "EST5EDT,J0,J365",
                           "EST5EDT,366,1",
                           "EST5EDT,M3.2.0/168,M11.1.0",
                           "EST5ED",
                           "<EST5",
                           "EST5EDT4,M3.2.0,M11.1.0 ",
                           "EST99999999999999999999",
                           "EST+-5",
                           "E1T5"}) {
    EXPECT_FALSE(lattix::PosixTimeZone::Compile(rule)) << rule;
  }
  EXPECT_FALSE(lattix::PosixTimeZone::Compile(std::string(200, 'A').append("5")));
}

struct LocalTime {
  const char* zone;
  DateStruct local;
  const char* utc;
};

TEST(Zones, LocalTimesThatAreSkippedOrComeTwice) {
  for (const auto& [name, local, utc] : {
           LocalTime{"EST", Date(2024, 3, 10, 1, 59, 59), "20240310T065959 0"},
           {"EST", Date(2024, 3, 10, 2, 30), "20240310T073000 0"},  // skipped: shown as 03:30
           {"EST", Date(2024, 3, 10, 3), "20240310T070000 0"},
           {"EST", Date(2024, 11, 3, 1, 30), "20241103T053000 0"},  // the first of two
           {"EST", Date(2024, 11, 3, 2), "20241103T070000 0"},
           {"AEST", Date(2024, 10, 6, 2, 30), "20241005T163000 6"},
           {"AEST", Date(2024, 4, 7, 2, 30), "20240406T153000 6"},
           {"CHAST", Date(2024, 1, 1), "20231231T104500 0"},
           {"NST", Date(2024, 7, 1, 0, 0, 0, 7), "20240701T023000,007 1"},
           {"AWST", Date(2024, 1, 1), "20231231T160000 0"},
           {"ACST1", Date(2024, 1, 1), "20231231T143000 0"},
           {"VET", Date(2024, 1, 1), "20240101T043000 1"},
           {"GMT+9:30", Date(2024, 1, 1), "20231231T143000 0"},
           {"POSIX:IST-1GMT0,M10.5.0,M3.5.0/1", Date(2024, 10, 27, 1, 30), "20241027T003000 0"},
       }) {
    const auto zone = CascadeTime::FindZone(name);
    ASSERT_NE(zone, nullptr) << name;
    const auto time = CascadeTime::FromZone(local, *zone);
    ASSERT_TRUE(time) << name;
    EXPECT_EQ(Text(CascadeTime::ToUtc(*time)), utc) << name;
  }
}

TEST(Zones, AreFoundByKeyOrRule) {
  EXPECT_EQ(CascadeTime::FindZone("EST")->row.alias, "US/Eastern");
  for (const char* name : {"est", "", "US/Eastern", "POSIX:", "POSIX:EST", "posix:EST5"}) {
    EXPECT_EQ(CascadeTime::FindZone(name), nullptr) << name;
  }
  const auto custom = CascadeTime::FindZone("POSIX:ABC-2DEF");
  EXPECT_EQ(custom->row.daylight_abbreviation, "DEF");
  EXPECT_EQ(CascadeTime::FindZone("POSIX:ABC-2DEF"), custom);
  for (int i = 0; i < 200; ++i) {
    const std::string name = "POSIX:ABC" + std::to_string(i % 24) + ":" + std::to_string(i % 60);
    ASSERT_NE(CascadeTime::FindZone(name), nullptr) << name;
  }
  EXPECT_EQ(custom->row.key, "POSIX:ABC-2DEF");
}

// --- The calendar -----------------------------------------------------------------------------

TEST(Calendar, NormalizeCarries) {
  for (const auto& [date, normal] : {
           std::pair{Date(2024, 3, 5, 7, 8, 75, 10), "20240305T070915,010 2"},
           {Date(2023, 2, 31), "20230303T000000 5"},
           {Date(2024, 13, 1), "20250101T000000 3"},
           {Date(2024, 3, 0), "20240229T000000 4"},
           {Date(2024, 0, 1), "20231201T000000 5"},
           {Date(2024, 12, 31, 23, 59, 59, 1000), "20250101T000000 3"},
           {Date(2000, 1, 1, 65535, 65535, 65535, 65535), "20070808T212820,535 3"},
           {Date(1, 1, 1), "00010101T000000 1"},
           {Date(9999, 12, 31), "99991231T000000 5"},
           {Date(9999, 12, 32), "none"},
           {Date(1, 1, 0), "none"},
           {Date(0, 0, 0), "none"},
           {Date(65535, 65535, 65535), "none"},
       }) {
    EXPECT_EQ(Text(CascadeTime::Normalized(date)), normal);
  }
  EXPECT_FALSE(CascadeTime::Moved(Date(65535, 1, 1), INT64_MIN));
}

TEST(Calendar, OnlyDatesThatExistBecomeMoments) {
  EXPECT_EQ(CascadeTime::FromUtc(Date(1970, 1, 1, 0, 0, 1, 5))->nanoseconds, 1'005'000'000);
  EXPECT_EQ(CascadeTime::FromUtc(Date(1969, 12, 31, 23, 59, 59, 999))->nanoseconds, -1'000'000);
  EXPECT_EQ(Text(CascadeTime::ToUtc({-1})), "19691231T235959,999 3");
  EXPECT_EQ(Text(CascadeTime::ToUtc({INT64_MAX})), "22620411T234716,854 5");
  EXPECT_EQ(Text(CascadeTime::ToUtc({INT64_MIN})), "16770921T001243,145 2");
  for (const DateStruct& date :
       {Date(2023, 2, 29), Date(2024, 1, 1, 24), Date(2024, 1, 1, 0, 60), Date(2024, 0, 1),
        Date(2024, 1, 1, 0, 0, 60), Date(2024, 1, 1, 0, 0, 0, 1000), Date(0, 1, 1),
        Date(2024, 1, 256), Date(2024, 257, 1), Date(2500, 1, 1), Date(1500, 1, 1)}) {
    EXPECT_FALSE(CascadeTime::FromUtc(date)) << CascadeTime::ToIsoString(date);
    EXPECT_FALSE(CascadeTime::FromZone(date, *CascadeTime::FindZone("EST")));
  }
  EXPECT_EQ(Text(CascadeTime::FromSecondsSinceEpoch(INT32_MIN)), "19011213T204552 5");
  EXPECT_FALSE(CascadeTime::FromSecondsSinceEpoch(INT64_MAX));
}

// --- ISO 8601 ---------------------------------------------------------------------------------

class Clock : public testing::Test {
 protected:
  Clock() { CascadeLibrary_InitializeCascadeTime(); }

  TemporaryRoot root;
};

TEST_F(Clock, IsoTextsAreRead) {
  CascadeTime::SetTimeZone("IST");
  for (const auto& [text, result] : {
           std::pair{"20240305T070809", "20240305T070809 2"},
           {"20240305T070809,01", "20240305T070809,010 2"},
           {"20240305T070809.0109999999999999999999", "20240305T070809,010 2"},
           {"20240305T070809Z", "20240305T123809 2"},
           {"20240305T070809,5+0530", "20240305T070809,500 2"},
           {"20240305T070809-01", "20240305T133809 2"},
           {"20240305T070809+05:45", "20240305T065309 2"},
           {"20240305T07080", "Date specification is too short."},
           {"", "Date specification is too short."},
           {"2024-03-05T07:08:09",
            "Non-digit found where digit expected: - after starting from 4 in "
            "'2024-03-05T07:08:09'"},
           {"20240305T070809,", "Non-digit found where digit expected."},
           {"20240305T070809+5", "Non-digit found where digit expected."},
           {"20241305T070809", "Time is out of range"},
           {"20240230T070809", "Time is out of range"},
           {"20240305T070860", "Time is out of range"},
           {"20240305T070809+2500", "Time is out of range"},
           {"20240305T070809Zx", "Extra information after timezone"},
           {"20240305T070809 UTC",
            "Extra information not recognisable as a timezone  : 20240305T070809 UTC"},
           {"99991231T235959Z", "Unable to convert time to local time"},
       }) {
    std::string actual;
    try {
      actual = Text(CascadeTime::ParseIsoString(text));
    } catch (const std::runtime_error& e) {
      actual = e.what();
    }
    EXPECT_EQ(actual, result) << text;
  }
}

TEST_F(Clock, ZonedTextsEndInTheirOffset) {
  const TimeBase time = *CascadeTime::FromUtc(Date(2024, 3, 5, 7, 8, 9));
  EXPECT_EQ(CascadeTime::ToUtcIsoString(time), "20240305T070809Z");
  for (const auto& [zone, text] : {std::pair{"GMT", "20240305T070809Z"},
                                   {"IST", "20240305T123809+0530"},
                                   {"NST", "20240305T033809-0330"}}) {
    EXPECT_EQ(CascadeTime::ToIsoString(time, *CascadeTime::FindZone(zone)), text);
  }
}

// --- The clock and the kept zone --------------------------------------------------------------

TEST_F(Clock, ARootKeepsTheOffsetOfItsClock) {
  const TimeBase target = *CascadeTime::FromUtc(Date(2031, 1, 1));
  EXPECT_FALSE(CascadeTime::SetSystemClock({-1}));
  EXPECT_FALSE(CascadeTime::SetSystemClock(target));  // no folder to keep it in
  root.Write("/var/lib/orvex/other", "");
  int changes = 0;
  const uint64_t listener = CascadeTime::Changes().Add([&] { ++changes; });
  EXPECT_TRUE(CascadeTime::SetSystemClock(target));
  EXPECT_TRUE(CascadeTime::IsClockValid());
  EXPECT_EQ(changes, 1);
  EXPECT_TRUE(CascadeTime::SetTimeZone("JST"));
  EXPECT_EQ(changes, 2);
  CascadeTime::Changes().Remove(listener);

  CascadeLibrary_InitializeCascadeTime();  // as the next process
  EXPECT_EQ(CascadeTime::ToUtc(CascadeTime::ReadPresentTimeBase()).year, 2031);
  EXPECT_TRUE(CascadeTime::IsClockValid());

  EXPECT_TRUE(CascadeTime::UnsetHardwareClock());
  CascadeLibrary_InitializeCascadeTime();
  EXPECT_FALSE(CascadeTime::IsClockValid());
  EXPECT_TRUE(CascadeTime::SetSystemClock(target));
  EXPECT_TRUE(CascadeTime::IsClockValid());

  GetRegistryClient().Write("networking", "ptp_domain", "0");
  EXPECT_FALSE(CascadeTime::SetSystemClock(target));

  root.Write("/var/lib/orvex/clock", "offset -9223372036854775808\nhardware set\n");
  CascadeLibrary_InitializeCascadeTime();
  EXPECT_GE(CascadeTime::ReadPresentTimeBase(), TimeBase{0});
}

TEST_F(Clock, TheZoneIsKept) {
  EXPECT_EQ(CascadeTime::GetTimeZone(), "PST");
  EXPECT_FALSE(CascadeTime::SetTimeZone("est"));
  EXPECT_EQ(CascadeTime::GetTimeZone(), "PST");
  root.Write("/var/lib/orvex/other", "");
  for (const char* name : {"AEST", "POSIX:CET-1CEST,M3.5.0,M10.5.0/3"}) {
    EXPECT_TRUE(CascadeTime::SetTimeZone(name));
    EXPECT_EQ(GetRegistryClient().Read(".ps", "tz"), name);
    CascadeLibrary_InitializeCascadeTime();
    EXPECT_EQ(CascadeTime::GetTimeZone(), name);
  }
  GetRegistryClient().Write(".ps", "tz", "Mars");
  CascadeLibrary_InitializeCascadeTime();
  EXPECT_EQ(CascadeTime::GetTimeZone(), "PST");
}

}  // namespace
