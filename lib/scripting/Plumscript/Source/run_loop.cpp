// The interpreter's loop: one handler an operation of the decoded code, each ending in a jump of
// its own to the next.
//
// Rules of this file:
//  1. In the loop, sp, ip and locals are registers. Whatever may run script code or report a
//     position (built-ins, frame pushes, stops) gets them through p->evsp and the frame first.
//  2. An instruction that fails leaves the stack as deep as its success would have, with Invalid in
//     the place of the result. Whoever continues after an error continues on a sound stack.
//  3. The break word is looked at on entry, on every backward jump, call, return and return from
//     native code; in the plain form before every instruction.
//  4. An unboxed double (kPsRawDoubleFlag) is on the stack only where the decoder has seen that an
//     operator or store takes it; everything else finds values.
//  5. What a fast path computes is not what a slow operation writes through a pointer: a variable
//     whose address is taken lives in memory, on the fast path too.
//  6. Instructions of the fast form trust the decoder's analysis of the stack; a frame that has no
//     room for the deepest stack of its function runs in the plain form, which checks each time.
#include <cmath>

#include "bytecode.h"
#include "clglobal.h"
#include "run_frames.h"
#include "run_loop_operators.h"
#include "run_slow.h"

using namespace ps_run;

namespace {

// The loop's labels: one an operation, then the one that plain instructions start with.
const void* const* handler_table = nullptr;

}  // namespace

const void* const* psHandlers() {
  if (handler_table == nullptr) RunExecLoop(nullptr);
  return handler_table;
}
const void* psPlainHandler() { return psHandlers()[kFastOpCount]; }

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"

#define NEXT            \
  do {                  \
    ip++;               \
    goto * ip->handler; \
  } while (0)
#define DISPATCH goto * ip->handler
#define FAIL(code)   \
  do {               \
    status = (code); \
    goto failed;     \
  } while (0)
#define CHECK(expression)                            \
  do {                                               \
    status = (expression);                           \
    if (PS_UNLIKELY(status != kPsOkay)) goto failed; \
  } while (0)

