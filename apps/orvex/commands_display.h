// Commands on the display.
#pragma once

#include "apps/orvex/command_line.h"

namespace commands {

int ImagePlay(const CommandLine& command);
int HtmlPlay(const CommandLine& command);
int VideoMode(const CommandLine& command);
int Edid(const CommandLine& command);
int PowerSave(const CommandLine& command);

}  // namespace commands
