// From bytes to instructions: parsing, stack analysis, fusion.
//
// Decoding has three steps. The byte string is parsed into one Step a byte instruction. The
// analysis follows every path and records, for each step, the least and the greatest depth of the
// stack above the locals; it rejects the code when a path could take more than is there or grow
// without end. Emission then walks the steps in order and replaces known sequences by one
// instruction; a sequence never reaches over a jump target, so every position that code can come to
// from elsewhere exists in the fast form.
#include "run_decode.h"

#include <algorithm>

#include "bytecode.h"
#include "clglobal.h"
#include "run.h"

namespace {

bool fusion_enabled = true;

constexpr int kUnknown = -1;

struct Step {
  psFastOp op = kFastNop;
  uint8_t opcode = 0;
  uint8_t a = 0;
  uint8_t b = 0;
  uint32_t pc = 0;
  uint32_t next_pc = 0;
  uint32_t target_pc = 0;  // of a jump
  bool jumps = false;
  bool is_target = false;
  bool in_chain = false;     // its gathering form has been emitted
  bool method_call = false;  // a Call whose callee is two entries: receiver and function
  int min_depth = kUnknown;  // before the step
  int max_depth = kUnknown;
  decltype(psInstruction::x) x = {};
};

psFastOp binaryOp(uint8_t opcode) {
  switch (opcode) {
#define X(op) \
  case kOp##op: return kFast##op##SS_S;
    X(Add)
    X(Sub) X(Mul) X(Div) X(Mod) X(And) X(Or) X(Exp) X(Gt) X(Eq) X(Lt) X(Le) X(Ge) X(Ne)
#undef X
        default : psAssertText(false, "binary opcode");
    return kFastNop;
  }
}

bool isArithmetic(uint8_t opcode) {
  return (opcode >= kOpAdd && opcode <= kOpOr) || opcode == kOpMod;
}
bool isComparison(uint8_t opcode) { return opcode >= kOpGt && opcode <= kOpNe; }
bool isBinary(uint8_t opcode) { return isArithmetic(opcode) || isComparison(opcode); }

// Where operands and result of a binary operator are, as offsets into the twelve variants of one.
enum Mode { kLL, kLK, kKL, kSL, kSK, kSS };
psFastOp binaryVariant(psFastOp ss_s, Mode mode, bool second_destination) {
  const int first = static_cast<int>(ss_s) - static_cast<int>(kSS);
  return static_cast<psFastOp>(first + (second_destination ? 6 : 0) + mode);
}

// Global functions with an operation of their own.
bool hotGlobal(const fundes* function, psFastOp* op) {
  struct Row {
    int index;
    psFastOp op;
  };
  static constexpr Row kRows[] = {
      {1, kFastGlobalAsc},   {2, kFastGlobalChr},   {3, kFastGlobalLen},
      {7, kFastGlobalAbs},   {14, kFastGlobalInt},  {19, kFastGlobalSqr},
      {21, kFastGlobalLeft}, {25, kFastGlobalMid3}, {26, kFastGlobalMid2},
  };
  const auto index = function - kPsGlobalFunctions;
  for (const Row& row : kRows) {
    if (row.index == index) {
      *op = row.op;
      return true;
    }
  }
  return false;
}

class Decoder {
 public:
  Decoder(psFunction* function, psDecodedCode* chunk)
      : function_(function), module_(function->module), chunk_(chunk) {}

  void parse();
  bool analyse();
  std::unique_ptr<psDecodedForm> emit(bool plain);

 private:
  const uint8_t* at(uint32_t pc) const { return function_->code.data() + pc; }
  const psTypedValue* constant(psTypedValue v) {
    chunk_->constants.push_back(v);
    return &chunk_->constants.back();
  }
  psName* name(unsigned index) { return const_cast<psName*>(module_->names[index]); }
  void parseStep(uint32_t pc, Step* s);
  void parseDot(uint32_t pc, Step* s);
  void pushConstant(Step* s, psTypedValue v) {
    s->op = kFastPushK;
    s->x.constant = constant(v);
  }
  void jumpTo(Step* s, uint32_t pc) {
    s->jumps = true;
    s->target_pc = pc;
  }
  void jumpToLabel(Step* s, unsigned label) {
    jumpTo(s, static_cast<uint32_t>(function_->label_positions[label]));
  }
  void markTarget(uint32_t pc) {
    const int i = stepAt(pc);
    if (i >= 0) steps_[static_cast<size_t>(i)].is_target = true;
  }
  int stepAt(uint32_t pc) const {
    return pc >= chunk_->begin && pc < chunk_->end ? step_of_[pc - chunk_->begin] : kUnknown;
  }
  void markMethodCalls();
  psStackEffect effect(const Step& s) const;
  bool flow(size_t from, int min_depth, int max_depth);

