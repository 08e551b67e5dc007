// The command line: which command, with what.
#pragma once

#include <span>
#include <string>

enum class Command { kRun, kCheck, kDisasm, kDebug, kRepl, kClasses, kHelp, kVersion };

struct Options {
  Command command = Command::kHelp;
  const char* root = nullptr;  // --root; null when not given
  // run, debug: FILE and the ARGs. check: the FILEs. disasm: FILE. classes: NAME, if given.
  std::span<const char* const> operands;
};

// False, with the reason in *error (one line, without its end), when the command line is wrong.
bool ParseOptions(int argc, char** argv, Options* options, std::string* error);

extern const char kUsage[];
extern const char kHelp[];
