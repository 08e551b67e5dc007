// What the device is made of, and what has been added to its firmware.
#include "apps/orvex/commands_device.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include "apps/orvex/command_files.h"
#include "apps/orvex/interruptible_output.h"
#include "lib/hardware/hardware_config.h"
#include "lib/hardware/mmc_health.h"
#include "lib/hardware/usb_topology.h"
#include "lib/platform/certificates/certificate_names.h"
#include "lib/platform/device_file.h"
#include "lib/platform/device_path.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/firmware_version.h"

namespace commands {

namespace {

namespace fs = std::filesystem;

// One folder an extension; a file "version" in it says which it is.
constexpr char kExtensions[] = "/var/lib/orvex/extensions";
// What transfers are verified against.
constexpr char kCertificates[] = "/etc/ssl/certs/ca-certificates.crt";

// A plain name, so that nothing but a folder of ours can be meant.
bool IsExtensionName(std::string_view name) {
  return !name.empty() && name.size() <= 255 && name.front() != '.' &&
         std::ranges::all_of(name, [](char c) {
           return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  c == '-' || c == '_' || c == '.' || c == '+';
         });
}

int ListExtensions(const CommandLine& command) {
  std::vector<std::string> names;
  std::error_code error;
  for (fs::directory_iterator it(lattix::DevicePath(kExtensions), error), end; !error && it != end;
       it.increment(error)) {
    const std::string name = it->path().filename();
    if (IsExtensionName(name) && it->symlink_status(error).type() == fs::file_type::directory) {
      names.push_back(name);
    }
  }
  if (error && error != std::errc::no_such_file_or_directory) {
    throw lattix::ErrnoException(error.value(), kExtensions);
  }
  if (names.empty()) command.Print("No extensions installed");
  std::ranges::sort(names);
  for (const std::string& name : names) {
    const std::string version =
        lattix::ReadSystemLine(std::string(kExtensions) + "/" + name + "/version");
    command.Print("{}{}{}", name, version.empty() ? "" : " ", Printable(version));
  }
  return 0;
}

int RemoveExtension(const CommandLine& command, std::string_view name) {
  if (!IsExtensionName(name)) {
    command.Print("Invalid extension name");
    return 1;
  }
  const fs::path folder = fs::path(lattix::DevicePath(kExtensions)) / name;
  std::error_code error;
  if (fs::symlink_status(folder, error).type() != fs::file_type::directory) {
    command.Print("Extension not installed");
    return 1;
  }
  fs::remove_all(folder, error);  // links in it go, what they point to stays
  if (error) {
    PrintFileError(command, name, error.value());
    return 1;
  }
  command.Print("Extension '{}' removed", name);
  return 0;
}

}  // namespace

int Id(const CommandLine& command) {
  if (command.argument_count() > 0) return command.Usage();
  const HardwareConfig& hardware = HardwareConfig::GetInstance();
  command.Print("Orvex");
  command.Print("Model:     {}", hardware.GetModel());
  command.Print("Device ID: {}", hardware.GetSerial());
  command.Print("Secure ID: {}", hardware.GetSecureId());
  return 0;
}

int UsbList(const CommandLine& command) {
  if (command.argument_count() > 0) return command.Usage();
  std::istringstream listing(UsbTopologyListing(ReadUsbTopology()));
  for (std::string line; std::getline(listing, line);) command.Print("{}", Printable(line));
  command.Print("This list may not contain all connected USB devices");
  return 0;
}

int MmcHealth(const CommandLine& command) {
  if (command.argument_count() > 0) return command.Usage();
  const auto health = ReadMmcHealth();
  if (!health) {
    command.Print("MMC health is not available");
    return 1;
  }
  command.shell.Puts(MmcHealthReport(*health).c_str());
  return 0;
}

int Extensions(const CommandLine& command) {
  const std::string_view verb = command.argument(1);
  if (verb == "list" && command.argument_count() == 1) return ListExtensions(command);
  if (verb == "remove" && command.argument_count() == 2) {
    return RemoveExtension(command, command.argument(2));
  }
  return command.Usage();
}

int CaCerts(const CommandLine& command) {
  if (command.argument_count() != 1 || command.argument(1) != "list") return command.Usage();
  const InterruptibleOutput output(command.shell);
  std::string lines;
  for (const std::string& subject : CertificateSubjects(lattix::ReadDeviceFile(kCertificates))) {
    lines.append(subject).append("\n");
  }
  output.ShowText(lines);
  return 0;
}

}  // namespace commands
