// What shows something on the display, and the display's own settings. Arguments are checked as for
// a display; the player has none yet, except for reading what a monitor says about itself.
#include "apps/orvex/commands_display.h"

#include <algorithm>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "apps/orvex/command_files.h"
#include "apps/orvex/command_numbers.h"
#include "apps/orvex/hex_dump.h"
#include "apps/orvex/interruptible_output.h"
#include "apps/orvex/orvex_shell.h"
#include "lib/platform/device_file.h"
#include "lib/platform/device_path.h"
#include "lib/platform/errno_exception.h"

namespace commands {

namespace {

constexpr size_t kImageArguments = 9;
constexpr uint64_t kMaxNumber = INT32_MAX;
constexpr char kConnectors[] = "/sys/class/drm";

int NotAvailable(const CommandLine& command) {
  command.Print("{}: not available on this player", command.name());
  return 1;
}

// "htmlplay params NAME on|off".
int SetHtmlParameter(const CommandLine& command) {
  static constexpr struct {
    std::string_view name;
    bool HtmlWidgetParameters::*parameter;
  } kParameters[] = {
      {"mouse", &HtmlWidgetParameters::mouse_events},
      {"scrollbars", &HtmlWidgetParameters::scrollbars},
      {"javascript", &HtmlWidgetParameters::javascript},
  };
  const bool on = command.argument(3) == "on";
  if (command.argument_count() != 3 || (!on && command.argument(3) != "off")) {
    return command.Usage();
  }
  for (const auto& row : kParameters) {
    if (command.argument(2) != row.name) continue;
    command.orvex.html_parameters().*row.parameter = on;
    return 0;
  }
  return command.Usage();
}

}  // namespace

int ImagePlay(const CommandLine& command) {
  if (command.argument_count() > kImageArguments) return command.Usage();
  for (size_t i = 2; i <= command.argument_count(); ++i) {
    std::string_view number = command.argument(i);
    if (number.starts_with('-')) number.remove_prefix(1);  // a position left of the screen
    if (!ParseNumber(number, kMaxNumber, 10)) return command.Usage();
  }
  if (command.argument_count() > 0 && !OpenArgument(command, command.argument(1), O_RDONLY)) {
    return 1;
  }
  return NotAvailable(command);
}

int HtmlPlay(const CommandLine& command) {
  const std::string_view first = command.argument(1);
  const size_t count = command.argument_count();
  if (first == "params") return SetHtmlParameter(command);
  const bool chronode = first == "chronode";
  if (count != (chronode ? 2 : 1)) return command.Usage();
  const std::string url =
      chronode ? fmt::format("data:text/html,<script src=\"{}\"></script>", command.argument(2))
               : std::string(first);
  return command.orvex.PlayHtml(url) ? 0 : NotAvailable(command);
}

int VideoMode(const CommandLine& command) {
  if (command.argument_count() <= 1) return NotAvailable(command);
  command.Print("Usage: {} [<video-mode>]", command.name());
  return 1;
}

// Of several connectors the first with a monitor: its driver has the EDID in a file that is empty
// otherwise.
int Edid(const CommandLine& command) {
  if (command.argument_count() != 1 || command.argument(1) != "hdmi") return command.Usage();
  std::vector<std::string> connectors;
  std::error_code error;
  for (std::filesystem::directory_iterator i(lattix::DevicePath(kConnectors), error), end;
       !error && i != end; i.increment(error)) {
    const std::string name = i->path().filename();
    if (name.find("-HDMI-") != std::string::npos) connectors.push_back(name);
  }
  std::ranges::sort(connectors);
  for (const std::string& name : connectors) {
    std::string edid;
    try {
      edid = lattix::ReadDeviceFile(fmt::format("{}/{}/edid", kConnectors, name));
    } catch (const lattix::ErrnoException&) {
      continue;
    }
    if (edid.empty()) continue;
    const InterruptibleOutput output(command.shell);
    output.ShowText(HexDump(0, edid));
    return 0;
  }
  command.Print("{}: no monitor is attached", command.name());
  return 1;
}

int PowerSave(const CommandLine& command) {
  const std::string_view state = command.argument(1);
  if (command.argument_count() == 1 && (state == "on" || state == "off")) {
    return NotAvailable(command);
  }
  command.Print("usage: powersave on|off");
  return 1;
}

}  // namespace commands
