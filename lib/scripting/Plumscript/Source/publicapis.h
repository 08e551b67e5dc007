// The runtime's public interface: what a host (the player, the command line tool) uses.
//
// One script process runs on one thread at a time. scriptBreak and scriptRequestEnd may be called
// from any thread while the process exists.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "comp.h"
#include "psc.h"
#include "psiocon.h"

struct psProc;
struct psDebugSession;
struct psFunction;

struct psInitArguments {
  std::vector<std::string> library_prefixes;
  void* host_context = nullptr;
};
// Once a process. Creates the one domain.
void scriptInit(psInitArguments arguments);
void scriptUninit();
pscDomain* scriptDomain();
void* scriptHostContext();

psProc* scriptCreateProcess();  // null when memory is refused
void scriptDestroyProcess(psProc* p);

// Compile into the process's module, replacing a previous one; true on success. path is native;
// name is what messages call the file.
bool scriptCompileFile(psProc* p, const std::string& path, const std::string& name);
bool scriptCompileText(psProc* p, std::string_view text, const std::string& name);
// Removes the first compile error and gives its text (a label error has no line end of its own);
// false when there is none left.
bool scriptNextCompileError(psProc* p, std::string* text);
std::string scriptCompileErrorText(const psCompileError& error);
// The last runtime error's text.
std::string scriptGetRuntimeErrorText(const psProc* p);
// The last 32 characters of a long file name, the first three of them "...".
std::string scriptShortFileName(std::string_view name);

// Runs Main without arguments. True when the run ended successfully.
bool scriptRun(psProc* p, psIo* io, psDebugSession* session);
// Runs a function of the process's module. args are copied. result may be null.
bool scriptRunFunction(psProc* p, psIo* io, psDebugSession* session, psFunction* function,
                       psTypedValue* args, int n, psTypedValue* result);

// Stops the innermost running process with code at its next instruction and ends a wait.
void scriptBreak(psProc* p, psStatus code);
// Ends the process and every process it runs as if END had executed.
void scriptRequestEnd(psProc* p);
