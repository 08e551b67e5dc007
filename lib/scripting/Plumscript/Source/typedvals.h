// Script values.
//
// A value is sixteen bytes: an eight-byte payload and a word of which the low sixteen bits say how
// to read it. Exactly one storage bit is set in type_flags (bit T stands for psTypeEnum value T);
// bits 14 and 15 are modifiers. Only Object and ThisSub values own something: one reference on
// their component. Copying such a value takes a reference, dropping it releases one.
//
// There is no storage kind for Double or for computed text: both are Objects (koIntrinsicDouble and
// any class with the string interface, as a rule koString).
//
// Values are plain data of the one thread that runs a script. The whole word is always written at
// once (meta), so that a copy never reads back two stores of different width.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "status.h"

struct pscInstance;
struct pscDomain;
struct psInterface;
struct fundes;
using PSC_INSTANCE = pscInstance*;

// Text that is NUL-terminated behind its last byte whenever it comes out of a value.
using psText = std::string_view;

// One numbering for storage bits, declared types and native descriptors.
enum psTypeEnum : uint8_t {
  psUnknown = 0,
  psInteger = 1,
  psFloat = 2,
  psBoolean = 3,
  psComponent = 4,
  psInterfaceType = 5,
  psFunctionType = 6,
  psInvalid = 7,
  psStringConstant = 8,
  psThisSub = 9,
  psVoidPtr = 10,
  psComponentMemberFunction = 11,
  psVoid = 12,
  psDynamic = 13,
  psString = 14,
  psDouble = 15,
};
constexpr int kPsTypeCount = 16;

// The names that disassembly prints ("Component", "koString", …), by type number.
const char* psTypeInternalName(unsigned type);
// The names under which declared types are reported ("Object", "String", …); "UNKNOWN" for a number
// above 15.
const char* psTypeDeclarationName(unsigned type);

constexpr uint16_t psFlag(psTypeEnum type) { return static_cast<uint16_t>(1u << type); }
constexpr uint16_t kPsIntegerFlag = psFlag(psInteger);
constexpr uint16_t kPsFloatFlag = psFlag(psFloat);
constexpr uint16_t kPsBooleanFlag = psFlag(psBoolean);
constexpr uint16_t kPsObjectFlag = psFlag(psComponent);
constexpr uint16_t kPsInterfaceFlag = psFlag(psInterfaceType);
constexpr uint16_t kPsFunctionFlag = psFlag(psFunctionType);
constexpr uint16_t kPsInvalidFlag = psFlag(psInvalid);
constexpr uint16_t kPsStringConstantFlag = psFlag(psStringConstant);
constexpr uint16_t kPsThisSubFlag = psFlag(psThisSub);
constexpr uint16_t kPsVoidPtrFlag = psFlag(psVoidPtr);
constexpr uint16_t kPsMemberFunctionFlag = psFlag(psComponentMemberFunction);
// Set on a value that went through a Dynamic parameter or into a container.
constexpr uint16_t kPsBoxedFlag = 0x4000;
// Set on an Object that stands for a String.
constexpr uint16_t kPsStringFlavourFlag = 0x8000;
// Internal to the interpreter: a double that an operator has left on the evaluation stack for the
// operator or store that consumes it, without a box. Never seen outside the interpreter loop.
constexpr uint16_t kPsRawDoubleFlag = 0x1000;
// The kinds that own a reference.
constexpr uint16_t kPsCountedFlags = kPsObjectFlag | kPsThisSubFlag;

struct psTypedValue {
  union {
    int64_t i;         // Integer (sign-extended), Boolean (non-zero is true), Function index
    float f;           // Float, in the first four bytes
    double d;          // an unboxed double between two operators of one expression
    pscInstance* psc;  // Object, ThisSub: one counted reference
    const char* text;  // StringConstant: not owned; null reads as empty
    const psInterface* iface;  // Interface: not counted
    const fundes* member;      // ComponentMemberFunction: not owned
    void* ptr;                 // VoidPtr: not owned
  } value;
  union {
    struct {
      uint16_t type_flags;
      int16_t function_index;  // ThisSub only, read as unsigned
      uint32_t text_length;    // StringConstant only: length + 1, or 0 when it is not known
    };
    uint64_t meta;
  };
};
static_assert(sizeof(psTypedValue) == 16);

