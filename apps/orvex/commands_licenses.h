// The licenses command.
#pragma once

#include "apps/orvex/command_line.h"

namespace commands {

int Licenses(const CommandLine& command);
int LicensesHelp(Shell& shell, int argc, const char** argv);

}  // namespace commands
