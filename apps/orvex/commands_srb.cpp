// The device data ("SRB") as manufacture shows and writes it. What is shown is what the store holds
// now; the player itself goes by what it held at the start.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <optional>
#include <string>

#include "apps/orvex/commands_mfg.h"
#include "lib/hardware/device_data.h"
#include "lib/platform/device_path.h"
#include "lib/platform/errno_exception.h"

namespace commands {

namespace {

// A read counts when the next one gives the same.
constexpr int kMaxReads = 5;

// No data when there is none.
DeviceData ReadSrb() {
  try {
    return DeviceData::Read();
  } catch (const lattix::ErrnoException& e) {
    if (e.error() != ENOENT) throw;
    return {};
  }
}

int PlainUsage(const CommandLine& command) {
  command.Print("Usage: {}", command.name());
  return 1;
}

template <typename Number>
bool ReadNumber(std::string_view text, int base, Number* number) {
  const auto end = std::from_chars(text.data(), text.data() + text.size(), *number, base);
  return end.ec == std::errc() && end.ptr == text.data() + text.size();
}

// Six pairs of hexadecimal digits with colons between them, the address of one interface: neither
// zero nor a group's.
bool IsMacAddress(std::string_view text) {
  if (text.size() != 17) return false;
  uint64_t address = 0;
  for (size_t i = 0; i < text.size(); i += 3) {
    uint8_t byte = 0;
    if (!ReadNumber(text.substr(i, 2), 16, &byte)) return false;
    if (i + 2 < text.size() && text[i + 2] != ':') return false;
    address = address << 8 | byte;
  }
  return address != 0 && (address >> 40 & 1) == 0;
}

}  // namespace

int SrbDump(const CommandLine& command) {
  if (command.argument_count() > 0) return PlainUsage(command);
  const DeviceData data = ReadSrb();
  for (const auto& [key, value] : data.Entries()) command.Print(" {}=\"{}\"", key, value);
  if (!data.IsValid()) command.Print("Note: SRB is invalid");
  return 0;
}

int SrbDecode(const CommandLine& command) {
  if (command.argument_count() > 0) return PlainUsage(command);
  DeviceData data = ReadSrb();
  for (int reads = 1;; ++reads) {
    if (reads == kMaxReads) {
      command.Print("Validation failed after {} reads.", reads);
      return 1;
    }
    DeviceData again = ReadSrb();
    const bool same = again.Entries() == data.Entries();
    data = std::move(again);
    if (same) break;
  }
  if (!data.IsValid()) {
    command.Print("SRB is invalid.");
    return 1;
  }
  static constexpr struct {
    const char* label;
    const char* key;
    bool optional;  // not shown where the unit has none
  } kFields[] = {
      {"OEM ID", "PS_OEM_ID", false},
      {"OEM Model", "PS_OEM_MODEL", false},
      {"Manufacturer ID", "PS_MFR_ID", false},
      {"Serial Number", "PS_SERIAL", false},
      {"Alternative Board ID", "PS_ALT_BOARD_ID", true},
      {"Ethernet MAC", "PS_ETH0_HWADDR", false},
      {"Ethernet 1 MAC", "PS_ETH1_HWADDR", true},
      {"WiFi MAC", "PS_WLAN0_HWADDR", true},
      {"Hardware Revision", "PS_HWREV", false},
  };
  for (const auto& field : kFields) {
    const std::string& value = data.Get(field.key);
    if (!field.optional || !value.empty()) command.Print("{:>25}: {}", field.label, value);
  }
  const std::string_view text = data.Get("PS_HWFLAGS");
  uint64_t flags = 0;
  if (ReadNumber(text.starts_with("0x") ? text.substr(2) : text, 16, &flags)) {
    command.Print("{:>25}: 0x{:x}", "Hardware Flags", flags);
  } else {
    command.Print("{:>25}: {}", "Hardware Flags", text);
  }
  return 0;
}

// What else the store holds stays as it is, except the address of a WiFi interface that is not
// named any more.
int SrbUserSet(const CommandLine& command) {
  const size_t count = command.argument_count();
  if (count != 7 && count != 8) return command.Usage();
  uint32_t manufacturer = 0;
  uint16_t revision = 0;
  uint64_t flags = 0;
  std::string_view flags_text = command.argument(7);
  if (flags_text.starts_with("0x")) flags_text.remove_prefix(2);
  if (!ReadNumber(command.argument(3), 10, &manufacturer)) {
    command.Print("Invalid manufacturer ID: '{}'", command.argument(3));
    return 1;
  }
  if (!IsMacAddress(command.argument(5))) {
    command.Print("Invalid Ethernet MAC address: '{}'", command.argument(5));
    return 1;
  }
  if (!ReadNumber(command.argument(6), 10, &revision)) {
    command.Print("Invalid hardware revision: '{}'", command.argument(6));
    return 1;
  }
  if (!ReadNumber(flags_text, 16, &flags)) {
    command.Print("Invalid hardware config bitfield: '{}'", command.argument(7));
    return 1;
  }
  if (count == 8 && !IsMacAddress(command.argument(8))) {
    command.Print("Invalid WiFi MAC address: '{}'", command.argument(8));
    return 1;
  }

  const std::string path = lattix::DevicePath(DeviceData::kPath);
  const std::string folder = path.substr(0, path.rfind('/'));
  if (access(folder.c_str(), W_OK) != 0) {
    const int error = errno;
    command.Print("SRB is not writable: {} ({}).", lattix::ErrorText(error), error);
    return 1;
  }
  const DeviceData old = ReadSrb();
  DeviceData data;
  for (const auto& [key, value] : old.Entries()) {
    if (key != "PS_WLAN0_HWADDR") data.Set(key, value);
  }
  data.Set("PS_FORMAT", "1");
  data.Set("PS_OEM_ID", command.argument(1));
  data.Set("PS_OEM_MODEL", command.argument(2));
  data.Set("PS_MFR_ID", command.argument(3));
  data.Set("PS_SERIAL", command.argument(4));
  data.Set("PS_ETH0_HWADDR", command.argument(5));
  data.Set("PS_HWREV", command.argument(6));
  data.Set("PS_HWFLAGS", fmt::format("{:x}", flags));
  if (count == 8) data.Set("PS_WLAN0_HWADDR", command.argument(8));
  try {
    data.Write();
  } catch (const lattix::ErrnoException& e) {
    command.Print("Failed to write SRB: {} ({})", e.what(), e.error());
    return 1;
  }
  command.Print("SRB successfully written");
  return 0;
}

int SrbErase(const CommandLine& command) {
  if (command.argument_count() != 1 || command.argument(1) != "confirm") return command.Usage();
  try {
    DeviceData::Erase();
  } catch (const lattix::ErrnoException& e) {
    command.Print("Failed to erase SRB: {} ({})", e.what(), e.error());
    return 1;
  }
  command.Print("SRB successfully erased");
  return 0;
}

}  // namespace commands
