// What the device is made of.
#include "apps/orvex/commands_device.h"

namespace commands {

namespace {

int NotAvailable(const CommandLine& command) {
  command.Print("{}: not available on this player", command.name());
  return 1;
}

}  // namespace

int Id(const CommandLine& command) { return NotAvailable(command); }
int UsbList(const CommandLine& command) { return NotAvailable(command); }
int Node(const CommandLine& command) { return NotAvailable(command); }
int MmcHealth(const CommandLine& command) { return NotAvailable(command); }
int Extensions(const CommandLine& command) { return NotAvailable(command); }
int CaCerts(const CommandLine& command) { return NotAvailable(command); }

}  // namespace commands
