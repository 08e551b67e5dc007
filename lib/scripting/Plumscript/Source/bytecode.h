// The instruction set: one table is the only truth about opcodes, their operands and their texts.
//
// An instruction is an opcode byte followed by its operand bytes. Sixteen-bit operands are low byte
// first, except pushfun's. Label operands index the function's label table; relative operands are
// distances counted from the address of the operand byte itself.
#pragma once

#include <cstdint>

enum psOpcode : uint8_t {
  kOpPushTrue = 0x81,
  kOpPushFalse,
  kOpPushInvalid,
  kOpPushString,
  kOpPushString2,
  kOpPushInt,
  kOpPushInt2,
  kOpPushFloat,
  kOpPushDouble,
  kOpPushFun,
  kOpCallGlobal,
  kOpCall,
  kOpCallObjFun,
  kOpCallType,
  kOpPrint,
  kOpIfFalseLabel,
  kOpCallGetGlobalAA,
  kOpCallCreateObject,
  kOpCreateObjectIdx,
  kOpNot,
  kOpNeg,
  kOpOrPretest,
  kOpAndPretest,
  kOpAdd,
  kOpSub,
  kOpMul,
  kOpDiv,
  kOpExp,
  kOpAnd,
  kOpOr,
  kOpGt,
  kOpEq,
  kOpLt,
  kOpLe,
  kOpGe,
  kOpNe,
  kOpMod,
  kOpSwap,
  kOpDrop,
  kOpConvertTop,
  kOpPushLocal,
  kOpPopLocal,
  kOpConvertLocal,
  kOpArraySet,
  kOpDotSet,
  kOpDotSet2,
  kOpEnd,
  kOpArray,
  kOpDot,
  kOpDot2,
  kOpJump,
  kOpReturn,
  kOpFor,
  kOpForEach,
  kOpNextEach,
  kOpNext,
  kOpStop,
  kOpIfFalseRelative,
  kOpDim,
  kOpNumFunArgs,
  kOpCallPos,
  kOpCallEval,
  kOpCallBox,
  kOpCallRun,
  kOpCallRunRtErr,
  kOpCallRunClErr,
  kOpAttr,
  kOpJmpFwd,
  kOpDup,
  kOpNop,
};
constexpr uint8_t kOpFirst = 0x81;
constexpr uint8_t kOpLast = 0xc6;
static_assert(kOpNop == kOpLast);
constexpr int kOpCount = kOpLast - kOpFirst + 1;

// How an instruction's operand bytes read.
enum class psOperands : uint8_t {
  kNone,
  kString8,     // b1: string constant
  kString16,    // LE
  kInt8,        // b1: integer constant
  kInt16,       // LE
  kFloat8,      // b1: float constant
  kDouble8,     // b1: double constant
  kFunction16,  // BE function index
  kGlobalCall,  // b1: argument count; b2: index into ifGlobal
  kCount,       // b1: a count
  kPrint,       // b1: item count; pattern bytes up to 'E'
  kLabel,       // b1: label
  kClassIndex,  // b1: class index
  kRelative,    // b1: distance
  kType,        // b1: psTypeEnum
  kLocal,       // b1: slot; b2: 0
  kLocalType,   // b1: slot; b2: psTypeEnum
  kName8,       // b1: name
  kName16,      // LE
  kLocalLabel,  // b1: slot; b2: label
  kCountLocal,  // b1: dimension count; b2: slot
};

struct psOpcodeRow {
  psOpcode opcode;
  const char* mnemonic;
  psOperands operands;
  const char* listing;  // the disassembler's format of the operand part
};

extern const psOpcodeRow kPsOpcodes[kOpCount];
inline const psOpcodeRow* psOpcodeInfo(uint8_t byte) {
  return byte >= kOpFirst && byte <= kOpLast ? &kPsOpcodes[byte - kOpFirst] : nullptr;
}

// Length in bytes of the instruction at code[pc], given code bytes up to size; 0 when the byte is
// no opcode or the instruction does not fit.
int psInstructionLength(const uint8_t* code, uint32_t size, uint32_t pc);
