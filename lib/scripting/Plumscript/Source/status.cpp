// The one table of status texts.
#include "status.h"

#include <array>

namespace {

struct StatusRow {
  psStatus code;
  const char* text;
};

constexpr StatusRow kRows[] = {
    {0, "Next Without For."},
    {2, "Syntax Error."},
    {4, "Return Without Gosub."},
    {6, "Out of Data on READ."},
    {8, "Invalid parameter passed to function/array (e.g neg matrix dim or sqr root)."},
    {12, "Out Of Memory."},
    {14, "Label/Line Not Found."},
    {16, "Array subscript out of bounds."},
    {18, "Attempted to redimension an array."},
    {20, "Divide by Zero."},
    {24, "Type Mismatch."},
    {26, "Out of Memory when doing string operation."},
    {28, "String To Long."},
    {32, "Continue Not Allowed."},
    {158, "Constant simplification failed.  Check for illegal operation."},
    {159, "Const name conflicts with a prior name."},
    {160, "Variable name cannot be the same as that of a declared function."},
    {161, "Too Many Labels.  Internal Label table size exceeded."},
    {162, "Class Not Found."},
    {163, "Interface has too many functions for bytecode."},
    {164, "Assignment initilizer missing."},
    {165, "Exit For is not inside a For loop."},
    {166, "Statement type no longer supported."},
    {167, "Type is Invalid."},
    {168, "Function must have a return type."},
    {169, "Return must return a value."},
    {170, "Return can not have a return-value if inside a Sub or Function with Void return type."},
    {171, "For-Each index variable must by 'dynamic' type."},
    {172, "No Main() Found."},
    {173, "SUB or FUNCTION defined twice."},
    {174, "Internal limit size exceeded."},
    {175, "Exit While is not inside a While."},
    {176, "Variable table size exceeded."},
    {177, "Constant table size exceeded."},
    {178, "Function not expected here."},
    {179, "String missing ending quote."},
    {180, "Label/LineNumber defined more than once."},
    {181, "A block (such as FOR/NEXT or IF/ENDIF) was not terminated correctly."},
    {182, "Variable in NEXT does not match correct FOR."},
    {183, "Unexpected End-Of-File."},
    {185, "Error loading file."},
    {186, "Classic BASIC style line number is out of sequence."},
    {187, "Line Number not found where expected."},
    {188, "ENDIF Missing."},
    {190, "While Statement is missing a matching EndWhile."},
    {191, "EndWhile Without While."},
    {223, "Stack overflow."},
    {224, "Function Call Operator ( ) attempted on non-function."},
    {225, "Error: Unicode not supported."},
    {227, "Invalid number of Array indexes."},
    {228, "Invalid value for left-side of expression."},
    {229, "Function does not have a required return."},
    {230, "Use of a reference to a function/sub that is not initilized."},
    {231, "Array operation attempted on variable not DIM'd."},
    {232, "Attempt to use a non-numeric array index not allowed."},
    {233, "Use of uninitialized variable."},
    {235, "Operation on UnTyped operand(s) attempted."},
    {236, "'Dot' Operator attempted with invalid Plumscript Component or interface reference."},
    {237, "Interface function calls from type kotINTERFACE must by static."},
    {238, "Tried to Wait on an Plumscript Component that does not have MessagePort interface."},
    {239, "Non printable value."},
    {240, "Function returns a value that is ignored."},
    {241, "Wrong number of function parameters."},
    {242, "Too many function parameters (internal limit exceeded)."},
    {243, "Interface not a member of Plumscript Component"},
    {244, "Member function not found in Plumscript Component or interface."},
    {245, "Plumscript Component function call does not have the correct number of parameters."},
    {246, "Plumscript Component Class not Found."},
    {247, "STOP"},
    {248, "BREAK"},
    {249, "Stack Underflow."},
    {250, "Missing Parentheses"},
    {251, "Undefined OP Code."},
    {252, "Normal End."},
    {253, "Undefined Op Code."},
    {254, "UNEXPECTED INTERNAL."},
    {255, "OKAY"},
};

constexpr auto kTexts = [] {
  std::array<const char*, 256> texts{};
  for (const StatusRow& row : kRows) texts[row.code] = row.text;
  return texts;
}();

}  // namespace

const char* psStatusText(unsigned code) {
  const char* text = code < kTexts.size() ? kTexts[code] : nullptr;
  return text != nullptr ? text : "UNKNOWN ERROR";
}
