// The interpreter: frames, calls, and the loop that runs decoded code.
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
//  5. Instructions of the fast form trust the decoder's analysis of the stack; a frame that has no
//     room for the deepest stack of its function runs in the plain form, which checks each time.
#include <cmath>
#include <cstring>

#include "bytecode.h"
#include "clglobal.h"
#include "clwrappers.h"
#include "containers.h"
#include "publicapis.h"
#include "run.h"
#include "run_debugger.h"
#include "run_decode.h"

std::atomic<uint32_t> psInstructionCounter{0};

namespace {

#define PS_LIKELY(x) __builtin_expect(!!(x), 1)
#define PS_UNLIKELY(x) __builtin_expect(!!(x), 0)
#define PS_COLD __attribute__((noinline, cold))
#define PS_NOINLINE __attribute__((noinline))

// Which operands a slow operation may consume: values on the stack, as opposed to locals and
// constants.
constexpr unsigned kOwnLeft = 1;
constexpr unsigned kOwnRight = 2;

inline void moveValue(psTypedValue* to, const psTypedValue& from) { psCopyRaw(to, from); }

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

PS_NOINLINE psStatus storeNewDouble(pscDomain* domain, psTypedValue* to, double d, uint64_t meta) {
  pscInstance* box = psNewDouble(domain, d);
  if (box == nullptr) return kPsOutOfMemory;
  psTypedValue v = psObjectValue(box);
  v.meta = meta;
  storeOver(to, v);
  return kPsOkay;
}

// Puts a double into a variable or element: into the box that is there when nobody else holds it.
inline psStatus storeDouble(pscDomain* domain, psTypedValue* to, double d, uint64_t meta) {
  if (psIsDoubleBox(*to) && soleOwner(to->value.psc)) {
    psDoubleOf(to->value.psc) = d;
    to->meta = meta;
    return kPsOkay;
  }
  return storeNewDouble(domain, to, d, meta);
}

PS_NOINLINE psStatus boxRawDouble(pscDomain* domain, psTypedValue* v) {
  pscInstance* box = psNewDouble(domain, v->value.d);
  *v = box != nullptr ? psObjectValue(box) : psInvalidValue();
  return box != nullptr ? kPsOkay : kPsOutOfMemory;
}

// --- Operators off the fast path --------------------------------------------------------------

constexpr unsigned kDoubleKind = 1;
constexpr unsigned kFloatKind = 2;

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

// An operand as the plain operators take it: a counted copy unless it is on the stack already.
psStatus ownOperand(pscDomain* domain, psTypedValue* v, bool owned) {
  if (psIs(*v, kPsRawDoubleFlag)) return boxRawDouble(domain, v);
  if (!owned) psRetainValue(v);
  return kPsOkay;
}

PS_NOINLINE psStatus plainBinary(pscDomain* domain, const psTypedValue* x, const psTypedValue* y,
                                 unsigned own, uint8_t op, psTypedValue* result) {
  psTypedValue a = *x;
  psTypedValue b = *y;
  psStatus status = ownOperand(domain, &a, (own & kOwnLeft) != 0);
  const psStatus status_b = ownOperand(domain, &b, (own & kOwnRight) != 0);
  if (status == kPsOkay) status = status_b;
  if (status != kPsOkay) {
    ReleaseValue(&a);
    ReleaseValue(&b);
    *result = psInvalidValue();
    return status;
  }
  return DoOperator(domain, &a, &b, op, result);
}

inline void releaseOwned(const psTypedValue* x, const psTypedValue* y, unsigned own) {
  if (own & kOwnLeft) ReleaseValue(x);
  if (own & kOwnRight) ReleaseValue(y);
}

// Arithmetic on doubles. False when op or the values are none of its business.
inline bool doubleArithmetic(uint8_t op, double x, double y, double* r) {
  switch (op) {
    case kOpAdd: *r = x + y; return true;
    case kOpSub: *r = x - y; return true;
    case kOpMul: *r = x * y; return true;
    case kOpDiv: *r = x / y; return y != 0.0;
    default: return false;
  }
}

inline bool compareDoubles(uint8_t op, double x, double y) {
  switch (op) {
    case kOpGt: return x > y;
    case kOpEq: return x == y;
    case kOpLt: return x < y;
    case kOpLe: return x <= y;
    case kOpGe: return x >= y;
    default: return x != y;
  }
}

// An Integer and a Float, in either order. False when op is none of its business.
inline bool floatArithmetic(uint8_t op, const psTypedValue* x, const psTypedValue* y,
                            psTypedValue* result) {
  if (!psIs(*x, kPsIntegerFlag | kPsFloatFlag) || !psIs(*y, kPsIntegerFlag | kPsFloatFlag)) {
    return false;
  }
  auto read = [](const psTypedValue* v) {
    return psIs(*v, kPsFloatFlag) ? v->value.f : static_cast<float>(v->value.i);
  };
  const float a = read(x);
  const float b = read(y);
  switch (op) {
    case kOpAdd: setFloat(result, a + b); return true;
    case kOpSub: setFloat(result, a - b); return true;
    case kOpMul: setFloat(result, a * b); return true;
    case kOpDiv:
      if (b == 0.0f) return false;
      setFloat(result, a / b);
      return true;
    default: return false;
  }
}

inline bool compareOrder(uint8_t op, int order) { return compareDoubles(op, order, 0); }

inline bool isComparisonOp(uint8_t op) { return op >= kOpGt && op <= kOpNe; }

inline bool bothText(const psTypedValue* x, const psTypedValue* y) {
  auto text = [](const psTypedValue* v) {
    return psIs(*v, kPsStringConstantFlag) || psIsStringBox(*v);
  };
  return text(x) && text(y);
}

// The result of a binary operator goes to *result, which may be where an operand on the stack was.
PS_NOINLINE psStatus slowBinary(pscDomain* domain, const psTypedValue* x, const psTypedValue* y,
                                unsigned own, uint8_t op, bool raw, psTypedValue* result) {
  double dx;
  double dy;
  double r;
  unsigned kinds = 0;
  if (readNumber(x, &dx, &kinds) && readNumber(y, &dy, &kinds) && (kinds & kDoubleKind)) {
    if (isComparisonOp(op)) {
      releaseOwned(x, y, own);
      setBoolean(result, compareDoubles(op, dx, dy) ? -1 : 0);
      return kPsOkay;
    }
    if (doubleArithmetic(op, dx, dy, &r)) {
      if (raw) {
        releaseOwned(x, y, own);
        result->value.d = r;
        result->meta = kPsRawDoubleFlag;
        return kPsOkay;
      }
      if ((own & kOwnLeft) && psIsDoubleBox(*x) && soleOwner(x->value.psc)) {
        pscInstance* box = x->value.psc;
        if (own & kOwnRight) ReleaseValue(y);
        psDoubleOf(box) = r;
        *result = psObjectValue(box);
        return kPsOkay;
      }
      releaseOwned(x, y, own);
      pscInstance* box = psNewDouble(domain, r);
      *result = box != nullptr ? psObjectValue(box) : psInvalidValue();
      return box != nullptr ? kPsOkay : kPsOutOfMemory;
    }
  }
  if (kinds == kFloatKind && floatArithmetic(op, x, y, result)) return kPsOkay;
  if (op == kOpAdd && bothText(x, y)) {
    if ((own & kOwnLeft) && psIsStringBox(*x) && soleOwner(x->value.psc)) {
      pscInstance* text = x->value.psc;
      const bool grown = psStringAppend(text, GetStringPtr(y));
      if (own & kOwnRight) ReleaseValue(y);
      *result = psStringObjectValue(text);
      if (grown) return kPsOkay;
      pscSubRef(text);
      *result = psInvalidValue();
      return kPsStringOutOfMemory;
    }
    pscInstance* text = psNewStringConcat(domain, GetStringPtr(x), GetStringPtr(y));
    releaseOwned(x, y, own);
    *result = text != nullptr ? psStringObjectValue(text) : psInvalidValue();
    return text != nullptr ? kPsOkay : kPsStringOutOfMemory;
  }
  return plainBinary(domain, x, y, own, op, result);
}

// The same with a local variable as the destination.
PS_NOINLINE psStatus slowBinaryToLocal(pscDomain* domain, const psTypedValue* x,
                                       const psTypedValue* y, unsigned own, uint8_t op,
                                       psTypedValue* local) {
  double dx;
  double dy;
  double r;
  unsigned kinds = 0;
  if (readNumber(x, &dx, &kinds) && readNumber(y, &dy, &kinds) && (kinds & kDoubleKind) &&
      doubleArithmetic(op, dx, dy, &r)) {
    releaseOwned(x, y, own);
    return storeDouble(domain, local, r, kPsObjectFlag);
  }
  if (op == kOpAdd && psIsStringBox(*local) && bothText(x, y) && x->value.psc == local->value.psc &&
      psIsStringBox(*x)) {
    // s = s + t: the text grows where it is when only s holds it.
    pscInstance* text = local->value.psc;
    const int64_t holders = (own & kOwnLeft) ? 2 : 1;
    if (text->ref_cnt.load(std::memory_order_acquire) == holders) {
      const bool grown = psStringAppend(text, GetStringPtr(y));
      if (grown) local->meta = kPsObjectFlag | kPsStringFlavourFlag;
      releaseOwned(x, y, own);
      return grown ? kPsOkay : kPsStringOutOfMemory;
    }
  }
  psTypedValue result;
  const psStatus status = slowBinary(domain, x, y, own, op, false, &result);
  if (status == kPsOkay) {
    storeOver(local, result);
  } else {
    ReleaseValue(&result);
  }
  return status;
}

PS_NOINLINE psStatus slowCompare(pscDomain* domain, const psTypedValue* x, const psTypedValue* y,
                                 unsigned own, uint8_t op, bool* truth) {
  if (bothText(x, y)) {
    const psText a = GetStringPtr(x);
    const psText b = GetStringPtr(y);
    if (op == kOpEq || op == kOpNe) {
      *truth = (a == b) == (op == kOpEq);
    } else {
      *truth = compareOrder(op, a.compare(b));
    }
    releaseOwned(x, y, own);
    return kPsOkay;
  }
  double dx;
  double dy;
  unsigned kinds = 0;
  if (readNumber(x, &dx, &kinds) && readNumber(y, &dy, &kinds) && kinds != 0) {
    // Without a double both are read as Floats.
    if (!(kinds & kDoubleKind)) {
      dx = static_cast<double>(FloatVal(x));
      dy = static_cast<double>(FloatVal(y));
    }
    *truth = compareDoubles(op, dx, dy);
    releaseOwned(x, y, own);
    return kPsOkay;
  }
  psTypedValue result;
  const psStatus status = plainBinary(domain, x, y, own, op, &result);
  *truth = status == kPsOkay && result.value.i != 0;
  return status;
}

// --- Containers on the fast path --------------------------------------------------------------

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

PS_NOINLINE psStatus slowIndex(const psTypedValue* container, const psTypedValue* index,
                               unsigned own, psTypedValue* result) {
  psTypedValue operands[2] = {*container, *index};
  if (!(own & kOwnLeft)) psRetainValue(&operands[0]);
  if (!(own & kOwnRight)) psRetainValue(&operands[1]);
  const psStatus status = DoArrayGet(operands, 1, false);
  *result = operands[0];
  return status;
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
PS_NOINLINE psStatus growArray(pscInstance* object, int64_t i, const psTypedValue* value) {
  psTypedValue kept = *value;
  if (psIs(kept, kPsRawDoubleFlag)) {
    const psStatus status = boxRawDouble(object->domain, &kept);
    if (status != kPsOkay) return status;
  }
  kept.meta = (kept.meta & ~uint64_t{kPsStringFlavourFlag}) | kPsBoxedFlag;
  // An index no array can have: the value is dropped, as for any index out of range.
  const auto index = static_cast<int32_t>(i >= 0 && i <= INT32_MAX ? i : -1);
  psArraySetEntry(pscData<psArray>(object), index, kept);
  return kPsOkay;
}

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

PS_NOINLINE psStatus slowIndexSet(pscDomain* domain, const psTypedValue* container,
                                  const psTypedValue* index, unsigned own,
                                  const psTypedValue* value) {
  psTypedValue operands[3] = {*value, *container, *index};
  if (!(own & kOwnLeft)) psRetainValue(&operands[1]);
  if (!(own & kOwnRight)) psRetainValue(&operands[2]);
  if (psIs(operands[0], kPsRawDoubleFlag)) {
    const psStatus status = boxRawDouble(domain, &operands[0]);
    if (status != kPsOkay) {
      ReleaseValue(&operands[1]);
      ReleaseValue(&operands[2]);
      return status;
    }
  }
  return DoArraySet(operands, 1);
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

// object.name where no call follows; the object is consumed. another_dot: a further plain access
// follows, which an absent member cannot satisfy.
PS_NOINLINE psStatus readMember(psTypedValue* slot, psName* name, bool another_dot) {
  if (isAssociative(slot)) {
    pscInstance* object = slot->value.psc;
    psTypedValue found = memberOf(object, name);
    pscSubRef(object);
    const bool absent = found.type_flags == 0;
    *slot = absent ? psInvalidValue() : found;
    return absent && another_dot ? kPsInvalidDot : kPsOkay;
  }
  const bool readable_kind = psIs(*slot, kPsObjectFlag | kPsInterfaceFlag | kPsIntegerFlag |
                                             kPsStringConstantFlag | kPsBooleanFlag);
  ReleaseValue(slot);
  *slot = psInvalidValue();
  // Plain objects have no readable properties, nor do the boxes of intrinsic values.
  return readable_kind ? kPsSyntaxError : kPsInvalidDot;
}

// Integers, text constants and truth values get the methods of their boxes.
psStatus boxForMethods(pscDomain* domain, psTypedValue* slot) {
  if (!psIs(*slot, kPsIntegerFlag | kPsStringConstantFlag | kPsBooleanFlag)) {
    ReleaseValue(slot);
    *slot = psInvalidValue();
    return kPsInvalidDot;
  }
  return ConvertIntrinsicToObject(domain, slot);
}

void pushMemberFunction(psTypedValue* slot, const fundes* function) {
  slot->value.member = function;
  slot->meta = kPsMemberFunctionFlag;
}

const fundes* findMethod(const pscClass* cl, psName* name, int nargs) {
  psNameCache& cache = name->cache;
  if (cache.cl == cl && cache.function->nargs == nargs) return cache.function;
  const pscMemberFunction found = pscFindClassMemberFunction(cl, name->text.c_str(), nargs);
  if (found) cache = {cl, found.function};
  return found.function;
}

// object.name( … ): leaves a bound method, or receiver and native function. The stack must have
// room for two entries at slot; *entries tells how many are used. A failure leaves one, Invalid, as
// deep as a bound method would be.
PS_NOINLINE psStatus resolveMethod(pscDomain* domain, psTypedValue* slot, psName* name, int nargs,
                                   int* entries) {
  *entries = 1;
  if (!psIs(*slot, kPsObjectFlag | kPsInterfaceFlag)) {
    const psStatus status = boxForMethods(domain, slot);
    if (status != kPsOkay) return status;
  }
  if (psIs(*slot, kPsInterfaceFlag)) {
    const pscMemberFunction found =
        pscFindInterfaceFunction(slot->value.iface, name->text.c_str(), nargs);
    *slot = psInvalidValue();
    if (!found) return kPsMemberNotFound;
    pushMemberFunction(&slot[1], found.function);
    *entries = 2;
    return kPsOkay;
  }
  pscInstance* object = slot->value.psc;
  if (object->psc_class->if_assoc != nullptr) {
    psTypedValue found = memberOf(object, name);
    if (PS_LIKELY(found.type_flags != 0)) {
      uint16_t function;
      if (PS_LIKELY(psIs(found, kPsFunctionFlag))) {
        slot->meta = kPsThisSubFlag;
        slot->function_index = static_cast<int16_t>(found.value.i);
      } else if (GetFunctionIndex(&found, &function)) {
        // The object's reference passes to the bound method.
        ReleaseValue(&found);
        slot->meta = kPsThisSubFlag;
        slot->function_index = static_cast<int16_t>(function);
      } else {
        *slot = found;
        pscSubRef(object);
      }
      return kPsOkay;
    }
  }
  const fundes* function = findMethod(object->psc_class, name, nargs);
  if (function == nullptr) {
    pscSubRef(object);
    *slot = psInvalidValue();
    return kPsMemberNotFound;
  }
  pushMemberFunction(&slot[1], function);
  *entries = 2;
  return kPsOkay;
}

// object.ifName.Method( … ): a member called ifName wins; *whole_call tells that the call was
// resolved (two entries) instead.
PS_COLD psStatus resolveInterface(pscDomain* domain, psTypedValue* slot, psName* iface_name,
                                  const psName* method, int nargs, bool* whole_call) {
  *whole_call = false;
  if (psIs(*slot, kPsIntegerFlag | kPsStringConstantFlag | kPsBooleanFlag)) {
    const psStatus status = ConvertIntrinsicToObject(domain, slot);
    if (status != kPsOkay) return status;
  }
  if (!psIs(*slot, kPsObjectFlag)) return readMember(slot, iface_name, true);
  pscInstance* object = slot->value.psc;
  if (object->psc_class->if_assoc != nullptr) {
    const psTypedValue found = memberOf(object, iface_name);
    if (found.type_flags != 0) {
      pscSubRef(object);
      *slot = found;
      return kPsOkay;
    }
  }
  const psInterface* iface = pscGetInterface(object, iface_name->text.c_str());
  pscMemberFunction found;
  if (iface != nullptr) found = pscFindInterfaceFunction(iface, method->text.c_str(), nargs);
  if (!found) {
    pscSubRef(object);
    *slot = psInvalidValue();
    return iface == nullptr ? kPsInterfaceNotMember : kPsMemberNotFound;
  }
  *whole_call = true;
  pushMemberFunction(&slot[1], found.function);
  return kPsOkay;
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

// The plain way, for an object and a value on the stack.
PS_NOINLINE psStatus slowMemberSet(pscDomain* domain, psTypedValue* value, psTypedValue* object,
                                   const psName& name) {
  if (psIs(*value, kPsRawDoubleFlag)) {
    const psStatus status = boxRawDouble(domain, value);
    if (status != kPsOkay) {
      ReleaseValue(object);
      return status;
    }
  }
  return DoDotSet(value, object, name);
}

// --- Loops over objects -----------------------------------------------------------------------

enum class Each { kBody, kSkipOne, kSkipTwo, kFailed };

// The entry of FOR EACH: the collection is at slot, which must have room for the iterator above it.
PS_NOINLINE Each enterForEach(psTypedValue* slot, psTypedValue* variable, psStatus* status) {
  if (!psIs(*slot, kPsObjectFlag)) {
    if (slot->type_flags != 0) return Each::kSkipOne;
    *status = kPsUninitialized;
    return Each::kFailed;
  }
  pscInstance* object = slot->value.psc;
  const psIfEnum* each = object->psc_class->if_enum;
  if (each != nullptr) each->Reset(object);
  if (each == nullptr || !each->IsNext(object)) {
    pscSubRef(object);
    return Each::kSkipTwo;
  }
  storeOver(variable, each->Next(object));
  slot[1] = psMakeValue(kPsVoidPtrFlag, 0);
  slot[1].value.ptr = const_cast<psIfEnum*>(each);
  return Each::kBody;
}

// Whether there was another element; it is in the variable then.
PS_NOINLINE psStatus stepForEach(const psTypedValue* collection, psTypedValue* variable,
                                 bool* more) {
  *more = false;
  if (!psIs(*collection, kPsObjectFlag) || collection->value.psc->psc_class->if_enum == nullptr) {
    return kPsTypeMismatch;  // a jump into the loop from outside
  }
  pscInstance* object = collection->value.psc;
  const psIfEnum* each = object->psc_class->if_enum;
  if (!each->IsNext(object)) return kPsOkay;
  storeOver(variable, each->Next(object));
  *more = true;
  return kPsOkay;
}

// --- Global functions on the fast path --------------------------------------------------------

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

psStatus callGlobal(psProc* p, const fundes* function, int n, psTypedValue* args) {
  psTypedValue result = psInvalidValue();
  for (int i = 0; i < n; i++) {
    if (psIs(args[i], kPsRawDoubleFlag)) boxRawDouble(p->domain, &args[i]);
  }
  const psStatus status = pscCallFunction(p->domain, n, function, nullptr, args, &result);
  *args = status == kPsOkay ? result : psInvalidValue();
  return status;
}

// --- Sums of texts ----------------------------------------------------------------------------

// s becomes s followed by the pieces, which are consumed.
PS_NOINLINE psStatus appendPieces(pscDomain* domain, psTypedValue* s, const psTypedValue* pieces) {
  psStatus status = kPsOkay;
  if (psIsStringBox(*s) && soleOwner(s->value.psc)) {
    if (psStringAppend(s->value.psc, GetStringPtr(pieces))) {
      s->meta = kPsObjectFlag | kPsStringFlavourFlag;
    } else {
      status = kPsStringOutOfMemory;
    }
  } else {
    pscInstance* text = psNewStringConcat(domain, GetStringPtr(s), GetStringPtr(pieces));
    if (text != nullptr) {
      storeOver(s, psStringObjectValue(text));
    } else {
      status = kPsStringOutOfMemory;
    }
  }
  ReleaseValue(pieces);
  return status;
}

// A stop in the middle of a chain: the gathered pieces become the sum so far, which is what the
// plain instructions have in this place.
PS_COLD void leaveChain(psProc* p) {
  psTypedValue* slot = p->ctx->chain_slot;
  p->ctx->chain_slot = nullptr;
  if (!psIsStringBox(*slot)) return;
  const psTypedValue* s = p->ctx->locals + p->ctx->chain_local;
  pscInstance* text = psNewStringConcat(p->domain, GetStringPtr(s), GetStringPtr(slot));
  storeOver(slot, text != nullptr ? psStringObjectValue(text) : psInvalidValue());
}

// --- Frames -----------------------------------------------------------------------------------

inline void releaseRange(psTypedValue* from, const psTypedValue* to) {
  for (; from < to; from++) {
    if (psIs(*from, kPsCountedFlags)) ReleaseValue(from);
  }
}

inline bool hasEntryHook(const psProc* p) {
  return PS_UNLIKELY(p->debug_session != nullptr) && p->debug_session->entry_hook != nullptr;
}

inline void leaveFrame(psProc* p, subctx* frame) {
  p->ctx = frame->prev;
  p->frame_count--;
  if (PS_UNLIKELY(hasEntryHook(p))) p->debug_session->entry_hook(p, 1, nullptr);
}

inline psTypedValue* stackEnd(psProc* p) { return p->eval_stack + kPsStackSlots; }

inline void prepareSlots(psProc* p, psTypedValue* unset, psTypedValue* end, psTypedValue* global,
                         pscInstance* m) {
  for (; unset < end; unset++) unset->meta = 0;
  global->value.iface = p->ifGlobal;
  global->meta = kPsInterfaceFlag;
  psTypedValue* self = global + 1;
  if (PS_LIKELY(m != nullptr)) {
    pscAddRef(m);
    self->value.psc = m;
    self->meta = kPsObjectFlag;
  } else {
    *self = psInvalidValue();
  }
}

// Where the callee of a call leads: a function of the module and its receiver.
struct Callee {
  psFunction* function = nullptr;
  pscInstance* receiver = nullptr;
};

// The frame of a call that has passed every check; its code begins at a known instruction.
inline void openFrame(psProc* p, const Callee& callee, int n, psTypedValue* first,
                      psTypedValue* end, int parameters) {
  subctx* frame = &p->frames[p->frame_count++];
  frame->calling_args_n = n;
  frame->sub = callee.function;
  frame->locals = first;
  frame->prev = p->ctx;
  frame->calling_evsp = first;
  frame->varlistsize = static_cast<uint32_t>(end - first);
  frame->resume = nullptr;
  frame->chain_slot = nullptr;
  frame->plain_only = false;
  p->ctx = frame;
  prepareSlots(p, first + n, end, first + parameters, callee.receiver);
}

bool functionAt(psProc* p, unsigned index, Callee* callee) {
  if (index >= p->mod->functions.size()) return false;
  callee->function = p->mod->functions[index];
  return true;
}

PS_NOINLINE bool findCallee(psProc* p, const psTypedValue* v, Callee* callee) {
  uint16_t index;
  if (psIs(*v, kPsThisSubFlag)) {
    callee->receiver = v->value.psc;
    return functionAt(p, static_cast<uint16_t>(v->function_index), callee);
  }
  if (GetFunctionIndex(v, &index)) {
    callee->receiver = p->mod->global_object;
    return functionAt(p, index, callee);
  }
  if (!isAssociative(v)) return false;
  pscInstance* object = v->value.psc;
  const psTypedValue invoke = object->psc_class->if_assoc->LookupCi(object, "__invoke");
  const bool found = GetFunctionIndex(&invoke, &index) && functionAt(p, index, callee);
  ReleaseValue(&invoke);
  callee->receiver = object;
  return found;
}

// Whether a value is of a declared type as it stands; String and Double have no kind of their own.
inline bool hasKind(const psTypedValue& v, unsigned type) {
  return type <= psComponentMemberFunction && v.type_flags == (1u << type);
}

psStatus convertTop(pscDomain* domain, psTypedValue* v, psTypeEnum type) {
  if (psIs(*v, kPsRawDoubleFlag)) {
    if (type == psDouble || type == psDynamic) return kPsOkay;
    const psStatus status = boxRawDouble(domain, v);
    if (status != kPsOkay) return status;
  }
  return DoConvert(domain, v, type);
}

// Consumes a break request; the code to stop with, or 0.
psStatus takeBreak(psProc* p) {
  uint32_t word = p->break_word.load(std::memory_order_acquire);
  if ((word & kPsBreakCounted) != 0) {
    // Once they are used up, whatever evaluated the text that met the limit stops too.
    if (p->turns_left == 0) return kPsBreak;
    p->turns_left--;
  }
  for (;;) {
    const auto code = static_cast<psStatus>(word & kPsBreakCodeMask);
    if (code == 0 || (word & kPsBreakSticky) != 0) return code;
    if (p->break_word.compare_exchange_weak(word, word & ~kPsBreakCodeMask)) return code;
  }
}

bool stepping(const psProc* p) {
  return (p->break_word.load(std::memory_order_relaxed) & kPsBreakStep) != 0;
}

// The current frame's position in the step form, when the step hook has nothing to say about it.
PS_COLD const psInstruction* quietStep(psProc* p, const psDecodedCode* chunk) {
  const psDebugSession* session = p->debug_session;
  const subctx* frame = p->ctx;
  if (session == nullptr || session->quiet_function != frame->sub) return nullptr;
  if (p->step_form == nullptr) p->step_form = std::make_unique<psStepForm>();
  return psStepAt(p->step_form.get(), chunk, session->quiet_first, session->quiet_last, frame->pc);
}

// One loop turn, call or return: tells watchdogs that the script moves, and looks for a break.
inline bool turn(psProc* p) {
  psInstructionCounter.store(psInstructionCounter.load(std::memory_order_relaxed) + 1,
                             std::memory_order_relaxed);
  return PS_UNLIKELY(p->break_word.load(std::memory_order_relaxed) != 0);
}

// The loop's labels: one an operation, then the one that plain instructions start with.
const void* const* handler_table = nullptr;

psStatus runLoop(psProc* p);

}  // namespace

const void* const* psHandlers() {
  if (handler_table == nullptr) runLoop(nullptr);
  return handler_table;
}
const void* psPlainHandler() { return psHandlers()[kFastOpCount]; }

psProc::psProc() = default;
psProc::~psProc() = default;

void psSetTurnLimit(psProc* p, uint64_t turns) {
  p->turns_left = turns;
  p->break_word.fetch_or(kPsBreakCounted);
}

psStatus psPushFrame(psProc* p, psFunction* function, int n, pscInstance* m) {
  const int parameters = function->parameters();
  if (n > parameters) return kPsWrongParameterCount;
  psTypedValue* locals = p->evsp - n;
  psTypedValue* end = locals + function->variable_count;
  if (end > p->eval_stack + kPsFrameLimit || p->frame_count >= kPsMaxFrames) {
    return kPsStackOverflow;
  }
  if (PS_UNLIKELY(hasEntryHook(p))) p->debug_session->entry_hook(p, 0, function);
  const uint16_t entry = function->callvarinits[static_cast<size_t>(n)];
  if (entry == kPsNoEntry) return kPsWrongParameterCount;
  subctx* frame = &p->frames[p->frame_count++];
  frame->pc = entry;
  frame->calling_args_n = n;
  frame->sub = function;
  frame->locals = locals;
  frame->prev = p->ctx;
  frame->calling_evsp = locals;
  frame->varlistsize = function->variable_count;
  frame->resume = nullptr;
  frame->chain_slot = nullptr;
  frame->plain_only = false;
  p->ctx = frame;
  prepareSlots(p, p->evsp, end, locals + parameters, m);
  p->evsp = end;
  return kPsOkay;
}

void psPopFrame(psProc* p) {
  subctx* frame = p->ctx;
  leaveFrame(p, frame);
  releaseRange(frame->locals, p->evsp);
  p->evsp = frame->calling_evsp;
}

bool ResizeLocalStorage(psProc* p) {
  subctx* frame = p->ctx;
  const uint32_t wanted = frame->sub->variable_count;
  psAssertText(wanted >= frame->varlistsize, "subctx->sub->varlistsize>=prior_vartabsize");
  const uint32_t added = wanted - frame->varlistsize;
  if (added == 0) return true;
  if (p->evsp + added > p->eval_stack + kPsFrameLimit) return false;
  psTypedValue* first = frame->locals + frame->varlistsize;
  std::memmove(static_cast<void*>(first + added), first,
               static_cast<size_t>(p->evsp - first) * sizeof(psTypedValue));
  for (uint32_t i = 0; i < added; i++) first[i] = psUninitializedValue();
  p->evsp += added;
  frame->varlistsize = wanted;
  for (subctx* above = frame + 1; above < p->frames + p->frame_count; above++) {
    above->locals += added;
    above->calling_evsp += added;
    if (above->chain_slot != nullptr) above->chain_slot += added;
  }
  return true;
}

psStatus psRunAppended(psProc* p, uint32_t start) {
  subctx* frame = p->ctx;
  if (frame->chain_slot != nullptr) {
    // A caller that waits in the middle of a chain: the code may change what is being summed up.
    leaveChain(p);
    frame->resume = nullptr;
  }
  if (!ResizeLocalStorage(p)) {
    p->error_offset = -1;
    p->error_function = nullptr;
    return kPsStackOverflow;
  }
  subctx* outer_base = p->base_frame;
  const uint32_t pc = frame->pc;
  const psInstruction* resume = frame->resume;
  // Counted from the frame's end: the statements may give the frame more variables.
  const ptrdiff_t depth = p->evsp - (frame->locals + frame->varlistsize);
  psDecodeUpTo(frame->sub, start);
  const bool plain_only = std::exchange(frame->plain_only, false);
  p->base_frame = frame;
  frame->pc = start;
  frame->resume = nullptr;
  psStatus status = RunExecLoop(p);
  // A RETURN among the statements ends them.
  if (status == kPsReturned) status = kPsNormalEnd;
  while (p->ctx != frame) psPopFrame(p);
  psTypedValue* end = frame->locals + frame->varlistsize + depth;
  releaseRange(end, p->evsp);
  for (; p->evsp < end; p->evsp++) *p->evsp = psInvalidValue();
  p->evsp = end;
  p->base_frame = outer_base;
  frame->pc = pc;
  frame->resume = resume;
  frame->plain_only = plain_only;
  return status;
}

psStatus ExecSub(psProc* p, psFunction* function, psTypedValue* args, int n, pscInstance* m,
                 psTypedValue* result) {
  if (result != nullptr) *result = psUninitializedValue();
  p->error_offset = -1;
  p->error_function = function;
  if (n > function->parameters()) {
    p->last_status = kPsWrongParameterCount;
    return p->last_status;
  }
  p->running = true;
  for (int i = 0; i < n; i++) *p->evsp++ = psCopyValue(args[i]);
  psStatus status = psPushFrame(p, function, n, m != nullptr ? m : p->mod->global_object);
  if (status != kPsOkay) {
    releaseRange(p->evsp - n, p->evsp);
    p->evsp -= n;
    p->running = false;
    p->last_status = status;
    return status;
  }
  p->base_frame = p->ctx;
  for (;;) {
    status = RunExecLoop(p);
    psDebugSession* session = p->debug_session;
    if (session == nullptr || session->shell == nullptr || status == kPsNormalEnd) break;
    if (status == kPsReturned || p->stop_on_error) break;
    pscNotifyStopped(p->domain);
    p->last_status = status;
    status = session->shell(p);
    pscNotifyRunning(p->domain);
    if (status != kPsOkay) break;
  }
  if (status == kPsReturned) {
    psTypedValue value = *--p->evsp;
    if (result != nullptr) {
      *result = value;
    } else {
      ReleaseValue(&value);
    }
    p->last_status = kPsOkay;
  }
  while (p->ctx != nullptr) psPopFrame(p);
  if (hasEntryHook(p)) p->debug_session->entry_hook(p, 2, nullptr);
  p->running = false;
  psAssertText(p->ctx == nullptr, "code->ctx==0");
  psAssertText(p->evsp == p->eval_stack, "code->evsp==code->eval_stack");
  return status == kPsReturned || status == kPsNormalEnd ? psStatus{kPsOkay} : status;
}

psStatus RunExecLoop(psProc* p) { return runLoop(p); }

// --- The loop ---------------------------------------------------------------------------------

namespace {

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"

// The left and the right operand of a binary operator in each mode, what it takes from the stack,
// and which operands are its own to consume.
#define X_LL (&locals[ip->a])
#define Y_LL (&locals[ip->b])
#define X_LK (&locals[ip->a])
#define Y_LK (ip->x.constant)
#define X_KL (ip->x.constant)
#define Y_KL (&locals[ip->b])
#define X_SL (sp - 1)
#define Y_SL (&locals[ip->b])
#define X_SK (sp - 1)
#define Y_SK (ip->x.constant)
#define X_SS (sp - 2)
#define Y_SS (sp - 1)
#define POPS_LL 0
#define POPS_LK 0
#define POPS_KL 0
#define POPS_SL 1
#define POPS_SK 1
#define POPS_SS 2
#define OWN_LL 0
#define OWN_LK 0
#define OWN_KL 0
#define OWN_SL kOwnLeft
#define OWN_SK kOwnLeft
#define OWN_SS (kOwnLeft | kOwnRight)

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

PS_NOINLINE psStatus runLoop(psProc* p) {
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
    if (!GetBoolValue(sp, &truth)) {
      status = sp->type_flags == 0 ? kPsUninitialized : kPsTypeMismatch;
      ReleaseValue(sp);
      goto failed;
    }
    ReleaseValue(sp);
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
    CHECK(DoFor(p->domain, v, &sp[-2], &sp[-1], &done));
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
    CHECK(DoNext(v, &sp[-2], &sp[-1], &done));
  }
  if (done) NEXT;
  ip += ip->jump;
  if (turn(p)) goto break_seen;
  DISPATCH;
}

L_ForEach:
  switch (enterForEach(sp - 1, &locals[ip->a], &status)) {
    case Each::kBody: sp++; NEXT;
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
  if (PS_UNLIKELY(ip == nullptr)) goto resume;
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
  CHECK(DoArraySet(sp, n));
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

#define SLOW_TO_STACK(OP, MODE)                                           \
  status = slowBinary(p->domain, X_##MODE, Y_##MODE, OWN_##MODE, kOp##OP, \
                      ip->c == kPsTakesRawDouble, sp - POPS_##MODE);      \
  sp += 1 - POPS_##MODE;                                                  \
  if (PS_UNLIKELY(status != kPsOkay)) goto failed;                        \
  NEXT;
#define SLOW_TO_LOCAL(OP, MODE)                                                                   \
  status = slowBinaryToLocal(p->domain, X_##MODE, Y_##MODE, OWN_##MODE, kOp##OP, &locals[ip->c]); \
  sp -= POPS_##MODE;                                                                              \
  if (PS_UNLIKELY(status != kPsOkay)) {                                                           \
    *sp++ = psInvalidValue();                                                                     \
    goto failed;                                                                                  \
  }                                                                                               \
  NEXT;

#define DELIVER_S(MODE, SET, R) \
  sp += 1 - POPS_##MODE;        \
  SET(sp - 1, R);               \
  NEXT;
#define DELIVER_L(MODE, SET, R)                  \
  psTypedValue* to = &locals[ip->c];             \
  sp -= POPS_##MODE;                             \
  if (PS_UNLIKELY(psIs(*to, kPsCountedFlags))) { \
    const psTypedValue old = *to;                \
    SET(to, R);                                  \
    ReleaseValue(&old);                          \
    NEXT;                                        \
  }                                              \
  SET(to, R);                                    \
  NEXT;
#define SLOW_S SLOW_TO_STACK
#define SLOW_L SLOW_TO_LOCAL

// Two doubles whose result the next operator or store takes without a box, or one that goes into a
// local.
#define DOUBLES_S(MODE, FLOATING)                                                        \
  double i, j;                                                                           \
  if (PS_LIKELY(ip->c == kPsTakesRawDouble) && readDouble(x, &i) && readDouble(y, &j)) { \
    const double r = FLOATING;                                                           \
    releaseOwned(x, y, OWN_##MODE);                                                      \
    sp += 1 - POPS_##MODE;                                                               \
    sp[-1].value.d = r;                                                                  \
    sp[-1].meta = kPsRawDoubleFlag;                                                      \
    NEXT;                                                                                \
  }
#define DOUBLES_L(MODE, FLOATING)                                      \
  double i, j;                                                         \
  if (readDouble(x, &i) && readDouble(y, &j)) {                        \
    const double r = FLOATING;                                         \
    releaseOwned(x, y, OWN_##MODE);                                    \
    sp -= POPS_##MODE;                                                 \
    status = storeDouble(p->domain, &locals[ip->c], r, kPsObjectFlag); \
    if (PS_UNLIKELY(status != kPsOkay)) {                              \
      *sp++ = psInvalidValue();                                        \
      goto failed;                                                     \
    }                                                                  \
    NEXT;                                                              \
  }

// Two Integers, two Floats or two doubles; everything else is slow.
#define ARITHMETIC(OP, MODE, DST, INTEGER, FLOATING)     \
  L_##OP##MODE##_##DST : {                               \
    const psTypedValue* x = X_##MODE;                    \
    const psTypedValue* y = Y_##MODE;                    \
    const unsigned both = x->type_flags & y->type_flags; \
    if (PS_LIKELY(both & kPsIntegerFlag)) {              \
      const auto i = static_cast<uint64_t>(x->value.i);  \
      const auto j = static_cast<uint64_t>(y->value.i);  \
      const auto r = static_cast<int64_t>(INTEGER);      \
      DELIVER_##DST(MODE, setInteger, r)                 \
    }                                                    \
    if (both & kPsFloatFlag) {                           \
      const float i = x->value.f;                        \
      const float j = y->value.f;                        \
      const float r = FLOATING;                          \
      DELIVER_##DST(MODE, setFloat, r)                   \
    }                                                    \
    DOUBLES_##DST(MODE, FLOATING) SLOW_##DST(OP, MODE)   \
  }
#define X(OP, MODE, DST) ARITHMETIC(OP, MODE, DST, i + j, i + j)
  PS_BINARY_MODES(X, Add, S)
  PS_BINARY_MODES(X, Add, L)
#undef X
#define X(OP, MODE, DST) ARITHMETIC(OP, MODE, DST, i - j, i - j)
      PS_BINARY_MODES(X, Sub, S) PS_BINARY_MODES(X, Sub, L)
#undef X
#define X(OP, MODE, DST) ARITHMETIC(OP, MODE, DST, i* j, i* j)
          PS_BINARY_MODES(X, Mul, S) PS_BINARY_MODES(X, Mul, L)
#undef X

// Division gives a Float; by zero it is an error.
#define DIVISION(OP, MODE, DST)                                                        \
  L_##OP##MODE##_##DST : {                                                             \
    const psTypedValue* x = X_##MODE;                                                  \
    const psTypedValue* y = Y_##MODE;                                                  \
    const unsigned both = x->type_flags & y->type_flags;                               \
    if (PS_LIKELY((both & kPsFloatFlag) && y->value.f != 0.0f)) {                      \
      const float r = x->value.f / y->value.f;                                         \
      DELIVER_##DST(MODE, setFloat, r)                                                 \
    }                                                                                  \
    if ((both & kPsIntegerFlag) && y->value.i != 0) {                                  \
      const float r = static_cast<float>(x->value.i) / static_cast<float>(y->value.i); \
      DELIVER_##DST(MODE, setFloat, r)                                                 \
    }                                                                                  \
    SLOW_##DST(OP, MODE)                                                               \
  }
              PS_BINARY_MODES(DIVISION, Div, S) PS_BINARY_MODES(DIVISION, Div, L)

#define MODULO(OP, MODE, DST)                                                             \
  L_##OP##MODE##_##DST : {                                                                \
    const psTypedValue* x = X_##MODE;                                                     \
    const psTypedValue* y = Y_##MODE;                                                     \
    if (PS_LIKELY((x->type_flags & y->type_flags & kPsIntegerFlag) && y->value.i > 0)) {  \
      const int64_t i = x->value.i;                                                       \
      const int64_t j = y->value.i;                                                       \
      /* A 32-bit division takes a fraction of the time of a 64-bit one. */               \
      const int64_t r =                                                                   \
          ((i | j) >> 32) == 0                                                            \
              ? static_cast<int64_t>(static_cast<uint32_t>(i) % static_cast<uint32_t>(j)) \
              : i % j;                                                                    \
      DELIVER_##DST(MODE, setInteger, r)                                                  \
    }                                                                                     \
    SLOW_##DST(OP, MODE)                                                                  \
  }
                  PS_BINARY_MODES(MODULO, Mod, S) PS_BINARY_MODES(MODULO, Mod, L)

// Bitwise on two Integers, logical on two Booleans.
#define LOGIC(OP, MODE, DST, SYMBOL)                               \
  L_##OP##MODE##_##DST : {                                         \
    const psTypedValue* x = X_##MODE;                              \
    const psTypedValue* y = Y_##MODE;                              \
    const unsigned both = x->type_flags & y->type_flags;           \
    if (both & kPsBooleanFlag) {                                   \
      const int64_t r = (x->value.i != 0) SYMBOL(y->value.i != 0); \
      DELIVER_##DST(MODE, setBoolean, r)                           \
    }                                                              \
    if (both & kPsIntegerFlag) {                                   \
      const int64_t r = x->value.i SYMBOL y->value.i;              \
      DELIVER_##DST(MODE, setInteger, r)                           \
    }                                                              \
    SLOW_##DST(OP, MODE)                                           \
  }
#define X(OP, MODE, DST) LOGIC(OP, MODE, DST, &)
                      PS_BINARY_MODES(X, And, S) PS_BINARY_MODES(X, And, L)
#undef X
#define X(OP, MODE, DST) LOGIC(OP, MODE, DST, |)
                          PS_BINARY_MODES(X, Or, S) PS_BINARY_MODES(X, Or, L)
#undef X

#define POWER(OP, MODE, DST) L_##OP##MODE##_##DST : {SLOW_##DST(OP, MODE)}
                              PS_BINARY_MODES(POWER, Exp, S) PS_BINARY_MODES(POWER, Exp, L)

#define COMPARE_S(OP, MODE, SYMBOL)                             \
  L_##OP##MODE##_S : {                                          \
    const psTypedValue* x = X_##MODE;                           \
    const psTypedValue* y = Y_##MODE;                           \
    const unsigned both = x->type_flags & y->type_flags;        \
    if (PS_LIKELY(both & kPsIntegerFlag)) {                     \
      const int64_t r = -int64_t{x->value.i SYMBOL y->value.i}; \
      DELIVER_S(MODE, setBoolean, r)                            \
    }                                                           \
    if (both & kPsFloatFlag) {                                  \
      const int64_t r = -int64_t{x->value.f SYMBOL y->value.f}; \
      DELIVER_S(MODE, setBoolean, r)                            \
    }                                                           \
    SLOW_TO_STACK(OP, MODE)                                     \
  }
#define COMPARE_J(OP, MODE, SYMBOL)                                       \
  L_##OP##MODE##_J : {                                                    \
    const psTypedValue* x = X_##MODE;                                     \
    const psTypedValue* y = Y_##MODE;                                     \
    const unsigned both = x->type_flags & y->type_flags;                  \
    bool truth;                                                           \
    if (PS_LIKELY(both & kPsIntegerFlag)) {                               \
      truth = x->value.i SYMBOL y->value.i;                               \
    } else if (both & kPsFloatFlag) {                                     \
      truth = x->value.f SYMBOL y->value.f;                               \
    } else {                                                              \
      status = slowCompare(p->domain, x, y, OWN_##MODE, kOp##OP, &truth); \
      if (PS_UNLIKELY(status != kPsOkay)) {                               \
        sp += 1 - POPS_##MODE;                                            \
        sp[-1] = psInvalidValue();                                        \
        goto failed;                                                      \
      }                                                                   \
    }                                                                     \
    sp -= POPS_##MODE;                                                    \
    if (truth) NEXT;                                                      \
    ip += ip->jump;                                                       \
    DISPATCH;                                                             \
  }
#define X_GT(OP, MODE, DST) COMPARE_##DST(OP, MODE, >)
#define X_EQ(OP, MODE, DST) COMPARE_##DST(OP, MODE, ==)
#define X_LT(OP, MODE, DST) COMPARE_##DST(OP, MODE, <)
#define X_LE(OP, MODE, DST) COMPARE_##DST(OP, MODE, <=)
#define X_GE(OP, MODE, DST) COMPARE_##DST(OP, MODE, >=)
#define X_NE(OP, MODE, DST) COMPARE_##DST(OP, MODE, !=)
                                  PS_BINARY_MODES(X_GT, Gt, S) PS_BINARY_MODES(X_GT, Gt, J)
                                      PS_BINARY_MODES(X_EQ, Eq, S) PS_BINARY_MODES(X_EQ, Eq, J)
                                          PS_BINARY_MODES(X_LT, Lt, S) PS_BINARY_MODES(X_LT, Lt, J)
                                              PS_BINARY_MODES(X_LE, Le, S)
                                                  PS_BINARY_MODES(X_LE, Le, J)
                                                      PS_BINARY_MODES(X_GE, Ge, S)
                                                          PS_BINARY_MODES(X_GE, Ge, J)
                                                              PS_BINARY_MODES(X_NE, Ne, S)
                                                                  PS_BINARY_MODES(X_NE, Ne, J)
}

#pragma GCC diagnostic pop

}  // namespace
