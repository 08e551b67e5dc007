// The host of scripts in the tool: the runtime with one script process, the console, the platform
// hooks, the requests a script makes of its device, and the signals.
//
// A device request (restart, reboot, shut-down) never touches the machine: it is logged, ends the
// run and becomes the exit status. SIGINT is a break of the running script; a second one, or one
// while no script runs, ends the process. There is one host at a time. Signals are taken on the
// script's thread, which is the process's first one; every other thread blocks them.
#pragma once

#include <string>

#include "apps/plumscript/exit_status.h"
#include "lib/scripting/CommonAPI/Include/object_globals.h"
#include "lib/scripting/Plumscript/Source/publicapis.h"
#include "lib/scripting/Plumscript/Source/run.h"
#include "lib/scripting/filename_mapper.h"
#include "lib/scripting/script_hooks.h"

class Host {
 public:
  // Starts the runtime. Unless ORVEX_ROOT is set, device paths lie in a private root.
  Host();
  // Ends the runtime and removes the private root.
  ~Host();
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  psProc* process() { return m_process; }
  // Writes to standard output.
  psIo* console() { return &m_console; }

  // The folder of a native file becomes SD: of the private root; null: the current folder.
  void SetScript(const char* file);
  // Compiles a native file into the process. What is wrong goes to standard error.
  ExitStatus CompileFile(const char* file);
  void PrintCompileErrors();
  void PrintCompileErrors(const psCompileErrors& errors);
  void PrintRuntimeError();

  // While a run lasts, SIGINT breaks it and requests end it.
  class Run {
   public:
    explicit Run(Host& host);
    ~Run();
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;
  };

  // While a person decides what the run does next: a SIGINT is not its business, and the first one
  // afterwards breaks it again.
  class Pause {
   public:
    explicit Pause(Host& host);
    ~Pause();
    Pause(const Pause&) = delete;
    Pause& operator=(const Pause&) = delete;

   private:
    Host& m_host;
  };

  // What a script asked of the device: an exit status, or kExitNormal.
  ExitStatus requested() const { return m_requested; }

 private:
  static void Request(ScriptRequest request);
  void InstallHooks();
  // From now on a SIGINT breaks the script, or does not.
  void TakeBreaks();
  static void LeaveBreaks();

  KelvoObjectGlobals m_globals;
  FilenameMapper& m_mapper = m_globals.GetFilenameMapper();
  psIo m_console;
  psProc* m_process = nullptr;
  // The native file being compiled, which openFile opens as it is.
  std::string m_source;
  ExitStatus m_requested = kExitNormal;
};

// Signals. Until TakeSignals they keep their default effect; from then on SIGINT, SIGTERM and
// SIGHUP remove the private root before they end the process.
void TakeSignals();

// A session at a terminal: from now on a SIGINT while no script runs is noted instead of ending the
// process. It belongs to the line being typed, or else breaks the next run at once.
void BeginSession();
// True once for a SIGINT that was noted.
bool TakeInterrupt();

// Writes what standard output still holds. The exit status to end with: the one given, unless
// standard output has failed (told on standard error, except for a reader that has gone).
int FinishOutput(int status);
