// The operator's shell of the player, and what the process does while it runs.
#pragma once

#include <array>
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "apps/orvex/exit_status.h"
#include "lib/javascript/html_widget.h"
#include "lib/platform/line_editor.h"
#include "lib/platform/shell.h"
#include "lib/platform/simple_event.h"
#include "lib/platform/singleton.h"
#include "lib/scripting/console_on_line_editor.h"
#include "lib/scripting/script_interpreter.h"

class Bootstrap;

// Created by main() when every service is there; its start routine holds the main thread until the
// player is to end.
class OrvexShell : public lattix::Singleton<OrvexShell>, private HtmlWidgetEventHandler {
 public:
  OrvexShell();
  ~OrvexShell();

  // Plays the device's presentation and serves the console. Returns the process's exit status, for
  // the init scripts. Called once.
  int Start();

  // Ends the console, or the supervisor, and with it the player, which then ends in order with this
  // exit status and no other. From any thread, a signal observer too; the first request counts.
  void RequestExit(int status);

  // --- For the commands, on the console's thread ------------------------------------------------

  // The command that runs is the last one; the process ends with this status, unless somebody else
  // has requested another.
  void EndConsole(int status);
  // Where scripts that are started by a command print, and where the debugger reads.
  ScriptConsole& debugger_console() { return *m_debugger_console; }
  // Ends the running presentation and what the playback commands play. False when the presentation
  // does not end.
  bool EndPlayback();
  // Shows a page in place of the last one; false when this player cannot.
  bool PlayHtml(const std::string& url);
  // Of the pages that are shown from now on.
  HtmlWidgetParameters& html_parameters() { return m_html_parameters; }
  // Adds the manufacturing commands and, unless the unit is restricted, the low-level ones; the
  // second call changes nothing.
  void OpenManufacturing();

 private:
  // How the player runs when a supervisor does the presentation. None: there is none, or it failed
  // and the presentation is to be played without.
  std::optional<int> RunSupervised();
  // How it runs when it plays the presentation itself.
  int RunUnsupervised();
  void OnPresentationEnd(ScriptInterpreter::ScriptResult result, bool once);
  static constexpr int kNoRequest = -1;
  bool IsExitRequested() const { return m_requested_status != kNoRequest; }
  // The shell's status as the process's. On the main thread, when the console has ended.
  int ProcessStatus() const;

  void OnHtmlWidgetEvent(const std::map<std::string, std::string>& event) override;

  // Reads and runs commands until `exit`, the end of the input, or RequestExit.
  void RunConsole(const std::string& prompt);

  const std::shared_ptr<lattix::LineEditor> m_editor;
  Shell m_shell;
  bool m_manufacturing = false;          // its commands have been added
  int m_exit_status = kExitShellFailed;  // what the console ended with; its thread's
  std::atomic<int> m_requested_status{kNoRequest};
  SimpleEvent m_exit_event;  // set by RequestExit
  std::mutex m_bootstrap_mutex;
  Bootstrap* m_bootstrap = nullptr;  // while it runs; guarded by m_bootstrap_mutex
  const std::shared_ptr<LineEditorIoConsole> m_debugger_console;
  // What the playback commands have started, alive until the next of its kind or a script.
  enum Playback { kAudio, kVideo, kImage, kHtml, kPlaybackKinds };
  std::array<std::shared_ptr<void>, kPlaybackKinds> m_playback;
  HtmlWidgetParameters m_html_parameters;
};
