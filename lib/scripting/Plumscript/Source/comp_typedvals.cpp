// Script values: readings, conversions and printable text.
//
// What a kind of value can be read as depends on its storage bit or, for an Object, on the
// interfaces its class has; the class record keeps those, so no reading looks a name up.
#include <cmath>
#include <cstdio>

#include "clwrappers.h"
#include "psc.h"
#include "typedvals.h"

namespace {

constexpr const char* kInternalNames[kPsTypeCount] = {
    "",         "Integer", "Float",          "Boolean", "Component", "Interface",
    "Function", "Invalid", "StringConstant", "ThisSub", "VoidPtr",   "ComponentMemberFunction",
    "Void",     "Dynamic", "koString",       "koDouble"};

constexpr const char* kDeclarationNames[kPsTypeCount] = {
    "UNKNOWN",  "Integer", "Float",          "Boolean", "Object",  "Interface",
    "Function", "Invalid", "StringConstant", "ThisSub", "VoidPtr", "ComponentMemberFunction",
    "Void",     "Dynamic", "String",         "Double"};

const pscClass* classOf(const psTypedValue* v) {
  return psIs(*v, kPsObjectFlag) && v->value.psc != nullptr ? v->value.psc->psc_class : nullptr;
}

int64_t truncate(double x) {
  if (std::isnan(x)) return 0;
  if (x >= 9223372036854775808.0) return INT64_MAX;
  if (x < -9223372036854775808.0) return INT64_MIN;
  return static_cast<int64_t>(x);
}

psStatus failure(const psTypedValue* v) {
  return v->type_flags == 0 ? kPsUninitialized : kPsTypeMismatch;
}

void replace(psTypedValue* v, psTypedValue by) {
  ReleaseValue(v);
  *v = by;
}

}  // namespace

const char* psTypeInternalName(unsigned type) {
  return type < kPsTypeCount ? kInternalNames[type] : "";
}

const char* psTypeDeclarationName(unsigned type) {
  return type < kPsTypeCount ? kDeclarationNames[type] : "UNKNOWN";
}

// --- Predicates -------------------------------------------------------------------------------

bool IsNumeric(const psTypedValue* v) {
  if (psIs(*v, kPsIntegerFlag | kPsFloatFlag)) return true;
  const pscClass* cl = classOf(v);
  return cl != nullptr && (cl->if_int || cl->if_float || cl->if_double);
}

bool IsIntegerValue(const psTypedValue* v) {
  if (psIs(*v, kPsIntegerFlag)) return true;
  const pscClass* cl = classOf(v);
  return cl != nullptr && cl->if_int;
}

bool IsFloatValue(const psTypedValue* v) {
  if (psIs(*v, kPsFloatFlag)) return true;
  const pscClass* cl = classOf(v);
  return cl != nullptr && cl->if_float;
}

bool IsDoubleValue(const psTypedValue* v) {
  const pscClass* cl = classOf(v);
  return cl != nullptr && cl->if_double;
}

bool IsStringValue(const psTypedValue* v) {
  if (psIs(*v, kPsStringConstantFlag)) return true;
  const pscClass* cl = classOf(v);
  return cl != nullptr && cl->has_stringif();
}

bool IsBooleanValue(const psTypedValue* v) {
  if (psIs(*v, kPsBooleanFlag)) return true;
  const pscClass* cl = classOf(v);
  return cl != nullptr && cl->if_boolean;
}

bool IsFunctionValue(const psTypedValue* v) {
  if (psIs(*v, kPsFunctionFlag)) return true;
  const pscClass* cl = classOf(v);
  return cl != nullptr && cl->if_function;
}

bool IsInvalidValue(const psTypedValue* v) {
  return psIs(*v, kPsInvalidFlag) || classOf(v) == &clInvalid;
}

// --- Readings ---------------------------------------------------------------------------------

bool GetIntValue(const psTypedValue* v, int64_t* out) {
  if (psIs(*v, kPsIntegerFlag)) {
    *out = v->value.i;
    return true;
  }
  if (psIs(*v, kPsFloatFlag)) {
    *out = truncate(v->value.f);
    return true;
  }
  const pscClass* cl = classOf(v);
  if (cl == nullptr) return false;
  if (cl->if_int) {
    *out = cl->if_int->GetInt(v->value.psc);
  } else if (cl->if_float) {
    *out = truncate(cl->if_float->GetFloat(v->value.psc));
  } else if (cl->if_double) {
    *out = truncate(cl->if_double->GetDouble(v->value.psc));
  } else {
    return false;
  }
  return true;
}

int64_t IntVal(const psTypedValue* v) {
  int64_t i = 0;
  const bool has_reading = GetIntValue(v, &i);
  psAssertText(has_reading, "IntVal");
  return i;
}

