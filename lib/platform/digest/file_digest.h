// The digest that names a script in logs and reports.
#pragma once

#include <string>
#include <string_view>

// The SHA-1 of what can be read from the descriptor, from its beginning on, as 40 lower-case
// hexadecimal digits. Moves the descriptor's offset. Blocks; callable from any thread. Throws
// lattix::ErrnoException when reading fails.
std::string FileSha1(int fd);
std::string Sha1(std::string_view bytes);
