// classes: what there is to create, and what it can do.
#include "apps/plumscript/commands.h"
#include "apps/plumscript/host.h"
#include "apps/plumscript/output.h"
#include "lib/scripting/Plumscript/Source/listing.h"

int ListClasses(const char* name) {
  const Host host;
  if (name == nullptr) {
    pscEnumeratePublicClasses(
        [](pscClass* cl, void*) { Out().Write(std::string(cl->ln_Name) + "\n"); }, nullptr);
    return kExitNormal;
  }
  std::string text;
  if (psMethodsListing(name, &text)) {
    Out().Write(text);
    return kExitNormal;
  }
  Out().Error(text);
  return kExitLoadError;
}
