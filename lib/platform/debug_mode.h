// The debug switch of the kernel command line.
#pragma once

#include <string_view>

namespace lattix {

// Whether a kernel command line turns debug mode on: its tokens are separated by spaces and tabs,
// and the key "ps.debug" does so unless its value is exactly "0". The last such token decides.
bool CommandLineEnablesDebugMode(std::string_view command_line);

// The same for this device's "/proc/cmdline", which is read once, at the first call; debug mode is
// off when it cannot be read. Callable from any thread; in a forked child only when the parent has
// called it before.
bool IsDebugMode();

}  // namespace lattix
