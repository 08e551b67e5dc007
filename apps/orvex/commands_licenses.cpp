// Licenses.
#include "apps/orvex/commands_licenses.h"

namespace commands {

namespace {

int NotAvailable(const CommandLine& command) {
  command.Print("{}: not available on this player", command.name());
  return 1;
}

}  // namespace

int Licenses(const CommandLine& command) { return NotAvailable(command); }

int LicensesHelp(Shell&, int, const char**) { return 0; }

}  // namespace commands
