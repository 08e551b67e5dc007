// What manufacture tests and writes.
#include "apps/orvex/commands_mfg.h"

namespace commands {

namespace {

int NotAvailable(const CommandLine& command) {
  command.Print("{}: not available on this player", command.name());
  return 1;
}

}  // namespace

int Disturb(const CommandLine& command) { return NotAvailable(command); }
int FileVerify(const CommandLine& command) { return NotAvailable(command); }
int CrashMe(const CommandLine& command) { return NotAvailable(command); }
int DropCache(const CommandLine& command) { return NotAvailable(command); }
int SrbDump(const CommandLine& command) { return NotAvailable(command); }
int SrbDecode(const CommandLine& command) { return NotAvailable(command); }
int SrbUserSet(const CommandLine& command) { return NotAvailable(command); }
int SrbErase(const CommandLine& command) { return NotAvailable(command); }
int DeviceDataCommand(const CommandLine& command) { return NotAvailable(command); }
int DrmKeys(const CommandLine& command) { return NotAvailable(command); }
int HwFlags(const CommandLine& command) { return NotAvailable(command); }
int ResetToBareBoard(const CommandLine& command) { return NotAvailable(command); }
int Blessings(const CommandLine& command) { return NotAvailable(command); }
int Temperature(const CommandLine& command) { return NotAvailable(command); }

}  // namespace commands
