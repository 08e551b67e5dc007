// run and check: compile native files, and run the Main of one.
#include <algorithm>

#include "apps/plumscript/commands.h"
#include "apps/plumscript/host.h"
#include "apps/plumscript/run.h"
#include "lib/scripting/Plumscript/Source/clwrappers.h"
#include "lib/scripting/Plumscript/Source/containers.h"

namespace {

// The arguments as script text in an array, one reference; null when memory is refused.
pscInstance* ArgumentArray(pscDomain* domain, std::span<const char* const> arguments) {
  pscInstance* array = pscCreateArray(domain, 0, true);
  for (size_t i = 0; array != nullptr && i < arguments.size(); ++i) {
    pscInstance* text = psNewString(domain, arguments[i]);
    if (text == nullptr) {
      pscSubRef(array);
      return nullptr;
    }
    // Marked as every value that goes into a container.
    psTypedValue value = psObjectValue(text);
    value.type_flags |= kPsBoxedFlag;
    psArrayPush(pscData<psArray>(array), value);
  }
  return array;
}

bool RunMain(Host& host, std::span<const char* const> arguments, psDebugSession* session) {
  psProc* p = host.process();
  psFunction* main = p->mod->main_function;
  if (main == nullptr || main->parameters() == 0) return scriptRun(p, host.console(), session);

  pscInstance* array = ArgumentArray(p->domain, arguments);
  if (array == nullptr) {
    p->last_status = kPsOutOfMemory;
    return false;
  }
  psTypedValue value = psObjectValue(array);
  psTypedValue result = psUninitializedValue();
  const bool normal = scriptRunFunction(p, host.console(), session, main, &value, 1, &result);
  ReleaseValue(&result);
  pscSubRef(array);
  return normal;
}

}  // namespace

int RunFile(Host& host, std::span<const char* const> operands, psDebugSession* session) {
  const ExitStatus compiled = host.CompileFile(operands[0]);
  if (compiled != kExitNormal) return compiled;
  bool normal;
  {
    const Host::Run run(host);
    normal = RunMain(host, operands.subspan(1), session);
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
