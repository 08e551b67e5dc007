// The private device root of a run: a folder in the machine's temporary folder that is made when a
// device path is first used and removed when the tool ends.
//
// Removing it is possible from a signal handler, so that an interrupted tool leaves nothing behind:
// the path lies in static storage and only system calls are made.
#pragma once

#include <string>

// The folder that SD: stands for; may be called again for the next script. Native path.
void SetPrivateRootFolder(const std::string& folder);

// Makes the root and gives its path. When that fails, the reason goes to standard error and the
// path is one below which nothing can exist: every device path then fails, and none is the
// machine's own.
std::string MakePrivateRoot();

// Removes it if it was made. Async-signal-safe.
void RemovePrivateRoot();
