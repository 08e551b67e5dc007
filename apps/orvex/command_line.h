// What a command of the player's shell is called with, and what the rows of its table are made of.
#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "lib/platform/shell.h"

class OrvexShell;

// A command that was typed. A command is a function int (const CommandLine&) that returns 0, or 1
// for wrong arguments; it runs on the shell's thread, and what it throws is printed.
struct CommandLine {
  OrvexShell& orvex;
  Shell& shell;
  std::span<const char* const> words;  // the first is the command's name

  const char* name() const { return words[0]; }
  size_t argument_count() const { return words.size() - 1; }
  // The argument with that number, from 1 on; empty when there are fewer.
  std::string_view argument(size_t number) const {
    return number < words.size() ? words[number] : std::string_view();
  }

  // A line, in one piece; the newline is added.
  template <typename... Args>
  void Print(fmt::format_string<Args...> format, Args&&... args) const {
    shell.Print(format, std::forward<Args>(args)...);
  }
  // Prints the command's help, or that it takes no arguments when its row has none; for
  // `return command.Usage()` on wrong arguments.
  int Usage() const;
};

// Calls the command for the shell. An exception is printed, with the command's name, and the shell
// goes on; what the command has done before it stays done.
int CallCommand(int (*command)(const CommandLine&), Shell& shell, int argc, const char** argv);

// The handler of a row.
template <int (*command)(const CommandLine&)>
int Run(Shell& shell, int argc, const char** argv) {
  return CallCommand(command, shell, argc, argv);
}

// A text as a template argument.
template <size_t n>
struct FixedText {
  char chars[n];
  // NOLINTNEXTLINE(google-explicit-constructor): rows give plain string literals
  constexpr FixedText(const char (&text)[n]) { std::copy_n(text, n, chars); }
};

// Prints the text, and a newline unless it ends with one.
void PrintHelpText(Shell& shell, std::string text);

// The help of a row: a text in which "{}" or "{0}" stands for the command's name.
template <FixedText text>
int Help(Shell& shell, int, const char** argv) {
  PrintHelpText(shell, fmt::format(fmt::format_string<const char*&>(text.chars), argv[0]));
  return 0;
}
