// Element and member access: a[i, …], o.name = v, o@name.
//
// The plain rules for every kind of container. The interpreter handles an Integer index into a
// koArray and a name in a koAssociativeArray itself and comes here for the rest.
#include "containers.h"
#include "run.h"

namespace {

psStatus noReading(const psTypedValue* v, psStatus otherwise) {
  return v->type_flags == 0 ? psStatus{kPsUninitialized} : otherwise;
}

// An element as a container keeps it.
psTypedValue stored(const psTypedValue& v) {
  psTypedValue kept = v;
  kept.type_flags = static_cast<uint16_t>((v.type_flags & ~kPsStringFlavourFlag) | kPsBoxedFlag);
  return kept;
}

void drop(psTypedValue* values, int n) {
  for (int i = 0; i < n; i++) {
    ReleaseValue(&values[i]);
    values[i].meta = 0;
  }
}

// What the container holds under index, with a reference of its own.
psStatus entry(pscInstance* container, const psTypedValue* index, psTypedValue* out) {
  int64_t i;
  if (!GetIntValue(index, &i)) return noReading(index, kPsNonNumericIndex);
  *out = i >= 0 && i <= INT32_MAX
             ? container->psc_class->if_array_get->GetEntry(container, static_cast<int32_t>(i))
             : psInvalidValue();
  return kPsOkay;
}

psStatus arrayGet(const psTypedValue* container, int n, bool is_call, psTypedValue* result) {
  if (!psIs(*container, kPsObjectFlag)) return kPsNotDimmed;
  const pscClass* cl = container->value.psc->psc_class;
  const psTypedValue* indexes = container + 1;
  if (cl->if_assoc != nullptr) {
    if (n != 1) return kPsWrongParameterCount;
    if (!IsStringValue(indexes)) return noReading(indexes, kPsTypeMismatch);
    psTypedValue found = cl->if_assoc->Lookup(container->value.psc, GetStringPtr(indexes));
    uint16_t function;
    if (is_call && GetFunctionIndex(&found, &function)) {
      ReleaseValue(&found);
      pscAddRef(container->value.psc);
      found.meta = kPsThisSubFlag;
      found.value.psc = container->value.psc;
      found.function_index = static_cast<int16_t>(function);
    }
    *result = found;
    return kPsOkay;
  }
  if (cl->if_array_get == nullptr) return kPsNotDimmed;
  psTypedValue current = psCopyValue(*container);
  psStatus status = kPsOkay;
  for (int k = 0; k < n && status == kPsOkay; k++) {
    if (!psIs(current, kPsObjectFlag) || current.value.psc->psc_class->if_array_get == nullptr) {
      status = kPsArrayIndexCount;
      break;
    }
    psTypedValue next = psInvalidValue();
    status = entry(current.value.psc, &indexes[k], &next);
    ReleaseValue(&current);
    current = next;
  }
  if (status != kPsOkay) {
    ReleaseValue(&current);
    return status;
  }
  *result = current;
  return kPsOkay;
}

// Stores a value that the container takes over on success.
psStatus arraySet(psTypedValue* value, int n) {
  const psTypedValue* container = value + 1;
  const psTypedValue* indexes = value + 2;
  if (!psIs(*container, kPsObjectFlag)) return kPsInvalidLeftSide;
  const pscClass* cl = container->value.psc->psc_class;
  if (value->type_flags == 0) return kPsUninitialized;
  if (cl->if_assoc != nullptr) {
    if (n != 1) return kPsWrongParameterCount;
    if (!IsStringValue(indexes)) return noReading(indexes, kPsTypeMismatch);
    cl->if_assoc->AddReplace(container->value.psc, GetStringPtr(indexes), stored(*value));
    value->meta = 0;
    return kPsOkay;
  }
  if (cl->if_array_set == nullptr) return kPsInvalidLeftSide;
  psTypedValue current = psCopyValue(*container);
  psStatus status = kPsOkay;
  for (int k = 0; k + 1 < n && status == kPsOkay; k++) {
    if (!psIs(current, kPsObjectFlag) || current.value.psc->psc_class->if_array_get == nullptr) {
      status = kPsArrayIndexCount;
      break;
    }
    psTypedValue next = psInvalidValue();
    status = entry(current.value.psc, &indexes[k], &next);
    ReleaseValue(&current);
    current = next;
  }
  int64_t last = 0;
  if (status == kPsOkay &&
      (!psIs(current, kPsObjectFlag) || current.value.psc->psc_class->if_array_set == nullptr)) {
    status = kPsArrayIndexCount;
  }
  if (status == kPsOkay && !GetIntValue(&indexes[n - 1], &last)) {
    status = noReading(&indexes[n - 1], kPsNonNumericIndex);
  }
  if (status == kPsOkay) {
    // An index no array can have: the value is dropped, as for any index out of range.
    const auto index = static_cast<int32_t>(last >= 0 && last <= INT32_MAX ? last : -1);
    current.value.psc->psc_class->if_array_set->SetEntry(current.value.psc, index, stored(*value));
    value->meta = 0;
  }
  ReleaseValue(&current);
  return status;
}

}  // namespace

psStatus DoArrayGet(psTypedValue* container, int n, bool is_call) {
  psTypedValue result = psInvalidValue();
  const psStatus status = arrayGet(container, n, is_call, &result);
  drop(container, n + 1);
  *container = result;
  return status;
}

psStatus DoArraySet(psTypedValue* value, int n) {
  const psStatus status = arraySet(value, n);
  drop(value, n + 2);
  return status;
}

psStatus DoDotSet(psTypedValue* value, psTypedValue* object, const psName& name) {
  psStatus status = kPsOkay;
  if (value->type_flags == 0) {
    status = kPsUninitialized;
  } else if (psIs(*object, kPsObjectFlag) && object->value.psc->psc_class->if_assoc != nullptr) {
    object->value.psc->psc_class->if_assoc->AddReplace(object->value.psc, name.text,
                                                       stored(*value));
    value->meta = 0;
  } else {
    status = noReading(object, kPsInvalidLeftSide);
  }
  drop(value, 1);
  drop(object, 1);
  return status;
}

psStatus DoAttr(psTypedValue* object, const psName&) {
  // Only elements of XML documents have attributes; their classes bring the access with them.
  drop(object, 1);
  *object = psInvalidValue();
  return kPsTypeMismatch;
}
