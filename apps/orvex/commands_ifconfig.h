// The command "ifconfig": the network configuration.
#pragma once

#include "apps/orvex/command_line.h"

namespace commands {

// Settings go to the registry (docs/network-settings.md), where the device's network configuration
// service finds them; nothing else acts on them. A form changes all its keys in one write.
int IfConfig(const CommandLine& command);
int IfConfigHelp(Shell& shell, int argc, const char** argv);

}  // namespace commands