  // Emission.
  size_t fuse(size_t i);
  size_t fuseBinary(size_t first, size_t op, Mode mode);
  psInstruction& add(psFastOp op, size_t first, size_t failing, size_t last);
  bool free(size_t i) const { return i < steps_.size() && !steps_[i].is_target; }
  bool is(size_t i, psFastOp op) const { return i < steps_.size() && steps_[i].op == op; }
  bool follows(size_t i, psFastOp op) const { return free(i) && steps_[i].op == op; }
  bool isBinaryAt(size_t i) const { return free(i) && isBinary(steps_[i].opcode); }
  bool isConstant(size_t i) const { return is(i, kFastPushK) || is(i, kFastPushDouble); }
  enum class Box { kNew, kKept };
  bool consumerTakesRawDouble(size_t producer, Box box = Box::kNew) const;
  void setJump(uint32_t target_pc) { jumps_.push_back({form_->code.size() - 1, target_pc}); }
  void resolveJumps();
  size_t chainEnd(size_t first) const;
  bool emitChain(size_t first);

  psFunction* function_;
  psModule* module_;
  psDecodedCode* chunk_;
  std::vector<Step> steps_;
  std::vector<int> step_of_;
  std::vector<size_t> work_;
  psDecodedForm* form_ = nullptr;
  struct PendingJump {
    size_t instruction;
    uint32_t target_pc;
  };
  std::vector<PendingJump> jumps_;
};

// --- Parsing ----------------------------------------------------------------------------------

// What a dot does when the object has no such member depends on what comes next; all of it is known
// here.
void Decoder::parseDot(uint32_t pc, Step* s) {
  const uint8_t* code = at(pc);
  s->x.name = name(code[0] == kOpDot ? code[1] : code[1] + 256u * code[2]);
  const uint32_t next = s->next_pc;
  const uint32_t size = static_cast<uint32_t>(function_->code.size());
  const uint8_t following = next < size ? *at(next) : 0;
  if (following == kOpNumFunArgs) {
    s->op = kFastDotCall;
    s->a = at(next)[1];
    jumpTo(s, next + 2);
    return;
  }
  s->op = kFastDot;
  if (following != kOpDot && following != kOpDot2) return;
  const uint32_t after = next + (following == kOpDot ? 2 : 3);
  const bool call = after < size && *at(after) == kOpNumFunArgs;
  s->op = call ? kFastDotInterface : kFastDotDot;
  if (call) jumpTo(s, after + 2);
}

void Decoder::parseStep(uint32_t pc, Step* s) {
  const uint8_t* code = at(pc);
  const int length = psInstructionLength(function_->code.data(),
                                         static_cast<uint32_t>(function_->code.size()), pc);
  if (length <= 0) {
    std::string text = "Undefined opcode " + std::to_string(code[0]) + "\n";
    pscPrint(text);
    psAssertText(false, "undefined opcode");
  }
  s->opcode = code[0];
  s->pc = pc;
  s->next_pc = pc + static_cast<uint32_t>(length);
  const unsigned b1 = length > 1 ? code[1] : 0;
  const unsigned b2 = length > 2 ? code[2] : 0;
  s->a = static_cast<uint8_t>(b1);
  s->b = static_cast<uint8_t>(b2);
  const unsigned wide = b1 + 256u * b2;
  switch (code[0]) {
    case kOpPushTrue: return pushConstant(s, psBooleanValue(true));
    case kOpPushFalse: return pushConstant(s, psBooleanValue(false));
    case kOpPushInvalid: return pushConstant(s, psInvalidValue());
    case kOpPushString: return pushConstant(s, psStringConstantValue(*module_->strings[b1]));
    case kOpPushString2: return pushConstant(s, psStringConstantValue(*module_->strings[wide]));
    case kOpPushInt: return pushConstant(s, psIntegerValue(module_->integers[b1]));
    case kOpPushInt2: return pushConstant(s, psIntegerValue(module_->integers[wide]));
    case kOpPushFloat: return pushConstant(s, psFloatValue(module_->floats[b1]));
    case kOpPushDouble: {
      psTypedValue raw = psMakeValue(kPsRawDoubleFlag, 0);
      raw.value.d = module_->doubles[b1];
      pushConstant(s, raw);
      s->op = kFastPushDouble;
      return;
    }
    case kOpPushFun: return pushConstant(s, psFunctionValue(256u * b1 + b2));
    case kOpCallGlobal:
      s->op = kFastCallGlobal;
      s->x.function = &kPsGlobalFunctions[b2];
      return;
    case kOpCall: s->op = kFastCall; return;
    case kOpCallType: s->op = kFastCallType; return;
    case kOpCallObjFun:
    case kOpCallGetGlobalAA:
    case kOpCallCreateObject:
    case kOpCallPos:
    case kOpCallEval:
    case kOpCallBox:
    case kOpCallRun:
    case kOpCallRunRtErr:
    case kOpCallRunClErr:
      s->op = kFastCallBuiltin;
      s->b = code[0];
      return;
    case kOpPrint:
      s->op = kFastPrint;
      s->x.pattern = nullptr;  // read from the code: appended code may move the bytes
      return;
    case kOpIfFalseLabel: s->op = kFastIfFalse; return jumpToLabel(s, b1);
    case kOpIfFalseRelative: s->op = kFastIfFalse; return jumpTo(s, pc + 1 + b1);
    case kOpCreateObjectIdx: s->op = kFastCreateIdx; return;
    case kOpNot: s->op = kFastNot; return;
    case kOpNeg: s->op = kFastNeg; return;
    case kOpOrPretest: s->op = kFastOrPretest; return jumpTo(s, pc + 1 + b1);
    case kOpAndPretest: s->op = kFastAndPretest; return jumpTo(s, pc + 1 + b1);
    case kOpSwap: s->op = kFastSwap; return;
    case kOpDrop: s->op = kFastDrop; return;
    case kOpConvertTop: s->op = kFastConvertTop; return;
    case kOpPushLocal: s->op = kFastPushL; return;
    case kOpPopLocal: s->op = kFastPopL; return;
    case kOpConvertLocal: s->op = kFastConvertL; return;
    case kOpArraySet: s->op = kFastArraySet; return;
    case kOpDotSet:
      s->op = kFastDotSet;
      s->x.name = name(b1);
      return;
    case kOpDotSet2:
      s->op = kFastDotSet;
      s->x.name = name(wide);
      return;
    case kOpEnd: s->op = kFastEnd; return;
    case kOpArray: {
      const bool call = s->next_pc < function_->code.size() && *at(s->next_pc) == kOpNumFunArgs;
      s->op = call ? kFastArrayCall : kFastArray;
      return;
    }
    case kOpDot:
    case kOpDot2: return parseDot(pc, s);
    case kOpJump: {
      const auto target = static_cast<uint32_t>(function_->label_positions[b1]);
      s->op = target <= pc ? kFastJumpBack : kFastJump;
      return jumpTo(s, target);
    }
    case kOpJmpFwd: s->op = kFastJump; return jumpTo(s, pc + 1 + b1);
    case kOpReturn: s->op = kFastReturn; return;
    case kOpFor: s->op = kFastFor; return jumpToLabel(s, b2);
    case kOpForEach: s->op = kFastForEach; return jumpToLabel(s, b2);
    case kOpNextEach: s->op = kFastNextEach; return jumpToLabel(s, b2);
    case kOpNext: s->op = kFastNext; return jumpToLabel(s, b2);
    case kOpStop: s->op = kFastStop; return;
    case kOpDim: s->op = kFastDim; return;
    case kOpNumFunArgs: s->op = kFastNumFunArgs; return;
    case kOpAttr:
      s->op = kFastAttr;
      s->x.name = name(wide);
      return;
    case kOpDup: s->op = kFastDup; return;
    case kOpNop: s->op = kFastNop; return;
    default: s->op = binaryOp(code[0]);
  }
}

void Decoder::parse() {
  step_of_.assign(chunk_->end - chunk_->begin, kUnknown);
  for (uint32_t pc = chunk_->begin; pc < chunk_->end;) {
    step_of_[pc - chunk_->begin] = static_cast<int>(steps_.size());
    parseStep(pc, &steps_.emplace_back());
    pc = steps_.back().next_pc;
  }
  for (const Step& s : steps_) {
    if (!s.jumps) continue;
    // Calls skip to what follows them anyway; that is no place other code comes to.
    if (s.op == kFastDotCall || s.op == kFastDotInterface) continue;
    markTarget(s.target_pc);
    if (s.op == kFastForEach) {
      markTarget(s.target_pc + 1);
      markTarget(s.target_pc + 2);
    }
  }
  for (int32_t pc : function_->label_positions) markTarget(static_cast<uint32_t>(pc));
  if (chunk_->begin == 0) {
    for (uint16_t pc : function_->callvarinits) {
      if (pc != kPsNoEntry) markTarget(pc);
    }
  }
  markMethodCalls();
}

// Argument lists nest properly in expression code, so a stack of open ones finds each call's own
// num_fun_args and with it what stands before the list.
void Decoder::markMethodCalls() {
  std::vector<bool> open;
  for (size_t i = 0; i < steps_.size(); i++) {
    if (steps_[i].op == kFastNumFunArgs) {
      const bool method =
          i > 0 && (steps_[i - 1].op == kFastDotCall || steps_[i - 1].op == kFastArrayCall);
      open.push_back(method && steps_[i - 1].op == kFastDotCall);
    } else if (steps_[i].op == kFastCall && !open.empty()) {
      steps_[i].method_call = open.back();
      open.pop_back();
    }
  }
}

// --- Analysis ---------------------------------------------------------------------------------

psStackEffect Decoder::effect(const Step& s) const {
  psStackEffect e = psEffectOf(s.op, s.a);
  if (s.method_call) e.pops++;
  return e;
}

// Joins a depth into a step; queues the step when that widened it. False when it keeps growing.
bool Decoder::flow(size_t to, int min_depth, int max_depth) {
  if (to >= steps_.size()) return true;  // leaves the chunk: its target is looked up at run time
  Step& s = steps_[to];
  const bool first = s.min_depth == kUnknown;
  if (!first && min_depth >= s.min_depth && max_depth <= s.max_depth) return true;
  s.min_depth = first ? min_depth : std::min(s.min_depth, min_depth);
  s.max_depth = first ? max_depth : std::max(s.max_depth, max_depth);
  if (s.max_depth > kPsStackSlots) return false;
  work_.push_back(to);
  return true;
}

bool Decoder::analyse() {
  // A loop that grows the stack widens its depths at every turn; the bounds on the depth and on the
  // rounds end that.
  size_t rounds = 0;
  const size_t max_rounds = steps_.size() * 16 + 64;
  bool ok = true;
  if (chunk_->begin == 0) {
    for (uint16_t pc : function_->callvarinits) {
      if (pc != kPsNoEntry && stepAt(pc) >= 0)
        ok = ok && flow(static_cast<size_t>(stepAt(pc)), 0, 0);
    }
  } else {
    ok = flow(0, 0, 0);
  }
  while (ok && !work_.empty()) {
    if (++rounds > max_rounds) return false;
    const size_t i = work_.back();
    work_.pop_back();
    const Step& s = steps_[i];
    const psStackEffect e = effect(s);
    if (s.min_depth < e.pops) return false;
    const int low = s.min_depth - e.pops + e.pushes;
    const int high = s.max_depth - e.pops + e.pushes;
    chunk_->max_depth =
        std::max(chunk_->max_depth, static_cast<uint32_t>(std::max(high, s.max_depth)));
    auto follow = [&](uint32_t pc, int change) {
      const int target = stepAt(pc);
      if (target >= 0) ok = ok && flow(static_cast<size_t>(target), low + change, high + change);
    };
    switch (s.op) {
      case kFastJump:
      case kFastJumpBack: follow(s.target_pc, 0); continue;
      case kFastReturn:
      case kFastEnd: continue;
      case kFastDotCall: break;
      case kFastDotInterface:
        // Either a member was found and the next dot follows, or the whole call was resolved.
        follow(s.target_pc, 1);
        break;
      case kFastForEach:
        follow(s.target_pc + 1, -1);
        follow(s.target_pc + 2, -2);
        break;
      default:
        if (s.jumps) follow(s.target_pc, 0);
    }
    ok = ok && flow(i + 1, low, high);
  }
  return ok;
}

// --- Emission ---------------------------------------------------------------------------------

psInstruction& Decoder::add(psFastOp op, size_t first, size_t failing, size_t last) {
  psInstruction& ins = form_->code.emplace_back();
  const Step& f = steps_[failing];
  ins = {};
  ins.handler = psHandlers()[op];
  ins.a = f.a;
  ins.b = f.b;
  ins.x = f.x;
  ins.pc = f.pc;
  ins.next_pc = f.next_pc;
  ins.back = static_cast<uint8_t>(f.pc - steps_[first].pc);
  form_->index_of[steps_[first].pc - chunk_->begin] = static_cast<int32_t>(form_->code.size() - 1);
  if (steps_[last].jumps) setJump(steps_[last].target_pc);
  return ins;
}

// Whether the double that a step leaves on the stack goes straight into an operator or a store that
// can take it without a box. Follows the code in a line; anything that could come from or go
// elsewhere ends the search. A box that a container keeps is worth more than its number to whoever
// stores it: both share it then, and the value tells its type as the container's does.
bool Decoder::consumerTakesRawDouble(size_t producer, Box box) const {
  constexpr size_t kSearch = 48;
  int above = 1;  // entries from the value to the top, itself included
  for (size_t i = producer + 1; i < steps_.size() && i < producer + kSearch; i++) {
    const Step& s = steps_[i];
    if (s.is_target) return false;
    const psStackEffect e = effect(s);
    if (e.pops >= above) {
      if (isBinary(s.opcode)) return true;
      if (s.op == kFastConvertTop && s.a == psDouble) continue;
      if (s.op == kFastPopL) return box == Box::kNew;
      psFastOp hot;
      if (s.op == kFastCallGlobal && hotGlobal(s.x.function, &hot)) {
        return hot == kFastGlobalAbs || hot == kFastGlobalInt || hot == kFastGlobalSqr;
      }
      if (!fusion_enabled || box == Box::kKept) return false;
      if (s.op == kFastDotSet) return above == 2;
      return s.op == kFastArraySet && s.a == 1 && above == 3;
    }
    switch (s.op) {
      case kFastIfFalse:
      case kFastOrPretest:
      case kFastAndPretest:
      case kFastJump:
      case kFastJumpBack:
      case kFastFor:
      case kFastForEach:
      case kFastNext:
      case kFastNextEach:
      case kFastReturn:
      case kFastEnd:
      case kFastStop:
      case kFastDotInterface:
      case kFastCall:
      case kFastCallBuiltin: return false;
      default: above += e.pushes - e.pops;
    }
  }
  return false;
}

// A binary operator at step op whose operands begin at step first.
size_t Decoder::fuseBinary(size_t first, size_t op, Mode mode) {
  const Step& s = steps_[op];
  const psFastOp base = binaryOp(s.opcode);
  uint8_t a = 0;
  uint8_t b = 0;
  decltype(psInstruction::x) x = {};
  switch (mode) {
    case kLL:
      a = steps_[first].a;
      b = steps_[first + 1].a;
      break;
    case kLK:
      a = steps_[first].a;
      x = steps_[first + 1].x;
      break;
    case kKL:
      x = steps_[first].x;
      b = steps_[first + 1].a;
      break;
    case kSL: b = steps_[first].a; break;
    case kSK: x = steps_[first].x; break;
    case kSS: break;
  }
  const bool raw = consumerTakesRawDouble(op);
  if (isComparison(s.opcode) && follows(op + 1, kFastIfFalse)) {
    psInstruction& ins = add(binaryVariant(base, mode, true), first, op, op + 1);
    ins.a = a;
    ins.b = b;
    ins.x = x;
    return op + 2;
  }
  const bool to_local = isArithmetic(s.opcode) && follows(op + 1, kFastPopL);
  psInstruction& ins = add(binaryVariant(base, mode, to_local), first, op, op);
  ins.a = a;
  ins.b = b;
  ins.x = x;
  ins.c = to_local ? steps_[op + 1].a : (raw ? kPsTakesRawDouble : 0);
  return op + (to_local ? 2 : 1);
}

// For `pushlocal s` at a step: the step of `poplocal s` when in between stands a sum of s and at
// least two pieces, s leftmost; 0 otherwise. The pieces may be anything but code that could change
// s or come from elsewhere.
size_t Decoder::chainEnd(size_t first) const {
  constexpr size_t kSearch = 96;
  int above = 1;
  int sums = 0;
  bool given = false;  // s itself is among the pieces: a call might get it and change it
  for (size_t i = first + 1; i < steps_.size() && i < first + kSearch; i++) {
    const Step& s = steps_[i];
    if (s.is_target) return 0;
    given |= s.op == kFastPushL && s.a == steps_[first].a;
    if (given && (s.op == kFastCall || s.op == kFastCallBuiltin)) return 0;
    const psStackEffect e = effect(s);
    if (e.pops >= above) {
      if (s.opcode == kOpAdd && above == 2) {
        sums++;
        above = 1;
        continue;
      }
      if (s.op == kFastConvertTop && s.a == psString) continue;
      return s.op == kFastPopL && s.a == steps_[first].a && sums >= 2 ? i : 0;
    }
    if (s.jumps && s.op != kFastDotCall) return 0;
    if (s.op == kFastCallBuiltin && s.b == kOpCallEval) return 0;
    if (s.op == kFastReturn || s.op == kFastEnd || s.op == kFastStop) return 0;
    above += e.pushes - e.pops;
  }
  return 0;
}

// Emits the gathering form of `s = s + a + b …`, behind which the ordinary one follows.
bool Decoder::emitChain(size_t first) {
  const size_t end = chainEnd(first);
  if (end == 0) return false;
  const auto begin = form_->code.size();
  add(kFastChainBegin, first, first, first);
  // The last sum must not swallow the store.
  const bool was_target = steps_[end].is_target;
  steps_[end].is_target = true;
  for (size_t i = first + 1; i < end;) i = fuse(i);
  steps_[end].is_target = was_target;
  add(kFastChainEnd, end, end, end);
  form_->code.emplace_back() = {};
  form_->code.back().handler = psHandlers()[kFastJump];
  setJump(steps_[end].next_pc);
  form_->code[begin].jump = static_cast<int32_t>(form_->code.size() - begin);
  // Positions in between belong to the ordinary form.
  for (size_t i = first; i <= end; i++) form_->index_of[steps_[i].pc - chunk_->begin] = -1;
  return true;
}

// Emits the instruction for the longest known sequence at step i; returns the step behind it.
size_t Decoder::fuse(size_t i) {
  const Step& s = steps_[i];
  if (s.op == kFastPushL && !steps_[i].in_chain) {
    const auto begin = static_cast<int32_t>(form_->code.size());
    if (emitChain(i)) {
      steps_[i].in_chain = true;
      const size_t next = fuse(i);
      form_->index_of[s.pc - chunk_->begin] = begin;
      return next;
    }
  }
  if (isBinary(s.opcode)) return fuseBinary(i, i, kSS);
  if (s.op == kFastPushL) {
    if (follows(i + 1, kFastPushL)) {
      if (isBinaryAt(i + 2)) return fuseBinary(i, i + 2, kLL);
      if (follows(i + 2, kFastArray) && steps_[i + 2].a == 1) {
        const bool to_local = follows(i + 3, kFastPopL);
        psInstruction& ins = add(to_local ? kFastIndexLL_L : kFastIndexLL_S, i, i + 2, i + 2);
        ins.a = s.a;
        ins.b = steps_[i + 1].a;
        ins.c = to_local ? steps_[i + 3].a : consumerTakesRawDouble(i + 2, Box::kKept);
        return i + (to_local ? 4 : 3);
      }
      if (follows(i + 2, kFastArraySet) && steps_[i + 2].a == 1) {
        psInstruction& ins = add(kFastIndexSetLL, i, i + 2, i + 2);
        ins.a = s.a;
        ins.b = steps_[i + 1].a;
        return i + 3;
      }
      // The second one may begin a sequence of its own; two plain pushes come last.
      if (isBinaryAt(i + 3) && (free(i + 2) && (isConstant(i + 2) || is(i + 2, kFastPushL)))) {
        add(kFastPushL, i, i, i);
        return i + 1;
      }
    }
    if (free(i + 1) && isConstant(i + 1)) {
      if (isBinaryAt(i + 2)) return fuseBinary(i, i + 2, kLK);
      if (follows(i + 2, kFastArray) && steps_[i + 2].a == 1 && is(i + 1, kFastPushK)) {
        const bool to_local = follows(i + 3, kFastPopL);
        psInstruction& ins = add(to_local ? kFastIndexLK_L : kFastIndexLK_S, i, i + 2, i + 2);
        ins.a = s.a;
        ins.x = steps_[i + 1].x;
        ins.c = to_local ? steps_[i + 3].a : consumerTakesRawDouble(i + 2, Box::kKept);
        return i + (to_local ? 4 : 3);
      }
      if (follows(i + 2, kFastArraySet) && steps_[i + 2].a == 1 && is(i + 1, kFastPushK)) {
        psInstruction& ins = add(kFastIndexSetLK, i, i + 2, i + 2);
        ins.a = s.a;
        ins.x = steps_[i + 1].x;
        return i + 3;
      }
    }
    if (isBinaryAt(i + 1)) return fuseBinary(i, i + 1, kSL);
    if (follows(i + 1, kFastArray) && steps_[i + 1].a == 1) {
      psInstruction& ins = add(kFastIndexSL_S, i, i + 1, i + 1);
      ins.b = s.a;
      ins.c = consumerTakesRawDouble(i + 1, Box::kKept);
      return i + 2;
    }
    if (follows(i + 1, kFastDot)) {
      const bool to_local = follows(i + 2, kFastPopL);
      psInstruction& ins = add(to_local ? kFastDotL_L : kFastDotL_S, i, i + 1, i + 1);
      ins.a = s.a;
      ins.c = to_local ? steps_[i + 2].a : consumerTakesRawDouble(i + 1, Box::kKept);
      return i + (to_local ? 3 : 2);
    }
    if (follows(i + 1, kFastDotSet)) {
      psInstruction& ins = add(kFastDotSetL, i, i + 1, i + 1);
      ins.a = s.a;
      return i + 2;
    }
    if (follows(i + 1, kFastDotCall) && follows(i + 2, kFastNumFunArgs)) {
      psInstruction& ins = add(kFastDotCallL, i, i + 1, i + 2);
      ins.b = s.a;  // a stays the argument count
      ins.jump = 1;
      return i + 3;
    }
    if (follows(i + 1, kFastPopL)) {
      psInstruction& ins = add(kFastMoveL, i, i + 1, i + 1);
      ins.b = s.a;
      return i + 2;
    }
    if (follows(i + 1, kFastReturn)) {
      psInstruction& ins = add(kFastReturnL, i, i + 1, i + 1);
      ins.a = s.a;
      return i + 2;
    }
    if (follows(i + 1, kFastPushL) && !follows(i + 2, kFastDot) && !follows(i + 2, kFastDotCall)) {
      psInstruction& ins = add(kFastPushLL, i, i, i + 1);
      ins.b = steps_[i + 1].a;
      ins.next_pc = steps_[i + 1].next_pc;
      return i + 2;
    }
  }
  if (isConstant(i)) {
    if (follows(i + 1, kFastPushL) && isBinaryAt(i + 2)) return fuseBinary(i, i + 2, kKL);
    if (isBinaryAt(i + 1)) return fuseBinary(i, i + 1, kSK);
    if (s.op == kFastPushK && follows(i + 1, kFastArray) && steps_[i + 1].a == 1) {
      psInstruction& ins = add(kFastIndexSK_S, i, i + 1, i + 1);
      ins.x = s.x;
      ins.c = consumerTakesRawDouble(i + 1, Box::kKept);
      return i + 2;
    }
    if (s.op == kFastPushK && follows(i + 1, kFastPopL)) {
      psInstruction& ins = add(kFastSetLK, i, i + 1, i + 1);
      ins.x = s.x;
      return i + 2;
    }
  }
  if (s.op == kFastArray && s.a == 1) {
    add(kFastIndexSS_S, i, i, i).c = consumerTakesRawDouble(i, Box::kKept);
    return i + 1;
  }
  if (s.op == kFastArraySet && s.a == 1) {
    add(kFastIndexSetSS, i, i, i);
    return i + 1;
  }
  if (s.op == kFastConvertTop && follows(i + 1, kFastPopL)) {
    psInstruction& ins = add(kFastPopLTyped, i, i, i);
    ins.b = s.a;
    ins.a = steps_[i + 1].a;
    return i + 2;
  }
  if (s.op == kFastConvertTop && follows(i + 1, kFastReturn)) {
    add(kFastReturnTyped, i, i, i);
    return i + 2;
  }
  if (s.op == kFastDotCall && follows(i + 1, kFastNumFunArgs)) {
    add(kFastDotCall, i, i, i + 1).jump = 1;
    return i + 2;
  }
  if (s.op == kFastNumFunArgs) {
    // Nothing to do; the position is found at the instruction that follows.
    form_->index_of[s.pc - chunk_->begin] = static_cast<int32_t>(form_->code.size());
    return i + 1;
  }
  psFastOp hot;
  if (s.op == kFastCallGlobal && hotGlobal(s.x.function, &hot)) {
    psInstruction& ins = add(hot, i, i, i);
    ins.c = consumerTakesRawDouble(i) ? 1 : 0;
    return i + 1;
  }
  add(s.op, i, i, i);
  return i + 1;
}

void Decoder::resolveJumps() {
  std::vector<psInstruction>& code = form_->code;
  for (const PendingJump& j : jumps_) {
    const uint32_t target = j.target_pc;
    int32_t index = target >= chunk_->begin && target < chunk_->end
                        ? form_->index_of[target - chunk_->begin]
                        : -1;
    if (index < 0) {
      // Code of another chunk: an instruction that looks the position up.
      psInstruction leave = {};
      leave.handler = psHandlers()[kFastLeave];
      leave.pc = target;
      leave.next_pc = target;
      code.push_back(leave);
      index = static_cast<int32_t>(code.size() - 1);
    }
    code[j.instruction].jump = index - static_cast<int32_t>(j.instruction);
  }
}

std::unique_ptr<psDecodedForm> Decoder::emit(bool plain) {
  auto form = std::make_unique<psDecodedForm>();
  form_ = form.get();
  form->index_of.assign(chunk_->end - chunk_->begin, -1);
  form->code.reserve(steps_.size() + 4);
  for (size_t i = 0; i < steps_.size();) {
    if (!plain && fusion_enabled) {
      i = fuse(i);
      continue;
    }
    psInstruction& ins = add(steps_[i].op, i, i, i);
    if (plain) {
      ins.handler = psPlainHandler();
      ins.c = static_cast<uint8_t>(steps_[i].op);
    }
    i++;
  }
  psInstruction leave = {};
  leave.handler = psHandlers()[kFastLeave];
  leave.pc = chunk_->end;
  leave.next_pc = chunk_->end;
  form->code.push_back(leave);
  resolveJumps();
  form_ = nullptr;
  jumps_.clear();
  return form;
}

std::unique_ptr<psDecodedCode> decodeChunk(psFunction* function, uint32_t begin, uint32_t end) {
  auto chunk = std::make_unique<psDecodedCode>();
  chunk->begin = begin;
  chunk->end = end;
  Decoder decoder(function, chunk.get());
  decoder.parse();
  if (!decoder.analyse()) {
    chunk->plain = decoder.emit(true);
    return chunk;
  }
  chunk->fast = decoder.emit(false);
  if (begin == 0) {
    chunk->parameters = function->parameters();
    for (uint16_t pc : function->callvarinits) {
      chunk->entries.push_back(pc == kPsNoEntry ? nullptr : psFastAt(chunk.get(), pc));
    }
  }
  return chunk;
}

}  // namespace

