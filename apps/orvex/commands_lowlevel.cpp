// What reaches below the drivers.
#include "apps/orvex/commands_lowlevel.h"

namespace commands {

namespace {

int NotAvailable(const CommandLine& command) {
  command.Print("{}: not available on this player", command.name());
  return 1;
}

}  // namespace

int MemDump(const CommandLine& command) { return NotAvailable(command); }
int I2c(const CommandLine& command) { return NotAvailable(command); }
int UsbTestMode(const CommandLine& command) { return NotAvailable(command); }
int Usb3TestMode(const CommandLine& command) { return NotAvailable(command); }
int UsbHubTestMode(const CommandLine& command) { return NotAvailable(command); }
int EthTestMode(const CommandLine& command) { return NotAvailable(command); }

}  // namespace commands
