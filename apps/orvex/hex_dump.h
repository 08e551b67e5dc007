// Bytes as commands show them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// A line for every 16 bytes: the address (of the first byte, in hexadecimal), the bytes, and what
// of them is printable ASCII.
std::string HexDump(uint64_t address, std::string_view bytes);