psStackEffect psEffectOf(psFastOp op, int a) {
  if (op >= kFastAddLL_S) return {2, 1};  // the plain form has binary operators on the stack only
  switch (op) {
    case kFastPushK:
    case kFastPushDouble:
    case kFastPushL:
    case kFastCreateIdx: return {0, 1};
    case kFastPopL:
    case kFastDrop:
    case kFastIfFalse: return {1, 0};
    case kFastConvertTop:
    case kFastNot:
    case kFastNeg:
    case kFastOrPretest:
    case kFastAndPretest:
    case kFastDot:
    case kFastDotInterface:
    case kFastDotDot:
    case kFastAttr: return {1, 1};
    case kFastDotCall: return {1, 2};
    case kFastCallGlobal:
    case kFastCallBuiltin:
    case kFastCallType: return {a, 1};
    case kFastCall: return {a + 1, 1};
    case kFastPrint: return {a, 0};
    case kFastSwap: return {2, 2};
    case kFastArraySet: return {a + 2, 0};
    case kFastDotSet: return {2, 0};
    case kFastArray:
    case kFastArrayCall: return {a + 1, 1};
    case kFastReturn: return {1, 0};
    case kFastFor:
    case kFastNext:
    case kFastNextEach: return {2, 2};
    case kFastForEach: return {1, 2};
    case kFastDim: return {a, 0};
    case kFastDup: return {1, 2};
    default: return {0, 0};
  }
}

