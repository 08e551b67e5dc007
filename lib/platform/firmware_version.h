// The firmware's version: where it is read, how it becomes a number, how two versions compare.
//
// All functions may be called from any thread.
#pragma once

#include <compare>
#include <cstdint>
#include <string>
#include <string_view>

namespace lattix {

constexpr char kFirmwareVersionPath[] = "/etc/orvex-version";
constexpr char kFirmwareBuildDatePath[] = "/etc/orvex-build-date";

// A small text file of the system (device path) without the NUL, TAB, LF, VT, CR and SPACE
// characters at its start and end; a form feed is none of them. Empty when it cannot be read.
std::string ReadSystemText(const std::string& device_path);
// Its first line, trimmed in the same way.
std::string ReadSystemLine(const std::string& device_path);

// The version as the messages of start and exit show it: the whole file.
inline std::string FirmwareVersionText() { return ReadSystemText(kFirmwareVersionPath); }
// The version as scripts and the shell get it: the file's first line.
inline std::string FirmwareVersion() { return ReadSystemLine(kFirmwareVersionPath); }
inline std::string FirmwareBuildDate() { return ReadSystemLine(kFirmwareBuildDatePath); }

// "8.5.33" as (8 << 16) | (5 << 10) | 33. The first three fields count, by the digits they begin
// with; one that is missing, or too large for 32 bits, is 0. The fields are OR-ed into place:
// scripts rely on the numbers that a minor above 63 or a build above 1023 gives.
int32_t VersionNumber(std::string_view version);

// Compares digit by digit run as numbers of any length, everything else byte by byte; a digit is
// greater than what is none, and a version greater than its beginning. "8.10" > "8.9".
std::strong_ordering CompareVersions(std::string_view a, std::string_view b);

}  // namespace lattix
