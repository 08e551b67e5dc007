// The network, as an operator sees it.
#include "apps/orvex/commands_network.h"

namespace commands {

namespace {

int NotAvailable(const CommandLine& command) {
  command.Print("{}: not available on this player", command.name());
  return 1;
}

}  // namespace

int Ping(const CommandLine& command) { return NotAvailable(command); }
int IfConfig(const CommandLine& command) { return NotAvailable(command); }
int WifiScan(const CommandLine& command) { return NotAvailable(command); }
int HttpGetPerf(const CommandLine& command) { return NotAvailable(command); }
int NsLookup(const CommandLine& command) { return NotAvailable(command); }
int FlushDns(const CommandLine& command) { return NotAvailable(command); }
int Mii(const CommandLine& command) { return NotAvailable(command); }

}  // namespace commands
