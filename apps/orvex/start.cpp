// The start routine: the presentation in one thread, the console in this one.
#include "apps/orvex/orvex_shell.h"

int OrvexShell::Start() {
  RunConsole("Orvex(unsupervised)> ");
  const int status = GetExitStatus();
  return status == 1 ? 42 : status;
}
