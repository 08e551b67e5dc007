// The decoded form of bytecode.
//
// The interpreter does not run the bytes of a function but an array of fixed-size instructions made
// from them when the function is first called: operands widened, constants and names resolved to
// pointers, jumps to array positions, common sequences fused into one. Each instruction knows the
// code offset of the byte instruction that it stands for, so errors, the debugger and saved
// positions speak of code offsets only.
//
// There are two forms. The fast form is fused and trusts an analysis of the stack: no path through
// the function takes more than it put there, and the deepest stack is known, so that one check on
// entry is enough. The plain form has one instruction for every byte instruction and checks stack,
// break word and step flag before each; it serves functions that the analysis rejects (GOTO into or
// out of loops can do that), frames too close to the stack's end, stepping, and positions in the
// middle of a fused sequence.
//
// A step over a line that loops for long would be slow in the plain form. So the code of one line
// also has a step form: a copy of the fast one in which everything outside the line leads back to
// the interpreter's resume point.
//
// Code that is appended to a function later is decoded as a chunk of its own; chunks made before
// stay valid, because frames may be running them.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "comp_mod.h"
#include "psc.h"

struct psInstruction {
  const void* handler;
  uint8_t a, b, c;
  uint8_t back;  // bytes from the first fused byte instruction to the one at pc
  int32_t jump;  // distance in instructions from this one
  union {
    const psTypedValue* constant;
    psName* name;
    const fundes* function;
    const uint8_t* pattern;
    int64_t number;
  } x;
  uint32_t pc;       // code offset of the byte instruction that can fail
  uint32_t next_pc;  // and of the one behind it
};
static_assert(sizeof(psInstruction) == 32);

// The interpreter's operations. A suffix tells where operands are: L a local slot, K a constant, S
// the stack; behind an underscore where the result goes: S the stack, L a local, J nowhere (the
// comparison jumps when it is false).
#define PS_BINARY_MODES(X, OP, DST) \
  X(OP, LL, DST) X(OP, LK, DST) X(OP, KL, DST) X(OP, SL, DST) X(OP, SK, DST) X(OP, SS, DST)
#define PS_ARITHMETIC_OPS(X)                                                                  \
  PS_BINARY_MODES(X, Add, S)                                                                  \
  PS_BINARY_MODES(X, Add, L) PS_BINARY_MODES(X, Sub, S) PS_BINARY_MODES(X, Sub, L)            \
      PS_BINARY_MODES(X, Mul, S) PS_BINARY_MODES(X, Mul, L) PS_BINARY_MODES(X, Div, S)        \
          PS_BINARY_MODES(X, Div, L) PS_BINARY_MODES(X, Mod, S) PS_BINARY_MODES(X, Mod, L)    \
              PS_BINARY_MODES(X, And, S) PS_BINARY_MODES(X, And, L) PS_BINARY_MODES(X, Or, S) \
                  PS_BINARY_MODES(X, Or, L) PS_BINARY_MODES(X, Exp, S) PS_BINARY_MODES(X, Exp, L)
#define PS_COMPARISON_OPS(X)                                                            \
  PS_BINARY_MODES(X, Gt, S)                                                             \
  PS_BINARY_MODES(X, Gt, J) PS_BINARY_MODES(X, Eq, S) PS_BINARY_MODES(X, Eq, J)         \
      PS_BINARY_MODES(X, Lt, S) PS_BINARY_MODES(X, Lt, J) PS_BINARY_MODES(X, Le, S)     \
          PS_BINARY_MODES(X, Le, J) PS_BINARY_MODES(X, Ge, S) PS_BINARY_MODES(X, Ge, J) \
              PS_BINARY_MODES(X, Ne, S) PS_BINARY_MODES(X, Ne, J)

#define PS_PLAIN_OPS(X)                                                                         \
  X(PushK)                                                                                      \
  X(PushDouble) X(PushL) X(PopL) X(ConvertTop) X(ConvertL) X(CallGlobal) X(Call) X(CallBuiltin) \
      X(CallType) X(Print) X(IfFalse) X(CreateIdx) X(Not) X(Neg) X(OrPretest) X(AndPretest)     \
          X(Swap) X(Drop) X(ArraySet) X(DotSet) X(End) X(Array) X(ArrayCall) X(Dot) X(DotCall)  \
              X(DotInterface) X(DotDot) X(Jump) X(JumpBack) X(Return) X(For) X(ForEach)         \
                  X(NextEach) X(Next) X(Stop) X(Dim) X(NumFunArgs) X(Attr) X(Dup) X(Nop) X(Leave)
