// Binding native functions to descriptors.
//
//   constexpr fundes kFunctions[] = {
//       psMethod<Count>("Count"),          // int32_t Count(pscInstance* self)
//       psMethod<Push>("Push"),            // void Push(pscInstance* self, psTypedValue v)
//       {},
//   };
//
// The descriptor's parameter and result types, and the thunk that unpacks arguments and packs the
// result, follow from the C++ signature; a table is therefore the list of functions and cannot
// disagree with them. The first parameter is the receiver: a pscInstance* makes a member function,
// a pscDomain* a static one.
#pragma once

#include <tuple>

#include "clwrappers.h"
#include "psc.h"

// An Interface result may be null: Invalid.
using psInterfaceRef = const psInterface*;

// A function index as parameter or result.
struct psFunctionIndex {
  int32_t index;
};

// A text result: a koString instance with one reference, or null for no text (an empty koString
// reaches the script). Make one with psNewString.
struct psStringResult {
  pscInstance* instance;
};

template <class T>
struct psParameter;
template <>
struct psParameter<int32_t> {
  static constexpr psTypeEnum kType = psInteger;
  static int32_t get(psTypedValue& v) { return static_cast<int32_t>(v.value.i); }
};
template <>
struct psParameter<float> {
  static constexpr psTypeEnum kType = psFloat;
  static float get(psTypedValue& v) { return v.value.f; }
};
template <>
struct psParameter<double> {
  static constexpr psTypeEnum kType = psDouble;
  static double get(psTypedValue& v) { return DoubleVal(&v); }
};
template <>
struct psParameter<bool> {
  static constexpr psTypeEnum kType = psBoolean;
  static bool get(psTypedValue& v) { return v.value.i != 0; }
};
template <>
struct psParameter<pscInstance*> {  // borrowed for the call
  static constexpr psTypeEnum kType = psComponent;
  static pscInstance* get(psTypedValue& v) { return v.value.psc; }
};
template <>
struct psParameter<psInterfaceRef> {
  static constexpr psTypeEnum kType = psInterfaceType;
  static psInterfaceRef get(psTypedValue& v) { return v.value.iface; }
};
template <>
struct psParameter<psFunctionIndex> {
  static constexpr psTypeEnum kType = psFunctionType;
  static psFunctionIndex get(psTypedValue& v) { return {static_cast<int32_t>(v.value.i)}; }
};
template <>
struct psParameter<psText> {  // borrowed for the call
  static constexpr psTypeEnum kType = psString;
  static psText get(psTypedValue& v) { return GetStringPtr(&v); }
};
template <>
struct psParameter<psTypedValue> {  // taken over by the function
  static constexpr psTypeEnum kType = psDynamic;
  static psTypedValue get(psTypedValue& v) {
    psTypedValue taken = v;
    v.meta = 0;
    return taken;
  }
};