psDecodedCode* psDecode(psFunction* function) {
  if (function->decoded == nullptr) {
    psDecodeUpTo(function, static_cast<uint32_t>(function->code.size()));
  }
  return function->decoded;
}

void psDecodeUpTo(psFunction* function, uint32_t end) {
  if (function->decoded == nullptr) {
    function->decoded = decodeChunk(function, 0, end).release();
    function->decoded->newest = function->decoded;
    return;
  }
  psDecodedCode* last = function->decoded->newest;
  if (last->end >= end) return;
  last->newer = decodeChunk(function, last->end, end);
  function->decoded->newest = last->newer.get();
}

psDecodedCode* psChunkAt(psFunction* function, uint32_t pc) {
  psDecodedCode* first = psDecode(function);
  if (pc < first->end) return first;
  if (pc >= first->newest->end)
    psDecodeUpTo(function, static_cast<uint32_t>(function->code.size()));
  if (pc >= first->newest->begin) return first->newest;
  psDecodedCode* chunk = first;
  while (pc >= chunk->end) chunk = chunk->newer.get();
  return chunk;
}

const psInstruction* psFastAt(psDecodedCode* chunk, uint32_t pc) {
  if (chunk->fast == nullptr || pc < chunk->begin || pc >= chunk->end) return nullptr;
  const int32_t index = chunk->fast->index_of[pc - chunk->begin];
  return index >= 0 ? &chunk->fast->code[static_cast<size_t>(index)] : nullptr;
}

