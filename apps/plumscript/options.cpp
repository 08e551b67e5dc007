// Options come before the operands, so that what follows FILE is the script's own.
#include "apps/plumscript/options.h"

#include <cstring>

const char kUsage[] =
    "usage: plumscript run [--root DIR] FILE [ARG ...]\n"
    "       plumscript check FILE ...\n"
    "       plumscript disasm FILE\n"
    "       plumscript debug [--root DIR] FILE [ARG ...]\n"
    "       plumscript repl [--root DIR]\n"
    "       plumscript classes [NAME]\n"
    "       plumscript --help | --version\n";

const char kHelp[] =
    "\n"
    "  run      compile FILE and run its Main; a Main with one parameter gets the ARGs in an "
    "array\n"
    "  check    compile each FILE and tell what is wrong\n"
    "  disasm   each function's source lines, followed by their instructions\n"
    "  debug    run FILE and stop in the debugger at an error, a STOP or Ctrl-C; its commands "
    "come\n"
    "           from standard input (help lists them), what it tells goes to standard error, on a\n"
    "           terminal to where the script prints\n"
    "  repl     run the statements typed, one after the other\n"
    "  classes  list the classes, or the methods of the class NAME\n"
    "\n"
    "  --root DIR  the folder that holds the device's files (default: the environment variable\n"
    "              ORVEX_ROOT, or else a folder of its own for each run, in which SD: is the\n"
    "              folder that FILE lies in)\n"
    "\n"
    "Exit status: 0 normal end, 1 FILE did not compile, 2 runtime error, 3 FILE is not there or "
    "is\n"
    "no file, 4 script restart, 5 application restart, 6 reboot, 7 shutdown requested, 64 wrong\n"
    "usage. A run that ends in the debugger has ended normally.\n";

namespace {

constexpr char kHelpOption[] = "--help";
constexpr size_t kAnyNumber = SIZE_MAX;

struct CommandRow {
  const char* name;
  Command command;
  bool takes_root;
  size_t fewest;  // operands
  size_t most;
};

constexpr CommandRow kCommands[] = {
    {"run", Command::kRun, true, 1, kAnyNumber}, {"check", Command::kCheck, false, 1, kAnyNumber},
    {"disasm", Command::kDisasm, false, 1, 1},   {"debug", Command::kDebug, true, 1, kAnyNumber},
    {"repl", Command::kRepl, true, 0, 0},        {"classes", Command::kClasses, false, 0, 1},
    {kHelpOption, Command::kHelp, false, 0, 0},  {"--version", Command::kVersion, false, 0, 0},
};

const CommandRow* FindCommand(const char* name) {
  for (const CommandRow& row : kCommands) {
    if (std::strcmp(row.name, name) == 0) return &row;
  }
  return nullptr;
}

bool IsHelp(const char* word) {
  return std::strcmp(word, kHelpOption) == 0 || std::strcmp(word, "-h") == 0;
}

}  // namespace

bool ParseOptions(int argc, char** argv, Options* options, std::string* error) {
  if (argc < 2) {
    *error = "no command given";
    return false;
  }
  const CommandRow* row = FindCommand(IsHelp(argv[1]) ? kHelpOption : argv[1]);
  if (row == nullptr) {
    *error = std::string("unknown command '") + argv[1] + "'";
    return false;
  }
  options->command = row->command;

  int next = 2;
  for (; next < argc && argv[next][0] == '-' && argv[next][1] != '\0'; ++next) {
    const char* option = argv[next];
    if (IsHelp(option)) {
      options->command = Command::kHelp;
      return true;
    }
    if (std::strcmp(option, "--") == 0) {
      ++next;
      break;
    }
    if (row->takes_root && std::strcmp(option, "--root") == 0) {
      if (next + 1 == argc) {
        *error = "--root: DIR is missing";
        return false;
      }
      options->root = argv[++next];
    } else if (row->takes_root && std::strncmp(option, "--root=", 7) == 0) {
      options->root = option + 7;
    } else {
      *error = std::string("unknown option '") + option + "'";
      return false;
    }
  }

  options->operands = {argv + next, static_cast<size_t>(argc - next)};
  if (options->operands.size() < row->fewest || options->operands.size() > row->most) {
    *error =
        std::string(row->name) +
        (options->operands.size() < row->fewest ? ": FILE is missing" : ": too many arguments");
    return false;
  }
  return true;
}
