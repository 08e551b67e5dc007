// Script objects as C++ classes.
//
// A class is declared, its methods written, and its surface listed in tables:
//
//   class TimerInstance final
//       : public MixinForwarder<TimerInstance, KelvoObjectInstance<TimerInstance>,
//                               MessageSourceMixin, UserDataMixin, IdentityMixin> {
//    public:
//     static pscClass sm_class;  // koTimer
//     ~TimerInstance();
//     void SetElapsed(int32_t seconds, int32_t milliseconds);
//     bool Start();
//   };
//
//   constexpr fundes kTimerFunctions[] = {
//       koMethod<&TimerInstance::SetElapsed>("SetElapsed"),
//       koMethod<&TimerInstance::Start>("Start"),
//       {},
//   };
//   constexpr psInterface kInterfaces[] = {
//       MessageSourceMixin::kInterface<TimerInstance>,
//       UserDataMixin::kInterface<TimerInstance>,
//       IdentityMixin::kInterface<TimerInstance>,
//       {"ifTimer", kTimerFunctions},
//   };
//   constinit pscClass TimerInstance::sm_class = KelvoClass<TimerInstance>("koTimer", kInterfaces);
//
// and gets a line in class_registry.cpp. Everything else follows: the object lives in its
// instance's private data; construction, destruction, the collector's hooks and the conversion of
// arguments are generated. The record is made by the compiler; nothing runs at start-up.
//
// Threads, and how long an object lives:
//  1. Methods, Init and koInitClass run on the script's thread. Callbacks of the poll thread, of
//     timers and of an object's own workers only post events (interface_mixins.h) and touch what
//     the class guards with locks of its own.
//  2. The destructor runs on the thread that drops the last reference; it first detaches whatever
//     may call the object, and waits for a call in progress, so that nothing reaches a
//     half-destroyed one. Up to then a callback may still post.
//  3. So a callback never drops a reference to a script's object: what it drops may be the last
//     reference to its own object, at the end of a chain, and the destructor would wait for the
//     callback. It hands the reference over with pscLeaveToScript. Nor does it take a reference to
//     its own object: the destructor may have begun.
//  4. The collector asks for an object's references under the collector lock, and posting takes
//     that lock. So nobody posts while holding a lock that EnumOwnReferences takes. The poll
//     thread's mutex comes before the collector lock: under the latter, nothing calls into the
//     poll thread.
#pragma once

#include <concepts>
#include <cstddef>
#include <new>
#include <span>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "lib/platform/assertion.h"
#include "lib/scripting/CommonAPI/Include/ko_method.h"
#include "lib/scripting/CommonAPI/Include/ko_ref.h"
#include "lib/scripting/CommonAPI/Include/ko_value.h"
#include "lib/scripting/Plumscript/Source/psc.h"

// --- Objects ----------------------------------------------------------------------------------

// The way between a component's handle and the object in its private data, and the hooks of a class
// that needs none of its own.
template <class T>
class KelvoObjectInstanceBase {
 public:
  KelvoObjectInstanceBase(const KelvoObjectInstanceBase&) = delete;
  KelvoObjectInstanceBase& operator=(const KelvoObjectInstanceBase&) = delete;

  // The object of an instance of T's class; the caller knows that it is one.
  static T& FromHandle(pscInstance* instance) {
    LATTIX_ASSERT(instance != nullptr);
    return *pscData<T>(instance);
  }
  // The object if the instance is of T's class, else null; the instance may be null.
  static T* Cast(pscInstance* instance) {
    return instance != nullptr && instance->psc_class == &T::sm_class ? pscData<T>(instance)
                                                                      : nullptr;
  }
  pscInstance* GetHandle() const {
    auto* object = const_cast<T*>(static_cast<const T*>(this));
    return reinterpret_cast<pscInstance*>(object) - 1;
  }
  pscDomain* GetDomain() const { return GetHandle()->domain; }

  // Called when the class is prepared and when it is torn down, for what all its objects share.
  static bool koInitClass(pscClass*) { return true; }
  static void koUninitClass(pscClass*) {}

  // A class with references beside those of its mixins redefines these two: report each, under the
  // lock that guards it; drop each.
  void EnumOwnReferences(const KelvoReferenceVisitor&) const {}
  void BreakOwnReferences() {}

 protected:
  KelvoObjectInstanceBase() = default;
  ~KelvoObjectInstanceBase() = default;
};