inline psTypedValue psMakeValue(uint16_t flags, int64_t payload) {
  psTypedValue v;
  v.value.i = payload;
  v.meta = flags;
  return v;
}
inline psTypedValue psUninitializedValue() { return psMakeValue(0, 0); }
inline psTypedValue psInvalidValue() { return psMakeValue(kPsInvalidFlag, 0); }
inline psTypedValue psIntegerValue(int64_t i) { return psMakeValue(kPsIntegerFlag, i); }
inline psTypedValue psBooleanValue(bool b) { return psMakeValue(kPsBooleanFlag, b ? 1 : 0); }
inline psTypedValue psFunctionValue(unsigned index) { return psMakeValue(kPsFunctionFlag, index); }
inline psTypedValue psFloatValue(float f) {
  psTypedValue v = psMakeValue(kPsFloatFlag, 0);
  v.value.f = f;
  return v;
}
// Takes over one reference.
inline psTypedValue psObjectValue(pscInstance* instance) {
  psTypedValue v = psMakeValue(kPsObjectFlag, 0);
  v.value.psc = instance;
  return v;
}
// An Object that stands for a String; takes over one reference.
inline psTypedValue psStringObjectValue(pscInstance* instance) {
  psTypedValue v = psMakeValue(kPsObjectFlag | kPsStringFlavourFlag, 0);
  v.value.psc = instance;
  return v;
}
// The text must be NUL-terminated and outlive the value.
inline psTypedValue psStringConstantValue(psText text) {
  psTypedValue v;
  v.value.text = text.data();
  v.meta = kPsStringConstantFlag;
  v.text_length = text.size() < UINT32_MAX ? static_cast<uint32_t>(text.size()) + 1 : 0;
  return v;
}

inline bool psIs(const psTypedValue& v, uint16_t flags) { return (v.type_flags & flags) != 0; }

// Copies payload and word without touching counts.
inline void psCopyRaw(psTypedValue* to, const psTypedValue& from) {
  to->value.i = from.value.i;
  to->meta = from.meta;
}

// --- Predicates -------------------------------------------------------------------------------
bool IsNumeric(const psTypedValue* v);
bool IsIntegerValue(const psTypedValue* v);
bool IsFloatValue(const psTypedValue* v);
bool IsDoubleValue(const psTypedValue* v);
bool IsStringValue(const psTypedValue* v);
bool IsBooleanValue(const psTypedValue* v);
bool IsFunctionValue(const psTypedValue* v);
bool IsInvalidValue(const psTypedValue* v);

// --- Readings ---------------------------------------------------------------------------------
// The readings without a result flag are fatal for a value that has no such reading: callers check
// the kind first. A Float or double outside the range of 64-bit integers saturates; NaN reads as 0.
int64_t IntVal(const psTypedValue* v);
bool GetIntValue(const psTypedValue* v, int64_t* out);
float FloatVal(const psTypedValue* v);
double DoubleVal(const psTypedValue* v);
bool BoolVal(const psTypedValue* v);
bool GetBoolValue(const psTypedValue* v, bool* out);
unsigned SubVal(const psTypedValue* v);
bool GetFunctionIndex(const psTypedValue* v, uint16_t* out);
// Text of a value for which IsStringValue holds; valid while the value holds its object and the
// object's text is not changed.
psText GetStringPtr(const psTypedValue* v);
// psInteger, psFloat, psDouble, or psInvalid for anything that is no number.
psTypeEnum NumericKind(const psTypedValue* v);

// --- Conversions ------------------------------------------------------------------------------
// Boxes an intrinsic value in place; 24 for a kind that has no box, 12 when memory runs out.
psStatus ConvertIntrinsicToObject(pscDomain* domain, psTypedValue* v);
// Converts in place to a declared type; 255, or 24/233 (233 when v is uninitialized).
psStatus ConvertToType(pscDomain* domain, psTypedValue* v, psTypeEnum type);

// Drops the reference an Object or ThisSub owns; the value itself is left as it was.
void ReleaseValue(const psTypedValue* v);
// Takes a reference for an Object or ThisSub.
void psRetainValue(const psTypedValue* v);

// --- Text -------------------------------------------------------------------------------------
// The name of the value's type, valid as long as its class; boxed chooses the wrapper class names
// for values that carry bit 14.
const char* GetTypeString(const psTypedValue* v, bool boxed);
// The printable text of a value.
std::string ValueToString(const psTypedValue* v);
