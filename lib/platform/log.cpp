// Each message is formatted into a buffer first and handed to stdio in one call, which holds the
// stream's lock: that is what keeps the messages of several threads apart.
#include "lib/platform/log.h"

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <iterator>

namespace lattix {

namespace {

using Writer = void (*)(std::string_view text) noexcept;

void Write(std::string_view text) noexcept { std::fwrite(text.data(), 1, text.size(), stderr); }

void WriteUnlessBlocked(std::string_view text) noexcept {
  pollfd stream = {STDERR_FILENO, POLLOUT, 0};
  if (::poll(&stream, 1, 0) != 1 || (stream.revents & POLLOUT) == 0) return;
  // What does not get out now, is not said.
  if (::write(STDERR_FILENO, text.data(), text.size()) < 0) return;
}

// The exception being handled, in the place of the message that it spoilt.
void WriteThrown(std::string_view message, Writer write) noexcept {
  try {
    write(fmt::format("Message '{}' threw '{}'\n", message, CurrentExceptionText()));
  } catch (...) {
    // Out of memory: nothing that could be said would get out.
  }
}

void WriteFormatted(fmt::string_view format, fmt::format_args args, Writer write) noexcept {
  try {
    fmt::memory_buffer line;
    fmt::vformat_to(std::back_inserter(line), format, args);
    write({line.data(), line.size()});
  } catch (...) {
    WriteThrown({format.data(), format.size()}, write);
  }
}

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

void LogThrown(std::string_view message) noexcept { WriteThrown(message, Write); }

void LogFormatted(fmt::string_view format, fmt::format_args args) noexcept {
  WriteFormatted(format, args, Write);
}

void LogFormattedUnlessBlocked(fmt::string_view format, fmt::format_args args) noexcept {
  WriteFormatted(format, args, WriteUnlessBlocked);
}

}  // namespace lattix
