// Binding member functions of C++ objects to script methods.
//
//   constexpr fundes kTimerFunctions[] = {
//       koMethod<&TimerInstance::SetElapsed>("SetElapsed"),  // void SetElapsed(int32_t, int32_t)
//       koMethod<&TimerInstance::Start>("Start"),            // bool Start()
//       koMethod<&FailureReasonMixin::GetFailureReason, TimerInstance>("GetFailureReason"),
//       {},
//   };
//
// The descriptor follows from the C++ signature, as with psMethod (ps_native.h), whose parameter
// and result types these are: int32_t, float, double, bool, psText and pscInstance* (both lent for
// the call), KelvoTypedValue for Dynamic; as results also std::string and KelvoObjectRef (none:
// Invalid). A member that T inherits names T, the object's class, as the second argument.
//
// No exception leaves a method: its text becomes the object's failure reason, or is printed for a
// class without one, and the script gets false, 0, an empty text or Invalid.
#pragma once

#include <concepts>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "lib/scripting/CommonAPI/Include/ko_ref.h"
#include "lib/scripting/CommonAPI/Include/ko_value.h"
#include "lib/scripting/Plumscript/Source/ps_native.h"

template <>
struct psParameter<KelvoTypedValue> {
  static constexpr psTypeEnum kType = psDynamic;
  static KelvoTypedValue get(psTypedValue& v) {
    return KelvoTypedValue(psParameter<psTypedValue>::get(v));
  }
};
template <>
struct psResult<KelvoTypedValue> {
  static constexpr psTypeEnum kType = psDynamic;
  static psStatus put(pscDomain*, KelvoTypedValue r, psTypedValue* v) {
    *v = r.Release();
    return kPsOkay;
  }
};
template <>
struct psResult<KelvoObjectRef> {
  static constexpr psTypeEnum kType = psComponent;
  static psStatus put(pscDomain* domain, KelvoObjectRef r, psTypedValue* v) {
    return psResult<pscInstance*>::put(domain, r.Release(), v);
  }
};
template <>
struct psResult<std::string_view> {
  static constexpr psTypeEnum kType = psString;
  static psStatus put(pscDomain* domain, std::string_view r, psTypedValue* v) {
    r = r.substr(0, r.find('\0'));  // script texts hold no NUL
    return psResult<psStringResult>::put(domain, {psNewString(domain, r)}, v);
  }
};
template <>
struct psResult<std::string> : psResult<std::string_view> {};

template <class T>
class KelvoObjectInstanceBase;

namespace ko_method {

// The text of the exception being handled goes where the object's class wants it.
template <class T>
[[gnu::cold, gnu::noinline]] void Fail(T& object);

// What a script gets when a method has failed.
template <class R>
R Neutral() {
  if constexpr (std::is_same_v<R, psTypedValue>) {
    return psInvalidValue();
  } else {
    return R{};
  }
}

template <class R, class C, class... Args>
struct Member {
  using Class = C;
  using Plain = ps_native::Shape<R (*)(pscInstance*, Args...)>;
  static_assert(!(std::is_same_v<Args, psTypedValue> || ...),
                "Dynamic parameters are KelvoTypedValue, which releases what an exception leaves");

  template <auto Method, class T>
  static psStatus Thunk(void* target, psTypedValue* args, int, psTypedValue* result) {
    return Run<Method, T>(static_cast<pscInstance*>(target), args, result,
                          std::index_sequence_for<Args...>{});
  }

 private:
  template <auto Method, class T, size_t... I>
  static psStatus Run(pscInstance* self, [[maybe_unused]] psTypedValue* args, psTypedValue* result,
                      std::index_sequence<I...>) {
    T& object = T::FromHandle(self);
    if constexpr (std::is_void_v<R>) {
      *result = psInvalidValue();
      try {
        (object.*Method)(psParameter<Args>::get(args[I])...);
      } catch (...) {
        Fail(object);
      }
      return kPsOkay;
    } else {
      try {
        return psResult<R>::put(self->domain, (object.*Method)(psParameter<Args>::get(args[I])...),
                                result);
      } catch (...) {
        Fail(object);
      }
      return psResult<R>::put(self->domain, Neutral<R>(), result);
    }
  }
};

template <class Pointer>
struct Shape;
template <class R, class C, class... Args>
struct Shape<R (C::*)(Args...)> : Member<std::remove_cvref_t<R>, C, std::remove_cvref_t<Args>...> {
};
template <class R, class C, class... Args>
struct Shape<R (C::*)(Args...) const> : Shape<R (C::*)(Args...)> {};
template <class R, class C, class... Args>
struct Shape<R (C::*)(Args...) noexcept> : Shape<R (C::*)(Args...)> {};
template <class R, class C, class... Args>
struct Shape<R (C::*)(Args...) const noexcept> : Shape<R (C::*)(Args...)> {};

// All arguments of a variadic call, which the callee takes over.
std::vector<KelvoTypedValue> TakeArguments(psTypedValue* args, int argc);

template <auto Method, class T, class R>
psStatus VariadicThunk(void* target, psTypedValue* args, int argc, psTypedValue* result) {
  auto* self = static_cast<pscInstance*>(target);
  T& object = T::FromHandle(self);
  *result = psInvalidValue();
  try {
    std::vector<KelvoTypedValue> arguments = TakeArguments(args, argc);
    if constexpr (std::is_void_v<R>) {
      (object.*Method)(std::move(arguments));
      return kPsOkay;
    } else {
      return psResult<R>::put(self->domain, (object.*Method)(std::move(arguments)), result);
    }
  } catch (...) {
    Fail(object);
  }
  if constexpr (std::is_void_v<R>) {
    return kPsOkay;
  } else {
    return psResult<R>::put(self->domain, Neutral<R>(), result);
  }
}

template <class T>
struct Variadic;
template <class R, class C>
struct Variadic<R (C::*)(std::vector<KelvoTypedValue>)> {
  using Class = C;
  using Result = R;
};

}  // namespace ko_method

template <auto Method, class T = typename ko_method::Shape<decltype(Method)>::Class>
constexpr fundes koMethod(const char* name) {
  static_assert(std::derived_from<T, KelvoObjectInstanceBase<T>>,
                "name the object's class as the second argument: koMethod<&Base::Method, T>");
  using Shape = ko_method::Shape<decltype(Method)>;
  return Shape::Plain::describe(name, &Shape::template Thunk<Method, T>);
}

// R Method(std::vector<KelvoTypedValue>): any number of arguments of any kind.
template <auto Method, class T = typename ko_method::Variadic<decltype(Method)>::Class>
constexpr fundes koVariadicMethod(const char* name) {
  static_assert(std::derived_from<T, KelvoObjectInstanceBase<T>>);
  using R = typename ko_method::Variadic<decltype(Method)>::Result;
  return psVariadicMethod(name, &ko_method::VariadicThunk<Method, T, R>, psResult<R>::kType);
}

// The same member as a plain function, for the records of native entries (psIfInt and the like).
// The runtime calls it directly; it must not throw.
template <auto Method, class T>
struct koNativeEntry;
template <class R, class C, class... Args, R (C::*Method)(Args...), class T>
struct koNativeEntry<Method, T> {
  static R Call(pscInstance* self, Args... args) noexcept {
    return (T::FromHandle(self).*Method)(args...);
  }
};
template <class R, class C, class... Args, R (C::*Method)(Args...) const, class T>
struct koNativeEntry<Method, T> {
  static R Call(pscInstance* self, Args... args) noexcept {
    return (T::FromHandle(self).*Method)(args...);
  }
};
