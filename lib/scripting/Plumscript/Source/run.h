// Script processes and the interpreter's inner interfaces, shared by the runtime's own files and
// the debugger.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "comp.h"
#include "comp_mod.h"
#include "psc.h"
#include "psiocon.h"

constexpr int kPsStackSlots = 1024;
// A frame may not reach beyond this slot; what lies above is room for expressions.
constexpr int kPsFrameLimit = 960;

struct psInstruction;   // run_decode.h
struct psStepForm;      // run_decode.h
struct psDebugSession;  // run_debugger.h

// One call frame.
struct subctx {
  uint32_t pc;         // code offset of the next instruction, saved on calls and stops
  int calling_args_n;  // arguments the caller passed
  psFunction* sub;
  psTypedValue* locals;  // first slot
  subctx* prev;
  psTypedValue* calling_evsp;   // stack position to restore on return; equals locals
  uint32_t varlistsize;         // slots reserved
  const psInstruction* resume;  // decoded form of pc, or null when it must be looked up
  psTypedValue* chain_slot;     // where pieces for the text in chain_local gather, or null
  uint8_t chain_local;
  // Entered by a jump from another chunk: the stack is not what the analysis of the code knows.
  bool plain_only;
};
// Every frame needs a slot for `global` and one for `m`, so the stack bounds the number of frames.
constexpr int kPsMaxFrames = kPsStackSlots / 2;

// The break word: what another thread, or a debugger, asks of the interpreter. One word, so that
// the interpreter looks at one thing.
constexpr uint32_t kPsBreakCodeMask = 0xffff;  // status to stop with; 0 none
constexpr uint32_t kPsBreakSticky = 0x10000;   // the code stays after it was acted on
constexpr uint32_t kPsBreakStep = 0x20000;     // call the session's hook before every instruction
constexpr uint32_t kPsBreakCounted = 0x40000;  // turn_limit is set: count the turns

struct psProc {
  subctx* ctx = nullptr;  // current frame
  psModule* mod = nullptr;
  std::atomic<uint32_t> break_word{0};
  const psInterface* ifGlobal = nullptr;
  pscInstance* gro = nullptr;    // the koGlobal instance
  psTypedValue* evsp = nullptr;  // next free slot
  psDebugSession* debug_session = nullptr;
  psIo* io = nullptr;
  bool running = false;
  psStatus last_status = kPsOkay;
  int32_t error_offset = -1;
  psFunction* error_function = nullptr;
  psStatus last_run_status = kPsOkay;
  psCompileErrors last_run_errors;
  psCompileErrors compile_errors;
  pscDomain* domain = nullptr;
  psTypedValue eval_stack[kPsStackSlots];
  std::atomic<psProc*> chain{nullptr};  // the child of a Run in progress
  bool stop_on_error = false;
  int eval_depth = 0;
  int run_depth = 0;  // processes above this one

  subctx frames[kPsMaxFrames];
  int frame_count = 0;
  // The frame whose return ends the interpreter loop: the outermost one, or the one that appended
  // code runs in.
  subctx* base_frame = nullptr;
  // Loop turns, calls and returns that are left before the run stops with "BREAK"; looked at while
  // kPsBreakCounted is set. Set both with psSetTurnLimit.
  uint64_t turns_left = 0;
  // Of the line that a debugger's step was last in.
  std::unique_ptr<psStepForm> step_form;

  psProc();
  ~psProc();
};
void psSetTurnLimit(psProc* p, uint64_t turns);
// Held while a child process is entered into or taken out of `chain`, and while another thread
// follows it.
extern std::mutex psChainLock;
// Evals inside one another, and Runs inside one another: each takes some of the thread's stack.
constexpr int kPsMaxEvalDepth = 100;
constexpr int kPsMaxRunDepth = 50;

// The process-wide instruction counter, read by watchdogs. Written by the interpreter only.
extern std::atomic<uint32_t> psInstructionCounter;

// --- Interpreter (run_main.cpp, run_loop.cpp) --------------------------------------------------

psStatus ExecSub(psProc* p, psFunction* function, psTypedValue* args, int n, pscInstance* m,
                 psTypedValue* result);
psStatus RunExecLoop(psProc* p);
// Pushes a frame for the n arguments on top of the stack; takes a reference on m (may be null). On
// failure the arguments are still on the stack.
psStatus psPushFrame(psProc* p, psFunction* function, int n, pscInstance* m);
void psPopFrame(psProc* p);
// Makes room in the current frame for variables its function has gained; moves what lies above, the
// frames there included (a debugger makes an outer frame the current one). False when the stack has
// no room for them.
bool ResizeLocalStorage(psProc* p);

// Code appended to the current frame's function runs from start until it stops; what it leaves on
// the stack is discarded and the frame's position restored. Used by Eval and the debugger. 252 is a
// normal end. The current frame need not be the innermost one: the code works above all of them.
psStatus psRunAppended(psProc* p, uint32_t start);

// A frame that outlives what runs in it, for hosts that run statements one after the other: sets
// the process running with a frame of the module's Main (whose own code is not run), its global
// object and the channel, as a run would find them. 255, or why there is no frame; then nothing is
// left. LiveCompile and psRunAppended work on that frame until psEndFrame unwinds it and cleans up
// as after a run.
psStatus psBeginFrame(psProc* p, psIo* io);
void psEndFrame(psProc* p);

// --- Operators (run_operators.cpp) ------------------------------------------------------------

// The binary operators, by opcode byte. Both operands are consumed whatever the outcome; result may
// be one of them. On failure the result is Invalid, but Float 0 where a Float or an Integer was
// divided by zero.
psStatus DoOperator(pscDomain* domain, psTypedValue* a, psTypedValue* b, uint8_t op,
                    psTypedValue* result);
psStatus DoIntegerOperator(int64_t x, int64_t y, uint8_t op, psTypedValue* result);
psStatus DoNot(psTypedValue* v);
psStatus DoNeg(pscDomain* domain, psTypedValue* v);
// The conversion the convert instructions perform.
psStatus DoConvert(pscDomain* domain, psTypedValue* v, psTypeEnum type);
// FOR: converts variable, limit and step to the variable's kind and tests. *done when the body does
// not run.
psStatus DoFor(pscDomain* domain, psTypedValue* variable, psTypedValue* limit, psTypedValue* step,
               bool* done);
psStatus DoNext(psTypedValue* variable, psTypedValue* limit, psTypedValue* step, bool* done);
psStatus DoDim(psProc* p, psTypedValue* sizes, int n, psTypedValue* local);

// --- Member access and calls (run_access.cpp) -------------------------------------------------

// a[i1..in]: consumes container and indexes, result at *container. is_call: num_fun_args follows.
psStatus DoArrayGet(psTypedValue* container, int n, bool is_call);
// a[i1..in] = v: value, container, indexes; consumes all.
psStatus DoArraySet(psTypedValue* value, int n);
// o.name = v: value, object; consumes both.
psStatus DoDotSet(psTypedValue* value, psTypedValue* object, const psName& name);
psStatus DoAttr(psTypedValue* object, const psName& name);

// --- Built-in calls and PRINT (run_builtin.cpp) -----------------------------------------------

// The argument values are consumed; the result is written on 255 only. May run script code (Eval,
// Run), so everything the caller caches of the frame must be read again.
psStatus DoRun(psProc* p, uint8_t opcode, int n, psTypedValue* args, psTypedValue* result);
psStatus DoType(psTypedValue* args, int n, psTypedValue* result);
// Consumes the items on top of the stack (in source order from items on).
psStatus DoPrint(psProc* p, psTypedValue* items, int n, const uint8_t* pattern);
