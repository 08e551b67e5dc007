// The debugger: a shell over a console channel that the interpreter enters when a run stops with an
// error, a STOP, a break or a completed step while a session is attached to its process.
//
// A session belongs to whoever created it and to the thread of the script it is attached to. A
// program that the script starts with Run is debugged by the same session, which is then attached
// to both processes; the shell of the inner one leaves the outer one's selection as it was.
//
// While the shell reads from its channel it takes no notice of other threads but through the
// process's break word: a request to end is seen when the read returns, so a host that ends a run
// also makes the read return (with nothing, or closed). A break that comes while it reads is
// dropped.
#pragma once

#include <cstdint>
#include <vector>

#include "comp_mod.h"
#include "psiocon.h"
#include "status.h"

struct psProc;
struct subctx;

// Bytes of the buffer a line is read into; longer lines are the channel's to cut or to refuse.
constexpr int kPsDebugLineSize = 2048;
constexpr char kPsDebugPrompt[] = "Plumscript Debugger> ";

struct psDebugSession {
  // Each may be null. delete_hook, attach_hook and detach_hook are called once, at that moment.
  void (*delete_hook)(psDebugSession* session) = nullptr;
  void (*attach_hook)(psProc* p) = nullptr;
  void (*detach_hook)(psProc* p) = nullptr;
  // Before every instruction while the process's step flag is set; true stops the run with 248.
  bool (*step_hook)(psProc* p, uint32_t pc) = nullptr;
  // A run stopped with a status. 255 continues it, 252 ends it.
  psStatus (*shell)(psProc* p) = nullptr;
  void (*entry_hook)(psProc* p, int what, psFunction* function) = nullptr;  // 0 push, 1 pop, 2 exit

  psIo* debug_con = nullptr;    // the channel the shell reads and writes
  bool owns_debug_con = false;  // DebugDeleteSession closes it
  bool greeted = false;         // the banner has been printed

  psProc* stepping = nullptr;  // the process that a step is in progress in
  bool show_source = false;    // the step hook prints the line of each instruction
  bool show_disassembly = false;
  // Seen last by the step hook. last_executed: the instruction at last_pc has run.
  bool last_executed = false;
  uint32_t last_pc = 0;
  psFunction* last_function = nullptr;
  const psLineData* last_line = nullptr;

  // As long as a step stays within these offsets of this function the hook has nothing to say, and
  // the interpreter need not call it there. Null: there is no such place.
  const psFunction* quiet_function = nullptr;
  uint32_t quiet_first = 0;
  uint32_t quiet_last = 0;

  subctx* selected = nullptr;  // the frame that commands and statements work on
  std::vector<subctx*> below;  // frames left by `up`, the last one on top
};

// kind null: the interactive shell; "dumper": the report of the first stop, which ends the run. The
// console is borrowed unless owns_debug_con is set. Never null.
psDebugSession* DebugCreateSession(const char* kind, psIo* console);
// The session must not be attached to any process.
void DebugDeleteSession(psDebugSession* session);
// The process must have no session, and have one, respectively.
void DebugAttachSession(psProc* p, psDebugSession* session);
void DebugDetachSession(psProc* p);

// A step never stops inside evaluated text, so unless it traces it need not look at what runs
// there. Pausing is true when there was such a step, which has to be resumed.
bool DebugPauseStep(psProc* p);
void DebugResumeStep(psProc* p);

// The shells, called on the script's thread for a process that has stopped.
psStatus DDShell(psProc* p);
psStatus DDShellDumper(psProc* p);

// One line as if typed at the prompt, of any bytes: 255 continue, 252 end the run, 0 neither. The
// session must have a selected frame, as it has while its shell runs.
psStatus DebugExecuteLine(psProc* p, psText line);
