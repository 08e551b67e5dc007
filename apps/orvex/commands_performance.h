// Commands that measure how fast a storage is.
#pragma once

#include <cstdint>
#include <string>

#include "apps/orvex/command_line.h"

namespace commands {

// A rate as performance tests print it, in decimal units, as the labels of media have them.
std::string TransferRate(int64_t bytes, int64_t nanoseconds);

int ReadPerf(const CommandLine& command);
int WritePerf(const CommandLine& command);
int ReadWritePerf(const CommandLine& command);

}  // namespace commands
