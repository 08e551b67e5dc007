// Types arbitrary lines into the debugger of a stopped script. The input is a script, a line that
// says "===", and the lines; without such a line it is typed into a script of ours that stops in
// the middle of calls, loops and sums. Whatever is typed, nothing may be left behind.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "fuzz/quiet_runtime.h"
#include "run_debugger.h"

namespace {

constexpr uint64_t kTurns = 20000;
constexpr std::string_view kSeparator = "\n===\n";

constexpr std::string_view kScript = R"(
Sub Main()
  a = [1, 2, 3]
  t = "x"
  t = t + b(a, 3) + t + b(a, 0)
  For Each e In a
    For i = 1 To 3
      Stop
      If i = 2 Then t = e / 0
    Next
  Next
  Print t.missing.member
End Sub
Function b(list As Object, n As Integer) As String
  text = "y"
  If n > 0 Then text = text + b(list, n - 1) + "z" + StrI(n)
  If n = 1 Then Stop
  list.Push(n)
  f = Function(x) : y = x + 1 : Return y : End Function
  q = f(n)
  Eval("v = 1 : stop")
  Return text
End Function
)";

std::string_view typed;

int nextLine(psIo*, char* buffer, size_t size, const char*) {
  if (typed.empty()) return -1;
  const std::string_view line = typed.substr(0, typed.find('\n'));
  typed.remove_prefix(std::min(typed.size(), line.size() + 1));
  const size_t n = std::min(line.size(), size - 1);
  std::memcpy(buffer, line.data(), n);
  return static_cast<int>(n);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  initOnce();
  typed = {reinterpret_cast<const char*>(data), size};
  std::string_view script = kScript;
  if (const size_t at = typed.find(kSeparator); at != std::string_view::npos) {
    script = typed.substr(0, at);
    typed.remove_prefix(at + kSeparator.size());
  }
  psIo io;
  io.putc = [](psIo*, unsigned char) {};
  io.read_line = nextLine;
  psDebugSession* session = DebugCreateSession(nullptr, &io);
  psProc* p = scriptCreateProcess();
  if (scriptCompileText(p, script, "fuzz.plm")) {
    psSetTurnLimit(p, kTurns);
    current = p;
    scriptRun(p, &io, session);
  }
  scriptDestroyProcess(p);
  DebugDeleteSession(session);
  pscGarbageCollect(scriptDomain());
  return 0;
}
