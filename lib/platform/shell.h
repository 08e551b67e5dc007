// A command interpreter over a line editor: a registry of commands, a loop that reads and runs
// them, a listing and help.
#pragma once

#include <fmt/format.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <string_view>
#include <utility>

#include "lib/platform/line_editor.h"

class Shell;

// A command, in a constant table that lives as long as it is registered: the registry keeps
// references. argv[0] is the command's own name, and argv[argc] is null.
struct ShellCommand {
  using Function = int (*)(Shell& shell, int argc, const char** argv);

  const char* name;  // compared exactly
  Function handler;  // what it returns tells nobody anything; 0 is success, 1 wrong arguments
  // One line for the listing, or null; kHidden leaves the command out of the listing, but it runs
  // and has help as any other.
  const char* description;
  Function help;  // prints how the command is used; null: there is no help

  static constexpr char kHidden[] = "";  // told by its address

  bool IsHidden() const { return description == kHidden; }
};

// One thread runs the loop. The registry is the process's, and may be changed from any thread,
// by a command's handler too.
class Shell {
 public:
  // Registers the built-in commands ("?", "help", "clear"), and removes them when it goes.
  explicit Shell(std::shared_ptr<lattix::LineEditor> editor);
  ~Shell();
  Shell(const Shell&) = delete;
  Shell& operator=(const Shell&) = delete;

  // Appends the commands to the registry, in the order in which they are listed. Two of one name:
  // the first one runs.
  static void AddCommands(const ShellCommand* table, int count);
  // Takes these very records out again; those that are not there are skipped.
  static void RemoveCommands(const ShellCommand* table, int count);
  // The first command of that name, or null.
  static const ShellCommand* FindCommand(const char* name);

  // Prints the welcome and runs commands until one of them asks for the exit, or input ends.
  void Run();
  // From any thread; takes effect when the line that is being read or run is over.
  void RequestExit() { m_exit_requested = true; }

  lattix::LineEditor& editor() { return *m_editor; }

  void Puts(const char* text) { m_editor->Puts(text); }
  void Write(const char* data, size_t length) { m_editor->Write(data, length); }
  // Returns when the terminal has sent everything.
  void Flush() { m_editor->Flush(); }
  // A whole line, in one piece; the newline is added.
  template <typename... Args>
  void Print(fmt::format_string<Args...> format, Args&&... args) {
    PrintLine(fmt::format(format, std::forward<Args>(args)...));
  }
  void PrintLine(std::string line);

 private:
  bool Dispatch(int argc, const char** argv);

  const std::shared_ptr<lattix::LineEditor> m_editor;
  std::atomic<bool> m_exit_requested{false};
};
