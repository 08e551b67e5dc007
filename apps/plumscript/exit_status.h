// The tool's exit statuses. The first eight are the script results that the player knows too.
#pragma once

enum ExitStatus : int {
  kExitNormal = 0,
  kExitLoadError = 1,
  kExitRuntimeError = 2,
  kExitFileError = 3,
  kExitRestartScript = 4,
  kExitRestartApplication = 5,
  kExitReboot = 6,
  kExitShutdown = 7,
  kExitUsage = 64,
  // Standard output failed: as EX_IOERR of sysexits.h, and, when its reader has gone, the status a
  // shell shows for a program that SIGPIPE ended.
  kExitOutputError = 74,
  kExitOutputClosed = 141,
};
