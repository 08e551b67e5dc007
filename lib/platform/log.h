// Diagnostics: one line, or several, in the style of fmt, to standard error.
//
// A message goes out in one piece, so messages of several threads do not mix. No message gets a
// newline that its text does not have. All functions may be called from any thread, never from a
// signal handler or from a forked child before it executes its program (they allocate and lock).
#pragma once

#include <fmt/core.h>

#include <string>
#include <string_view>
#include <utility>

namespace lattix {

// Formats and writes. An exception that escapes the formatting is logged in the message's place, as
// "Message '{}' threw '{}'\n" with the format string and the exception's text.
void LogFormatted(fmt::string_view format, fmt::format_args args) noexcept;

template <typename... Args>
void Log(fmt::format_string<Args...> format, Args&&... args) noexcept {
  LogFormatted(format, fmt::make_format_args(args...));
}

// As Log, but drops the message if it cannot get out at once, and goes past stdio, whose lock
// belongs to a writer that a full pipe or a stopped terminal may hold up for ever. For the thread
// that has to answer signals whatever the others are doing.
void LogFormattedUnlessBlocked(fmt::string_view format, fmt::format_args args) noexcept;

template <typename... Args>
void LogUnlessBlocked(fmt::format_string<Args...> format, Args&&... args) noexcept {
  LogFormattedUnlessBlocked(format, fmt::make_format_args(args...));
}

// To be called in a catch block: logs "Message '{}' threw '{}'\n" with the message and the text of
// the exception being handled.
void LogThrown(std::string_view message) noexcept;

// The text of the exception being handled: what() of a standard exception, "unknown exception" for
// anything else or none.
std::string CurrentExceptionText();

}  // namespace lattix
