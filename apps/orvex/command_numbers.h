// Numbers that operators type.
#pragma once

#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>

// The number that the whole text is, if it is at most max. Base 10 or 16; base 0 is decimal, or
// hexadecimal with "0x" in front, which base 16 accepts too.
inline std::optional<uint64_t> ParseNumber(std::string_view text, uint64_t max, int base = 0) {
  if (base != 10 && (text.starts_with("0x") || text.starts_with("0X"))) {
    text.remove_prefix(2);
    base = 16;
  }
  uint64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, number, base == 0 ? 10 : base);
  if (result.ec != std::errc() || result.ptr != end || number > max) return std::nullopt;
  return number;
}
