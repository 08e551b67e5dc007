// run and check: compile native files, and run the Main of one.
#include <algorithm>

#include "apps/plumscript/commands.h"
#include "apps/plumscript/host.h"
#include "apps/plumscript/run.h"
#include "lib/scripting/script_main.h"

int RunFile(Host& host, std::span<const char* const> operands, psDebugSession* session) {
  const ExitStatus compiled = host.CompileFile(operands[0]);
  if (compiled != kExitNormal) return compiled;
  bool normal;
  {
    const Host::Run run(host);
    normal = RunMainWithArgs(host.process(), host.console(), session, operands.subspan(1));
  }
  if (host.requested() != kExitNormal) return host.requested();
  if (normal) return kExitNormal;
  host.PrintRuntimeError();
  return kExitRuntimeError;
}

int RunScript(std::span<const char* const> operands) {
  Host host;
  return RunFile(host, operands, nullptr);
}

int CheckScripts(std::span<const char* const> files) {
  Host host;
  int status = kExitNormal;
  for (const char* file : files) status = std::max<int>(status, host.CompileFile(file));
  return status;
}
