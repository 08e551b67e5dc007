#include "apps/orvex/hex_dump.h"

#include <fmt/format.h>

#include <iterator>

namespace {

constexpr size_t kLine = 16;

}  // namespace

std::string HexDump(uint64_t address, std::string_view bytes) {
  std::string text;
  const auto out = std::back_inserter(text);
  for (; !bytes.empty(); bytes.remove_prefix(std::min(kLine, bytes.size())), address += kLine) {
    const std::string_view line = bytes.substr(0, kLine);
    fmt::format_to(out, "{:08x}:", address);
    for (size_t i = 0; i < kLine; ++i) {
      if (i < line.size()) {
        fmt::format_to(out, " {:02x}", static_cast<uint8_t>(line[i]));
      } else {
        text += "   ";
      }
    }
    text += "  ";
    for (const char c : line) text += c >= ' ' && c < 0x7F ? c : '.';
    text += '\n';
  }
  return text;
}
