// The argument array is held by this function for as long as the run lasts, and by the script as
// long as it likes.
#include "lib/scripting/script_main.h"

#include "lib/scripting/Plumscript/Source/clwrappers.h"
#include "lib/scripting/Plumscript/Source/containers.h"
#include "lib/scripting/Plumscript/Source/publicapis.h"
#include "lib/scripting/Plumscript/Source/run.h"

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

}  // namespace

bool RunMainWithArgs(psProc* p, psIo* io, psDebugSession* session,
                     std::span<const char* const> arguments, pscInstance* default_argument) {
  psFunction* main = p->mod != nullptr ? p->mod->main_function : nullptr;
  if (main == nullptr || main->parameters() == 0) return scriptRun(p, io, session);

  pscInstance* argument = default_argument;
  if (argument == nullptr || !arguments.empty()) {
    argument = ArgumentArray(p->domain, arguments);
    if (argument == nullptr) {
      p->last_status = kPsOutOfMemory;
      return false;
    }
  } else {
    pscAddRef(argument);
  }
  psTypedValue value = psObjectValue(argument);
  psTypedValue result = psUninitializedValue();
  const bool normal = scriptRunFunction(p, io, session, main, &value, 1, &result);
  ReleaseValue(&result);
  pscSubRef(argument);
  return normal;
}
