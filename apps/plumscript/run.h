// Running a file from the beginning, with or without a debugger.
#pragma once

#include <span>

class Host;
struct psDebugSession;

// Compiles FILE (the first operand) and runs its Main with the ARGs behind it; session may be null.
// What is wrong goes to standard error. The exit status.
int RunFile(Host& host, std::span<const char* const> operands, psDebugSession* session);
