// What manufacture asks a unit about, and what it takes back.
#include "apps/orvex/commands_mfg.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <string_view>

#include "apps/orvex/command_files.h"
#include "lib/hardware/device_data.h"
#include "lib/hardware/hardware_config.h"
#include "lib/hardware/temperature.h"
#include "lib/platform/device_file.h"
#include "lib/platform/device_path.h"
#include "lib/platform/errno_exception.h"

namespace commands {

namespace {

constexpr char kDropCaches[] = "/proc/sys/vm/drop_caches";
constexpr char kDeviceId[] = "/dev/disk/mmc0-partlabel/devid";
constexpr char kKernel[] = "/dev/disk/mmc0-partlabel/kernel";
// More than the header that the boot loader looks for.
constexpr size_t kKernelHead = 64 * 1024;
// Each is a key of the device id partition: "BLESSING_BETA=until 2026-01".
constexpr std::string_view kBlessing = "BLESSING_";

// Overwrites the beginning of a partition, which keeps its size, durably.
void OverwriteHead(const char* device_path, std::string_view bytes) {
  const lattix::UniqueFd fd = lattix::OpenDevice(device_path, O_WRONLY);
  WriteAll(fd.Get(), bytes);
  if (fsync(fd.Get()) != 0 && errno != EINVAL) throw lattix::ErrnoException(errno, device_path);
}

bool IsBlessing(const DeviceData::Entry& entry) { return entry.first.starts_with(kBlessing); }

void RemoveBlessings(const DeviceData& device_id) {
  DeviceData rest;
  for (const auto& entry : device_id.Entries()) {
    if (!IsBlessing(entry)) rest.Set(entry.first, entry.second);
  }
  // A NUL ends the text. Those after it cover all that the old one may have had, lines that were
  // no entries too.
  std::string text = rest.Text();
  struct stat status = {};
  const lattix::UniqueFd fd = lattix::OpenDevice(kDeviceId, O_RDONLY);
  if (fstat(fd.Get(), &status) != 0) throw lattix::ErrnoException(errno, kDeviceId);
  const size_t room =
      S_ISREG(status.st_mode)
          ? std::min<size_t>(static_cast<size_t>(status.st_size), DeviceData::kMaxText)
          : DeviceData::kMaxText;
  text.resize(std::max(text.size(), room), '\0');
  OverwriteHead(kDeviceId, text);
}

}  // namespace

int DropCache(const CommandLine& command) {
  if (command.argument_count() > 0) return command.Usage();
  if (lattix::InDeviceRoot()) {
    command.Print("In a device root the machine's cache stays: a device writes 3 to {}",
                  kDropCaches);
    return 0;
  }
  sync();  // only what is clean can be dropped
  const lattix::UniqueFd fd = lattix::OpenDevice(kDropCaches, O_WRONLY);
  if (write(fd.Get(), "3\n", 2) != 2) throw lattix::ErrnoException(errno, kDropCaches);
  return 0;
}

int DeviceDataCommand(const CommandLine& command) {
  if (command.argument_count() > 0) return command.Usage();
  const HardwareConfig& hardware = HardwareConfig::GetInstance();
  const char* signature = "not checked";
  switch (hardware.CheckDeviceData()) {
    case HardwareConfig::Authenticity::kUnchecked: break;
    case HardwareConfig::Authenticity::kGenuine: signature = "genuine"; break;
    case HardwareConfig::Authenticity::kForged: signature = "forged"; break;
  }
  command.Print("OEM ID:            {}", hardware.GetOemId());
  command.Print("Model:             {}", hardware.GetModel());
  command.Print("Device ID:         {}", hardware.GetSerial());
  command.Print("Secure ID:         {}", hardware.GetSecureId());
  command.Print("Board:             {} ({})", hardware.GetBoardName(), hardware.GetBoardId());
  command.Print("System on chip:    {}", hardware.GetSystemOnChip());
  command.Print("Hardware revision: {}", hardware.GetHardwareRevision());
  command.Print("Hardware flags:    0x{:x}", hardware.GetFlags());
  command.Print("Signature:         {}", signature);
  command.Print("Restricted:        {}", hardware.IsRestricted() ? "yes" : "no");
  return 0;
}

// Only whether a key is there; the keys themselves are not even read.
int DrmKeys(const CommandLine& command) {
  if (command.argument_count() > 0) return command.Usage();
  static constexpr struct {
    const char* name;
    const char* path;
  } kKeys[] = {
      {"HDCP 1.4", "/etc/orvex/keys/hdcp-1.4"},
      {"HDCP 2.2", "/etc/orvex/keys/hdcp-2.2"},
      {"Content decryption", "/etc/orvex/keys/content"},
  };
  for (const auto& key : kKeys) {
    struct stat status = {};
    const bool present = stat(lattix::DevicePath(key.path).c_str(), &status) == 0 &&
                         S_ISREG(status.st_mode) && status.st_size > 0;
    command.Print("{}: {}", key.name, present ? "present" : "not present");
  }
  return 0;
}

int HwFlags(const CommandLine& command) {
  if (command.argument_count() > 0) return command.Usage();
  const HardwareConfig& hardware = HardwareConfig::GetInstance();
  for (unsigned bit = 0; bit < 64; ++bit) {
    if (hardware.HasFlag(bit)) command.Print("{}", HardwareFlagText(bit));
  }
  return 0;
}

// Without a kernel that it recognises, the boot loader starts the rescue system: the safe mode.
int ResetToBareBoard(const CommandLine& command) {
  if (command.argument_count() != 1 || command.argument(1) != "confirm") return command.Usage();
  OverwriteHead(kKernel, std::string(kKernelHead, '\0'));
  command.Print("The board starts in safe mode only, from the next reboot on.");
  return 0;
}

int Blessings(const CommandLine& command) {
  const bool remove = command.argument_count() == 1 && command.argument(1) == "remove-all";
  if (command.argument_count() > 0 && !remove) return command.Usage();
  const DeviceData device_id = DeviceData::ReadFrom(kDeviceId);
  if (std::ranges::none_of(device_id.Entries(), IsBlessing)) {
    command.Print("Player is not blessed");
  } else if (remove) {
    command.Print("Removing all blessings...");
    RemoveBlessings(device_id);
    command.Print(
        "Complete. Now remove power or reboot. System may not behave as expected otherwise.");
  } else {
    for (const auto& entry : device_id.Entries()) {
      if (IsBlessing(entry)) {
        command.Print("{}: {}", entry.first.substr(kBlessing.size()), entry.second);
      }
    }
  }
  return 0;
}

int Temperature(const CommandLine& command) {
  if (command.argument_count() > 0) return command.Usage();
  const auto temperature = ReadBoardTemperature();
  if (!temperature) {
    command.Print("Temperature is not available");
    return 1;
  }
  command.Print("Temperature {:f}C", *temperature);
  return 0;
}

}  // namespace commands
