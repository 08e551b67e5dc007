// A domain with the core classes for one test, calls through descriptors as a script makes them,
// and values as short texts, so that a table row can say what it expects.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <deque>
#include <initializer_list>
#include <string>
#include <vector>

#include "clwrappers.h"
#include "containers.h"
#include "psc.h"

namespace component_test {

// An argument in a table row.
struct Arg {
  enum Kind { kInteger, kFloat, kDouble, kBoolean, kText, kInvalid } kind;
  double number = 0;
  std::string text;

  Arg(int i) : kind(kInteger), number(i) {}                // NOLINT: rows list plain values
  Arg(float f) : kind(kFloat), number(f) {}                // NOLINT
  Arg(double d) : kind(kDouble), number(d) {}              // NOLINT
  Arg(bool b) : kind(kBoolean), number(b ? 1 : 0) {}       // NOLINT
  Arg(const char* t) : kind(kText), text(t) {}             // NOLINT
  Arg(std::string t) : kind(kText), text(std::move(t)) {}  // NOLINT
  Arg(std::nullptr_t) : kind(kInvalid) {}                  // NOLINT
};

// Owns the reference a value carries.
class Value {
 public:
  Value() : v_(psInvalidValue()) {}
  explicit Value(psTypedValue v) : v_(v) {}
  explicit Value(pscInstance* instance)
      : v_(instance != nullptr ? psObjectValue(instance) : psInvalidValue()) {}
  Value(Value&& other) noexcept : v_(other.take()) {}
  Value& operator=(Value&& other) noexcept {
    std::swap(v_, other.v_);
    return *this;
  }
  ~Value() { ReleaseValue(&v_); }

  const psTypedValue& get() const { return v_; }
  pscInstance* object() const { return psIs(v_, kPsObjectFlag) ? v_.value.psc : nullptr; }
  psTypedValue copy() const { return psCopyValue(v_); }
  psTypedValue take() {
    psTypedValue v = v_;
    v_ = psInvalidValue();
    return v;
  }

 private:
  psTypedValue v_;
};

// 7, 1.5f, 1.5d, true, invalid, "text", [1,2], {"key":1} (keys in byte order), <koList[…]>, <koInt
// 7>.
inline std::string describe(const psTypedValue& v) {
  char buffer[64];
  if (psIs(v, kPsIntegerFlag)) return std::to_string(v.value.i);
  if (psIs(v, kPsBooleanFlag)) return v.value.i != 0 ? "true" : "false";
  if (psIs(v, kPsInvalidFlag)) return "invalid";
  if (psIs(v, kPsFloatFlag)) {
    std::snprintf(buffer, sizeof buffer, "%.9gf", v.value.f);
    return buffer;
  }
  if (psIs(v, kPsInterfaceFlag)) return std::string("<") + v.value.iface->name + ">";
  if (IsStringValue(&v)) return '"' + std::string(GetStringPtr(&v)) + '"';
  if (!psIs(v, kPsObjectFlag)) return "?";
  pscInstance* object = v.value.psc;
  const pscClass* cl = object->psc_class;
  if (cl == &clIntrinsicDouble) {
    std::snprintf(buffer, sizeof buffer, "%.17gd", psDoubleOf(object));
    return buffer;
  }
  if (cl == &clArray) {
    const auto* array = pscData<psArray>(object);
    std::string text;
    for (int32_t i = 0; i <= array->tail; ++i) {
      text += (i > 0 ? "," : "") + describe(psArrayElement(array, i));
    }
    return '[' + text + ']';
  }
  if (cl == &clAssociativeArray) {
    std::vector<std::string> members;
    for (const psAssocEntry* bucket : pscData<psAssocArray>(object)->buckets) {
      for (const psAssocEntry* entry = bucket; entry != nullptr; entry = entry->next) {
        members.push_back('"' + std::string(entry->key, entry->key_length) +
                          "\":" + describe(entry->value));
      }
    }
    std::sort(members.begin(), members.end());
    std::string text;
    for (const std::string& member : members) text += (text.empty() ? "" : ",") + member;
    return '{' + text + '}';
  }
  std::string text = std::string("<") + cl->ln_Name;
  if (cl == &clInt) text += ' ' + std::to_string(*pscData<int32_t>(object));
  if (cl == &clFloat) {
    std::snprintf(buffer, sizeof buffer, " %.9g", *pscData<float>(object));
    text += buffer;
  }
  if (cl == &clBoolean) text += *pscData<bool>(object) ? " true" : " false";
  if (cl->if_enum != nullptr) {
    text += '[';
    cl->if_enum->Reset(object);
    for (bool first = true; cl->if_enum->IsNext(object); first = false) {
      const Value element(cl->if_enum->Next(object));
      text += (first ? "" : ",") + describe(element.get());
    }
    text += ']';
  }
  return text + '>';
}
inline std::string describe(const Value& v) { return describe(v.get()); }

// A running core with one domain; at the end no instance may be left.
class Core {
 public:
  Core() {
    pscInitBuiltInCoreComponents();
    domain_ = pscNewDomain();
    pscSetPrintHook(
        [](void* self, psText text) { static_cast<Core*>(self)->printed_.append(text); }, this);
  }
  ~Core() {
    pscSetPrintHook(nullptr, nullptr);
    pscUninitDomain(domain_);
    delete domain_;
    pscUninitClasses();
  }
  Core(const Core&) = delete;
  Core& operator=(const Core&) = delete;

  pscDomain* domain() { return domain_; }
  // What the runtime printed since the last call.
  std::string takePrinted() { return std::exchange(printed_, {}); }

  psTypedValue value(const Arg& arg) {
    switch (arg.kind) {
      case Arg::kInteger: return psIntegerValue(static_cast<int64_t>(arg.number));
      case Arg::kFloat: return psFloatValue(static_cast<float>(arg.number));
      case Arg::kDouble: return psObjectValue(psNewDouble(domain_, arg.number));
      case Arg::kBoolean: return psBooleanValue(arg.number != 0);
      case Arg::kText: return psStringConstantValue(texts_.emplace_back(arg.text));
      case Arg::kInvalid: break;
    }
    return psInvalidValue();
  }

  // Calls the member function, or the static one when self is null, of that name and arity.
  Value callValues(pscInstance* self, const fundes* function, std::vector<psTypedValue> args) {
    psTypedValue result = psInvalidValue();
    status_ = pscCallFunction(domain_, static_cast<int>(args.size()), function, self, args.data(),
                              &result);
    return status_ == kPsOkay ? Value(result) : Value();
  }
  Value call(pscInstance* self, const char* name, const std::vector<Arg>& args) {
    const pscMemberFunction found =
        pscFindMemberFunction(self, name, static_cast<int>(args.size()));
    EXPECT_TRUE(found) << name;
    if (!found) return Value();
    std::vector<psTypedValue> values;
    for (const Arg& arg : args) values.push_back(value(arg));
    return callValues(self, found.function, std::move(values));
  }
  psStatus status() const { return status_; }

 private:
  pscDomain* domain_;
  std::string printed_;
  std::deque<std::string> texts_;
  psStatus status_ = kPsOkay;
};

}  // namespace component_test
