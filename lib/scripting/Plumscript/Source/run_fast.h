// The interpreter's fast paths: reading and storing values, elements and members where nothing can
// fail but memory.
//
// Small functions that the loop inlines into its handlers; the slow operations use the same ones. A
// fast path answers false (or null) for whatever is not its case, and has touched nothing then: the
// caller goes to the slow operation (run_slow.h). For the thread that runs the process; containers,
// which other threads may change, are read and written with their lock held, and what was replaced
// is released once the lock is.
#pragma once

#include <cstring>

#include "bytecode.h"
#include "clwrappers.h"
#include "containers.h"
#include "publicapis.h"
#include "run.h"

#define PS_LIKELY(x) __builtin_expect(!!(x), 1)
#define PS_UNLIKELY(x) __builtin_expect(!!(x), 0)
#define PS_COLD __attribute__((noinline, cold))
#define PS_NOINLINE __attribute__((noinline))

namespace ps_run {

// --- Values -----------------------------------------------------------------------------------

// Which operands a slow operation may consume: values on the stack, as opposed to locals and
// constants.
inline constexpr unsigned kOwnLeft = 1;
inline constexpr unsigned kOwnRight = 2;

inline void moveValue(psTypedValue* to, const psTypedValue& from) { psCopyRaw(to, from); }
// Word by word, as values are written: reading both at once waits until a write that has only just
// happened has reached the cache.
inline psTypedValue readValue(const psTypedValue* v) {
  psTypedValue copy;
  psCopyRaw(&copy, *v);
  return copy;
}

inline void setInteger(psTypedValue* v, int64_t i) {
  v->value.i = i;
  v->meta = kPsIntegerFlag;
}
inline void setFloat(psTypedValue* v, float f) {
  v->value.i = 0;
  v->value.f = f;
  v->meta = kPsFloatFlag;
}
inline void setBoolean(psTypedValue* v, int64_t payload) {
  v->value.i = payload;
  v->meta = kPsBooleanFlag;
}

// Stores over a value that may own something.
inline void storeOver(psTypedValue* to, psTypedValue by) {
  if (PS_UNLIKELY(psIs(*to, kPsCountedFlags))) {
    const psTypedValue old = *to;
    *to = by;
    ReleaseValue(&old);
    return;
  }
  moveValue(to, by);
}

inline bool soleOwner(const pscInstance* instance) {
  return instance->ref_cnt.load(std::memory_order_acquire) == 1;
}

psStatus storeNewDouble(pscDomain* domain, psTypedValue* to, double d, uint64_t meta);

// Puts a double into a variable or element: into the box that is there when nobody else holds it.
inline psStatus storeDouble(pscDomain* domain, psTypedValue* to, double d, uint64_t meta) {
  if (psIsDoubleBox(*to) && soleOwner(to->value.psc)) {
    psDoubleOf(to->value.psc) = d;
    to->meta = meta;
    return kPsOkay;
  }
  return storeNewDouble(domain, to, d, meta);
}

// Gives an unboxed double on the stack its box.
psStatus boxRawDouble(pscDomain* domain, psTypedValue* v);

inline constexpr unsigned kDoubleKind = 1;
inline constexpr unsigned kFloatKind = 2;

// Reads a number and adds its kind: a double (boxed or not), a Float, or neither for an Integer.
inline bool readNumber(const psTypedValue* v, double* d, unsigned* kinds) {
  if (psIs(*v, kPsRawDoubleFlag)) {
    *d = v->value.d;
    *kinds |= kDoubleKind;
    return true;
  }
  if (psIsDoubleBox(*v)) {
    *d = psDoubleOf(v->value.psc);
    *kinds |= kDoubleKind;
    return true;
  }
  if (psIs(*v, kPsIntegerFlag)) {
    *d = static_cast<double>(v->value.i);
    return true;
  }
  if (psIs(*v, kPsFloatFlag)) {
    *d = v->value.f;
    *kinds |= kFloatKind;
    return true;
  }
  return false;
}

// A double, boxed or not; nothing else.
inline bool readDouble(const psTypedValue* v, double* d) {
  if (psIs(*v, kPsRawDoubleFlag)) {
    *d = v->value.d;
    return true;
  }
  if (!psIsDoubleBox(*v)) return false;
  *d = psDoubleOf(v->value.psc);
  return true;
}

inline void releaseOwned(const psTypedValue* x, const psTypedValue* y, unsigned own) {
  if (own & kOwnLeft) ReleaseValue(x);
  if (own & kOwnRight) ReleaseValue(y);
}

// Whether a value is of a declared type as it stands; String and Double have no kind of their own.
inline bool hasKind(const psTypedValue& v, unsigned type) {
  return type <= psComponentMemberFunction && v.type_flags == (1u << type);
}

inline void releaseRange(psTypedValue* from, const psTypedValue* to) {
  for (; from < to; from++) {
    if (psIs(*from, kPsCountedFlags)) ReleaseValue(from);
  }
}

// --- Elements ---------------------------------------------------------------------------------

// A counted copy, or the number alone where the box is not needed.
inline psTypedValue copyOrUnbox(const psTypedValue& v, bool raw) {
  if (psIs(v, kPsObjectFlag)) {
    if (raw && v.value.psc->psc_class == &clIntrinsicDouble) {
      psTypedValue number;
      number.value.d = psDoubleOf(v.value.psc);
      number.meta = kPsRawDoubleFlag;
      return number;
    }
    pscAddRef(v.value.psc);
  }
  return v;
}

inline psTypedValue arrayElement(psArray* array, int64_t i, bool raw = false) {
  const psGuard guard(array->lock);
  if (static_cast<uint64_t>(i) >= static_cast<uint64_t>(int64_t{array->tail} + 1)) {
    return psInvalidValue();
  }
  const psTypedValue& element = array->elements[i];
  return element.meta != 0 ? copyOrUnbox(element, raw) : psInvalidValue();
}

// container[index] for a container that stays where it is. False: not a koArray with an Integer.
inline bool fastIndex(const psTypedValue* container, const psTypedValue* index, bool raw,
                      psTypedValue* result) {
  if (!psIs(*container, kPsObjectFlag) || !psIs(*index, kPsIntegerFlag)) return false;
  if (container->value.psc->psc_class != &clArray) return false;
  *result = arrayElement(pscData<psArray>(container->value.psc), index->value.i, raw);
  return true;
}

// Puts a value where a container keeps one; what was there is handed out, to be released once the
// container's lock is. The value may be an unboxed double.
inline psStatus exchangeKept(pscDomain* domain, psTypedValue* kept, const psTypedValue* value,
                             psTypedValue* old) {
  psTypedValue by = *value;
  if (PS_UNLIKELY(psIs(by, kPsRawDoubleFlag))) {
    if (psIsDoubleBox(*kept) && soleOwner(kept->value.psc)) {
      psDoubleOf(kept->value.psc) = by.value.d;
      kept->meta = kPsObjectFlag | kPsBoxedFlag;
      return kPsOkay;
    }
    const psStatus status = boxRawDouble(domain, &by);
    if (PS_UNLIKELY(status != kPsOkay)) return status;
  }
  by.meta = (by.meta & ~uint64_t{kPsStringFlavourFlag}) | kPsBoxedFlag;
  *old = *kept;
  moveValue(kept, by);
  return kPsOkay;
}

// array[i] = value for an index that is not among the used ones.
psStatus growArray(pscInstance* object, int64_t i, const psTypedValue* value);

// container[index] = value, the value taken over. False: not a koArray with an Integer.
inline bool fastIndexSet(const psTypedValue* container, const psTypedValue* index,
                         const psTypedValue* value, psStatus* status) {
  if (!psIs(*container, kPsObjectFlag) || !psIs(*index, kPsIntegerFlag)) return false;
  pscInstance* object = container->value.psc;
  if (object->psc_class != &clArray || value->type_flags == 0) return false;
  auto* array = pscData<psArray>(object);
  psTypedValue old = psUninitializedValue();
  {
    const psGuard guard(array->lock);
    const int64_t i = index->value.i;
    if (PS_UNLIKELY(static_cast<uint64_t>(i) >= static_cast<uint64_t>(int64_t{array->tail} + 1))) {
      *status = growArray(object, i, value);
      return true;
    }
    *status = exchangeKept(object->domain, &array->elements[i], value, &old);
  }
  ReleaseValue(&old);
  return true;
}

// The innermost of the arrays that all indexes but the last select, without references: a matrix
// keeps its rows alive. Null: not koArrays and Integers all the way.
inline pscInstance* rowOf(const psTypedValue* container, const psTypedValue* indexes, int n) {
  if (n < 1 || !psSingleThreaded()) return nullptr;  // another thread could drop a row
  const psTypedValue* at = container;
  for (int k = 0;; k++) {
    if (!psIs(*at, kPsObjectFlag) || at->value.psc->psc_class != &clArray) return nullptr;
    if (k == n - 1) return at->value.psc;
    const auto* array = pscData<psArray>(at->value.psc);
    if (!psIs(indexes[k], kPsIntegerFlag)) return nullptr;
    const int64_t i = indexes[k].value.i;
    if (static_cast<uint64_t>(i) >= static_cast<uint64_t>(int64_t{array->tail} + 1)) return nullptr;
    at = &array->elements[i];
  }
}

// --- Members ----------------------------------------------------------------------------------

// Whether the entry's key is the name, spelled the same.
inline bool sameSpelling(const psAssocEntry* entry, const psName* name) {
  const size_t length = name->text.size();
  if (entry->hash != name->hash || entry->key_length != length) return false;
  uint64_t first8;
  std::memcpy(&first8, entry->key, sizeof first8);
  if (PS_UNLIKELY(first8 != name->first8)) return false;
  return length <= sizeof first8 || std::memcmp(entry->key, name->text.data(), length) == 0;
}

inline const psAssocEntry* findMember(psAssocArray* array, const psName* name) {
  if (PS_UNLIKELY(array->index != nullptr)) {
    return psAssocFind(array, name->text, name->hash, false);
  }
  for (const psAssocEntry* e = array->buckets[name->bucket]; e != nullptr; e = e->next) {
    if (PS_LIKELY(sameSpelling(e, name))) return e;
    // The same but for letter case, or another key with the same hash: the container decides.
    if (e->hash == name->hash) return psAssocFind(array, name->text, name->hash, false);
  }
  return nullptr;
}

// The member's value with a reference of its own; a zero word when there is none.
__attribute__((always_inline)) inline psTypedValue memberOf(pscInstance* object, const psName* name,
                                                            bool raw = false) {
  if (PS_LIKELY(object->psc_class == &clAssociativeArray)) {
    auto* array = pscData<psAssocArray>(object);
    const psGuard guard(array->lock);
    const psAssocEntry* entry = findMember(array, name);
    return entry != nullptr ? copyOrUnbox(entry->value, raw) : psUninitializedValue();
  }
  const psIfAssociativeArray* assoc = object->psc_class->if_assoc;
  // Only the container can tell an absent member from an Invalid one.
  psTypedValue found = assoc->FastLookup(object, name->text, name->bucket);
  if (psIs(found, kPsInvalidFlag) && !assoc->DoesExist(object, name->text)) found.meta = 0;
  return found;
}

inline bool isAssociative(const psTypedValue* v) {
  return psIs(*v, kPsObjectFlag) && v->value.psc->psc_class->if_assoc != nullptr;
}

// object.name = value, the value taken over. False: not an associative array, or no value.
//
// A member that exists already, newest of its bucket and under the same spelling, is stored over;
// replacing it would put it where it is. Everything else is the container's own affair.
inline bool fastMemberSet(const psTypedValue* object, const psName* name, const psTypedValue* value,
                          psStatus* status) {
  if (!psIs(*object, kPsObjectFlag) || value->type_flags == 0) return false;
  if (PS_UNLIKELY(object->value.psc->psc_class != &clAssociativeArray)) return false;
  auto* array = pscData<psAssocArray>(object->value.psc);
  psTypedValue old = psUninitializedValue();
  *status = kPsOkay;
  {
    const psGuard guard(array->lock);
    psAssocEntry* newest = array->buckets[name->bucket];
    if (PS_LIKELY(newest != nullptr && sameSpelling(newest, name) && newest != array->enum_entry)) {
      *status = exchangeKept(object->value.psc->domain, &newest->value, value, &old);
    } else {
      psTypedValue kept = *value;
      if (psIs(kept, kPsRawDoubleFlag)) *status = boxRawDouble(object->value.psc->domain, &kept);
      kept.meta = (kept.meta & ~uint64_t{kPsStringFlavourFlag}) | kPsBoxedFlag;
      if (*status == kPsOkay) psAssocAddReplace(array, name->text, name->hash, kept);
    }
  }
  ReleaseValue(&old);
  return true;
}

// --- Arguments and results of global functions ------------------------------------------------

inline bool textOf(const psTypedValue* v, psText* text) {
  if (psIs(*v, kPsStringConstantFlag) || psIsStringBox(*v)) {
    *text = GetStringPtr(v);
    return true;
  }
  return false;
}

// Replaces n arguments at args by a new text.
inline bool textResult(pscDomain* domain, psTypedValue* args, int n, psText text) {
  pscInstance* result = psNewString(domain, text);
  if (result == nullptr) return false;
  for (int i = 0; i < n; i++) ReleaseValue(&args[i]);
  *args = psStringObjectValue(result);
  return true;
}

inline bool doubleArgument(const psTypedValue* v, double* d) {
  unsigned kinds = 0;
  return readNumber(v, d, &kinds);
}

inline void doubleResult(psTypedValue* arg, double d) {
  ReleaseValue(arg);
  arg->value.d = d;
  arg->meta = kPsRawDoubleFlag;
}

}  // namespace ps_run