float FloatVal(const psTypedValue* v) {
  if (psIs(*v, kPsFloatFlag)) return v->value.f;
  if (psIs(*v, kPsIntegerFlag)) return static_cast<float>(v->value.i);
  const pscClass* cl = classOf(v);
  psAssertText(cl != nullptr, "FloatVal");
  if (cl->if_double) return static_cast<float>(cl->if_double->GetDouble(v->value.psc));
  if (cl->if_int) return static_cast<float>(cl->if_int->GetInt(v->value.psc));
  psAssertText(cl->if_float, "FloatVal");
  return cl->if_float->GetFloat(v->value.psc);
}

double DoubleVal(const psTypedValue* v) {
  if (psIs(*v, kPsFloatFlag)) return v->value.f;
  if (psIs(*v, kPsIntegerFlag)) return static_cast<double>(v->value.i);
  const pscClass* cl = classOf(v);
  psAssertText(cl != nullptr, "DoubleVal");
  if (cl->if_double) return cl->if_double->GetDouble(v->value.psc);
  if (cl->if_float) return cl->if_float->GetFloat(v->value.psc);
  psAssertText(cl->if_int, "DoubleVal");
  return cl->if_int->GetInt(v->value.psc);
}

bool GetBoolValue(const psTypedValue* v, bool* out) {
  if (psIs(*v, kPsBooleanFlag)) {
    *out = v->value.i != 0;
    return true;
  }
  const pscClass* cl = classOf(v);
  if (cl != nullptr && cl->if_boolean) {
    *out = cl->if_boolean->GetBoolean(v->value.psc);
    return true;
  }
  int64_t i;
  if (!GetIntValue(v, &i)) return false;
  *out = i != 0;
  return true;
}

bool BoolVal(const psTypedValue* v) {
  bool b = false;
  const bool has_reading = GetBoolValue(v, &b);
  psAssertText(has_reading, "BoolVal");
  return b;
}

bool GetFunctionIndex(const psTypedValue* v, uint16_t* out) {
  if (psIs(*v, kPsFunctionFlag)) {
    *out = static_cast<uint16_t>(v->value.i);
    return true;
  }
  const pscClass* cl = classOf(v);
  if (cl == nullptr || !cl->if_function) return false;
  *out = static_cast<uint16_t>(cl->if_function->GetSub(v->value.psc));
  return true;
}

unsigned SubVal(const psTypedValue* v) {
  uint16_t index = 0;
  const bool has_reading = GetFunctionIndex(v, &index);
  psAssertText(has_reading, "SubVal");
  return index;
}

psText GetStringPtr(const psTypedValue* v) {
  if (psIs(*v, kPsStringConstantFlag)) {
    if (v->text_length != 0) return {v->value.text, v->text_length - 1};
    return v->value.text != nullptr ? psText(v->value.text) : psText("", 0);
  }
  const pscInstance* instance = v->value.psc;
  if (instance->psc_class == &clString) return psStringText(v->value.psc);
  return instance->psc_class->if_string->GetText(v->value.psc);
}

psTypeEnum NumericKind(const psTypedValue* v) {
  if (IsIntegerValue(v)) return psInteger;
  if (psIs(*v, kPsFloatFlag)) return psFloat;
  if (IsDoubleValue(v)) return psDouble;
  return IsFloatValue(v) ? psFloat : psInvalid;
}

// --- Conversions ------------------------------------------------------------------------------

psStatus ConvertIntrinsicToObject(pscDomain* domain, psTypedValue* v) {
  pscInstance* box;
  if (psIs(*v, kPsIntegerFlag)) {
    box = psNewInt(domain, static_cast<int32_t>(v->value.i));
  } else if (psIs(*v, kPsStringConstantFlag)) {
    box = psNewString(domain, GetStringPtr(v));
  } else if (psIs(*v, kPsFunctionFlag)) {
    box = pscNewComponentByClass(domain, &clFunction);
    if (box != nullptr) clFunction.if_function->SetSub(box, static_cast<int32_t>(v->value.i));
  } else if (psIs(*v, kPsFloatFlag)) {
    box = psNewFloat(domain, v->value.f);
  } else if (psIs(*v, kPsBooleanFlag)) {
    box = psNewBoolean(domain, v->value.i != 0);
  } else if (psIs(*v, kPsInvalidFlag)) {
    box = pscNewComponentByClass(domain, &clInvalid);
  } else {
    return kPsTypeMismatch;
  }
  if (box == nullptr) return kPsOutOfMemory;
  *v = psObjectValue(box);
  return kPsOkay;
}

