// Commands that reach below the drivers.
#pragma once

#include "apps/orvex/command_line.h"

namespace commands {

int MemDump(const CommandLine& command);
int I2c(const CommandLine& command);
int UsbTestMode(const CommandLine& command);
int Usb3TestMode(const CommandLine& command);
int UsbHubTestMode(const CommandLine& command);
int EthTestMode(const CommandLine& command);

}  // namespace commands
