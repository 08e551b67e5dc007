// Commands on the network.
#pragma once

#include "apps/orvex/command_line.h"

namespace commands {

int Ping(const CommandLine& command);
int WifiScan(const CommandLine& command);
int HttpGetPerf(const CommandLine& command);
int NsLookup(const CommandLine& command);
int FlushDns(const CommandLine& command);
int Mii(const CommandLine& command);

}  // namespace commands
