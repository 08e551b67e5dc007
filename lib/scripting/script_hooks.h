// The platform hooks (Plumscript/Source/hooks.h) that every host of scripts fills the same way.
//
// Files and drives go through the process's FilenameMapper. One script runs at a time in a process,
// so a sleep needs no more than one descriptor to wait on.
#pragma once

#include "lib/scripting/Plumscript/Source/hooks.h"

// What a script asks of its device, with the number that its run then ends with.
enum class ScriptRequest : int {
  kRestartScript = 4,
  kRestartApplication = 5,
  kReboot = 6,
  kShutdown = 7,
};
// The line that is logged for a request, with its newline.
const char* ScriptRequestLog(ScriptRequest request);

// The hooks for files, drives, sleeping and requests; a host adds its own to them and installs the
// result. The mapper, a singleton, is looked up when a hook is called. `request` is called on the
// script's thread, and must see to it that the run ends.
psHostHooks CommonScriptHooks(void (*request)(ScriptRequest));
