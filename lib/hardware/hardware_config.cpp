// Two tables say everything: the names of the flags, whose position is the bit, and the features,
// each with the test that decides it. Tests name flags as people do; the bit is found when this
// file is compiled, so a name that is no flag's does not compile.
#include "lib/hardware/hardware_config.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <vector>

#include "lib/hardware/device_secrets.h"
#include "lib/hardware/device_tree.h"
#include "lib/platform/device_file.h"
#include "lib/platform/device_path.h"
#include "lib/platform/log.h"

namespace {

constexpr const char* kFlagNames[] = {
    "HDMI",                    // 0
    "Component Video",         // 1
    "VGA",                     // 2
    "Two Channel Audio",       // 3
    "Ethernet 0",              // 4
    "USB",                     // 5
    "Serial Port 0",           // 6
    "Serial Port 1",           // 7
    "GPIO connector",          // 8
    "SVC button",              // 9
    "Reset button",            // 10
    "RTC",                     // 11
    "Settings ROM",            // 12
    "Internal SD",             // 13
    "SDHC",                    // 14
    "Six Channel Audio",       // 15
    "IR Blaster",              // 16
    "WiFi",                    // 17
    "Serial Port 2",           // 18
    "Audio Input",             // 19
    "CEC",                     // 20
    "Battery",                 // 21
    "Char Display",            // 22
    "HDMI Input",              // 23
    "Digital Tuner",           // 24
    "SPDIF",                   // 25
    "Audio Input Loopback",    // 26
    "mSATA",                   // 27
    "AC3",                     // 28
    "EAC3",                    // 29
    "reserved",                // 30
    "Large Onboard Storage",   // 31
    "Onboard Storage",         // 32
    "No 4K Decode",            // 33
    "No Bluetooth",            // 34
    "No PoE",                  // 35
    "Internal Storage Only",   // 36
    "Disable Packet Capture",  // 37
    "Disable OVN Cloud",       // 38
    "Harkwell",                // 39
    "Disable LLDP Reporting",  // 40
    "Disable USB Networking",  // 41
    "AAC Decode",              // 42
    "exFAT",                   // 43
    "Disable USB Storage",     // 44
    "HDMI 2",                  // 45
    "HDMI 3",                  // 46
    "HDMI 4",                  // 47
    "Type C Display Port",     // 48
    "Embedded Display Port",   // 49
    "Enable Clock Boost",      // 50
    "Ethernet 1",              // 51
    "EU-RED",                  // 52
    "Enable DWS",              // 53
};
static_assert(std::size(kFlagNames) == 54);

consteval unsigned Bit(std::string_view name) {
  for (unsigned bit = 0; bit < std::size(kFlagNames); bit++) {
    if (kFlagNames[bit] == name) return bit;
  }
  throw "no hardware flag has this name";
}

constexpr char kEac3Decoder[] = "/var/volatile/eac3/librkdolby_aes.so";
constexpr char kDeviceIdPartition[] = "/dev/disk/mmc0-partlabel/devid";

using Config = const HardwareConfig&;

bool Always(Config) { return true; }
bool HasAudio(Config c) {
  return c.HasFlag(Bit("Two Channel Audio")) || c.HasFlag(Bit("Six Channel Audio"));
}
bool HasSixChannels(Config c) { return c.HasFlag(Bit("Six Channel Audio")); }
bool HasEthernet(Config c) { return c.HasFlag(Bit("Ethernet 0")) || c.HasFlag(Bit("Ethernet 1")); }
bool HasEac3Decoder(Config) {
  return ::access(lattix::DevicePath(kEac3Decoder).c_str(), F_OK) == 0;
}
// A flag, or a number that is not 0.
bool IsPoeFitted(Config) {
  return device_tree::Flag("orvex/poe_fitted") &&
         device_tree::Cell("orvex/poe_fitted").value_or(1) != 0;
}

struct Feature {
  const char* name;
  bool (*test)(Config);
};

// "audio2" and "audio3" share a test, and "sd" and "sd2" name the two slots the other way round
// than the flags suggest: scripts in the field rely on both.
constexpr Feature kFeatures[] = {
    {"FindMemberFunction", Always},
    {"plumscript2", Always},
    {"audio1", HasAudio},
    {"audio2", HasSixChannels},
    {"audio3", HasSixChannels},
    {"sd", [](Config c) { return c.HasFlag(Bit("SDHC")); }},
    {"sd2", [](Config c) { return c.HasFlag(Bit("Internal SD")); }},
    {"ac3_decode", Always},
    {"eac3_decode", HasEac3Decoder},
    {"registry", Always},
    {"networking", Always},
    {"power_over_ethernet", IsPoeFitted},
    {"video_transpose", [](Config) { return !device_tree::Flag("orvex/disable-video-transpose"); }},
    {"mosaic_video", [](Config) { return !device_tree::Flag("orvex/disable-mosaic-mode"); }},
    {"earc", [](Config c) { return c.IsEarcCapable(); }},
    {"hevc_decode", Always},
    {"gpio12 button", [](Config c) { return c.HasFlag(Bit("SVC button")); }},
    {"Ethernet", HasEthernet},
};

char Fold(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool SameName(std::string_view a, std::string_view b) {
  return std::ranges::equal(a, b, {}, Fold, Fold);
}

template <class Number>
Number ParseNumber(std::string_view text, int base) {
  if (base == 16 && (text.starts_with("0x") || text.starts_with("0X"))) text.remove_prefix(2);
  Number number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number, base);
  return number;
}

// Empty for a text that is no hexadecimal.
std::string HexBytes(std::string_view text) {
  std::string bytes;
  for (; text.size() >= 2; text.remove_prefix(2)) {
    uint8_t byte = 0;
    if (std::from_chars(text.data(), text.data() + 2, byte, 16).ptr != text.data() + 2) return {};
    bytes += static_cast<char>(byte);
  }
  return text.empty() ? bytes : std::string();
}

// The next word of a text, at most so many characters of it: what is longer continues in the next.
std::string TakeWord(std::string_view* text, size_t limit) {
  constexpr std::string_view kSpace = " \t\n\v\f\r";
  text->remove_prefix(std::min(text->find_first_not_of(kSpace), text->size()));
  const std::string word(text->substr(0, std::min(text->find_first_of(kSpace), limit)));
  text->remove_prefix(word.size());
  return word;
}

}  // namespace

