// Compiles arbitrary bytes and runs what compiles, with a limit on loop turns, calls and memory: a
// script can exhaust nothing but itself, and whatever it does, nothing is left behind.
//
// Every program runs twice, in the fused and in the plain form, and must print the same.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "fuzz/quiet_runtime.h"
#include "run_decode.h"

namespace {

constexpr uint64_t kTurns = 20000;
constexpr size_t kOutputLimit = 1 << 20;

std::string output;

std::string run(std::string_view text, bool fused, psStatus* status) {
  psSetFusion(fused);
  psProc* p = scriptCreateProcess();
  output.clear();
  if (scriptCompileText(p, text, "fuzz.plm")) {
    psIo io;
    io.putc = [](psIo*, unsigned char ch) {
      if (output.size() < kOutputLimit) output.push_back(static_cast<char>(ch));
    };
    psSetTurnLimit(p, kTurns);
    current = p;
    scriptRun(p, &io, nullptr);
    *status = p->last_status;
  }
  scriptDestroyProcess(p);
  pscGarbageCollect(scriptDomain());
  return output;
}

bool comparable(std::string_view text, psStatus fused, psStatus plain) {
  // Fused code has fewer places where turns are counted, so it meets the limit later; and what
  // depends on time or chance differs from run to run on its own.
  if (fused == kPsBreak || plain == kPsBreak) return false;
  for (const char* word : {"rnd", "uptime", "RND", "UPTIME", "Rnd", "UpTime"}) {
    if (text.find(word) != std::string_view::npos) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  initOnce();
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  psStatus fused_status = kPsOkay;
  psStatus plain_status = kPsOkay;
  const std::string fused = run(text, true, &fused_status);
  const std::string plain = run(text, false, &plain_status);
  psSetFusion(true);
  if (comparable(text, fused_status, plain_status) &&
      (fused != plain || fused_status != plain_status)) {
    std::fprintf(stderr, "fused (%d):\n%s\nplain (%d):\n%s\n", fused_status, fused.c_str(),
                 plain_status, plain.c_str());
    std::abort();
  }
  return 0;
}
