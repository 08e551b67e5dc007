// The licences of the software on the device.
//
// "/usr/share/licenses/license.json" is an object of packages, each an object with "version" and
// "license"; the texts of a package are the files in "/usr/share/licenses/<package>/". A package
// without that folder is known to the firmware but not installed.
#include "apps/orvex/commands_licenses.h"

#include <dirent.h>
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "apps/orvex/command_files.h"
#include "apps/orvex/interruptible_output.h"
#include "lib/platform/device_file.h"
#include "lib/platform/device_path.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/firmware_version.h"

namespace commands {

namespace {

constexpr char kFolder[] = "/usr/share/licenses";
constexpr char kIndex[] = "/usr/share/licenses/license.json";

using Json = nlohmann::json;

Json ReadIndex() {
  Json index = Json::parse(lattix::ReadDeviceFile(kIndex), nullptr, false);
  if (!index.is_object()) throw std::runtime_error(std::string(kIndex) + " is no list of packages");
  return index;
}

// A name stands for a folder beside the index, so it must be one component.
bool IsPackageName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == name.npos &&
         name.find('\\') == name.npos;
}

std::string Property(const Json& package, const char* name) {
  const auto found = package.is_object() ? package.find(name) : package.end();
  return found != package.end() && found->is_string() ? Printable(found->get<std::string>())
                                                      : "unknown";
}

// The package's texts, device paths; empty when it is not installed.
std::vector<std::string> Texts(const std::string& package) {
  const std::string folder = std::string(kFolder) + "/" + package;
  std::vector<std::string> texts;
  const std::unique_ptr<DIR, int (*)(DIR*)> entries(opendir(lattix::DevicePath(folder).c_str()),
                                                    closedir);
  if (entries == nullptr) return texts;
  while (const dirent* entry = readdir(entries.get())) {
    if (entry->d_name[0] != '.') texts.push_back(folder + "/" + entry->d_name);
  }
  std::sort(texts.begin(), texts.end());
  return texts;
}

void ListPackage(const CommandLine& command, const std::string& name, const Json& package) {
  command.Print("* Package: {}", Printable(name));
  command.Print("  Version: {}", Property(package, "version"));
  command.Print("  License: {}", Property(package, "license"));
}

// False when there is nothing to show.
bool ShowPackage(const CommandLine& command, const InterruptibleOutput& output,
                 const std::string& name) {
  const std::vector<std::string> texts = Texts(name);
  if (texts.empty()) return false;
  command.Print("* Package: {}", Printable(name));
  for (const std::string& text : texts) {
    output.ShowFile(lattix::OpenDevice(text, O_RDONLY).Get());
  }
  return true;
}

int OnePackage(const CommandLine& command, const InterruptibleOutput& output, const Json& index,
               const std::string& name, bool show) {
  const auto package = index.find(name);
  if (package == index.end()) {
    command.Print("Package not available");
    return 1;
  }
  if (!show) {
    ListPackage(command, name, *package);
  } else if (!ShowPackage(command, output, name)) {
    command.Print("Package not installed");
    return 1;
  }
  return 0;
}

int AllPackages(const CommandLine& command, const InterruptibleOutput& output, const Json& index,
                bool show) {
  for (const auto& [name, package] : index.items()) {
    output.Check();
    if (!show) {
      ListPackage(command, name, package);
    } else if (IsPackageName(name)) {
      ShowPackage(command, output, name);
    }
  }
  return 0;
}

}  // namespace

int Licenses(const CommandLine& command) {
  const std::string_view action = command.argument(1);
  const bool show = action == "show";
  if ((!show && action != "list") || command.argument_count() > 2) {
    LicensesHelp(command.shell, 0, nullptr);
    return 1;
  }
  const InterruptibleOutput output(command.shell);
  if (command.argument_count() == 2 && !IsPackageName(command.argument(2))) {
    command.Print("Invalid package name");
    return 1;
  }
  const Json index = ReadIndex();
  return command.argument_count() == 2
             ? OnePackage(command, output, index, std::string(command.argument(2)), show)
             : AllPackages(command, output, index, show);
}

int LicensesHelp(Shell& shell, int, const char**) {
  shell.Print(
      "The firmware of this device (v{}) is made of proprietary and open-source\n"
      "software. The licenses of the open-source software can be viewed with this\n"
      "command. More about it is on the maker's web site.\n",
      lattix::FirmwareVersion());
  shell.Puts(
      "Usage:\n"
      "  licenses list [<package>] - list version and license information for a\n"
      "                              specific package or all packages\n"
      "  licenses show [<package>] - show the license text for a specific package or\n"
      "                              all packages.\n"
      "\n"
      "Output can be interrupted by pressing Ctrl-C.\n"
      "\n");
  return 0;
}

}  // namespace commands
