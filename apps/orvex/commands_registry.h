// The registry command.
#pragma once

#include "apps/orvex/command_line.h"

namespace commands {

int Registry(const CommandLine& command);

}  // namespace commands
