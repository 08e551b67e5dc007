// disasm: every function of a script, as the debugger lists it.
#include "apps/plumscript/commands.h"
#include "apps/plumscript/host.h"
#include "apps/plumscript/output.h"
#include "lib/scripting/Plumscript/Source/listing.h"

int DisassembleScript(const char* file) {
  Host host;
  const ExitStatus compiled = host.CompileFile(file);
  if (compiled != kExitNormal) return compiled;
  for (const psFunction* function : host.process()->mod->functions) {
    Out().Write(psFunctionHeader(function, function->parameters()));
    Out().Write(psFunctionListing(function, true));
  }
  return kExitNormal;
}
