// What the operator instructions compute, for every combination of operand kinds.
//
// These are the plain, complete rules. The interpreter's fast paths (two Integers, two Floats,
// doubles, two texts) are derived from them and hand everything else over to them. Operands are
// always consumed, whatever the outcome.
#include <cmath>
#include <cstring>

#include "bytecode.h"
#include "clwrappers.h"
#include "containers.h"
#include "run.h"

namespace {

// A comparison's truth carries all bits set; both readings are true.
psTypedValue comparison(bool b) { return psMakeValue(kPsBooleanFlag, b ? -1 : 0); }

bool isComparison(uint8_t op) { return op >= kOpGt && op <= kOpNe; }

template <class T>
bool compare(uint8_t op, const T& x, const T& y) {
  switch (op) {
    case kOpGt: return x > y;
    case kOpEq: return x == y;
    case kOpLt: return x < y;
    case kOpLe: return x <= y;
    case kOpGe: return x >= y;
    default: return x != y;
  }
}

int64_t wrapAdd(int64_t x, int64_t y) {
  return static_cast<int64_t>(static_cast<uint64_t>(x) + static_cast<uint64_t>(y));
}
int64_t wrapSub(int64_t x, int64_t y) {
  return static_cast<int64_t>(static_cast<uint64_t>(x) - static_cast<uint64_t>(y));
}
int64_t wrapMul(int64_t x, int64_t y) {
  return static_cast<int64_t>(static_cast<uint64_t>(x) * static_cast<uint64_t>(y));
}

int64_t remainder(int64_t x, int64_t y) {
  if (y == 0) return x;
  return y == -1 ? 0 : x % y;
}

// x times itself y times, wrapping; by squaring, so that an exponent of billions takes no time.
int64_t integerPower(int64_t x, int64_t y) {
  uint64_t result = 1;
  uint64_t factor = static_cast<uint64_t>(x);
  for (auto n = static_cast<uint64_t>(y); n != 0; n >>= 1) {
    if (n & 1) result *= factor;
    factor *= factor;
  }
  return static_cast<int64_t>(result);
}

psStatus doubleResult(pscDomain* domain, double r, psTypedValue* result) {
  pscInstance* box = psNewDouble(domain, r);
  if (box == nullptr) return kPsOutOfMemory;
  *result = psObjectValue(box);
  return kPsOkay;
}

psStatus doubleOperator(pscDomain* domain, double x, double y, uint8_t op, const psTypedValue* a,
                        const psTypedValue* b, psTypedValue* result) {
  if (isComparison(op)) {
    *result = comparison(compare(op, x, y));
    return kPsOkay;
  }
  switch (op) {
    case kOpAdd: return doubleResult(domain, x + y, result);
    case kOpSub: return doubleResult(domain, x - y, result);
    case kOpMul: return doubleResult(domain, x * y, result);
    case kOpExp: return doubleResult(domain, std::pow(x, y), result);
    case kOpDiv: return y == 0.0 ? psStatus{kPsDivideByZero} : doubleResult(domain, x / y, result);
    case kOpAnd: *result = psIntegerValue(IntVal(a) & IntVal(b)); return kPsOkay;
    case kOpOr: *result = psIntegerValue(IntVal(a) | IntVal(b)); return kPsOkay;
    case kOpMod:
      return doubleResult(domain, static_cast<double>(remainder(IntVal(a), IntVal(b))), result);
    default: return kPsUndefinedOp;
  }
}

psStatus floatOperator(float x, float y, uint8_t op, const psTypedValue* a, const psTypedValue* b,
                       psTypedValue* result) {
  if (isComparison(op)) {
    *result = comparison(compare(op, x, y));
    return kPsOkay;
  }
  switch (op) {
    case kOpAdd: *result = psFloatValue(x + y); return kPsOkay;
    case kOpSub: *result = psFloatValue(x - y); return kPsOkay;
    case kOpMul: *result = psFloatValue(x * y); return kPsOkay;
    case kOpDiv:
      *result = psFloatValue(y == 0.0f ? 0.0f : x / y);
      return y == 0.0f ? kPsDivideByZero : kPsOkay;
    case kOpExp:
      *result = psFloatValue(
          static_cast<float>(std::pow(static_cast<double>(x), static_cast<double>(y))));
      return kPsOkay;
    case kOpAnd: *result = psIntegerValue(IntVal(a) & IntVal(b)); return kPsOkay;
    case kOpOr: *result = psIntegerValue(IntVal(a) | IntVal(b)); return kPsOkay;
    case kOpMod:
      *result = psFloatValue(static_cast<float>(remainder(IntVal(a), IntVal(b))));
      return kPsOkay;
    default: return kPsUndefinedOp;
  }
}

psStatus textOperator(pscDomain* domain, psTypedValue* a, psTypedValue* b, uint8_t op,
                      psTypedValue* result) {
  if (!IsStringValue(a) || !IsStringValue(b)) return kPsTypeMismatch;
  const psText x = GetStringPtr(a);
  const psText y = GetStringPtr(b);
  if (isComparison(op)) {
    *result = comparison(compare(op, x.compare(y), 0));
    return kPsOkay;
  }
  if (op != kOpAdd) return kPsTypeMismatch;
  if (psIsStringBox(*a) && a->value.psc->ref_cnt.load(std::memory_order_acquire) == 1) {
    // Nobody else holds the left text: it grows where it is.
    if (!psStringAppend(a->value.psc, y)) return kPsStringOutOfMemory;
    *result = psStringObjectValue(a->value.psc);
    a->meta = 0;
    return kPsOkay;
  }
  pscInstance* text = psNewStringConcat(domain, x, y);
  if (text == nullptr) return kPsStringOutOfMemory;
  *result = psStringObjectValue(text);
  return kPsOkay;
}

psStatus booleanOperator(const psTypedValue* a, const psTypedValue* b, uint8_t op,
                         psTypedValue* result) {
  bool x;
  bool y;
  if (!GetBoolValue(a, &x) || !GetBoolValue(b, &y)) return kPsTypeMismatch;
  switch (op) {
    case kOpEq: *result = psBooleanValue(x == y); return kPsOkay;
    case kOpNe: *result = psBooleanValue(x != y); return kPsOkay;
    case kOpAnd: *result = psBooleanValue(x && y); return kPsOkay;
    case kOpOr: *result = psBooleanValue(x || y); return kPsOkay;
    default: return kPsTypeMismatch;
  }
}

psStatus invalidOperator(const psTypedValue* a, const psTypedValue* b, uint8_t op,
                         psTypedValue* result) {
  if (op != kOpEq && op != kOpNe) return kPsTypeMismatch;
  const bool both = IsInvalidValue(a) && IsInvalidValue(b);
  *result = comparison(op == kOpEq ? both : !both);
  return kPsOkay;
}

psStatus functionOperator(const psTypedValue* a, const psTypedValue* b, uint8_t op,
                          psTypedValue* result) {
  if (!IsFunctionValue(a) || !IsFunctionValue(b)) return kPsTypeMismatch;
  if (op != kOpEq && op != kOpNe) return kPsTypeMismatch;
  *result = comparison((SubVal(a) == SubVal(b)) == (op == kOpEq));
  return kPsOkay;
}

psStatus chooseOperator(pscDomain* domain, psTypedValue* a, psTypedValue* b, uint8_t op,
                        psTypedValue* result) {
  if (IsIntegerValue(a) && IsIntegerValue(b)) {
    return DoIntegerOperator(IntVal(a), IntVal(b), op, result);
  }
  if (a->type_flags == 0 || b->type_flags == 0) return kPsUninitialized;
  if (IsInvalidValue(a) || IsInvalidValue(b)) return invalidOperator(a, b, op, result);
  if (IsStringValue(a) || IsStringValue(b)) return textOperator(domain, a, b, op, result);
  if (IsBooleanValue(a) || IsBooleanValue(b)) return booleanOperator(a, b, op, result);
  if (IsDoubleValue(a) || IsDoubleValue(b)) {
    if (!IsNumeric(a) || !IsNumeric(b)) return kPsTypeMismatch;
    return doubleOperator(domain, DoubleVal(a), DoubleVal(b), op, a, b, result);
  }
  if (IsFloatValue(a) || IsFloatValue(b)) {
    if (!IsNumeric(a) || !IsNumeric(b)) return kPsTypeMismatch;
    return floatOperator(FloatVal(a), FloatVal(b), op, a, b, result);
  }
  if (IsFunctionValue(a) || IsFunctionValue(b)) return functionOperator(a, b, op, result);
  psAssert(!IsNumeric(a) || !IsNumeric(b));
  return kPsTypeMismatch;
}

psStatus noReading(const psTypedValue* v) {
  return v->type_flags == 0 ? kPsUninitialized : kPsTypeMismatch;
}

void put(psTypedValue* v, psTypedValue result) {
  ReleaseValue(v);
  *v = result;
}

}  // namespace

