// The built-in time zones: the only place that knows their names and rules.
//
// A rule is a POSIX TZ string (posix_time_zone.h), so its signs are those of POSIX: the key
// "GMT+9:30" has the rule "LOCAL-9:30". A rule that names a daylight zone without dates has the
// default ones. Devices in the field store the keys, and operators know the texts: the rows stay as
// they are, the two equal Perth ones, Darwin's daylight abbreviation without a daylight rule and
// the short name "HLV" for Caracas among them.
#pragma once

#include <iterator>
#include <string_view>

struct TimeZoneRow {
  std::string_view key;  // what the zone is called in settings and by scripts
  std::string_view rule;
  std::string_view standard_abbreviation;
  std::string_view daylight_abbreviation;
  std::string_view standard_name;
  std::string_view daylight_name;
  std::string_view short_name;
  std::string_view alias;  // its name in the time zone database
  std::string_view description;
};

// In the order in which they are listed.
// clang-format off
inline constexpr TimeZoneRow kTimeZones[] = {
    {"EST", "EST5EDT4,M3.2.0/2:00,M11.1.0/2:00", "EST", "EDT", "Eastern Standard Time", "Eastern Daylight Time", "Eastern", "US/Eastern", "US Eastern Time"},
    {"CST", "CST6CDT5,M3.2.0/2:00,M11.1.0/2:00", "CST", "CDT", "Central Standard Time", "Central Daylight Time", "Central", "US/Central", "US Central Time"},
    {"MST", "MST7MDT6,M3.2.0/2:00,M11.1.0/2:00", "MST", "MDT", "Mountain Standard Time", "Mountain Daylight Time", "Mountain", "US/Mountain", "US Mountain Time"},
    {"PST", "PST8PDT7,M3.2.0/2:00,M11.1.0/2:00", "PST", "PDT", "Pacific Standard Time", "Pacific Daylight Time", "Pacific", "US/Pacific", "US Pacific Time"},
    {"AKST", "AKST9AKDT8,M3.2.0/2:00,M11.1.0/2:00", "AKST", "AKDT", "Alaska Standard Time", "Alaska Daylight Time", "Alaska", "US/Alaska", "Alaska Time"},
    {"HST", "HST10", "HST", "", "Hawaiian Standard Time", "", "Hawaii", "US/Hawaii", "Hawaii-Aleutian Time with no Daylight Saving (Hawaii)"},
    {"HST1", "HST10HDT9", "HAST", "HADT", "Hawaii-Aleutian Standard Time", "Hawaii-Aleutian Daylight Time", "Aleutian", "US/Aleutian", "Hawaii-Aleutian Time with Daylight Saving"},
    {"MST1", "MST7", "MST", "", "Mountain Standard Time", "", "Arizona", "US/Arizona", "US MT without Daylight Saving Time (Arizona)"},
    {"EST1", "EST5", "EST", "", "Eastern Standard Time", "", "East Indiana", "US/East-Indiana", "US ET without Daylight Saving Time (East Indiana)"},
    {"AST", "AST4ADT3,M3.2.0/2:00,M11.1.0/2:00", "AST", "ADT", "Atlantic Standard Time", "Atlantic Daylight Time", "Halifax", "Canada/Atlantic", "Atlantic Time"},
    {"EST2", "EST5", "EST", "", "Eastern Standard Time", "", "Eastern", "America/Cancun", "Mexico Eastern Standard Time (Cancun)"},
    {"CST2", "CST6", "CST", "CDT", "Central Standard Time", "", "Central", "America/Mexico_City", "Mexico Central Standard Time (Mexico City)"},
    {"MST2", "MST7", "MST", "MDT", "Mountain Standard Time", "", "Mountain", "America/Chihuahua", "Mexico Mountain Standard Time (Hermosillo)"},
    {"PST2", "PST8", "PST", "PDT", "Pacific Standard Time", "", "Pacific", "", "Mexico Pacific Standard Time"},
    {"BRT", "BRT3BRST2,M10.3.0/0:00,M2.3.0/0:00", "BRT", "BRST", "Brazil Time", "Brazil Summer Time", "Brazil", "Brazil/East", "Brazil Time (Sao Paulo)"},
    {"NST", "NST3:30NDT2:30,M3.2.0/0:01,M11.1.0/0:01", "NST", "NDT", "Newfoundland Standard Time", "Newfoundland Daylight Time", "Newfoundland", "America/St_Johns", "Newfoundland Time"},
    {"AZOT", "AZOT1AZOST0,M3.5.0/1:00,M10.5.0/1:00", "AZOT", "AZOST", "Azores Time", "Azores Summer Time", "Azores", "Atlantic/Azores", "Azores Time"},
    {"GMTBST", "GMT-0BST-1,M3.5.0/1:00,M10.5.0/2:00", "GMT", "BST", "Greenwich Mean Time", "British Summer Time", "London", "Europe/London", "London/Dublin Time"},
    {"WET", "WET-0WEST-1,M3.5.0/1:00,M10.5.0/2:00", "WET", "WEST", "Western European Time", "Western European Summer Time", "Western Europe", "WET", "Western European Time"},
    {"CET", "CET-1CEST-2,M3.5.0/2:00,M10.5.0/3:00", "CET", "CEST", "Central European Time", "Central European Summer Time", "Central Europe", "CET", "Central European Time"},
    {"EET", "EET-2EEST-3,M3.5.0/3:00,M10.5.0/4:00", "EET", "EEST", "Eastern European Time", "Eastern European Summer Time", "Eastern Europe", "Europe/Athens", "Eastern European Time"},
    {"MSK", "MSK-3", "MSK", "", "Moscow Time", "", "Moscow", "Europe/Moscow", "Moscow Time"},
    {"SAMT", "SAMT-4SAMST-5,M3.5.0/2:00,M10.5.0/2:00", "SAMT", "SAMST", "Samara Time", "Samara Summer Time", "Samara", "Europe/Samara", "Delta Time Zone (Samara)"},
    {"YEKT", "YEKT-5YEKST-6,M3.5.0/2:00,M10.5.0/2:00", "YEKT", "YEKST", "Yekaterinburg Time", "Yekaterinburg Summer Time", "Yekaterinburg", "Asia/Yekaterinburg", "Echo Time Zone (Yekaterinburg)"},
    {"IST", "IST-5:30", "IST", "", "Indian Standard Time", "", "India", "Asia/Kolkata", "Indian Standard Time"},
    {"NPT", "NPT-5:45", "NPT", "", "Nepal Time", "", "Nepal", "Asia/Kathmandu", "Nepal Time"},
    {"OMST", "OMST-6OMSST-7,M3.5.0/2:00,M10.5.0/2:00", "OMST", "OMSST", "Omsk Time", "Omsk Summer Time", "Omsk", "Asia/Omsk", "Foxtrot Time Zone (Omsk)"},
    {"JST", "JST-9", "JST", "", "Japanese Standard Time", "", "Japan", "Japan", "Japanese Standard Time"},
    {"CXT", "CXT-7", "CXT", "", "Christmas Island Time", "", "Christmas Island", "Indian/Christmas", "Christmas Island Time (Australia)"},
    {"AWST", "AWST-8", "AWST", "", "Western Standard Time", "", "Perth", "Australia/Perth", "Australian Western Time"},
    {"AWST1", "AWST-8", "AWST", "", "Western Standard Time", "", "Perth", "Australia/Perth", "Australian Western Time without Daylight Saving Time"},
    {"ACST", "ACST-9:30ACDT-10:30,M10.1.0/2:00,M4.1.0/3:00", "ACST", "ACDT", "Central Standard Time", "Central Daylight Time", "Adelaide", "Australia/South", "Australian Central Time"},
    {"ACST1", "ACST-9:30", "ACST", "ACDT", "Central Standard Time", "", "Darwin", "Australia/Darwin", "Australian Central Time without Daylight Saving Time (Darwin)"},
    {"AEST", "AEST-10AEDT-11,M10.1.0/2:00,M4.1.0/3:00", "AEST", "AEDT", "Eastern Standard Time", "Eastern Daylight Time", "Sydney", "Australia/Sydney", "Australian Eastern Time"},
    {"AEST1", "AEST-10", "AEST", "", "Eastern Standard Time", "", "Brisbane", "Australia/Brisbane", "Australian Eastern Time without Daylight Saving Time (Brisbane)"},
    {"NFT", "NFT-11:30", "NFT", "", "Norfolk Time", "", "Norfolk", "Pacific/Norfolk", "Norfolk (Island) Time (Australia)"},
    {"NZST", "NZST-12NZDT-13,M9.5.0/2:00,M4.1.0/3:00", "NZST", "NZDT", "New Zealand Standard Time", "New Zealand Daylight Time", "Auckland", "Pacific/Auckland", "New Zealand Time (Auckland)"},
    {"CHAST", "CHAST-12:45CHADT-13:15,M9.5.0/2:45,M4.1.0/2:45", "CHAST", "CHADT", "Chatham Standard Time", "Chatham Daylight Time", "Chatham", "Pacific/Chatham", "Chatham Time Zone"},
    {"FJT", "FJT-12", "FJT", "", "Fiji Time", "", "Fiji", "Pacific/Fiji", "Yankee Time Zone (Fiji)"},
    {"SST", "SST11", "SST", "", "Pago Pago Time", "", "Pago Pago", "Pacific/Pago_Pago", "X-ray Time Zone (Pago Pago)"},
    {"VET", "VET+4:30", "VET", "", "Venezuelan Standard Time", "", "HLV", "America/Caracas", "Venezuelan Standard Time"},
    {"GMT", "GMT-0", "GMT", "", "Greenwich Mean Time", "", "GMT", "UTC", "Greenwich Mean Time"},
    {"GMT+1", "LOCAL-1", "GMT+1", "", "Greenwich Mean Time + 1 hour", "", "GMT+1", "", "1 hour ahead of Greenwich Mean Time"},
    {"GMT+2", "LOCAL-2", "GMT+2", "", "Greenwich Mean Time + 2 hours", "", "GMT+2", "", "2 hours ahead of Greenwich Mean Time"},
    {"GMT+3", "LOCAL-3", "GMT+3", "", "Greenwich Mean Time + 3 hours", "", "GMT+3", "", "3 hours ahead of Greenwich Mean Time"},
    {"GMT+3:30", "LOCAL-3:30", "GMT+3:30", "", "Greenwich Mean Time + 3.5 hours", "", "GMT+3:30", "", "3.5 hours ahead of Greenwich Mean Time"},
    {"GMT+4", "LOCAL-4", "GMT+4", "", "Greenwich Mean Time + 4 hours", "", "GMT+4", "", "4 hours ahead of Greenwich Mean Time"},
    {"GMT+4:30", "LOCAL-4:30", "GMT+4:30", "", "Greenwich Mean Time + 4.5 hours", "", "GMT+4.5", "", "4.5 hours ahead of Greenwich Mean Time"},
    {"GMT+5", "LOCAL-5", "GMT+5", "", "Greenwich Mean Time + 5 hours", "", "GMT+5", "", "5 hours ahead of Greenwich Mean Time"},
    {"GMT+5:30", "LOCAL-5:30", "GMT+5:30", "", "Greenwich Mean Time + 5.5 hours", "", "GMT+5:30", "", "5.5 hours ahead of Greenwich Mean Time"},
    {"GMT+5:45", "LOCAL-5:45", "GMT+5:45", "", "Greenwich Mean Time + 5.75 hours", "", "GMT+5:45", "", "5.75 hours ahead of Greenwich Mean Time"},
    {"GMT+6", "LOCAL-6", "GMT+6", "", "Greenwich Mean Time + 6 hours", "", "GMT+6", "", "6 hours ahead of Greenwich Mean Time"},
    {"GMT+6:30", "LOCAL-6:30", "GMT+6:30", "", "Greenwich Mean Time + 6.5 hours", "", "GMT+6:30", "", "6.5 hours ahead of Greenwich Mean Time"},
    {"GMT+7", "LOCAL-7", "GMT+7", "", "Greenwich Mean Time + 7 hours", "", "GMT+7", "", "7 hours ahead of Greenwich Mean Time"},
    {"GMT+8", "LOCAL-8", "GMT+8", "", "Greenwich Mean Time + 8 hours", "", "GMT+8", "", "8 hours ahead of Greenwich Mean Time"},
    {"GMT+8:45", "LOCAL-8:45", "GMT+8:45", "", "Greenwich Mean Time + 8.75 hours", "", "GMT+8:45", "", "8.75 hours ahead of Greenwich Mean Time"},
    {"GMT+9", "LOCAL-9", "GMT+9", "", "Greenwich Mean Time + 9 hours", "", "GMT+9", "", "9 hours ahead of Greenwich Mean Time"},
    {"GMT+9:30", "LOCAL-9:30", "GMT+9:30", "", "Greenwich Mean Time + 9.5 hours", "", "GMT+9:30", "", "9.5 hours ahead of Greenwich Mean Time"},
    {"GMT+10", "LOCAL-10", "GMT+10", "", "Greenwich Mean Time + 10 hours", "", "GMT+10", "", "10 hours ahead of Greenwich Mean Time"},
    {"GMT+10:30", "LOCAL-10:30", "GMT+10:30", "", "Greenwich Mean Time + 10.5 hours", "", "GMT+10:30", "", "10.5 hours ahead of Greenwich Mean Time"},
    {"GMT+11", "LOCAL-11", "GMT+11", "", "Greenwich Mean Time + 11 hours", "", "GMT+11", "", "11 hours ahead of Greenwich Mean Time"},
    {"GMT+11:30", "LOCAL-11:30", "GMT+11:30", "", "Greenwich Mean Time + 11.5 hours", "", "GMT+11:30", "", "11.5 hours ahead of Greenwich Mean Time"},
    {"GMT+12", "LOCAL-12", "GMT+12", "", "Greenwich Mean Time + 12 hours", "", "GMT+12", "", "12 hours ahead of Greenwich Mean Time"},
    {"GMT+12:45", "LOCAL-12:45", "GMT+12:45", "", "Greenwich Mean Time + 12.75 hours", "", "GMT+12:45", "", "12.75 hours ahead of Greenwich Mean Time"},
    {"GMT+13", "LOCAL-13", "GMT+13", "", "Greenwich Mean Time + 13 hours", "", "GMT+13", "", "13 hours ahead of Greenwich Mean Time"},
    {"GMT+14", "LOCAL-14", "GMT+14", "", "Greenwich Mean Time + 14 hours", "", "GMT+14", "", "14 hours ahead of Greenwich Mean Time"},
    {"GMT-1", "LOCAL+1", "GMT-1", "", "Greenwich Mean Time - 1 hour", "", "GMT-1", "", "1 hour behind Greenwich Mean Time"},
    {"GMT-2", "LOCAL+2", "GMT-2", "", "Greenwich Mean Time - 2 hours", "", "GMT-2", "", "2 hours behind Greenwich Mean Time"},
    {"GMT-3", "LOCAL+3", "GMT-3", "", "Greenwich Mean Time - 3 hours", "", "GMT-3", "", "3 hours behind Greenwich Mean Time"},
    {"GMT-3:30", "LOCAL+3:30", "GMT-3:30", "", "Greenwich Mean Time - 3.5 hours", "", "GMT-3:30", "", "3.5 hours behind Greenwich Mean Time"},
    {"GMT-4", "LOCAL+4", "GMT-4", "", "Greenwich Mean Time - 4 hours", "", "GMT-4", "", "4 hours behind Greenwich Mean Time"},
    {"GMT-4:30", "LOCAL+4:30", "GMT-4:30", "", "Greenwich Mean Time - 4.5 hours", "", "GMT-4:30", "", "4.5 hours behind Greenwich Mean Time"},
    {"GMT-5", "LOCAL+5", "GMT-5", "", "Greenwich Mean Time - 5 hours", "", "GMT-5", "", "5 hours behind Greenwich Mean Time"},
    {"GMT-6", "LOCAL+6", "GMT-6", "", "Greenwich Mean Time - 6 hours", "", "GMT-6", "", "6 hours behind Greenwich Mean Time"},
    {"GMT-7", "LOCAL+7", "GMT-7", "", "Greenwich Mean Time - 7 hours", "", "GMT-7", "", "7 hours behind Greenwich Mean Time"},
    {"GMT-8", "LOCAL+8", "GMT-8", "", "Greenwich Mean Time - 8 hours", "", "GMT-8", "", "8 hours behind Greenwich Mean Time"},
    {"GMT-9:30", "LOCAL+9:30", "GMT-9:30", "", "Greenwich Mean Time - 9.5 hours", "", "GMT-9:30", "", "9.5 hours behind Greenwich Mean Time"},
    {"GMT-9", "LOCAL+9", "GMT-9", "", "Greenwich Mean Time - 9 hours", "", "GMT-9", "", "9 hours behind Greenwich Mean Time"},
    {"GMT-10", "LOCAL+10", "GMT-10", "", "Greenwich Mean Time - 10 hours", "", "GMT-10", "", "10 hours behind Greenwich Mean Time"},
    {"GMT-11", "LOCAL+11", "GMT-11", "", "Greenwich Mean Time - 11 hours", "", "GMT-11", "", "11 hours behind Greenwich Mean Time"},
    {"GMT-12", "LOCAL+12", "GMT-12", "", "Greenwich Mean Time - 12 hours", "", "GMT-12", "", "12 hours behind Greenwich Mean Time"},
    {"GMT-13", "LOCAL+13", "GMT-13", "", "Greenwich Mean Time - 13 hours", "", "GMT-13", "", "13 hours behind Greenwich Mean Time"},
    {"GMT-14", "LOCAL+14", "GMT-14", "", "Greenwich Mean Time - 14 hours", "", "GMT-14", "", "14 hours behind Greenwich Mean Time"},
};
// clang-format on
static_assert(std::size(kTimeZones) == 83);
