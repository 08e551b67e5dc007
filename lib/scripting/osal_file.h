// Files by drive-style name, as buffered streams of the C library.
#pragma once

#include <cstdio>
#include <memory>
#include <string_view>

struct CloseStream {
  void operator()(FILE* stream) const { std::fclose(stream); }
};
using FileStream = std::unique_ptr<FILE, CloseStream>;

// Opens the plain file that a script's name stands for, without leaving its drive; the modes are
// those of fopen(3). A mode that creates or writes also makes the file's name durable: a folder
// that cannot be synced is logged and does not fail the open.
//
// Null with errno set when there is no such file (OpenBeneathDrive); ENOENT, and a line in the log,
// for a name that does not map. Callable from any thread; the stream is for one thread at a time.
FileStream osalFileOpen(std::string_view name, const char* mode);