psStatus DoIntegerOperator(int64_t x, int64_t y, uint8_t op, psTypedValue* result) {
  if (isComparison(op)) {
    *result = comparison(compare(op, x, y));
    return kPsOkay;
  }
  switch (op) {
    case kOpAdd: *result = psIntegerValue(wrapAdd(x, y)); return kPsOkay;
    case kOpSub: *result = psIntegerValue(wrapSub(x, y)); return kPsOkay;
    case kOpMul: *result = psIntegerValue(wrapMul(x, y)); return kPsOkay;
    case kOpDiv:
      *result = psFloatValue(y == 0 ? 0.0f : static_cast<float>(x) / static_cast<float>(y));
      return y == 0 ? kPsDivideByZero : kPsOkay;
    case kOpExp:
      *result = y < 0 ? psFloatValue(static_cast<float>(
                            std::pow(static_cast<double>(x), static_cast<double>(y))))
                      : psIntegerValue(integerPower(x, y));
      return kPsOkay;
    case kOpAnd: *result = psIntegerValue(x & y); return kPsOkay;
    case kOpOr: *result = psIntegerValue(x | y); return kPsOkay;
    case kOpMod: *result = psIntegerValue(remainder(x, y)); return kPsOkay;
    default: *result = psIntegerValue(0); return kPsUndefinedOp;
  }
}

