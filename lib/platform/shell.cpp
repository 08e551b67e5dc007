// The registry is a list of references in the order of registration, which is the order of the
// listing. Its mutex is never held while a handler runs, so handlers may change the registry.
#include "lib/platform/shell.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "lib/platform/firmware_version.h"

namespace {

int Help(Shell& shell, int argc, const char** argv);
int Clear(Shell& shell, int argc, const char** argv);

constexpr ShellCommand kBuiltIns[] = {
    {"?", Help, "displays this list", nullptr},
    {"help", Help, "provides help on a command", nullptr},
    {"clear", Clear, "clears the terminal window", nullptr},
};

// A line of the listing, its newline included, is cut to fit a terminal's line buffer.
constexpr size_t kLongestListingLine = 255;

struct Registry {
  std::mutex m_mutex;
  std::vector<const ShellCommand*> m_commands;
  bool m_has_built_ins = false;

  static Registry& Get() {
    static Registry registry;
    return registry;
  }

  void Add(const ShellCommand* table, size_t count) {
    for (size_t i = 0; i < count; ++i) m_commands.push_back(&table[i]);
  }
};

void List(Shell& shell) {
  shell.Puts("Valid commands are:\n");
  Registry& registry = Registry::Get();
  std::lock_guard lock(registry.m_mutex);
  size_t width = 0;
  for (const ShellCommand* command : registry.m_commands) {
    if (!command->IsHidden()) width = std::max(width, std::strlen(command->name));
  }
  for (const ShellCommand* command : registry.m_commands) {
    if (command->IsHidden()) continue;
    const std::string line =
        command->description == nullptr
            ? fmt::format(" {}", command->name)
            : fmt::format(" {:<{}} - {}", command->name, width, command->description);
    shell.PrintLine(line.substr(0, kLongestListingLine - 1));
  }
}

int Help(Shell& shell, int argc, const char** argv) {
  if (argc < 2) {
    List(shell);
    return 0;
  }
  const char* const name = argv[1];
  const ShellCommand* const command = Shell::FindCommand(name);
  if (command == nullptr) {
    shell.Print("help: '{}': unknown command", name);
    return 1;
  }
  if (command->help == nullptr) {
    shell.Print("help: No help for {}", name);
    return 0;
  }
  return command->help(shell, argc - 1, argv + 1);
}

int Clear(Shell& shell, int argc, const char**) {
  // Cursor to the top left, erase the screen.
  shell.Puts(argc == 1 ? "\x1b[H\x1b[2J" : "usage: clear\n");
  return 0;
}

}  // namespace

Shell::Shell(std::shared_ptr<lattix::LineEditor> editor) : m_editor(std::move(editor)) {
  AddCommands(nullptr, 0);
}

Shell::~Shell() { RemoveCommands(kBuiltIns, std::size(kBuiltIns)); }

void Shell::AddCommands(const ShellCommand* table, int count) {
  Registry& registry = Registry::Get();
  std::lock_guard lock(registry.m_mutex);
  if (!std::exchange(registry.m_has_built_ins, true)) {
    registry.Add(kBuiltIns, std::size(kBuiltIns));
  }
  registry.Add(table, static_cast<size_t>(count));
}

void Shell::RemoveCommands(const ShellCommand* table, int count) {
  Registry& registry = Registry::Get();
  std::lock_guard lock(registry.m_mutex);
  auto& commands = registry.m_commands;
  for (int i = 0; i < count; ++i) {
    const auto found = std::find(commands.begin(), commands.end(), &table[i]);
    if (found != commands.end()) commands.erase(found);
  }
  if (count > 0 && table == kBuiltIns) registry.m_has_built_ins = false;
}

const ShellCommand* Shell::FindCommand(const char* name) {
  Registry& registry = Registry::Get();
  std::lock_guard lock(registry.m_mutex);
  for (const ShellCommand* command : registry.m_commands) {
    if (std::strcmp(command->name, name) == 0) return command;
  }
  return nullptr;
}

void Shell::PrintLine(std::string line) {
  line += '\n';
  Write(line.data(), line.size());
}

void Shell::Run() {
  Print("\n\nWelcome to the Orvex Shell version {} ({}){}", lattix::FirmwareVersion(),
        lattix::FirmwareBuildDate(), "");
  Puts("Type '?' for help or 'help <command>' for help on <command>.\n\n");
  m_editor->Run([this](int argc, const char** argv) { return Dispatch(argc, argv); });
}

bool Shell::Dispatch(int argc, const char** argv) {
  if (argc < 1) return !m_exit_requested;
  const ShellCommand* const command = FindCommand(argv[0]);
  if (command == nullptr) {
    Puts(argv[0]);
    Puts(": command not found\n\n");
    return true;
  }
  command->handler(*this, argc, argv);
  Puts("\n");
  return !m_exit_requested;
}
