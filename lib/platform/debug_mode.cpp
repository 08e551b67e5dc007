// The command line ends with a newline that is no part of it: without the cut, a last token
// "ps.debug=0" would have the value "0\n" and turn debug mode on.
#include "lib/platform/debug_mode.h"

#include <algorithm>
#include <string>

#include "lib/platform/device_file.h"
#include "lib/platform/errno_exception.h"

namespace lattix {

bool CommandLineEnablesDebugMode(std::string_view command_line) {
  command_line = command_line.substr(0, command_line.find('\n'));
  bool enabled = false;
  while (!command_line.empty()) {
    const size_t end = std::min(command_line.find_first_of(" \t"), command_line.size());
    const std::string_view token = command_line.substr(0, end);
    command_line.remove_prefix(std::min(end + 1, command_line.size()));
    const size_t equals = std::min(token.find('='), token.size());
    if (token.substr(0, equals) != "ps.debug") continue;
    enabled = token.substr(equals) != "=0";
  }
  return enabled;
}

bool IsDebugMode() {
  static const bool enabled = [] {
    try {
      return CommandLineEnablesDebugMode(ReadDeviceFile("/proc/cmdline"));
    } catch (const ErrnoException&) {
      return false;  // a device root without one, or a kernel without /proc
    }
  }();
  return enabled;
}

}  // namespace lattix
