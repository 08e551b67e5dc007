// The shell's loop: commands from the console, until one of them or another thread ends it.
#include "apps/orvex/orvex_shell.h"

#include <span>

#include "apps/orvex/command_files.h"
#include "apps/orvex/command_tables.h"
#include "lib/hardware/hardware_config.h"
#include "lib/platform/console_owner.h"
#include "lib/platform/log.h"
#include "lib/scripting/CommonAPI/Include/object_globals.h"
#include "lib/scripting/script_autorun.h"
#include "lib/scripting/script_bootstrap.h"

namespace {

void Add(std::span<const ShellCommand> table) {
  Shell::AddCommands(table.data(), static_cast<int>(table.size()));
}
void Remove(std::span<const ShellCommand> table) {
  Shell::RemoveCommands(table.data(), static_cast<int>(table.size()));
}

}  // namespace

OrvexShell::OrvexShell()
    : m_editor(lattix::MakeLineEditor("Orvex> ")),
      m_shell(m_editor),
      m_debugger_console(MakeLineEditorIoConsole(lattix::MakeLineEditor("Plumscript Debugger> "))) {
  Add(GeneralCommands());
  Add(NetworkCommands());
  Add(DisplayCommands());
}

OrvexShell::~OrvexShell() {
  Remove(LowLevelCommands());
  Remove(ManufacturingCommands());
  Remove(DisplayCommands());
  Remove(NetworkCommands());
  Remove(GeneralCommands());
}

void OrvexShell::RequestExit(int status) {
  int none = kNoRequest;
  if (!m_requested_status.compare_exchange_strong(none, status)) return;
  m_exit_event.Set();
  lattix::EndConsoleInput();
  const std::lock_guard lock(m_bootstrap_mutex);
  if (m_bootstrap != nullptr) m_bootstrap->RequestEnd();
}

void OrvexShell::RunConsole(const std::string& prompt) {
  m_editor->SetPrompt(prompt);
  m_shell.Run();
}

void OrvexShell::EndConsole(int status) {
  m_exit_status = status;
  m_shell.RequestExit();
}

bool OrvexShell::EndPlayback() {
  const auto invoker = KelvoObjectGlobals::GetInstance().GetAutoScriptInvoker();
  if (invoker != nullptr && !invoker->Stop()) return false;
  for (std::shared_ptr<void>& object : m_playback) object.reset();
  return true;
}

bool OrvexShell::PlayHtml(const std::string& url) {
  m_playback[kHtml].reset();
  const auto widget = CreateHtmlWidget(m_html_parameters, *this);
  if (widget == nullptr || !widget->SetUrl(url)) return false;
  m_playback[kHtml] = widget;
  return true;
}

void OrvexShell::OnHtmlWidgetEvent(const std::map<std::string, std::string>& event) {
  for (const auto& [name, value] : event) {
    lattix::Log("htmlplay: {}={}\n", Printable(name), Printable(value));
  }
}

void OrvexShell::OpenManufacturing() {
  if (m_manufacturing) return;
  m_manufacturing = true;
  Add(ManufacturingCommands());
  if (HardwareConfig::GetInstance().IsRestricted()) return;
  Add(LowLevelCommands());
  KelvoObjectGlobals::GetInstance().EnableManufacturingMode();
}