std::span<const char* const> HardwareFlagNames() { return kFlagNames; }

std::string HardwareFlagText(unsigned bit) {
  return bit < std::size(kFlagNames) ? kFlagNames[bit] : fmt::format("Unknown bit {}", bit);
}

HardwareConfig::HardwareConfig() {
  ReadDeviceData();
  IdentifyBoard();
  m_rtc_i2c_bus = device_tree::Cell("orvex/rtc-i2c-dev");
}

void HardwareConfig::ReadDeviceData() {
  try {
    m_device_data = DeviceData::Read();
  } catch (const std::exception& e) {
    lattix::Log("{}: {}\n", DeviceData::kPath, e.what());
  }
  if (!m_device_data.IsValid()) {
    lattix::Log("SRB not valid. Please run manufacturing test.\n");
  }
  m_flags = ParseNumber<uint64_t>(m_device_data.Get("PS_HWFLAGS"), 16);
  if (m_flags == 0) {
    lattix::Log("Hardware configuration bitfield is zero. Please reprogram SRB\n");
  }
  try {
    m_secure_id = DeviceData::ReadFrom(kDeviceIdPartition).Get("SECURE_ID");
  } catch (const std::exception&) {
    // A unit without the partition.
  }
  if (m_secure_id.empty()) m_secure_id = m_device_data.Get("PS_SECURE_ID");
}

void HardwareConfig::IdentifyBoard() {
  constexpr std::string_view kMaker = "rockchip,";
  for (const std::string& name : device_tree::Strings("compatible")) {
    // Boards of the maker's own come before the chip: "rockchip,rk3588-evb", "rockchip,rk3588".
    if (name.starts_with(kMaker)) m_system_on_chip = name.substr(kMaker.size());
  }
  try {
    const std::string content = lattix::ReadDeviceFile("/proc/boardid");
    std::string_view text = content;
    m_board_id = TakeWord(&text, 20);
    m_board_name = TakeWord(&text, 64);
  } catch (const std::exception& e) {
    lattix::Log("/proc/boardid: {}\n", e.what());
  }
  if (const std::string& other = m_device_data.Get("PS_ALT_BOARD_ID"); !other.empty()) {
    m_board_id = other;
  }
  if (m_board_id.empty()) m_board_id = m_system_on_chip;
  if (m_board_name.empty()) m_board_name = m_board_id;
}

uint16_t HardwareConfig::GetHardwareRevision() const {
  return ParseNumber<uint16_t>(m_device_data.Get("PS_HWREV"), 10);
}

HardwareConfig::Authenticity HardwareConfig::CheckDeviceData() const {
  if (!DeviceSecrets::Exists()) return Authenticity::kUnchecked;
  try {
    return DeviceSecrets::GetInstance().IsDeviceDataGenuine(
               m_device_data.SignedText(), HexBytes(m_device_data.Get("PS_SIGNATURE")))
               ? Authenticity::kGenuine
               : Authenticity::kForged;
  } catch (const DeviceSecrets::Error&) {
    return Authenticity::kUnchecked;
  }
}

bool HardwareConfig::IsRestricted() const {
  if (m_device_data.Get("PS_RESTRICTED") == "1") return true;
  if (CheckDeviceData() != Authenticity::kForged) return false;
  lattix::Log("{}: the signature is not the manufacturer's\n", DeviceData::kPath);
  return true;
}

bool HardwareConfig::HasFeature(std::string_view name) const {
  for (const Feature& feature : kFeatures) {
    if (SameName(feature.name, name)) return feature.test(*this);
  }
  for (unsigned bit = 0; bit < std::size(kFlagNames); bit++) {
    if (SameName(kFlagNames[bit], name)) return HasFlag(bit);
  }
  lattix::Log("Unknown feature\n");
  return false;
}
