// What the process's exit status tells the init scripts.
#pragma once

// Anything else is a status that the shell was ended with, or, when the player ends with its
// presentation, the script's result.
enum ExitStatus {
  kExitShellFailed = 1,  // how the shell ends by itself; becomes kExitRestart or kExitService
  kExitService = 41,     // no start is possible, or the end of a restricted unit's shell
  kExitRestart = 42,     // the operator ended the shell
  kExitTerminated = 43,  // SIGTERM, or not started because the system is going down
  kExitRestartApplication = 44,
  kExitInterrupted = 130,  // SIGINT, where no console takes it; as a shell counts signals
};