// The base of an object whose constructor takes CtorArgs (koMethod's parameter types) from a
// script: they reach `bool Init(CtorArgs...)`, which is called right after construction and refuses
// the creation with false. Without CtorArgs the object is created without arguments, and Init may
// be left out.
template <class T, class... CtorArgs>
class KelvoObjectInstance : public KelvoObjectInstanceBase<T> {
 public:
  static psStatus Construct(void* target, psTypedValue* args, int argc, psTypedValue* result);
};
template <class T>
class KelvoObjectInstance<T> : public KelvoObjectInstanceBase<T> {
 public:
  bool Init() { return true; }
};

// The base of an object that is created with any number of arguments of any kind:
// `bool Init(std::vector<KelvoTypedValue>)`.
template <class T>
class KelvoObjectInstanceV : public KelvoObjectInstanceBase<T> {
 public:
  static psStatus Construct(void* target, psTypedValue* args, int argc, psTypedValue* result);
};

namespace ko_class {

template <class Mixin>
concept HoldsReferences = requires(Mixin& m, const KelvoReferenceVisitor& visit) {
  m.Mixin::EnumReferences(visit);
  m.Mixin::BreakReferences();
};
template <class Mixin>
concept HasInterface = requires {
  Mixin::kInterfaceName;
};

}  // namespace ko_class

// What T derives from: its base, then its mixins (interface_mixins.h) in order, if any. A mixin is
// a default-constructible class that brings state, methods and, as kInterface<T>, the interface row
// for T's table. One that holds references has EnumReferences and BreakReferences.
template <class T, class Base, class... Mixins>
class MixinForwarder : public Base, public Mixins... {
 public:
  static constexpr bool kMixinsHoldReferences = (ko_class::HoldsReferences<Mixins> || ...);

  void EnumMixinReferences([[maybe_unused]] const KelvoReferenceVisitor& visit) const {
    (EnumOf<Mixins>(visit), ...);
  }
  void BreakMixinReferences() { (BreakOf<Mixins>(), ...); }

  // The name of the last mixin interface that the table lacks; empty when all are there.
  static constexpr std::string_view MissingInterface(
      [[maybe_unused]] std::span<const psInterface> table) {
    std::string_view missing;
    (FindMissing<Mixins>(table, &missing), ...);
    return missing;
  }

 private:
  template <class Mixin>
  void EnumOf(const KelvoReferenceVisitor& visit) const {
    if constexpr (ko_class::HoldsReferences<Mixin>) this->Mixin::EnumReferences(visit);
  }
  template <class Mixin>
  void BreakOf() {
    if constexpr (ko_class::HoldsReferences<Mixin>) this->Mixin::BreakReferences();
  }
  template <class Mixin>
  static constexpr void FindMissing(std::span<const psInterface> table, std::string_view* missing) {
    if constexpr (ko_class::HasInterface<Mixin>) {
      for (const psInterface& row : table) {
        if (std::string_view(row.name) == Mixin::kInterfaceName) return;
      }
      *missing = Mixin::kInterfaceName;
    }
  }
};

// --- The class record -------------------------------------------------------------------------

namespace ko_class {

// Prints that an object could not be created, with the text of the exception being handled.
void PrintCreationFailure(pscInstance* instance);

// Builds the object and runs Init; on failure nothing is left of it.
template <class T, class... Args>
bool Build(pscInstance* instance, Args&&... args) {
  T* object = nullptr;
  try {
    object = new (pscData<T>(instance)) T();
    if (object->Init(std::forward<Args>(args)...)) return true;
  } catch (...) {
    PrintCreationFailure(instance);
  }
  if (object != nullptr) object->~T();
  return false;
}

template <class T, class... CtorArgs, size_t... I>
bool BuildFrom(pscInstance* instance, psTypedValue* args, std::index_sequence<I...>) {
  return Build<T>(instance, psParameter<CtorArgs>::get(args[I])...);
}

template <class T>
void Destroy(pscInstance* instance) {
  pscData<T>(instance)->~T();
}

template <class T>
void EnumRefs(pscInstance* instance, void* arg, psRefCallback callback) {
  const KelvoReferenceVisitor visit{arg, callback};
  T& object = T::FromHandle(instance);
  object.EnumMixinReferences(visit);
  object.EnumOwnReferences(visit);
}

template <class T>
void BreakRefs(pscInstance* instance) {
  T& object = T::FromHandle(instance);
  object.BreakMixinReferences();
  object.BreakOwnReferences();
}

template <class T>
constexpr bool kHoldsReferences =
    T::kMixinsHoldReferences ||
    !std::is_same_v<decltype(&T::EnumOwnReferences),
                    decltype(&KelvoObjectInstanceBase<T>::EnumOwnReferences)>;

template <class T, class... CtorArgs>
constexpr fundes Constructor(const KelvoObjectInstance<T, CtorArgs...>*) {
  return ps_native::Shape<bool (*)(pscInstance*, CtorArgs...)>::describe(
      "Init", &KelvoObjectInstance<T, CtorArgs...>::Construct);
}
template <class T>
constexpr fundes Constructor(const KelvoObjectInstanceV<T>*) {
  return psVariadicMethod("Init", &KelvoObjectInstanceV<T>::Construct, psBoolean);
}
template <class T>
inline constexpr fundes kConstructor = Constructor<T>(static_cast<const T*>(nullptr));

}  // namespace ko_class

