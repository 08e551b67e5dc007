// Commands on files and storages.
#pragma once

#include "apps/orvex/command_line.h"

namespace commands {

int Dir(const CommandLine& command);
int ChangeDirectory(const CommandLine& command);
int Delete(const CommandLine& command);
int WriteBootFile(const CommandLine& command);
int EraseBootFile(const CommandLine& command);
int Format(const CommandLine& command);
int Eject(const CommandLine& command);

}  // namespace commands
