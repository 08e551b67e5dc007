#include "apps/orvex/command_line.h"

#include <exception>

#include "apps/orvex/orvex_shell.h"

int CommandLine::Usage() const {
  const ShellCommand* const command = Shell::FindCommand(name());
  if (command != nullptr && command->help != nullptr) {
    const char* argv[] = {name(), nullptr};
    command->help(shell, 1, argv);
  } else {
    Print("Usage: {}", name());
  }
  return 1;
}

int CallCommand(int (*command)(const CommandLine&), Shell& shell, int argc, const char** argv) {
  try {
    return command({OrvexShell::GetInstance(), shell, {argv, static_cast<size_t>(argc)}});
  } catch (const std::exception& e) {
    shell.Print("Command \"{}\", generated exception: {}", argv[0], e.what());
  } catch (...) {
    shell.Print("Command Generated unknown exception");
  }
  return 1;
}

void PrintHelpText(Shell& shell, std::string text) {
  if (text.ends_with('\n')) text.pop_back();
  shell.PrintLine(std::move(text));
}