template <class T, class... CtorArgs>
psStatus KelvoObjectInstance<T, CtorArgs...>::Construct(void* target, psTypedValue* args, int,
                                                        psTypedValue* result) {
  *result = psBooleanValue(ko_class::BuildFrom<T, CtorArgs...>(
      static_cast<pscInstance*>(target), args, std::index_sequence_for<CtorArgs...>{}));
  return kPsOkay;
}

template <class T>
psStatus KelvoObjectInstanceV<T>::Construct(void* target, psTypedValue* args, int argc,
                                            psTypedValue* result) {
  auto* instance = static_cast<pscInstance*>(target);
  bool built = false;
  try {
    built = ko_class::Build<T>(instance, ko_method::TakeArguments(args, argc));
  } catch (...) {
    ko_class::PrintCreationFailure(instance);
  }
  *result = psBooleanValue(built);
  return kPsOkay;
}

// The record of T's class. The interfaces in their order, those of the mixins among them (one that
// is missing does not compile); the table lives as long as the class.
template <class T>
consteval pscClass KelvoClass(const char* name, std::span<const psInterface> interfaces) {
  static_assert(std::derived_from<T, KelvoObjectInstanceBase<T>>);
  static_assert(alignof(T) <= 16 && sizeof(pscInstance) % 16 == 0);
  if (!T::MissingInterface(interfaces).empty()) throw "a mixin's interface is not in the table";
  pscClass cl;
  cl.ln_Name = name;
  cl.interfaces = interfaces;
  cl.instance_size = static_cast<int32_t>(sizeof(T));
  if constexpr (std::derived_from<T, KelvoObjectInstance<T>>) {
    cl.init = [](pscInstance* instance) { return ko_class::Build<T>(instance); };
  } else {
    cl.init_des = &ko_class::kConstructor<T>;
  }
  cl.destroy = ko_class::Destroy<T>;
  cl.validate = T::koInitClass;
  cl.class_cleanup = T::koUninitClass;
  if constexpr (ko_class::kHoldsReferences<T>) {
    cl.enum_refs = ko_class::EnumRefs<T>;
    cl.break_refs = ko_class::BreakRefs<T>;
  }
  return cl;
}

// --- Creation by native code ------------------------------------------------------------------

// A new object, constructed with the parameters (T has such a constructor beside the one for
// scripts; Init is not called). Throws what the constructor throws, and std::bad_alloc when memory
// is refused. Any thread; one that is not the script's holds the collector off until the object is
// where it belongs. The constructor must not call into the poll thread.
template <class T, class... Params>
KelvoObjectRef KelvoNewObject(pscDomain* domain, Params&&... params) {
  LATTIX_ASSERT(T::sm_class.index != 0);  // registered
  const CollectorLock lock(domain);  // the collector would look into the object before it is there
  pscInstance* instance = pscAllocateInstance(domain, &T::sm_class);
  if (instance == nullptr) throw std::bad_alloc();
  try {
    new (pscData<T>(instance)) T(std::forward<Params>(params)...);
  } catch (...) {
    pscDiscardInstance(instance);
    throw;
  }
  return KelvoObjectRef::Adopt(instance);
}

// --- Failures ---------------------------------------------------------------------------------

namespace ko_method {

// The text of the exception being handled.
std::string FailureText();
void PrintFailure(pscInstance* instance);

template <class T>
void Fail(T& object) {
  if constexpr (requires { object.SetFailureReason(FailureText()); }) {
    object.SetFailureReason(FailureText());
  } else {
    PrintFailure(object.GetHandle());
  }
}

}  // namespace ko_method