psStatus DoOperator(pscDomain* domain, psTypedValue* a, psTypedValue* b, uint8_t op,
                    psTypedValue* result) {
  psTypedValue value = psInvalidValue();
  const psStatus status = chooseOperator(domain, a, b, op, &value);
  ReleaseValue(a);
  ReleaseValue(b);
  *result = value;
  return status;
}

psStatus DoNot(psTypedValue* v) {
  if (psIs(*v, kPsBooleanFlag)) {
    *v = psBooleanValue(v->value.i == 0);
    return kPsOkay;
  }
  int64_t i;
  if (IsBooleanValue(v)) {
    put(v, psBooleanValue(!BoolVal(v)));
    return kPsOkay;
  }
  if (GetIntValue(v, &i)) {
    put(v, psIntegerValue(~static_cast<int32_t>(i)));
    return kPsOkay;
  }
  const psStatus status = noReading(v);
  put(v, psInvalidValue());
  return status;
}

psStatus DoNeg(pscDomain* domain, psTypedValue* v) {
  if (IsIntegerValue(v)) {
    const auto x = static_cast<uint32_t>(IntVal(v));
    put(v, psIntegerValue(static_cast<int32_t>(0u - x)));
    return kPsOkay;
  }
  if (IsFloatValue(v)) {
    put(v, psFloatValue(-FloatVal(v)));
    return kPsOkay;
  }
  psTypedValue result = psInvalidValue();
  const psStatus status =
      IsDoubleValue(v) ? doubleResult(domain, -DoubleVal(v), &result) : noReading(v);
  put(v, result);
  return status;
}

psStatus DoConvert(pscDomain* domain, psTypedValue* v, psTypeEnum type) {
  const bool text_object = psIs(*v, kPsObjectFlag) && v->value.psc->psc_class->has_stringif();
  if (type == psString && text_object) {
    v->type_flags |= kPsStringFlavourFlag;
    return kPsOkay;
  }
  if (type == psComponent && text_object) {
    v->type_flags = static_cast<uint16_t>(v->type_flags & ~kPsStringFlavourFlag);
    return kPsOkay;
  }
  if (type == psDouble && !IsDoubleValue(v) && IsNumeric(v)) {
    psTypedValue box = psInvalidValue();
    const psStatus status = doubleResult(domain, DoubleVal(v), &box);
    if (status == kPsOkay) put(v, box);
    return status;
  }
  return ConvertToType(domain, v, type);
}

// --- FOR --------------------------------------------------------------------------------------

namespace {

// The entry test. A loop over a double object is done before it begins: its body never runs, and
// scripts in the field rely on the loop being skipped.
bool IsForNextDoneB(const psTypedValue* v, const psTypedValue* limit, const psTypedValue* step) {
  if (IsIntegerValue(v)) {
    const int64_t s = IntVal(step);
    return s > 0 ? IntVal(v) > IntVal(limit) : IntVal(v) < IntVal(limit);
  }
  if (IsFloatValue(v)) {
    const float s = FloatVal(step);
    return s > 0.0f ? FloatVal(v) > FloatVal(limit) : FloatVal(v) < FloatVal(limit);
  }
  psAssert(IsDoubleValue(v));
  return true;
}

}  // namespace

