// Commands on the player itself: its end, its clock, its log, its versions.
#pragma once

#include <cstdint>
#include <string>

#include "apps/orvex/command_line.h"

namespace commands {

int Exit(const CommandLine& command);
int Script(const CommandLine& command);
int Mfg(const CommandLine& command);
int Reboot(const CommandLine& command);
int Shutdown(const CommandLine& command);
int Suspend(const CommandLine& command);
int Date(const CommandLine& command);
int TimeZone(const CommandLine& command);
int Version(const CommandLine& command);
int Uptime(const CommandLine& command);
int FactoryReset(const CommandLine& command);
int Log(const CommandLine& command);
int UnsetRtc(const CommandLine& command);
int PtpStatus(const CommandLine& command);
int SystemShell(const CommandLine& command);
int NotImplemented(const CommandLine& command);

// "2 days 0:00:00", "0:01:02".
std::string UptimeText(int64_t seconds);

}  // namespace commands
