// Status codes of the compiler and the runtime: one unsigned byte, 255 means success.
#pragma once

#include <cstdint>

using psStatus = uint8_t;

enum psStatusCode : psStatus {
  kPsNextWithoutFor = 0,
  kPsSyntaxError = 2,
  kPsInvalidParameter = 8,
  kPsOutOfMemory = 12,
  kPsLabelNotFound = 14,
  kPsDivideByZero = 20,
  kPsTypeMismatch = 24,
  kPsStringOutOfMemory = 26,
  kPsTooManyLabels = 161,
  kPsInitializerMissing = 164,
  kPsExitForOutside = 165,
  kPsTypeInvalid = 167,
  kPsReturnNeedsValue = 169,
  kPsReturnValueInVoid = 170,
  kPsForEachVariableType = 171,
  kPsNoMain = 172,
  kPsDefinedTwice = 173,
  kPsInternalLimit = 174,
  kPsExitWhileOutside = 175,
  kPsVariableTableFull = 176,
  kPsConstantTableFull = 177,
  kPsMissingQuote = 179,
  kPsLabelTwice = 180,
  kPsBlockNotTerminated = 181,
  kPsNextMismatch = 182,
  kPsUnexpectedEof = 183,
  kPsNoMatch = 184,  // internal to the compiler: not this construct
  kPsErrorLoadingFile = 185,
  kPsStackOverflow = 223,
  kPsCallOnNonFunction = 224,
  kPsUnicodeNotSupported = 225,
  kPsReturned = 226,  // internal to the interpreter: the outermost function returned
  kPsArrayIndexCount = 227,
  kPsInvalidLeftSide = 228,
  kPsNotDimmed = 231,
  kPsNonNumericIndex = 232,
  kPsUninitialized = 233,
  kPsInvalidDot = 236,
  kPsMustBeStatic = 237,
  kPsWrongParameterCount = 241,
  kPsInterfaceNotMember = 243,
  kPsMemberNotFound = 244,
  kPsComponentParameterCount = 245,
  kPsStop = 247,
  kPsBreak = 248,
  kPsStackUnderflow = 249,
  kPsUndefinedOp = 251,
  kPsNormalEnd = 252,
  kPsOkay = 255,
};

// The text of a code as operators see it; "UNKNOWN ERROR" for a code without one (values above 255
// included).
const char* psStatusText(unsigned code);