const psInstruction* psStepAt(psStepForm* form, const psDecodedCode* chunk, uint32_t first,
                              uint32_t last, uint32_t pc) {
  if (chunk->fast == nullptr || pc < first || pc > last || first < chunk->begin ||
      last >= chunk->end) {
    return nullptr;
  }
  const int32_t index = chunk->fast->index_of[pc - chunk->begin];
  if (index < 0) return nullptr;
  if (form->chunk != chunk || form->first != first || form->last != last) {
    form->chunk = chunk;
    form->first = first;
    form->last = last;
    form->code = chunk->fast->code;
    for (psInstruction& ins : form->code) {
      // Those that stand for no code (into another chunk, past the other form of a sum) stay.
      if (ins.next_pc == ins.pc) continue;
      const bool inside = ins.pc >= first + ins.back && ins.next_pc <= last + 1;
      if (!inside) ins.handler = psHandlers()[kFastStepExit];
    }
  }
  return &form->code[static_cast<size_t>(index)];
}

const psInstruction* psPlainAt(psFunction* function, psDecodedCode* chunk, uint32_t pc) {
  if (chunk->plain == nullptr) {
    Decoder decoder(function, chunk);
    decoder.parse();
    chunk->plain = decoder.emit(true);
  }
  psAssert(pc - chunk->begin < chunk->plain->index_of.size());
  const int32_t index = chunk->plain->index_of[pc - chunk->begin];
  psAssert(index >= 0);
  return &chunk->plain->code[static_cast<size_t>(index)];
}

void psFreeDecoded(psFunction* function) {
  psDecodedCode* chunk = function->decoded;
  function->decoded = nullptr;
  while (chunk != nullptr) {
    psDecodedCode* newer = chunk->newer.release();
    delete chunk;
    chunk = newer;
  }
}

void psFreeDecodedFrom(psFunction* function, uint32_t pc) {
  psDecodedCode* chunk = function->decoded;
  if (chunk == nullptr || chunk->end > pc) return psFreeDecoded(function);
  while (chunk->newer != nullptr && chunk->newer->end <= pc) chunk = chunk->newer.get();
  chunk->newer = nullptr;
  function->decoded->newest = chunk;
}

void psSetFusion(bool enabled) { fusion_enabled = enabled; }
