// Boxes of intrinsic values: koInt, koFloat, koDouble, koIntrinsicDouble, koBoolean, koFunction,
// koInvalid and koString.
//
// koString holds text with its length and room to grow; short texts live inside the instance. Every
// runtime Double is a koIntrinsicDouble.
#pragma once

#include "psc.h"

// All of these return an instance with one reference, or null when memory is refused.
pscInstance* psNewInt(pscDomain* domain, int32_t value);
pscInstance* psNewFloat(pscDomain* domain, float value);
pscInstance* psNewDouble(pscDomain* domain, double value);  // a koIntrinsicDouble
pscInstance* psNewBoolean(pscDomain* domain, bool value);
pscInstance* psNewString(pscDomain* domain, psText text);
// The texts one after the other.
pscInstance* psNewStringConcat(pscDomain* domain, psText a, psText b);
// A koString of n bytes whose contents the caller writes through psStringBuffer (the terminating
// NUL is there already).
pscInstance* psNewStringOfLength(pscDomain* domain, size_t n);

struct psStringData {
  static constexpr uint32_t kInline = 24;
  char* text;         // null: no text, reads as empty; NUL-terminated; may point at local
  uint32_t length;    // bytes, the NUL not counted
  uint32_t capacity;  // bytes behind text, the NUL included; kInline when text is local
  char local[kInline];
};
// A text above this is refused: lengths are 32-bit, and half of that leaves room for any sum.
constexpr size_t kPsMaxTextLength = 0x7fffffff - 64;

inline double& psDoubleOf(pscInstance* instance) { return *pscData<double>(instance); }
inline psText psStringText(pscInstance* instance) {
  const psStringData* data = pscData<psStringData>(instance);
  return data->text != nullptr ? psText(data->text, data->length) : psText("", 0);
}
inline char* psStringBuffer(pscInstance* instance) { return pscData<psStringData>(instance)->text; }
// Appends in place, growing geometrically; false (and unchanged) when memory is refused. The text
// may be the instance's own.
bool psStringAppend(pscInstance* instance, psText text);
bool psStringAssign(pscInstance* instance, psText text);

inline bool psIsDoubleBox(const psTypedValue& v) {
  return psIs(v, kPsObjectFlag) && v.value.psc->psc_class == &clIntrinsicDouble;
}
inline bool psIsStringBox(const psTypedValue& v) {
  return psIs(v, kPsObjectFlag) && v.value.psc->psc_class == &clString;
}

// Fills a caller's class and interface records so that the class has the given name and behaves as
// a koInt; native code makes integer-valued event classes with it. The records live as long as the
// class.
void pscCreateClassNamedInt(const char* name, psInterface* iface, pscClass* clInt);
