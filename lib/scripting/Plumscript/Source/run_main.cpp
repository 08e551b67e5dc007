// Frames, calls and runs: how a script function is entered from outside the loop (run_loop.cpp),
// and what holds from its first frame to its last.
//
// A frame lies on the evaluation stack: the arguments, which the caller pushed, are its first
// locals, and everything above calling_evsp is released when it is left. Whoever stops in the
// middle of a run leaves the frames as they are, positions saved, so that the run can be continued.
#include "run_frames.h"
#include "run_slow.h"

std::atomic<uint32_t> psInstructionCounter{0};

namespace ps_run {

namespace {

bool functionAt(psProc* p, unsigned index, Callee* callee) {
  if (index >= p->mod->functions.size()) return false;
  callee->function = p->mod->functions[index];
  return true;
}

}  // namespace

PS_NOINLINE bool findCallee(psProc* p, const psTypedValue* v, Callee* callee) {
  uint16_t index;
  if (psIs(*v, kPsThisSubFlag)) {
    callee->receiver = v->value.psc;
    return functionAt(p, static_cast<uint16_t>(v->function_index), callee);
  }
  if (GetFunctionIndex(v, &index)) {
    callee->receiver = p->mod->global_object;
    return functionAt(p, index, callee);
  }
  if (!isAssociative(v)) return false;
  pscInstance* object = v->value.psc;
  const psTypedValue invoke = object->psc_class->if_assoc->LookupCi(object, "__invoke");
  const bool found = GetFunctionIndex(&invoke, &index) && functionAt(p, index, callee);
  ReleaseValue(&invoke);
  callee->receiver = object;
  return found;
}

psStatus takeBreak(psProc* p) {
  uint32_t word = p->break_word.load(std::memory_order_acquire);
  if ((word & kPsBreakCounted) != 0) {
    // Once they are used up, whatever evaluated the text that met the limit stops too.
    if (p->turns_left == 0) return kPsBreak;
    p->turns_left--;
  }
  for (;;) {
    const auto code = static_cast<psStatus>(word & kPsBreakCodeMask);
    if (code == 0 || (word & kPsBreakSticky) != 0) return code;
    if (p->break_word.compare_exchange_weak(word, word & ~kPsBreakCodeMask)) return code;
  }
}

PS_COLD const psInstruction* quietStep(psProc* p, const psDecodedCode* chunk) {
  const psDebugSession* session = p->debug_session;
  const subctx* frame = p->ctx;
  if (session == nullptr || session->quiet_function != frame->sub) return nullptr;
  if (p->step_form == nullptr) p->step_form = std::make_unique<psStepForm>();
  return psStepAt(p->step_form.get(), chunk, session->quiet_first, session->quiet_last, frame->pc);
}

}  // namespace ps_run

using namespace ps_run;

psProc::psProc() = default;
psProc::~psProc() = default;

void psSetTurnLimit(psProc* p, uint64_t turns) {
  p->turns_left = turns;
  p->break_word.fetch_or(kPsBreakCounted);
}

psStatus psPushFrame(psProc* p, psFunction* function, int n, pscInstance* m) {
  const int parameters = function->parameters();
  if (n > parameters) return kPsWrongParameterCount;
  psTypedValue* locals = p->evsp - n;
  psTypedValue* end = locals + function->variable_count;
  if (end > p->eval_stack + kPsFrameLimit || p->frame_count >= kPsMaxFrames) {
    return kPsStackOverflow;
  }
  if (PS_UNLIKELY(hasEntryHook(p))) p->debug_session->entry_hook(p, 0, function);
  const uint16_t entry = function->callvarinits[static_cast<size_t>(n)];
  if (entry == kPsNoEntry) return kPsWrongParameterCount;
  subctx* frame = &p->frames[p->frame_count++];
  frame->pc = entry;
  frame->calling_args_n = n;
  frame->sub = function;
  frame->locals = locals;
  frame->prev = p->ctx;
  frame->calling_evsp = locals;
  frame->varlistsize = function->variable_count;
  frame->resume = nullptr;
  frame->chain_slot = nullptr;
  frame->plain_only = false;
  p->ctx = frame;
  prepareSlots(p, p->evsp, end, locals + parameters, m);
  p->evsp = end;
  return kPsOkay;
}

void psPopFrame(psProc* p) {
  subctx* frame = p->ctx;
  leaveFrame(p, frame);
  releaseRange(frame->locals, p->evsp);
  p->evsp = frame->calling_evsp;
}

