// What the commands on files share: names that operators type, and their failures.
#pragma once

#include <fcntl.h>

#include <string>
#include <string_view>

#include "apps/orvex/command_line.h"
#include "lib/platform/unique_fd.h"

// The device path of a drive-style name; false, and the reason printed, for one that does not map.
bool MapArgument(const CommandLine& command, std::string_view name, std::string* device_path);

// Opens what the name stands for, without leaving its drive; invalid, and the reason printed, when
// it cannot be opened.
lattix::UniqueFd OpenArgument(const CommandLine& command, std::string_view name, int flags,
                              mode_t mode = 0666);

// Opens what the name stands for to be written anew, unless that is the file at the descriptor,
// which stays as it is; invalid, and the reason printed, as above.
lattix::UniqueFd CreateBeside(const CommandLine& command, std::string_view name, int source);

// Writes the bytes where the descriptor stands. Throws lattix::ErrnoException.
void WriteAll(int fd, std::string_view bytes);

// "NAME: TEXT", for the error number.
void PrintFileError(const CommandLine& command, std::string_view name, int error);

// A text from anywhere, safe to show: what would control the terminal, and bytes that are no UTF-8,
// are question marks.
std::string Printable(std::string_view name);
