// Compiles arbitrary bytes: every text gives a module or errors, and a module lists and
// disassembles.
#include <cstdint>
#include <string>

#include "disasm.h"
#include "publicapis.h"
#include "run.h"

namespace {

void initOnce() {
  static const bool done = [] {
    pscSetPrintHook([](void*, psText) {}, nullptr);
    scriptInit({});
    return true;
  }();
  (void)done;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  initOnce();
  psProc* p = scriptCreateProcess();
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  if (scriptCompileText(p, text, "fuzz.plm")) {
    for (psFunction* function : p->mod->functions) {
      std::string listing;
      for (uint32_t pc = 0; pc < function->code.size();) {
        const uint32_t next = DisasmStmt(function, pc, &listing);
        if (next <= pc) __builtin_trap();
        pc = next;
      }
    }
  } else {
    std::string error;
    while (scriptNextCompileError(p, &error)) {
    }
  }
  scriptDestroyProcess(p);
  return 0;
}
