// The interpreter's slow operations.
//
// Everything here runs outside the loop's handlers, so that those stay short: operators on boxes,
// texts and mixed numbers, elements and members of whatever is no plain koArray or associative
// array, the entries and steps of FOR EACH. The operators do in place what the plain ones
// (run_operators.cpp) would do with a new box or text, where nobody else holds the left operand:
// the outcome is the same.
#include "run_slow.h"

namespace ps_run {

PS_NOINLINE psStatus storeNewDouble(pscDomain* domain, psTypedValue* to, double d, uint64_t meta) {
  pscInstance* box = psNewDouble(domain, d);
  if (box == nullptr) return kPsOutOfMemory;
  psTypedValue v = psObjectValue(box);
  v.meta = meta;
  storeOver(to, v);
  return kPsOkay;
}

PS_NOINLINE psStatus boxRawDouble(pscDomain* domain, psTypedValue* v) {
  pscInstance* box = psNewDouble(domain, v->value.d);
  *v = box != nullptr ? psObjectValue(box) : psInvalidValue();
  return box != nullptr ? kPsOkay : kPsOutOfMemory;
}

// --- Operators --------------------------------------------------------------------------------

namespace {

// An operand as the plain operators take it: a counted copy unless it is on the stack already.
psStatus ownOperand(pscDomain* domain, psTypedValue* v, bool owned) {
  if (psIs(*v, kPsRawDoubleFlag)) return boxRawDouble(domain, v);
  if (!owned) psRetainValue(v);
  return kPsOkay;
}

PS_NOINLINE psStatus plainBinary(pscDomain* domain, const psTypedValue* x, const psTypedValue* y,
                                 unsigned own, uint8_t op, psTypedValue* result) {
  psTypedValue a = readValue(x);
  psTypedValue b = readValue(y);
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

}  // namespace

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

PS_NOINLINE psStatus slowBinaryToLocal(pscDomain* domain, const psTypedValue* x,
                                       const psTypedValue* y, unsigned own, uint8_t op,
                                       psTypedValue* local, psTypedValue* failed_result) {
  *failed_result = psInvalidValue();
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
    *failed_result = result;
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

psStatus convertTop(pscDomain* domain, psTypedValue* v, psTypeEnum type) {
  if (psIs(*v, kPsRawDoubleFlag)) {
    if (type == psDouble || type == psDynamic) return kPsOkay;
    const psStatus status = boxRawDouble(domain, v);
    if (status != kPsOkay) return status;
  }
  return DoConvert(domain, v, type);
}

// --- Elements and members ---------------------------------------------------------------------

PS_NOINLINE psStatus slowIndex(const psTypedValue* container, const psTypedValue* index,
                               unsigned own, psTypedValue* result) {
  psTypedValue operands[2] = {readValue(container), readValue(index)};
  if (!(own & kOwnLeft)) psRetainValue(&operands[0]);
  if (!(own & kOwnRight)) psRetainValue(&operands[1]);
  const psStatus status = DoArrayGet(operands, 1, false);
  *result = operands[0];
  return status;
}

PS_NOINLINE psStatus growArray(pscInstance* object, int64_t i, const psTypedValue* value) {
  psTypedValue kept = readValue(value);
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

PS_NOINLINE psStatus slowIndexSet(pscDomain* domain, const psTypedValue* container,
                                  const psTypedValue* index, unsigned own,
                                  const psTypedValue* value) {
  psTypedValue operands[3] = {readValue(value), readValue(container), readValue(index)};
  if (!(own & kOwnLeft)) psRetainValue(&operands[1]);
  if (!(own & kOwnRight)) psRetainValue(&operands[2]);
  return slowArraySet(domain, operands, 1);
}

PS_NOINLINE psStatus slowArraySet(pscDomain* domain, psTypedValue* value, int n) {
  if (psIs(*value, kPsRawDoubleFlag)) {
    const psStatus status = boxRawDouble(domain, value);
    if (status != kPsOkay) {
      releaseRange(value + 1, value + n + 2);
      return status;
    }
  }
  return DoArraySet(value, n);
}

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

namespace {

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

}  // namespace

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

// --- Loops, calls and sums of texts -----------------------------------------------------------

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

psStatus callGlobal(psProc* p, const fundes* function, int n, psTypedValue* args) {
  psTypedValue result = psInvalidValue();
  for (int i = 0; i < n; i++) {
    if (psIs(args[i], kPsRawDoubleFlag)) boxRawDouble(p->domain, &args[i]);
  }
  const psStatus status = pscCallFunction(p->domain, n, function, nullptr, args, &result);
  *args = status == kPsOkay ? result : psInvalidValue();
  return status;
}

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

PS_COLD void leaveChain(psProc* p) {
  psTypedValue* slot = p->ctx->chain_slot;
  p->ctx->chain_slot = nullptr;
  if (!psIsStringBox(*slot)) return;
  const psTypedValue* s = p->ctx->locals + p->ctx->chain_local;
  pscInstance* text = psNewStringConcat(p->domain, GetStringPtr(s), GetStringPtr(slot));
  storeOver(slot, text != nullptr ? psStringObjectValue(text) : psInvalidValue());
}

}  // namespace ps_run