bool ResizeLocalStorage(psProc* p) {
  subctx* frame = p->ctx;
  const uint32_t wanted = frame->sub->variable_count;
  psAssertText(wanted >= frame->varlistsize, "subctx->sub->varlistsize>=prior_vartabsize");
  const uint32_t added = wanted - frame->varlistsize;
  if (added == 0) return true;
  if (p->evsp + added > p->eval_stack + kPsFrameLimit) return false;
  psTypedValue* first = frame->locals + frame->varlistsize;
  std::memmove(static_cast<void*>(first + added), first,
               static_cast<size_t>(p->evsp - first) * sizeof(psTypedValue));
  for (uint32_t i = 0; i < added; i++) first[i] = psUninitializedValue();
  p->evsp += added;
  frame->varlistsize = wanted;
  for (subctx* above = frame + 1; above < p->frames + p->frame_count; above++) {
    above->locals += added;
    above->calling_evsp += added;
    if (above->chain_slot != nullptr) above->chain_slot += added;
  }
  return true;
}

psStatus psRunAppended(psProc* p, uint32_t start) {
  subctx* frame = p->ctx;
  if (frame->chain_slot != nullptr) {
    // A caller that waits in the middle of a chain: the code may change what is being summed up.
    leaveChain(p);
    frame->resume = nullptr;
  }
  if (!ResizeLocalStorage(p)) {
    p->error_offset = -1;
    p->error_function = nullptr;
    return kPsStackOverflow;
  }
  subctx* outer_base = p->base_frame;
  const uint32_t pc = frame->pc;
  const psInstruction* resume = frame->resume;
  // Counted from the frame's end: the statements may give the frame more variables.
  const ptrdiff_t depth = p->evsp - (frame->locals + frame->varlistsize);
  psDecodeUpTo(frame->sub, start);
  const bool plain_only = std::exchange(frame->plain_only, false);
  p->base_frame = frame;
  frame->pc = start;
  frame->resume = nullptr;
  psStatus status = RunExecLoop(p);
  // A RETURN among the statements ends them.
  if (status == kPsReturned) status = kPsNormalEnd;
  while (p->ctx != frame) psPopFrame(p);
  psTypedValue* end = frame->locals + frame->varlistsize + depth;
  releaseRange(end, p->evsp);
  for (; p->evsp < end; p->evsp++) *p->evsp = psInvalidValue();
  p->evsp = end;
  p->base_frame = outer_base;
  frame->pc = pc;
  frame->resume = resume;
  frame->plain_only = plain_only;
  return status;
}

psStatus ExecSub(psProc* p, psFunction* function, psTypedValue* args, int n, pscInstance* m,
                 psTypedValue* result) {
  if (result != nullptr) *result = psUninitializedValue();
  p->error_offset = -1;
  p->error_function = function;
  if (n > function->parameters()) {
    p->last_status = kPsWrongParameterCount;
    return p->last_status;
  }
  p->running = true;
  for (int i = 0; i < n; i++) *p->evsp++ = psCopyValue(args[i]);
  psStatus status = psPushFrame(p, function, n, m != nullptr ? m : p->mod->global_object);
  if (status != kPsOkay) {
    releaseRange(p->evsp - n, p->evsp);
    p->evsp -= n;
    p->running = false;
    p->last_status = status;
    return status;
  }
  p->base_frame = p->ctx;
  for (;;) {
    status = RunExecLoop(p);
    psDebugSession* session = p->debug_session;
    if (session == nullptr || session->shell == nullptr || status == kPsNormalEnd) break;
    if (status == kPsReturned || p->stop_on_error) break;
    pscNotifyStopped(p->domain);
    p->last_status = status;
    status = session->shell(p);
    pscNotifyRunning(p->domain);
    if (status != kPsOkay) break;
  }
  if (status == kPsReturned) {
    psTypedValue value = *--p->evsp;
    if (result != nullptr) {
      *result = value;
    } else {
      ReleaseValue(&value);
    }
    p->last_status = kPsOkay;
  }
  while (p->ctx != nullptr) psPopFrame(p);
  if (hasEntryHook(p)) p->debug_session->entry_hook(p, 2, nullptr);
  p->running = false;
  psAssertText(p->ctx == nullptr, "code->ctx==0");
  psAssertText(p->evsp == p->eval_stack, "code->evsp==code->eval_stack");
  return status == kPsReturned || status == kPsNormalEnd ? psStatus{kPsOkay} : status;
}
