// Sessions, the shell's loop, stepping, and statements that run in a stopped frame. The commands
// are a table of their own (run_debugger_commands.cpp).
//
// The shell runs between two rounds of the interpreter loop, when every frame's position is saved
// and no operation is half done; that is why it may compile, move locals and run code. Everything
// it changes about the process while a statement runs (current frame, channel, record of the last
// error) is put back before the next prompt.
#include "run_debugger.h"

#include <cstring>
#include <string>
#include <utility>

#include "disasm.h"
#include "publicapis.h"
#include "run.h"
#include "run_debugger_internal.h"

namespace {

constexpr char kGreeting[] =
    "Plumscript Micro Debugger.\nEnter any Plumscript statement, debug commands, or HELP.\n\n";
constexpr psStatus kStay = 0;

void setStepFlag(psProc* p, bool on) {
  if (on) {
    p->break_word.fetch_or(kPsBreakStep);
  } else {
    p->break_word.fetch_and(~kPsBreakStep);
  }
}

void endStep(psDebugSession* s) {
  if (s->stepping != nullptr) setStepFlag(s->stepping, false);
  s->stepping = nullptr;
  s->show_source = false;
  s->show_disassembly = false;
  s->last_function = nullptr;
  s->last_line = nullptr;
  s->quiet_function = nullptr;
}

bool stickyBreak(const psProc* p) { return (p->break_word.load() & kPsBreakSticky) != 0; }

// A break that came while the shell was in charge has nothing left to break.
void clearBreakCode(psProc* p) {
  uint32_t word = p->break_word.load();
  while ((word & kPsBreakSticky) == 0 &&
         !p->break_word.compare_exchange_weak(word, word & ~kPsBreakCodeMask)) {
  }
}

bool covers(const psLineData* line, const psFunction* function, uint32_t pc) {
  return line != nullptr && line->function == function && pc >= line->pc_start &&
         line->pc_last >= 0 && pc <= static_cast<uint32_t>(line->pc_last);
}

const psLineData* lineAt(const psProc* p, uint32_t pc, const psFunction* function) {
  return DebugPCToLine(p->mod, static_cast<int32_t>(pc), function);
}

// A line that the run is still inside of costs no search: a trace of a long loop comes here for
// every instruction.
bool stepHook(psProc* p, uint32_t pc) {
  psDebugSession* s = p->debug_session;
  if (s->stepping != p) return false;
  psFunction* function = p->ctx->sub;
  const psLineData* line =
      covers(s->last_line, function, pc) ? s->last_line : lineAt(p, pc, function);
  if (s->show_source) debugPrintSource(s->debug_con, line);
  if (s->show_disassembly && s->last_executed) {
    std::string text = "<no disassm>\n";
    if (lineAt(p, s->last_pc, s->last_function) != nullptr) {
      text.clear();
      DisasmStmt(s->last_function, s->last_pc, &text);
    }
    io_write(s->debug_con, text);
  }
  s->last_pc = pc;
  s->last_function = function;
  s->last_executed = true;
  // Code without a record belongs to the line it was reached from, and so does evaluated text with
  // all that it calls: a stop there would be the text's failure.
  if (line == nullptr || line == s->last_line || p->eval_depth > 0) return false;
  s->last_line = line;
  return true;
}

void detached(psProc* p) {
  if (p->debug_session->stepping == p) endStep(p->debug_session);
}

void stopReport(psProc* p) {
  psIo* io = p->debug_session->debug_con;
  if (!io_at_line_start(io)) io_putc(io, '\n');
  io_write(io, "Current Function:\n");
  debugList(p);
  if (p->last_status == kPsBreak) {
    const psLineData* line = debugFrameLine(p, p->ctx);
    io_printf(io, "Break in %d\n", line != nullptr ? line->line_num : 0);
  } else {
    io_write(io, scriptGetRuntimeErrorText(p) + '\n');
  }
  debugLast(p);
  io_write(io, "Backtrace:\n");
  debugBacktrace(p);
  io_write(io, "\nLocal Variables:\n");
  debugVariables(p);
}

void selectInnermost(psProc* p) {
  p->debug_session->selected = p->ctx;
  p->debug_session->below.clear();
}

psStatus readCommands(psProc* p) {
  psIo* io = p->debug_session->debug_con;
  char line[kPsDebugLineSize];
  for (;;) {
    if (stickyBreak(p)) {
      pscPrint("Sticky break!\n");
      return kPsNormalEnd;
    }
    // Before the line is read: a break that comes once it is typed is meant for what it runs.
    clearBreakCode(p);
    const int n = io_read_line(io, line, sizeof line, kPsDebugPrompt);
    if (n < 0) return kPsNormalEnd;
    if (n == 0 || stickyBreak(p)) continue;
    const psStatus next = DebugExecuteLine(p, psText(line, static_cast<size_t>(n)));
    if (next != kStay) return next;
  }
}

void assertAttached(const psProc* p) {
  psAssertText(p != nullptr, "code");
  psAssertText(p->debug_session != nullptr, "code->debug_session");
  psAssertText(p->debug_session->debug_con != nullptr, "io");
}

}  // namespace

