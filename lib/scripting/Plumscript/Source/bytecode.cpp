// The instruction table, in opcode order, and the length of an instruction.
//
// The listing texts are formats with one directive for each operand, in the order in which the
// disassembler finds them out.
#include "bytecode.h"

const psOpcodeRow kPsOpcodes[kOpCount] = {
    {kOpPushTrue, "pushbool true", psOperands::kNone, "pushbool    true\n"},
    {kOpPushFalse, "pushbool false", psOperands::kNone, "pushbool    false\n"},
    {kOpPushInvalid, "pushinvalid", psOperands::kNone, "pushinvalid\n"},
    {kOpPushString, "pushstring", psOperands::kString8, "pushstring  #\"%s\"\n"},
    {kOpPushString2, "pushstring2", psOperands::kString16, "pushstring2 #\"%s\"\n"},
    {kOpPushInt, "pushint", psOperands::kInt8, "pushint     #%d\n"},
    {kOpPushInt2, "pushint2", psOperands::kInt16, "pushint2    #%d\n"},
    {kOpPushFloat, "pushfloat", psOperands::kFloat8, "pushfloat   #%f\n"},
    {kOpPushDouble, "pushdoub", psOperands::kDouble8, "pushdoub    #%g\n"},
    {kOpPushFun, "pushfun", psOperands::kFunction16, "pushfun     #%s\n"},
    {kOpCallGlobal, "call_global", psOperands::kGlobalCall, "call_global %s(num_args=%d)\n"},
    {kOpCall, "call", psOperands::kCount, "call        [sp-%d]\n"},
    {kOpCallObjFun, "call_objfun", psOperands::kCount, "call_objfun num_args=%d\n"},
    {kOpCallType, "call_type", psOperands::kCount, "call_type   num_args=%d\n"},
    {kOpPrint, "print", psOperands::kPrint, "print       num_args=%d, pattern=%sE\n"},
    {kOpIfFalseLabel, "iffalse", psOperands::kLabel, "iffalse     J%03d           'addr=%d\n"},
    {kOpCallGetGlobalAA, "call_get_global_AA", psOperands::kCount,
     "call_get_global_AA     num_args=%d\n"},
    {kOpCallCreateObject, "call_createobject_exp", psOperands::kCount,
     "call_createobject_exp  num_args=%d\n"},
    {kOpCreateObjectIdx, "createobject_idx", psOperands::kClassIndex,
     "createobject_idx index=%d\n"},
    {kOpNot, "not", psOperands::kNone, "not\n"},
    {kOpNeg, "neg", psOperands::kNone, "neg\n"},
    {kOpOrPretest, "or_pretest", psOperands::kRelative, "or_pretest  +%d %d\n"},
    {kOpAndPretest, "and_pretest", psOperands::kRelative, "and_pretest +%d %d\n"},
    {kOpAdd, "add", psOperands::kNone, "add\n"},
    {kOpSub, "sub", psOperands::kNone, "sub\n"},
    {kOpMul, "mul", psOperands::kNone, "mul\n"},
    {kOpDiv, "div", psOperands::kNone, "div\n"},
    {kOpExp, "exp", psOperands::kNone, "exp\n"},
    {kOpAnd, "and", psOperands::kNone, "and\n"},
    {kOpOr, "or", psOperands::kNone, "or\n"},
    {kOpGt, "gt", psOperands::kNone, "gt\n"},
    {kOpEq, "eq", psOperands::kNone, "eq\n"},
    {kOpLt, "lt", psOperands::kNone, "lt\n"},
    {kOpLe, "le", psOperands::kNone, "le\n"},
    {kOpGe, "ge", psOperands::kNone, "ge\n"},
    {kOpNe, "ne", psOperands::kNone, "ne\n"},
    {kOpMod, "mod", psOperands::kNone, "mod\n"},
    {kOpSwap, "swap", psOperands::kNone, "swap\n"},
    {kOpDrop, "drop", psOperands::kNone, "drop\n"},
    {kOpConvertTop, "convert", psOperands::kType, "convert     [sp], newtype=%s\n"},
    {kOpPushLocal, "pushlocal", psOperands::kLocal, "pushlocal   %s\n"},
    {kOpPopLocal, "poplocal", psOperands::kLocal, "poplocal    %s\n"},
    {kOpConvertLocal, "convert", psOperands::kLocalType, "convert     %s, newtype=%s\n"},
    {kOpArraySet, "array_set", psOperands::kCount, "array_set  [sp-%d]\n"},
    {kOpDotSet, "dotset", psOperands::kName8, "dotset      %s\n"},
    {kOpDotSet2, "dotset2", psOperands::kName16, "dotset2     %s\n"},
    {kOpEnd, "end", psOperands::kNone, "end\n"},
    {kOpArray, "array", psOperands::kCount, "array      [sp-%d]\n"},
    {kOpDot, "dot", psOperands::kName8, "dot         %s\n"},
    {kOpDot2, "dot2", psOperands::kName16, "dot2        %s\n"},
    {kOpJump, "jump", psOperands::kLabel, "jump        J%03d           'addr=%d\n"},
    {kOpReturn, "return", psOperands::kNone, "return\n"},
    {kOpFor, "for", psOperands::kLocalLabel, "for          %s, J%03d   ' jump to addr=%d\n"},
    {kOpForEach, "foreach", psOperands::kLocalLabel,
     "foreach      %s, J%03d   ' jump to addr=%d\n"},
    {kOpNextEach, "nexteach", psOperands::kLocalLabel,
     "nexteach     %s, J%03d   ' jump to addr=%d\n"},
    {kOpNext, "next", psOperands::kLocalLabel, "next         %s, J%03d   ' jump to addr=%d\n"},
    {kOpStop, "stop", psOperands::kNone, "stop\n"},
    {kOpIfFalseRelative, "iffalse", psOperands::kRelative, "iffalse     +%d\n"},
    {kOpDim, "dim", psOperands::kCountLocal, "dim         %s, numdims=%d\n"},
    {kOpNumFunArgs, "num_fun_args", psOperands::kCount, "num_fun_args %d\n"},
    {kOpCallPos, "call_pos", psOperands::kCount, "call_pos    num_args=%d\n"},
    {kOpCallEval, "call_eval", psOperands::kCount, "call_eval   num_args=%d\n"},
    {kOpCallBox, "call_box", psOperands::kCount, "call_box    num_args=%d\n"},
    {kOpCallRun, "call_run", psOperands::kCount, "call_run    num_args=%d\n"},
    {kOpCallRunRtErr, "call_run_rterr", psOperands::kCount, "call_run_rterr num_args=%d\n"},
    {kOpCallRunClErr, "call_run_clerr", psOperands::kCount, "call_run_clerr num_args=%d\n"},
    {kOpAttr, "attr", psOperands::kName16, "attr        %s\n"},
    {kOpJmpFwd, "jmpfwd", psOperands::kRelative, "jmpfwd      +%d\n"},
    {kOpDup, "dup", psOperands::kNone, "dup\n"},
    {kOpNop, "nop", psOperands::kNone, "nop\n"},
};

int psInstructionLength(const uint8_t* code, uint32_t size, uint32_t pc) {
  if (pc >= size) return 0;
  const psOpcodeRow* row = psOpcodeInfo(code[pc]);
  if (row == nullptr) return 0;
  uint32_t length = 0;
  switch (row->operands) {
    case psOperands::kNone: length = 1; break;
    case psOperands::kString8:
    case psOperands::kInt8:
    case psOperands::kFloat8:
    case psOperands::kDouble8:
    case psOperands::kCount:
    case psOperands::kLabel:
    case psOperands::kClassIndex:
    case psOperands::kRelative:
    case psOperands::kType:
    case psOperands::kName8: length = 2; break;
    case psOperands::kString16:
    case psOperands::kInt16:
    case psOperands::kFunction16:
    case psOperands::kGlobalCall:
    case psOperands::kLocal:
    case psOperands::kLocalType:
    case psOperands::kName16:
    case psOperands::kLocalLabel:
    case psOperands::kCountLocal: length = 3; break;
    case psOperands::kPrint:
      length = 2;
      while (pc + length < size && code[pc + length] != 'E') length++;
      length++;
      break;
  }
  return length <= size - pc ? static_cast<int>(length) : 0;
}
