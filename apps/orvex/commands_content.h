// Commands that look into a file.
#pragma once

#include "apps/orvex/command_line.h"

namespace commands {

int File(const CommandLine& command);
int Hash(const CommandLine& command);
int Probe(const CommandLine& command);
int Analyze(const CommandLine& command);

}  // namespace commands