template <class T>
struct psResult;
template <>
struct psResult<void> {
  static constexpr psTypeEnum kType = psVoid;
};
template <>
struct psResult<int32_t> {
  static constexpr psTypeEnum kType = psInteger;
  static psStatus put(pscDomain*, int32_t r, psTypedValue* v) {
    *v = psIntegerValue(r);
    return kPsOkay;
  }
};
template <>
struct psResult<float> {
  static constexpr psTypeEnum kType = psFloat;
  static psStatus put(pscDomain*, float r, psTypedValue* v) {
    *v = psFloatValue(r);
    return kPsOkay;
  }
};
template <>
struct psResult<bool> {
  static constexpr psTypeEnum kType = psBoolean;
  static psStatus put(pscDomain*, bool r, psTypedValue* v) {
    *v = psBooleanValue(r);
    return kPsOkay;
  }
};
template <>
struct psResult<double> {
  static constexpr psTypeEnum kType = psDouble;
  static psStatus put(pscDomain* domain, double r, psTypedValue* v) {
    pscInstance* box = psNewDouble(domain, r);
    *v = box != nullptr ? psObjectValue(box) : psInvalidValue();
    return box != nullptr ? kPsOkay : kPsOutOfMemory;
  }
};
template <>
struct psResult<pscInstance*> {  // one reference handed over; null reads as Invalid
  static constexpr psTypeEnum kType = psComponent;
  static psStatus put(pscDomain*, pscInstance* r, psTypedValue* v) {
    *v = r != nullptr ? psObjectValue(r) : psInvalidValue();
    return kPsOkay;
  }
};
template <>
struct psResult<psInterfaceRef> {
  static constexpr psTypeEnum kType = psInterfaceType;
  static psStatus put(pscDomain*, psInterfaceRef r, psTypedValue* v) {
    *v = r != nullptr ? psMakeValue(kPsInterfaceFlag, reinterpret_cast<intptr_t>(r))
                      : psInvalidValue();
    return kPsOkay;
  }
};
template <>
struct psResult<psFunctionIndex> {
  static constexpr psTypeEnum kType = psFunctionType;
  static psStatus put(pscDomain*, psFunctionIndex r, psTypedValue* v) {
    *v = psMakeValue(kPsFunctionFlag, r.index);
    return kPsOkay;
  }
};
template <>
struct psResult<psStringResult> {
  static constexpr psTypeEnum kType = psString;
  static psStatus put(pscDomain* domain, psStringResult r, psTypedValue* v) {
    pscInstance* text = r.instance != nullptr ? r.instance : psNewString(domain, {});
    *v = text != nullptr ? psStringObjectValue(text) : psInvalidValue();
    return text != nullptr ? kPsOkay : kPsStringOutOfMemory;
  }
};
template <>
struct psResult<psTypedValue> {  // Dynamic, handed over
  static constexpr psTypeEnum kType = psDynamic;
  static psStatus put(pscDomain*, psTypedValue r, psTypedValue* v) {
    *v = r;
    return kPsOkay;
  }
};

namespace ps_native {

inline pscDomain* domainOf(pscInstance* self) { return self->domain; }
inline pscDomain* domainOf(pscDomain* domain) { return domain; }

template <class Signature>
struct Shape;
template <class R, class Target, class... Args>
struct Shape<R (*)(Target*, Args...)> {
  static_assert(sizeof...(Args) <= kPsMaxParameters);
  static constexpr bool kStatic = std::is_same_v<Target, pscDomain>;

  static constexpr fundes describe(const char* name, psThunk thunk) {
    fundes d;
    d.name = name;
    d.nargs = sizeof...(Args);
    int i = 0;
    ((d.params[i++] = psParameter<Args>::kType), ...);
    d.rtype = psResult<R>::kType;
    d.meta = kStatic ? kPsStaticFunction : 0;
    d.func_ptr = thunk;
    return d;
  }

  template <auto Fn>
  static psStatus thunk(void* target, psTypedValue* args, int, psTypedValue* result) {
    return run<Fn>(static_cast<Target*>(target), args, result, std::index_sequence_for<Args...>{});
  }

 private:
  template <auto Fn, size_t... I>
  static psStatus run(Target* target, [[maybe_unused]] psTypedValue* args, psTypedValue* result,
                      std::index_sequence<I...>) {
    if constexpr (std::is_void_v<R>) {
      Fn(target, psParameter<Args>::get(args[I])...);
      *result = psInvalidValue();
      return kPsOkay;
    } else {
      pscDomain* domain = domainOf(target);
      return psResult<R>::put(domain, Fn(target, psParameter<Args>::get(args[I])...), result);
    }
  }
};

}  // namespace ps_native

template <auto Fn>
constexpr fundes psMethod(const char* name) {
  using Shape = ps_native::Shape<decltype(Fn)>;
  return Shape::describe(name, &Shape::template thunk<Fn>);
}

// A function that takes any number of arguments of any kind, all of which it takes over.
constexpr fundes psVariadicMethod(const char* name, psThunk thunk, psTypeEnum rtype,
                                  bool is_static = false) {
  fundes d;
  d.name = name;
  d.nargs = kPsVariadic;
  d.rtype = rtype;
  d.meta = is_static ? kPsStaticFunction : 0;
  d.func_ptr = thunk;
  return d;
}
