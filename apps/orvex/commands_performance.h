// Commands that measure how fast a storage is.
#pragma once

#include "apps/orvex/command_line.h"

namespace commands {

int ReadPerf(const CommandLine& command);
int WritePerf(const CommandLine& command);
int ReadWritePerf(const CommandLine& command);

}  // namespace commands
