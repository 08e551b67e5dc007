// Calling a compiled script's Main.
#pragma once

#include <span>

struct psProc;
struct psIo;
struct psDebugSession;
struct pscInstance;

// Runs the Main of the process's module: one without parameters with none, one with a parameter
// with a script array of the arguments. Without arguments it gets default_argument, or, when that
// is null, an empty array. True when the run ended successfully; otherwise the process has the
// error, 172 ("No Main() Found.") when there is no Main. On the script's thread.
bool RunMainWithArgs(psProc* p, psIo* io, psDebugSession* session,
                     std::span<const char* const> arguments,
                     pscInstance* default_argument = nullptr);
