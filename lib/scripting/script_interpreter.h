// Running one script: from its drive-style name to the result of its Main.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "lib/scripting/Plumscript/Source/psiocon.h"

class ScriptInterpreter;

// Told of what becomes of a run, on the thread that runs it.
class ScriptInterpreterEventObserver {
 public:
  // The script has compiled; its Main is called next.
  virtual void OnScriptLoaded(ScriptInterpreter& interpreter) = 0;

 protected:
  ~ScriptInterpreterEventObserver() = default;
};

// Run belongs to one thread at a time, and one script runs at a time in a process. AsyncInterrupt
// and Stop may be called from any thread as long as the interpreter exists, the rest from the
// running thread, or any other while nothing runs.
class ScriptInterpreter {
 public:
  // The numbers are exit statuses too.
  enum ScriptResult : int {
    kNormal = 0,         // Main returned, or the run was stopped
    kLoadError = 1,      // did not compile
    kRuntimeError = 2,   // failed, was interrupted, or has no Main
    kFileError = 3,      // the name maps to nothing, or there is no such file
    kRestartScript = 4,  // 4 to 7: what the script asked for
    kRestartApplication = 5,
    kReboot = 6,
    kShutdown = 7,
  };

  enum class InterruptDisposition : int {
    kBreak = 0,  // the operator's Ctrl-C or button: to the debugger if there is one, else an error
    kEnd = 1,    // the run ends as if END had executed
  };

  virtual ~ScriptInterpreter() = default;

  // Asks the running script to stop at its next instruction, and ends a wait that it is in. Without
  // a run, or when the script is inside a native call that does not listen, nothing happens now; an
  // interrupt that finds no run is forgotten.
  virtual void AsyncInterrupt(InterruptDisposition disposition) = 0;

  // Compiles the file of that drive-style name and calls its Main with the arguments. hash_source
  // names the file whose content identifies the script in the log, when that is not the file itself
  // (an archive that it came out of); empty: the file. The observer may be null. Throws nothing but
  // std::bad_alloc.
  //
  // An empty name is an interactive session: statements typed at the console's debugger run one
  // after the other.
  virtual ScriptResult Run(const std::string& file, const std::string& hash_source, int argc,
                           const char* const* argv, ScriptInterpreterEventObserver* observer) = 0;

  // Ends the run that is under way, and every later one before it begins: a stopped interpreter
  // stays stopped.
  virtual void Stop() = 0;

  // What went wrong in the last run, in the order it was found; a line each, without line ends.
  virtual const std::vector<std::string>& GetErrors() const = 0;
  // To the console: "Errors during load:\n" and a line "  {}\n" each, or "Error: {}\n" for one.
  // Nothing when the console had them during the run, as the errors of a script that has begun.
  virtual void PrintErrors() = 0;

  // Whether an operator has used the debugger, or been asked whether to, in the last run.
  virtual bool WasOfferedDebugger() const = 0;
  // Whether the debugger has been entered in the last run.
  virtual bool WasDebugged() const = 0;
};

struct ScriptInterpreterOptions {
  // Where PRINT goes and where the debugger reads; must outlive the interpreter. Null: standard
  // output, and no debugger.
  psIo* console = nullptr;
  // A runtime error, STOP or interrupt enters the debugger, if the console can be read.
  bool debug = false;
  // SIGINT interrupts the run; after a runtime error an operator may still choose to debug.
  bool interruptible = false;
  // For how long that choice is offered.
  std::chrono::milliseconds debug_choice = std::chrono::seconds(10);
};

// Throws std::runtime_error "Failed to create debug session" or "Failed to create Plumscript
// process" when there is not enough memory. The first interpreter in a process starts the runtime
// (see ScriptRuntime), for which there must be KelvoObjectGlobals.
std::unique_ptr<ScriptInterpreter> CreateScriptInterpreter(const ScriptInterpreterOptions& options);

// How an operator gets into the debugger, or out of the wait for a storage; a line with its
// newline. It depends on the environment variable CONSOLE_SERIAL, which names the serial console if
// the device has one.
std::string DebugPrompt();
std::string InterruptPrompt();
