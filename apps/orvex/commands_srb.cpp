// The device data ("SRB") as manufacture shows and writes it. What is shown is what the store holds
// now; the player itself goes by what it held at the start.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "apps/orvex/command_numbers.h"
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

// Six pairs of hexadecimal digits with colons between them, the address of one interface: neither
// zero nor a group's.
bool IsMacAddress(std::string_view text) {
  if (text.size() != 17) return false;
  uint64_t address = 0;
  for (size_t i = 0; i < text.size(); i += 3) {
    const auto byte = ParseNumber(text.substr(i, 2), UINT8_MAX, 16);
    if (!byte || (i + 2 < text.size() && text[i + 2] != ':')) return false;
    address = address << 8 | *byte;
  }
  return address != 0 && (address >> 40 & 1) == 0;
}

// An error number; 0 when the store can be written.
int WhyNotWritable() {
  const std::string path = lattix::DevicePath(DeviceData::kPath);
  return access(path.substr(0, path.rfind('/')).c_str(), W_OK) == 0 ? 0 : errno;
}

}  // namespace

int SrbDump(const CommandLine& command) {
  if (command.argument_count() > 0) return command.Usage();
  const DeviceData data = ReadSrb();
  for (const auto& [key, value] : data.Entries()) command.Print(" {}=\"{}\"", key, value);
  if (!data.IsValid()) command.Print("Note: SRB is invalid");
  return 0;
}

int SrbDecode(const CommandLine& command) {
  if (command.argument_count() > 0) return command.Usage();
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
  if (const auto flags = ParseNumber(text, UINT64_MAX, 16)) {
    command.Print("{:>25}: 0x{:x}", "Hardware Flags", *flags);
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
  const auto flags = ParseNumber(command.argument(7), UINT64_MAX, 16);
  const struct {
    size_t argument;
    const char* what;
    bool valid;
  } checks[] = {
      {3, "manufacturer ID", ParseNumber(command.argument(3), UINT32_MAX, 10).has_value()},
      {5, "Ethernet MAC address", IsMacAddress(command.argument(5))},
      {6, "hardware revision", ParseNumber(command.argument(6), UINT16_MAX, 10).has_value()},
      {7, "hardware config bitfield", flags.has_value()},
      {8, "WiFi MAC address", count < 8 || IsMacAddress(command.argument(8))},
  };
  for (const auto& check : checks) {
    if (check.valid) continue;
    command.Print("Invalid {}: '{}'", check.what, command.argument(check.argument));
    return 1;
  }
  if (const int error = WhyNotWritable(); error != 0) {
    command.Print("SRB is not writable: {} ({}).", lattix::ErrorText(error), error);
    return 1;
  }

  DeviceData data;
  const DeviceData old = ReadSrb();
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
  data.Set("PS_HWFLAGS", fmt::format("{:x}", *flags));
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