psStatus DoFor(pscDomain* domain, psTypedValue* variable, psTypedValue* limit, psTypedValue* step,
               bool* done) {
  const psTypeEnum kind = NumericKind(variable);
  if (kind == psInvalid) return kPsNonNumericIndex;
  for (psTypedValue* v : {variable, limit, step}) {
    const psStatus status = ConvertToType(domain, v, kind);
    if (status != kPsOkay) return status;
  }
  *done = IsForNextDoneB(variable, limit, step);
  return kPsOkay;
}

psStatus DoNext(psTypedValue* variable, psTypedValue* limit, psTypedValue* step, bool* done) {
  // A jump into a loop's body from outside finds whatever lies on the stack in their places.
  if (!IsNumeric(limit) || !IsNumeric(step)) return kPsNonNumericIndex;
  if (psIs(*variable, kPsIntegerFlag)) {
    const int64_t s = IntVal(step);
    variable->value.i = wrapAdd(variable->value.i, s);
    const int64_t last = IntVal(limit);
    *done = s < 1 ? variable->value.i < last : variable->value.i > last;
    return kPsOkay;
  }
  if (psIs(*variable, kPsFloatFlag)) {
    const float s = FloatVal(step);
    variable->value.f += s;
    *done = s > 0.0f ? variable->value.f > FloatVal(limit) : variable->value.f < FloatVal(limit);
    return kPsOkay;
  }
  if (IsDoubleValue(variable)) {
    const double s = DoubleVal(step);
    const double x = DoubleVal(variable) + s;
    pscInstance* box = variable->value.psc;
    box->psc_class->if_double->SetDouble(box, x);
    *done = s > 0.0 ? x > DoubleVal(limit) : x < DoubleVal(limit);
    return kPsOkay;
  }
  return kPsNonNumericIndex;
}

// --- DIM --------------------------------------------------------------------------------------

namespace {

psTypedValue newArray(pscDomain* domain, int32_t capacity) {
  pscInstance* array = pscCreateArray(domain, capacity, true);
  return array != nullptr ? psObjectValue(array) : psInvalidValue();
}

// Fills every array of the innermost level reached so far with count arrays of the next level.
psStatus AddDim(pscInstance* array, int32_t count, int32_t size) {
  const pscClass* cl = array->psc_class;
  psAssertText(cl->if_array, "arrif");
  psAssertText(cl->if_enum, "enumif");
  if (cl->if_enum->IsEmpty(array)) {
    for (int32_t i = 0; i < count; i++) {
      const psTypedValue inner = newArray(array->domain, size);
      if (!psIs(inner, kPsObjectFlag)) return kPsOutOfMemory;
      cl->if_array->Push(array, inner);
    }
    return kPsOkay;
  }
  psStatus status = kPsOkay;
  cl->if_enum->Reset(array);
  while (status == kPsOkay && cl->if_enum->IsNext(array)) {
    const psTypedValue inner = cl->if_enum->Next(array);
    psAssertText(psIs(inner, kPsObjectFlag), "(r.type_flags&(1<<((enum psTypeEnum)psComponent)))");
    status = AddDim(inner.value.psc, count, size);
    ReleaseValue(&inner);
  }
  return status;
}

}  // namespace

psStatus DoDim(psProc* p, psTypedValue* sizes, int n, psTypedValue* local) {
  psAssertText(n > 0, "numdims>0");
  int32_t counts[256];
  psStatus status = kPsOkay;
  for (int k = n - 1; k >= 0; k--) {
    int64_t last;
    if (status != kPsOkay) {
    } else if (!GetIntValue(&sizes[k], &last)) {
      status = kPsNonNumericIndex;
    } else if (last < 0) {
      status = kPsInvalidParameter;
    } else if (last >= INT32_MAX) {
      status = kPsOutOfMemory;
    } else {
      counts[k] = static_cast<int32_t>(last) + 1;
    }
    ReleaseValue(&sizes[k]);
    sizes[k].meta = 0;
  }
  if (status != kPsOkay) return status;
  const psTypedValue array = newArray(p->domain, counts[0]);
  const psTypedValue old = *local;
  *local = array;
  ReleaseValue(&old);
  if (!psIs(array, kPsObjectFlag)) return kPsOutOfMemory;
  for (int k = 0; k + 1 < n && status == kPsOkay; k++) {
    status = AddDim(array.value.psc, counts[k], counts[k + 1]);
  }
  return status;
}
