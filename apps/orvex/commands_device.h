// Commands that tell what the device is made of.
#pragma once

#include "apps/orvex/command_line.h"

namespace commands {

int Id(const CommandLine& command);
int UsbList(const CommandLine& command);
int Node(const CommandLine& command);
int MmcHealth(const CommandLine& command);
int Extensions(const CommandLine& command);
int CaCerts(const CommandLine& command);

}  // namespace commands