// Without a process it only fills the table of handlers.
psStatus RunExecLoop(psProc* p) {
  static const void* const kHandlers[kFastOpCount + 1] = {
#define X(name) &&L_##name,
      PS_PLAIN_OPS(X) PS_FUSED_OPS(X)
#undef X
#define X(op, mode, dst) &&L_##op##mode##_##dst,
          PS_ARITHMETIC_OPS(X) PS_COMPARISON_OPS(X)
#undef X
      && L_plain};
  if (p == nullptr) {
    handler_table = kHandlers;
    return kPsOkay;
  }

  psDecodedCode* chunk;
  psStatus status = kPsOkay;
  const psInstruction* ip;
  psTypedValue* sp = p->evsp;
  psTypedValue* locals = p->ctx->locals;
  bool plain = false;

  // --- Positions --------------------------------------------------------------------------------

resume :  // at the current frame's pc
{
  subctx* frame = p->ctx;
  locals = frame->locals;
  chunk = psChunkAt(frame->sub, frame->pc);
  const bool steps = stepping(p);
  const psInstruction* fused = nullptr;
  if (!frame->plain_only && sp + chunk->max_depth <= stackEnd(p)) {
    fused = PS_UNLIKELY(steps) ? quietStep(p, chunk) : psFastAt(chunk, frame->pc);
  }
  // No position in the step form is kept, as none in the plain form is.
  plain = steps || fused == nullptr;
  ip = fused != nullptr ? fused : psPlainAt(frame->sub, chunk, frame->pc);
  if (p->break_word.load(std::memory_order_relaxed) != 0 && !plain) goto break_seen;
  DISPATCH;
}

L_StepExit:  // out of the line that a step stays in
  p->ctx->pc = ip->pc - ip->back;
  p->evsp = sp;
  if (PS_UNLIKELY(p->ctx->chain_slot != nullptr)) leaveChain(p);
  goto resume;

L_Leave:  // into another chunk: only the plain form can take the stack as it comes
  p->ctx->pc = ip->pc;
  p->ctx->plain_only = true;
  goto resume;

break_seen:  // before the instruction at ip
  p->ctx->pc = ip->pc - ip->back;
  p->evsp = sp;
  status = takeBreak(p);
  if (status != 0) {
    if (p->ctx->chain_slot != nullptr) leaveChain(p);
    p->last_status = status;
    p->error_offset = static_cast<int32_t>(p->ctx->pc);
    p->error_function = p->ctx->sub;
    return status;
  }
  if (PS_UNLIKELY(p->ctx->chain_slot != nullptr)) {
    leaveChain(p);
    goto resume;
  }
  if (stepping(p) && !plain) goto resume;
  DISPATCH;

failed:  // the instruction at ip has failed with status
  if (PS_UNLIKELY(p->ctx->chain_slot != nullptr)) leaveChain(p);
  p->ctx->pc = ip->next_pc;
  p->ctx->resume = nullptr;
  p->evsp = sp;
  p->last_status = status;
  p->error_offset = static_cast<int32_t>(ip->pc);
  p->error_function = p->ctx->sub;
  return status;

L_plain : {
  if (PS_UNLIKELY(p->break_word.load(std::memory_order_relaxed) != 0)) {
    p->ctx->pc = ip->pc;
    p->evsp = sp;
    bool stop = false;
    if (stepping(p) && p->debug_session != nullptr && p->debug_session->step_hook != nullptr) {
      stop = p->debug_session->step_hook(p, ip->pc);
    }
    status = stop ? psStatus{kPsBreak} : takeBreak(p);
    if (status != 0) {
      p->last_status = status;
      p->error_offset = static_cast<int32_t>(ip->pc);
      p->error_function = p->ctx->sub;
      return status;
    }
  }
  psInstructionCounter.store(psInstructionCounter.load(std::memory_order_relaxed) + 1,
                             std::memory_order_relaxed);
  const psStackEffect e = psEffectOf(static_cast<psFastOp>(ip->c), ip->a);
  const psTypedValue* floor = locals + p->ctx->varlistsize;
  if (PS_UNLIKELY(sp - floor < e.pops)) FAIL(kPsStackUnderflow);
  // A method call leaves two entries where one was.
  if (PS_UNLIKELY(sp - e.pops + e.pushes > stackEnd(p))) FAIL(kPsStackOverflow);
  goto* kHandlers[ip->c];
}

  // --- Pushes and locals ------------------------------------------------------------------------

L_PushK:
  moveValue(sp++, *ip->x.constant);
  NEXT;

L_PushDouble : {
  pscInstance* box = psNewDouble(p->domain, ip->x.constant->value.d);
  *sp++ = box != nullptr ? psObjectValue(box) : psInvalidValue();
  if (box == nullptr) FAIL(kPsOutOfMemory);
  NEXT;
}

L_PushL : {
  const psTypedValue* v = &locals[ip->a];
  moveValue(sp++, *v);
  psRetainValue(v);
  NEXT;
}

L_PushLL : {
  const psTypedValue* v = &locals[ip->a];
  moveValue(sp++, *v);
  psRetainValue(v);
  v = &locals[ip->b];
  moveValue(sp++, *v);
  psRetainValue(v);
  NEXT;
}

L_PopL : {
  psTypedValue* to = &locals[ip->a];
  sp--;
  if (PS_UNLIKELY(psIs(*sp, kPsRawDoubleFlag))) {
    CHECK(storeDouble(p->domain, to, sp->value.d, kPsObjectFlag));
    NEXT;
  }
  storeOver(to, *sp);
  NEXT;
}

L_PopLTyped : {
  psTypedValue* to = &locals[ip->a];
  if (PS_UNLIKELY(psIs(sp[-1], kPsRawDoubleFlag)) && ip->b == psDouble) {
    sp--;
    CHECK(storeDouble(p->domain, to, sp->value.d, kPsObjectFlag));
    NEXT;
  }
  if (!hasKind(sp[-1], ip->b)) {
    CHECK(convertTop(p->domain, &sp[-1], static_cast<psTypeEnum>(ip->b)));
  }
  storeOver(to, *--sp);
  NEXT;
}

// s = s + a + b …: the pieces are gathered in a text of their own and then appended to s, which
// would otherwise be copied whole for the first sum. Only for a text that nobody else holds.
L_ChainBegin : {
  const psTypedValue* s = &locals[ip->a];
  if (psIsStringBox(*s) && soleOwner(s->value.psc)) {
    if (pscInstance* pieces = psNewString(p->domain, {})) {
      *sp = psStringObjectValue(pieces);
      p->ctx->chain_slot = sp++;
      p->ctx->chain_local = ip->a;
      NEXT;
    }
  }
  ip += ip->jump;
  DISPATCH;
}

L_ChainEnd:
  p->ctx->chain_slot = nullptr;
  CHECK(appendPieces(p->domain, &locals[ip->a], --sp));
  NEXT;

L_MoveL : {
  const psTypedValue* v = &locals[ip->b];
  psRetainValue(v);
  storeOver(&locals[ip->a], *v);
  NEXT;
}

L_SetLK:
  storeOver(&locals[ip->a], *ip->x.constant);
  NEXT;

L_ConvertTop:
  CHECK(convertTop(p->domain, &sp[-1], static_cast<psTypeEnum>(ip->a)));
  NEXT;

L_ConvertL:
  if (hasKind(locals[ip->a], ip->b)) NEXT;
  CHECK(DoConvert(p->domain, &locals[ip->a], static_cast<psTypeEnum>(ip->b)));
  NEXT;

L_Drop:
  sp--;
  ReleaseValue(sp);
  NEXT;

L_Dup:
  moveValue(sp, sp[-1]);
  psRetainValue(sp);
  sp++;
  NEXT;

L_Swap : {
  const psTypedValue top = sp[-1];
  sp[-1] = sp[-2];
  sp[-2] = top;
  NEXT;
}

L_NumFunArgs:
L_Nop:
  NEXT;

  // --- Jumps ------------------------------------------------------------------------------------

L_Jump:
  ip += ip->jump;
  DISPATCH;

L_JumpBack:
  ip += ip->jump;
  if (turn(p)) goto break_seen;
  DISPATCH;

L_IfFalse : {
  sp--;
  bool truth;
  if (PS_LIKELY(psIs(*sp, kPsBooleanFlag))) {
    truth = sp->value.i != 0;
  } else {
    bool value;
    if (!GetBoolValue(sp, &value)) {
      status = sp->type_flags == 0 ? kPsUninitialized : kPsTypeMismatch;
      ReleaseValue(sp);
      goto failed;
    }
    ReleaseValue(sp);
    truth = value;
  }
  if (truth) NEXT;
  ip += ip->jump;
  DISPATCH;
}

L_OrPretest : {
  const psTypedValue* v = sp - 1;
  bool decided = false;
  if (psIs(*v, kPsBooleanFlag)) {
    decided = v->value.i != 0;
  } else if (IsBooleanValue(v)) {
    decided = BoolVal(v);
  }
  if (!decided) NEXT;
  ip += ip->jump;
  DISPATCH;
}

L_AndPretest : {
  const psTypedValue* v = sp - 1;
  bool decided = false;
  if (psIs(*v, kPsBooleanFlag)) {
    decided = v->value.i == 0;
  } else if (IsBooleanValue(v)) {
    decided = !BoolVal(v);
  }
  if (!decided) NEXT;
  ip += ip->jump;
  DISPATCH;
}

L_End:
  FAIL(kPsNormalEnd);

L_Stop:
  FAIL(kPsStop);

  // --- Loops ------------------------------------------------------------------------------------

L_For : {
  psTypedValue* v = &locals[ip->a];
  bool done;
  if (PS_LIKELY(v->type_flags & sp[-1].type_flags & sp[-2].type_flags & kPsIntegerFlag)) {
    const int64_t step = sp[-1].value.i;
    done = step > 0 ? v->value.i > sp[-2].value.i : v->value.i < sp[-2].value.i;
  } else {
    bool past;
    CHECK(DoFor(p->domain, v, &sp[-2], &sp[-1], &past));
    done = past;
  }
  if (!done) NEXT;
  ip += ip->jump;
  DISPATCH;
}

L_Next : {
  psTypedValue* v = &locals[ip->a];
  bool done;
  if (PS_LIKELY(v->type_flags & sp[-1].type_flags & sp[-2].type_flags & kPsIntegerFlag)) {
    const int64_t step = sp[-1].value.i;
    const auto next =
        static_cast<int64_t>(static_cast<uint64_t>(v->value.i) + static_cast<uint64_t>(step));
    v->value.i = next;
    done = step < 1 ? next < sp[-2].value.i : next > sp[-2].value.i;
  } else {
    bool past;
    CHECK(DoNext(v, &sp[-2], &sp[-1], &past));
    done = past;
  }
  if (done) NEXT;
  ip += ip->jump;
  if (turn(p)) goto break_seen;
  DISPATCH;
}

L_ForEach:
  switch (enterForEach(sp - 1, &locals[ip->a], &status)) {
    case Each::kBody:
      sp++;
      ip++;
      if (turn(p)) goto break_seen;  // it may have waited for a message
      DISPATCH;
    case Each::kSkipOne: ip += ip->jump + 1; DISPATCH;
    case Each::kSkipTwo:
      sp--;
      ip += ip->jump + 2;
      DISPATCH;
    case Each::kFailed: *sp++ = psInvalidValue(); goto failed;
  }
  __builtin_unreachable();

L_NextEach : {
  bool more;
  CHECK(stepForEach(sp - 2, &locals[ip->a], &more));
  if (!more) NEXT;
  ip += ip->jump;
  if (turn(p)) goto break_seen;
  DISPATCH;
}

  // --- Calls ------------------------------------------------------------------------------------

L_Call : {
  const int n = ip->a;
  psTypedValue* slot = sp - n - 1;
  if (psIs(*slot, kPsMemberFunctionFlag)) {
    psTypedValue* receiver = slot - 1;
    pscInstance* object = psIs(*receiver, kPsObjectFlag) ? receiver->value.psc : nullptr;
    psTypedValue result = psInvalidValue();
    p->evsp = sp;
    status = pscCallFunction(p->domain, n, slot->value.member, object, slot + 1, &result);
    if (object != nullptr) pscSubRef(object);
    sp = slot;
    if (PS_UNLIKELY(status != kPsOkay)) {
      *receiver = psInvalidValue();
      goto failed;
    }
    moveValue(receiver, result);
    ip++;
    if (turn(p)) goto break_seen;
    DISPATCH;
  }
  Callee callee;
  if (PS_LIKELY(psIs(*slot, kPsFunctionFlag)) &&
      PS_LIKELY(static_cast<uint64_t>(slot->value.i) < p->mod->functions.size())) {
    callee.function = p->mod->functions[static_cast<size_t>(slot->value.i)];
    callee.receiver = p->mod->global_object;
  } else if (psIs(*slot, kPsThisSubFlag) &&
             static_cast<uint16_t>(slot->function_index) < p->mod->functions.size()) {
    callee.function = p->mod->functions[static_cast<uint16_t>(slot->function_index)];
    callee.receiver = slot->value.psc;
  } else if (!findCallee(p, slot, &callee)) {
    status = kPsCallOnNonFunction;
    goto call_failed;
  }
  subctx* caller = p->ctx;
  caller->pc = ip->next_pc;
  caller->resume = plain ? nullptr : ip + 1;
  psDecodedCode* code = callee.function->decoded;
  if (PS_LIKELY(code != nullptr && n <= code->parameters && code->fast != nullptr) &&
      PS_LIKELY(!hasEntryHook(p) && p->frame_count < kPsMaxFrames)) {
    const psInstruction* entry = code->entries[static_cast<size_t>(n)];
    psTypedValue* first = sp - n;
    const uint32_t slots = callee.function->variable_count;
    psTypedValue* end = first + slots;
    if (PS_LIKELY(entry != nullptr && end <= p->eval_stack + kPsFrameLimit &&
                  end + code->max_depth <= stackEnd(p))) {
      openFrame(p, callee, n, first, end, code->parameters);
      plain = false;
      locals = first;
      sp = end;
      ip = entry;
      if (turn(p)) goto break_seen;
      DISPATCH;
    }
  }
  p->evsp = sp;
  status = psPushFrame(p, callee.function, n, callee.receiver);
  if (PS_UNLIKELY(status != kPsOkay)) goto call_failed;
  sp = p->evsp;
  goto resume;
}

call_failed : {
  psTypedValue* slot = sp - ip->a - 1;
  releaseRange(slot, sp);
  *slot = psInvalidValue();
  sp = slot + 1;
  goto failed;
}

L_ReturnL : {
  const psTypedValue* v = &locals[ip->a];
  psRetainValue(v);
  moveValue(sp++, *v);
  goto L_Return;
}

L_ReturnTyped:
  if (!hasKind(sp[-1], ip->a)) {
    CHECK(convertTop(p->domain, &sp[-1], static_cast<psTypeEnum>(ip->a)));
  }

L_Return : {
  subctx* frame = p->ctx;
  if (frame == p->base_frame) {
    p->evsp = sp;
    p->last_status = kPsReturned;
    p->error_offset = static_cast<int32_t>(ip->pc);
    p->error_function = frame->sub;
    return kPsReturned;
  }
  sp--;
  const psTypedValue value = *sp;
  releaseRange(locals, sp);
  psTypedValue* slot = frame->calling_evsp - 1;
  leaveFrame(p, frame);
  ReleaseValue(slot);
  moveValue(slot, value);
  sp = slot + 1;
  frame = p->ctx;
  locals = frame->locals;
  ip = frame->resume;
  if (PS_UNLIKELY(ip == nullptr)) {
    // A sum that was begun in the step form goes on in the ordinary one.
    if (frame->chain_slot != nullptr) leaveChain(p);
    goto resume;
  }
  plain = false;
  if (turn(p)) goto break_seen;
  DISPATCH;
}

L_CallGlobal : {
  const int n = ip->a;
  psTypedValue* args = sp - n;
  p->evsp = sp;
  p->ctx->pc = ip->pc;
  sp = args + 1;
  CHECK(callGlobal(p, ip->x.function, n, args));
  ip++;
  if (turn(p)) goto break_seen;
  DISPATCH;
}

L_CallBuiltin : {
  const int n = ip->a;
  psTypedValue* args = sp - n;
  psTypedValue result = psInvalidValue();
  subctx* frame = p->ctx;
  frame->pc = ip->next_pc;
  p->evsp = args;  // the built-in consumes what lies above
  status = DoRun(p, ip->b, n, args, &result);
  sp = p->evsp;
  locals = frame->locals;
  if (status != kPsOkay) result = psInvalidValue();
  moveValue(sp++, result);
  if (PS_UNLIKELY(status != kPsOkay)) goto failed;
  ip++;
  if (turn(p)) goto break_seen;
  DISPATCH;
}

L_CallType : {
  const int n = ip->a;
  psTypedValue result;
  status = DoType(sp - n, n, &result);
  sp -= n;
  moveValue(sp++, result);
  if (PS_UNLIKELY(status != kPsOkay)) goto failed;
  NEXT;
}

L_Print : {
  const int n = ip->a;
  sp -= n;
  p->evsp = sp + n;
  const uint8_t* code = p->ctx->sub->code.data() + ip->pc;
  CHECK(DoPrint(p, sp, n, code + 2));
  ip++;
  if (turn(p)) goto break_seen;  // it may have cut the listing short
  DISPATCH;
}

L_CreateIdx : {
  pscInstance* instance =
      ip->a != 0 ? pscNewComponentByClass(p->domain, pscClassByIndex(ip->a)) : nullptr;
  *sp++ = instance != nullptr ? psObjectValue(instance) : psInvalidValue();
  NEXT;
}

  // --- Global functions with an operation of their own ------------------------------------------

L_GlobalLen : {
  psText text;
  if (PS_UNLIKELY(!textOf(sp - 1, &text))) goto L_CallGlobal;
  const auto n = static_cast<int64_t>(text.size());
  ReleaseValue(sp - 1);
  setInteger(sp - 1, n);
  NEXT;
}

L_GlobalAsc : {
  psText text;
  if (PS_UNLIKELY(!textOf(sp - 1, &text))) goto L_CallGlobal;
  const int64_t code = text.empty() ? 0 : static_cast<unsigned char>(text[0]);
  ReleaseValue(sp - 1);
  setInteger(sp - 1, code);
  NEXT;
}

L_GlobalChr : {
  if (PS_UNLIKELY(!psIs(sp[-1], kPsIntegerFlag) || sp[-1].value.i < 1 || sp[-1].value.i > 255)) {
    goto L_CallGlobal;
  }
  const char ch = static_cast<char>(sp[-1].value.i);
  if (PS_UNLIKELY(!textResult(p->domain, sp - 1, 1, psText(&ch, 1)))) goto L_CallGlobal;
  NEXT;
}

L_GlobalMid2 : {
  psText text;
  if (PS_UNLIKELY(!textOf(sp - 2, &text) || !psIs(sp[-1], kPsIntegerFlag))) goto L_CallGlobal;
  const auto position = static_cast<int32_t>(sp[-1].value.i);
  if (PS_UNLIKELY(!textResult(p->domain, sp - 2, 2, psTextMid(text, position)))) {
    goto L_CallGlobal;
  }
  sp--;
  NEXT;
}

L_GlobalMid3 : {
  psText text;
  if (PS_UNLIKELY(!textOf(sp - 3, &text) ||
                  !(sp[-1].type_flags & sp[-2].type_flags & kPsIntegerFlag))) {
    goto L_CallGlobal;
  }
  const psText part =
      psTextMid(text, static_cast<int32_t>(sp[-2].value.i), static_cast<int32_t>(sp[-1].value.i));
  if (PS_UNLIKELY(!textResult(p->domain, sp - 3, 3, part))) goto L_CallGlobal;
  sp -= 2;
  NEXT;
}

L_GlobalLeft : {
  psText text;
  if (PS_UNLIKELY(!textOf(sp - 2, &text) || !psIs(sp[-1], kPsIntegerFlag))) goto L_CallGlobal;
  const psText part = psTextLeft(text, static_cast<int32_t>(sp[-1].value.i));
  if (PS_UNLIKELY(!textResult(p->domain, sp - 2, 2, part))) goto L_CallGlobal;
  sp--;
  NEXT;
}

L_GlobalAbs : {
  double d;
  if (PS_UNLIKELY(!doubleArgument(sp - 1, &d))) goto L_CallGlobal;
  doubleResult(sp - 1, std::fabs(d));
  if (ip->c == 0) CHECK(boxRawDouble(p->domain, sp - 1));
  NEXT;
}

L_GlobalSqr : {
  double d;
  if (PS_UNLIKELY(!doubleArgument(sp - 1, &d))) goto L_CallGlobal;
  doubleResult(sp - 1, std::sqrt(d));
  if (ip->c == 0) CHECK(boxRawDouble(p->domain, sp - 1));
  NEXT;
}

L_GlobalInt : {
  double d;
  if (PS_UNLIKELY(!doubleArgument(sp - 1, &d) || !(d > -2147483648.0 && d < 2147483647.0))) {
    goto L_CallGlobal;
  }
  ReleaseValue(sp - 1);
  setInteger(sp - 1, static_cast<int64_t>(std::floor(d)));
  NEXT;
}

  // --- Elements ---------------------------------------------------------------------------------

L_Array : {
  const int n = ip->a;
  sp -= n;
  const pscInstance* row = rowOf(sp - 1, sp, n);
  if (PS_LIKELY(row != nullptr && psIs(sp[n - 1], kPsIntegerFlag))) {
    const psTypedValue result =
        arrayElement(pscData<psArray>(const_cast<pscInstance*>(row)), sp[n - 1].value.i);
    ReleaseValue(sp - 1);
    moveValue(sp - 1, result);
    NEXT;
  }
  CHECK(DoArrayGet(sp - 1, n, false));
  NEXT;
}

L_ArrayCall : {
  const int n = ip->a;
  sp -= n;
  CHECK(DoArrayGet(sp - 1, n, true));
  NEXT;
}

#define INDEX_TO_STACK(MODE)                                           \
  L_Index##MODE##_S : {                                                \
    const psTypedValue* container = X_##MODE;                          \
    const psTypedValue* index = Y_##MODE;                              \
    psTypedValue result;                                               \
    status = kPsOkay;                                                  \
    if (PS_LIKELY(fastIndex(container, index, ip->c != 0, &result))) { \
      if (OWN_##MODE & kOwnLeft) ReleaseValue(container);              \
    } else {                                                           \
      status = slowIndex(container, index, OWN_##MODE, &result);       \
    }                                                                  \
    sp += 1 - POPS_##MODE;                                             \
    moveValue(sp - 1, result);                                         \
    if (PS_UNLIKELY(status != kPsOkay)) goto failed;                   \
    NEXT;                                                              \
  }
  INDEX_TO_STACK(LL)
  INDEX_TO_STACK(LK)
  INDEX_TO_STACK(SL)
  INDEX_TO_STACK(SK)
  INDEX_TO_STACK(SS)

#define INDEX_TO_LOCAL(MODE)                                           \
  L_Index##MODE##_L : {                                                \
    psTypedValue result;                                               \
    if (PS_UNLIKELY(!fastIndex(X_##MODE, Y_##MODE, false, &result))) { \
      status = slowIndex(X_##MODE, Y_##MODE, 0, &result);              \
      if (PS_UNLIKELY(status != kPsOkay)) {                            \
        *sp++ = result;                                                \
        goto failed;                                                   \
      }                                                                \
    }                                                                  \
    storeOver(&locals[ip->c], result);                                 \
    NEXT;                                                              \
  }
  INDEX_TO_LOCAL(LL)
  INDEX_TO_LOCAL(LK)

L_ArraySet : {
  const int n = ip->a;
  sp -= n + 2;
  if (pscInstance* row = rowOf(sp + 1, sp + 2, n)) {
    psTypedValue inner = psMakeValue(kPsObjectFlag, 0);
    inner.value.psc = row;
    if (PS_LIKELY(fastIndexSet(&inner, &sp[n + 1], sp, &status))) {
      ReleaseValue(sp + 1);
      if (PS_UNLIKELY(status != kPsOkay)) goto failed;
      NEXT;
    }
  }
  CHECK(slowArraySet(p->domain, sp, n));
  NEXT;
}

L_IndexSetLL : {
  sp--;
  if (PS_UNLIKELY(!fastIndexSet(X_LL, Y_LL, sp, &status))) {
    status = slowIndexSet(p->domain, X_LL, Y_LL, 0, sp);
  }
  if (PS_UNLIKELY(status != kPsOkay)) goto failed;
  NEXT;
}

L_IndexSetLK : {
  sp--;
  if (PS_UNLIKELY(!fastIndexSet(X_LK, Y_LK, sp, &status))) {
    status = slowIndexSet(p->domain, X_LK, Y_LK, 0, sp);
  }
  if (PS_UNLIKELY(status != kPsOkay)) goto failed;
  NEXT;
}

L_IndexSetSS : {
  sp -= 3;
  if (PS_LIKELY(fastIndexSet(sp + 1, sp + 2, sp, &status))) {
    ReleaseValue(sp + 1);
  } else {
    status = slowIndexSet(p->domain, sp + 1, sp + 2, kOwnLeft | kOwnRight, sp);
  }
  if (PS_UNLIKELY(status != kPsOkay)) goto failed;
  NEXT;
}

L_Dim : {
  const int n = ip->a;
  sp -= n;
  CHECK(DoDim(p, sp, n, &locals[ip->b]));
  NEXT;
}

  // --- Members ----------------------------------------------------------------------------------

L_Dot:
  CHECK(readMember(sp - 1, ip->x.name, false));
  NEXT;

L_DotDot:
  CHECK(readMember(sp - 1, ip->x.name, true));
  NEXT;

L_DotL_S : {
  const psTypedValue* object = &locals[ip->a];
  if (PS_LIKELY(isAssociative(object))) {
    const psTypedValue found = memberOf(object->value.psc, ip->x.name, ip->c != 0);
    *sp++ = found.type_flags != 0 ? found : psInvalidValue();
    NEXT;
  }
  moveValue(sp++, *object);
  psRetainValue(object);
  CHECK(readMember(sp - 1, ip->x.name, false));
  NEXT;
}

L_DotL_L : {
  const psTypedValue* object = &locals[ip->a];
  if (PS_LIKELY(isAssociative(object))) {
    const psTypedValue found = memberOf(object->value.psc, ip->x.name);
    storeOver(&locals[ip->c], found.type_flags != 0 ? found : psInvalidValue());
    NEXT;
  }
  moveValue(sp++, *object);
  psRetainValue(object);
  CHECK(readMember(sp - 1, ip->x.name, false));
  storeOver(&locals[ip->c], *--sp);
  NEXT;
}

L_DotCallL : {
  const psTypedValue* object = &locals[ip->b];
  moveValue(sp++, *object);
  psRetainValue(object);
}
L_DotCall : {
  int entries = 2;
  if (plain && sp + 1 > stackEnd(p)) FAIL(kPsStackOverflow);
  status = resolveMethod(p->domain, sp - 1, ip->x.name, ip->a, &entries);
  sp += entries - 1;
  if (PS_UNLIKELY(status != kPsOkay)) goto failed;
  ip += ip->jump;
  DISPATCH;
}

L_DotInterface : {
  bool whole_call;
  const psInstruction* method = ip + 1;
  if (plain && sp + 1 > stackEnd(p)) FAIL(kPsStackOverflow);
  status = resolveInterface(p->domain, sp - 1, ip->x.name, method->x.name, method->a, &whole_call);
  if (whole_call) sp++;
  if (PS_UNLIKELY(status != kPsOkay)) goto failed;
  ip += whole_call ? ip->jump : 1;
  DISPATCH;
}

L_DotSet:
  sp -= 2;
  if (PS_LIKELY(fastMemberSet(sp + 1, ip->x.name, sp, &status))) {
    ReleaseValue(sp + 1);
    if (PS_UNLIKELY(status != kPsOkay)) goto failed;
    NEXT;
  }
  CHECK(slowMemberSet(p->domain, sp, sp + 1, *ip->x.name));
  NEXT;

L_DotSetL : {
  sp--;
  if (PS_LIKELY(fastMemberSet(&locals[ip->a], ip->x.name, sp, &status))) {
    if (PS_UNLIKELY(status != kPsOkay)) goto failed;
    NEXT;
  }
  psTypedValue copy = psCopyValue(locals[ip->a]);
  CHECK(slowMemberSet(p->domain, sp, &copy, *ip->x.name));
  NEXT;
}

L_Attr:
  CHECK(DoAttr(sp - 1, *ip->x.name));
  NEXT;

  // --- Operators --------------------------------------------------------------------------------

L_Not:
  if (PS_LIKELY(psIs(sp[-1], kPsBooleanFlag))) {
    setBoolean(sp - 1, sp[-1].value.i == 0);
    NEXT;
  }
  CHECK(DoNot(sp - 1));
  NEXT;

L_Neg:
  CHECK(DoNeg(p->domain, sp - 1));
  NEXT;

  // clang-format off
#define ADD(OP, MODE, DST) ARITHMETIC(OP, MODE, DST, i + j, i + j)
#define SUBTRACT(OP, MODE, DST) ARITHMETIC(OP, MODE, DST, i - j, i - j)
#define MULTIPLY(OP, MODE, DST) ARITHMETIC(OP, MODE, DST, i * j, i * j)
#define AND(OP, MODE, DST) LOGIC(OP, MODE, DST, &)
#define OR(OP, MODE, DST) LOGIC(OP, MODE, DST, |)
#define GREATER(OP, MODE, DST) COMPARE_##DST(OP, MODE, >)
#define EQUAL(OP, MODE, DST) COMPARE_##DST(OP, MODE, ==)
#define LESS(OP, MODE, DST) COMPARE_##DST(OP, MODE, <)
#define LESS_EQUAL(OP, MODE, DST) COMPARE_##DST(OP, MODE, <=)
#define GREATER_EQUAL(OP, MODE, DST) COMPARE_##DST(OP, MODE, >=)
#define NOT_EQUAL(OP, MODE, DST) COMPARE_##DST(OP, MODE, !=)

  PS_BINARY_MODES(ADD, Add, S)
  PS_BINARY_MODES(ADD, Add, L)
  PS_BINARY_MODES(SUBTRACT, Sub, S)
  PS_BINARY_MODES(SUBTRACT, Sub, L)
  PS_BINARY_MODES(MULTIPLY, Mul, S)
  PS_BINARY_MODES(MULTIPLY, Mul, L)
  PS_BINARY_MODES(DIVISION, Div, S)
  PS_BINARY_MODES(DIVISION, Div, L)
  PS_BINARY_MODES(MODULO, Mod, S)
  PS_BINARY_MODES(MODULO, Mod, L)
  PS_BINARY_MODES(AND, And, S)
  PS_BINARY_MODES(AND, And, L)
  PS_BINARY_MODES(OR, Or, S)
  PS_BINARY_MODES(OR, Or, L)
  PS_BINARY_MODES(POWER, Exp, S)
  PS_BINARY_MODES(POWER, Exp, L)
  PS_BINARY_MODES(GREATER, Gt, S)
  PS_BINARY_MODES(GREATER, Gt, J)
  PS_BINARY_MODES(EQUAL, Eq, S)
  PS_BINARY_MODES(EQUAL, Eq, J)
  PS_BINARY_MODES(LESS, Lt, S)
  PS_BINARY_MODES(LESS, Lt, J)
  PS_BINARY_MODES(LESS_EQUAL, Le, S)
  PS_BINARY_MODES(LESS_EQUAL, Le, J)
  PS_BINARY_MODES(GREATER_EQUAL, Ge, S)
  PS_BINARY_MODES(GREATER_EQUAL, Ge, J)
  PS_BINARY_MODES(NOT_EQUAL, Ne, S)
  PS_BINARY_MODES(NOT_EQUAL, Ne, J)
  // clang-format on
}

#pragma GCC diagnostic pop
