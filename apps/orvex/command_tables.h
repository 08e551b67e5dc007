// The commands of the player's shell, in the order in which they are listed.
#pragma once

#include <span>

#include "lib/platform/shell.h"

// Always there.
std::span<const ShellCommand> GeneralCommands();
std::span<const ShellCommand> NetworkCommands();
std::span<const ShellCommand> DisplayCommands();
// Opened by the unlock code; the low-level ones not on a restricted unit.
std::span<const ShellCommand> ManufacturingCommands();
std::span<const ShellCommand> LowLevelCommands();
