// Each message is formatted into a buffer first and handed to stdio in one call, which holds the
// stream's lock: that is what keeps the messages of several threads apart.
#include "lib/platform/log.h"

#include <fmt/format.h>

#include <cstdio>
#include <exception>
#include <iterator>

namespace lattix {

namespace {

void Write(std::string_view text) noexcept { std::fwrite(text.data(), 1, text.size(), stderr); }

}  // namespace

std::string CurrentExceptionText() {
  const std::exception_ptr current = std::current_exception();
  if (!current) return "unknown exception";
  try {
    std::rethrow_exception(current);
  } catch (const std::exception& e) {
    return e.what();
  } catch (...) {
    return "unknown exception";
  }
}

void LogThrown(std::string_view message) noexcept {
  try {
    Write(fmt::format("Message '{}' threw '{}'\n", message, CurrentExceptionText()));
  } catch (...) {
    // Out of memory: nothing that could be said would get out.
  }
}

void LogFormatted(fmt::string_view format, fmt::format_args args) noexcept {
  try {
    fmt::memory_buffer line;
    fmt::vformat_to(std::back_inserter(line), format, args);
    Write({line.data(), line.size()});
  } catch (...) {
    LogThrown({format.data(), format.size()});
  }
}

}  // namespace lattix