// --- Sessions ---------------------------------------------------------------------------------

psDebugSession* DebugCreateSession(const char* kind, psIo* console) {
  psAssertText(console != nullptr, "console");
  psAssertText(kind == nullptr || std::strcmp(kind, "dumper") == 0, "kind");
  auto* s = new psDebugSession;
  s->debug_con = console;
  s->shell = kind == nullptr ? DDShell : DDShellDumper;
  s->step_hook = stepHook;
  s->detach_hook = detached;
  return s;
}

void DebugDeleteSession(psDebugSession* session) {
  if (session->delete_hook != nullptr) session->delete_hook(session);
  if (session->owns_debug_con) {
    psAssertText(session->debug_con != nullptr, "s->debug_con");
    io_close(session->debug_con);
  }
  delete session;
}

void DebugAttachSession(psProc* p, psDebugSession* session) {
  psAssertText(p->debug_session == nullptr, "code->debug_session == ((void *)0)");
  p->debug_session = session;
  if (session->attach_hook != nullptr) session->attach_hook(p);
}

void DebugDetachSession(psProc* p) {
  psAssertText(p->debug_session != nullptr, "code->debug_session");
  if (p->debug_session->detach_hook != nullptr) p->debug_session->detach_hook(p);
  p->debug_session = nullptr;
}

bool DebugPauseStep(psProc* p) {
  const psDebugSession* s = p->debug_session;
  if ((p->break_word.load() & kPsBreakStep) == 0) return false;
  if (s == nullptr || s->show_source || s->show_disassembly) return false;
  setStepFlag(p, false);
  return true;
}

// The text may have run a program in which the operator has gone on without this step.
void DebugResumeStep(psProc* p) {
  if (p->debug_session != nullptr && p->debug_session->stepping == p) setStepFlag(p, true);
}

// --- Shells -----------------------------------------------------------------------------------

psStatus DDShell(psProc* p) {
  assertAttached(p);
  psDebugSession* s = p->debug_session;
  io_flush(s->debug_con);
  if (!s->greeted) io_write(s->debug_con, kGreeting);
  s->greeted = true;

  // A statement of an outer process's shell may have started this one.
  subctx* const outer_selected = s->selected;
  std::vector<subctx*> outer_below = std::move(s->below);
  selectInnermost(p);
  const bool stepped = s->stepping != nullptr;
  endStep(s);
  if (!stepped || p->last_status != kPsBreak) stopReport(p);
  const psStatus next = readCommands(p);
  s->selected = outer_selected;
  s->below = std::move(outer_below);
  return next;
}

psStatus DDShellDumper(psProc* p) {
  assertAttached(p);
  io_flush(p->debug_session->debug_con);
  selectInnermost(p);
  stopReport(p);
  selectInnermost(p);
  p->debug_session->selected = nullptr;
  return kPsNormalEnd;
}

// --- Stepping and statements ------------------------------------------------------------------

void debugBeginStep(psProc* p, bool disassembly) {
  psDebugSession* s = p->debug_session;
  s->stepping = p;
  s->show_disassembly = disassembly;
  s->last_pc = p->ctx->pc;
  s->last_function = p->ctx->sub;
  s->last_line = lineAt(p, p->ctx->pc, p->ctx->sub);
  s->last_executed = false;
  if (!disassembly && s->last_line != nullptr && s->last_line->pc_last >= 0) {
    s->quiet_function = s->last_function;
    s->quiet_first = s->last_line->pc_start;
    s->quiet_last = static_cast<uint32_t>(s->last_line->pc_last);
  }
  setStepFlag(p, true);
}

void debugRunStatements(psProc* p, psText text) {
  psDebugSession* s = p->debug_session;
  psIo* io = s->debug_con;
  psFunction* function = s->selected->sub;
  const psLiveMark mark = LiveMark(p->mod, function);
  uint32_t start = 0;
  for (const psCompileError& error : LiveCompile(text, p->mod, function, &start, p->domain)) {
    io_write(io, scriptCompileErrorText(error) + '\n');
  }
  if (function->code.size() == mark.code) return;  // it did not compile

  const psStatus stop_status = p->last_status;
  const int32_t stop_offset = p->error_offset;
  psFunction* const stop_function = p->error_function;
  subctx* const innermost = std::exchange(p->ctx, s->selected);
  psIo* const run_io = std::exchange(p->io, io);

  pscNotifyRunning(p->domain);
  const psStatus status = psRunAppended(p, start);
  pscNotifyStopped(p->domain);
  if (status != kPsNormalEnd) {
    p->last_status = status;
    io_write(io, scriptGetRuntimeErrorText(p) + '\n');
  }

  p->io = run_io;
  p->ctx = innermost;
  p->last_status = stop_status;
  p->error_offset = stop_offset;
  p->error_function = stop_function;
  LiveForget(p->mod, function, mark);
}
