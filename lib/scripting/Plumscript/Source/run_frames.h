// Frames as the interpreter's loop opens and leaves them, and its looks at the break word.
//
// For the thread that runs the process. run.h has what hosts and debuggers use; here is what is
// done once a call, so most of it is inline.
#pragma once

#include "run_debugger.h"
#include "run_decode.h"
#include "run_fast.h"

namespace ps_run {

inline psTypedValue* stackEnd(psProc* p) { return p->eval_stack + kPsStackSlots; }

inline bool hasEntryHook(const psProc* p) {
  return PS_UNLIKELY(p->debug_session != nullptr) && p->debug_session->entry_hook != nullptr;
}

inline void leaveFrame(psProc* p, subctx* frame) {
  p->ctx = frame->prev;
  p->frame_count--;
  if (PS_UNLIKELY(hasEntryHook(p))) p->debug_session->entry_hook(p, 1, nullptr);
}

inline void prepareSlots(psProc* p, psTypedValue* unset, psTypedValue* end, psTypedValue* global,
                         pscInstance* m) {
  for (; unset < end; unset++) unset->meta = 0;
  global->value.iface = p->ifGlobal;
  global->meta = kPsInterfaceFlag;
  psTypedValue* self = global + 1;
  if (PS_LIKELY(m != nullptr)) {
    pscAddRef(m);
    self->value.psc = m;
    self->meta = kPsObjectFlag;
  } else {
    *self = psInvalidValue();
  }
}

// Where the callee of a call leads: a function of the module and its receiver.
struct Callee {
  psFunction* function = nullptr;
  pscInstance* receiver = nullptr;
};

// The frame of a call that has passed every check; its code begins at a known instruction.
inline void openFrame(psProc* p, const Callee& callee, int n, psTypedValue* first,
                      psTypedValue* end, int parameters) {
  subctx* frame = &p->frames[p->frame_count++];
  frame->calling_args_n = n;
  frame->sub = callee.function;
  frame->locals = first;
  frame->prev = p->ctx;
  frame->calling_evsp = first;
  frame->varlistsize = static_cast<uint32_t>(end - first);
  frame->resume = nullptr;
  frame->chain_slot = nullptr;
  frame->plain_only = false;
  p->ctx = frame;
  prepareSlots(p, first + n, end, first + parameters, callee.receiver);
}

// The callee that a value of any callable kind stands for. False: it cannot be called.
bool findCallee(psProc* p, const psTypedValue* v, Callee* callee);

// One loop turn, call or return: tells watchdogs that the script moves, and looks for a break.
inline bool turn(psProc* p) {
  psInstructionCounter.store(psInstructionCounter.load(std::memory_order_relaxed) + 1,
                             std::memory_order_relaxed);
  return PS_UNLIKELY(p->break_word.load(std::memory_order_relaxed) != 0);
}

inline bool stepping(const psProc* p) {
  return (p->break_word.load(std::memory_order_relaxed) & kPsBreakStep) != 0;
}

// Consumes a break request; the code to stop with, or 0.
psStatus takeBreak(psProc* p);
// The current frame's position in the step form, when the step hook has nothing to say about it.
const psInstruction* quietStep(psProc* p, const psDecodedCode* chunk);

}  // namespace ps_run
