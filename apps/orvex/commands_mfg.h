// Commands for manufacture.
#pragma once

#include "apps/orvex/command_line.h"

namespace commands {

int Disturb(const CommandLine& command);
int FileVerify(const CommandLine& command);
int CrashMe(const CommandLine& command);
int DropCache(const CommandLine& command);
int SrbDump(const CommandLine& command);
int SrbDecode(const CommandLine& command);
int SrbUserSet(const CommandLine& command);
int SrbErase(const CommandLine& command);
int DeviceDataCommand(const CommandLine& command);
int DrmKeys(const CommandLine& command);
int HwFlags(const CommandLine& command);
int ResetToBareBoard(const CommandLine& command);
int Blessings(const CommandLine& command);
int Temperature(const CommandLine& command);

}  // namespace commands
