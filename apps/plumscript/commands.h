// The tool's commands. Each takes its operands and gives the exit status; what it prints goes
// through Out().
#pragma once

#include <span>

// FILE, ARG ...
int RunScript(std::span<const char* const> operands);
// The same with the debugger attached.
int DebugScript(std::span<const char* const> operands);
// FILE ...: the highest status of all files.
int CheckScripts(std::span<const char* const> files);
int DisassembleScript(const char* file);
int RunInteractively();
// name: null for the list of classes.
int ListClasses(const char* name);