#define PS_FUSED_OPS(X)                                                                           \
  X(ChainBegin)                                                                                   \
  X(ChainEnd) X(PopLTyped) X(ReturnTyped) X(ReturnL) X(PushLL) X(MoveL) X(SetLK) X(IndexLL_S)     \
      X(IndexLK_S) X(IndexSL_S) X(IndexSK_S) X(IndexSS_S) X(IndexLL_L) X(IndexLK_L) X(IndexSetLL) \
          X(IndexSetLK) X(IndexSetSS) X(DotL_S) X(DotL_L) X(DotSetL) X(DotCallL) X(GlobalLen)     \
              X(GlobalAsc) X(GlobalChr) X(GlobalMid2) X(GlobalMid3) X(GlobalAbs) X(GlobalInt)     \
                  X(GlobalSqr) X(GlobalLeft) X(StepExit)

enum psFastOp : uint16_t {
#define X(name) kFast##name,
  PS_PLAIN_OPS(X) PS_FUSED_OPS(X)
#undef X
#define X(op, mode, dst) kFast##op##mode##_##dst,
      PS_ARITHMETIC_OPS(X) PS_COMPARISON_OPS(X)
#undef X
          kFastOpCount,
  // What a plain instruction carries in c: every plain operation fits a byte, and binary operators
  // are their SS_S form.
};
// What a fast instruction carries in c when its double may stay without a box. The plain form
// shares the handlers: there c is the operation, and none that could leave a double has this
// number.
constexpr uint8_t kPsTakesRawDouble = 1;
static_assert(kFastPushDouble == kPsTakesRawDouble && kFastNeSS_S < 256);

struct psDecodedForm {
  std::vector<psInstruction> code;
  std::vector<int32_t> index_of;  // by code offset - begin; -1 inside an instruction or sequence
};

struct psDecodedCode {
  uint32_t begin = 0;
  uint32_t end = 0;
  std::unique_ptr<psDecodedForm> fast;   // null when the analysis rejects the code
  std::unique_ptr<psDecodedForm> plain;  // made when needed
  uint32_t max_depth = 0;                // deepest stack above the locals in the fast form
  // Of the first chunk, what a call needs at hand: declared parameters, slots of a frame (they may
  // grow with code that is appended; the function's own count decides then), and where to begin.
  int parameters = 0;
  std::vector<const psInstruction*> entries;  // of the fast form, by number of arguments
  std::deque<psTypedValue> constants;         // what instructions point at
  std::unique_ptr<psDecodedCode> newer;       // chunks appended later, oldest first
  psDecodedCode* newest = nullptr;            // in the first chunk only: the last of the chain
};

// The fast form of a chunk cut down to the instructions of one line, for as long as a step stays
// there.
struct psStepForm {
  const psDecodedCode* chunk = nullptr;
  uint32_t first = 0;  // code offsets of the line
  uint32_t last = 0;
  std::vector<psInstruction> code;
};

// The decoded first chunk of a function, made when it is not there yet.
psDecodedCode* psDecode(psFunction* function);
// The chunk that holds a code offset; decodes what was appended since.
psDecodedCode* psChunkAt(psFunction* function, uint32_t pc);
// Decodes what lies before a code offset, so that what is behind it becomes a chunk, and an
// analysis, of its own.
void psDecodeUpTo(psFunction* function, uint32_t end);
// The instruction at a code offset in the fast form, or null when it has none there.
const psInstruction* psFastAt(psDecodedCode* chunk, uint32_t pc);
// The instruction at a code offset within the line first..last in the chunk's step form, or null
// when it has none there. Makes the form when it is not there yet, which ends every other position
// in it: while such a position is in use the line must stay the same.
const psInstruction* psStepAt(psStepForm* form, const psDecodedCode* chunk, uint32_t first,
                              uint32_t last, uint32_t pc);
// The instruction at a code offset in the plain form; asserts that an instruction begins there.
const psInstruction* psPlainAt(psFunction* function, psDecodedCode* chunk, uint32_t pc);
void psFreeDecoded(psFunction* function);

// With fusion off the fast form has one instruction for every byte instruction too; for tests that
// compare the two.
void psSetFusion(bool enabled);

// The interpreter's handlers by operation, and the one every plain instruction starts with.
const void* const* psHandlers();
const void* psPlainHandler();

// What a plain operation takes from the stack and puts there. a is the operation's first operand; a
// call that found its callee as a member takes one entry more.
struct psStackEffect {
  int pops;
  int pushes;
};
psStackEffect psEffectOf(psFastOp op, int a);
