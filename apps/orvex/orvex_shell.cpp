// The shell's loop: commands from the console, until one of them or another thread ends it.
#include "apps/orvex/orvex_shell.h"

#include <cstring>

#include "lib/platform/console_owner.h"
#include "lib/scripting/script_bootstrap.h"

OrvexShell::OrvexShell()
    : m_editor(lattix::MakeLineEditor("Orvex> ")),
      m_debugger_console(MakeLineEditorIoConsole(lattix::MakeLineEditor("Plumscript Debugger> "))) {
}

OrvexShell::~OrvexShell() = default;

void OrvexShell::RequestExit(int status) {
  if (m_exit_requested.exchange(true)) return;
  m_exit_status = status;
  m_exit_event.Set();
  lattix::EndConsoleInput();
  const std::lock_guard lock(m_bootstrap_mutex);
  if (m_bootstrap != nullptr) m_bootstrap->RequestEnd();
}

void OrvexShell::RunConsole(const std::string& prompt) {
  m_editor->SetPrompt(prompt);
  m_editor->Run([](int count, const char** words) {
    return count != 1 || std::strcmp(words[0], "exit") != 0;
  });
}
