// What shows something on the display, and the display's own settings.
#include "apps/orvex/commands_display.h"

namespace commands {

namespace {

int NotAvailable(const CommandLine& command) {
  command.Print("{}: not available on this player", command.name());
  return 1;
}

}  // namespace

int ImagePlay(const CommandLine& command) { return NotAvailable(command); }
int HtmlPlay(const CommandLine& command) { return NotAvailable(command); }
int VideoMode(const CommandLine& command) { return NotAvailable(command); }
int Edid(const CommandLine& command) { return NotAvailable(command); }
int PowerSave(const CommandLine& command) { return NotAvailable(command); }

}  // namespace commands