psStatus ConvertToType(pscDomain* domain, psTypedValue* v, psTypeEnum type) {
  const pscClass* cl = classOf(v);
  switch (type) {
    case psInteger: {
      if (psIs(*v, kPsIntegerFlag)) return kPsOkay;
      int64_t i;
      if (!GetIntValue(v, &i)) return failure(v);
      replace(v, psIntegerValue(i));
      return kPsOkay;
    }
    case psFloat:
      if (psIs(*v, kPsFloatFlag)) return kPsOkay;
      if (!IsNumeric(v)) return failure(v);
      replace(v, psFloatValue(FloatVal(v)));
      return kPsOkay;
    case psBoolean: {
      if (psIs(*v, kPsBooleanFlag)) return kPsOkay;
      bool b;
      if (!GetBoolValue(v, &b)) return failure(v);
      replace(v, psBooleanValue(b));
      return kPsOkay;
    }
    case psComponent:
      return psIs(*v, kPsObjectFlag) ? psStatus{kPsOkay} : ConvertIntrinsicToObject(domain, v);
    case psInterfaceType: return psIs(*v, kPsInterfaceFlag) ? kPsOkay : kPsTypeMismatch;
    case psFunctionType: {
      if (psIs(*v, kPsFunctionFlag)) return kPsOkay;
      if (cl == nullptr) return failure(v);
      uint16_t index;
      if (!GetFunctionIndex(v, &index)) return kPsTypeMismatch;
      // The object keeps the reference that the value held; the domain gives it back at its end.
      domain->kept.push_back(v->value.psc);
      *v = psFunctionValue(index);
      return kPsOkay;
    }
    case psInvalid:
      if (psIs(*v, kPsInvalidFlag)) return kPsOkay;
      if (cl != &clInvalid) return failure(v);
      replace(v, psInvalidValue());
      return kPsOkay;
    case psDynamic: return kPsOkay;
    case psString: return IsStringValue(v) ? psStatus{kPsOkay} : failure(v);
    case psDouble: return IsNumeric(v) ? psStatus{kPsOkay} : failure(v);
    default: return failure(v);
  }
}

// --- Text -------------------------------------------------------------------------------------

const char* GetTypeString(const psTypedValue* v, bool boxed) {
  const bool wrapper_names = boxed && psIs(*v, kPsBoxedFlag);
  if (psIs(*v, kPsObjectFlag)) {
    if (v->value.psc == nullptr) return "<uninitialized>";
    if (psIs(*v, kPsStringFlavourFlag) && boxed) {
      psAssertText(v->value.psc->psc_class->has_stringif(),
                   "param1->value.psc->pscClass->has_stringif");
      return "String";
    }
    if (v->value.psc->psc_class == &clIntrinsicDouble) return wrapper_names ? "koFloat" : "Double";
    return v->value.psc->psc_class->ln_Name;
  }
  if (psIs(*v, kPsInterfaceFlag)) return v->value.iface != nullptr ? v->value.iface->name : "";
  if (v->type_flags == 0) return "<uninitialized>";
  if (psIs(*v, kPsIntegerFlag)) return wrapper_names ? "koInt" : "Integer";
  if (psIs(*v, kPsFloatFlag)) return wrapper_names ? "koFloat" : "Float";
  if (psIs(*v, kPsStringConstantFlag)) return wrapper_names ? "koString" : "String";
  if (psIs(*v, kPsBooleanFlag)) return wrapper_names ? "koBoolean" : "Boolean";
  if (psIs(*v, kPsFunctionFlag)) return wrapper_names ? "koFunction" : "Function";
  if (psIs(*v, kPsInvalidFlag)) return wrapper_names ? "koInvalid" : "Invalid";
  return "";
}

std::string ValueToString(const psTypedValue* v) {
  if (IsStringValue(v)) return std::string(GetStringPtr(v));
  if (IsBooleanValue(v)) return BoolVal(v) ? "true" : "false";
  if (psIs(*v, kPsInvalidFlag)) return "invalid";
  if (IsNumeric(v)) {
    char text[40];
    if (IsDoubleValue(v)) {
      std::snprintf(text, sizeof text, "% .14g ", DoubleVal(v));
    } else if (IsIntegerValue(v)) {
      std::snprintf(text, sizeof text, "% ld", static_cast<long>(IntVal(v)));
    } else {
      std::snprintf(text, sizeof text, "% g ", static_cast<double>(FloatVal(v)));
    }
    return text;
  }
  char text[100];
  if (psIs(*v, kPsObjectFlag) && v->value.psc != nullptr) {
    std::snprintf(text, sizeof text, "<Component: %s>", v->value.psc->psc_class->ln_Name);
  } else if (psIs(*v, kPsInterfaceFlag)) {
    std::snprintf(text, sizeof text, "<Interface: %s>", v->value.iface->name);
  } else {
    std::snprintf(text, sizeof text, "<psTypedValue: %s>", GetTypeString(v, false));
  }
  return text;
}
