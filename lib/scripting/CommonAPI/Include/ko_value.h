// Script values in native code: an owner for one, and its conversions to native types.
//
// For the script's thread, or another one that holds the collector off.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "lib/scripting/CommonAPI/Include/ko_ref.h"
#include "lib/scripting/Plumscript/Source/psc.h"
#include "lib/scripting/Plumscript/Source/typedvals.h"

// A value of any kind that native code has a use for. A boxed value counts as what is in the box.
using KelvoAny = std::variant<int32_t, float, double, bool, std::string, KelvoObjectRef>;

// Owns the reference a script value carries.
//
// The conversions throw std::runtime_error with the texts given in ko_value.cpp. Boxed numbers and
// booleans convert like those that are not.
class KelvoTypedValue {
 public:
  KelvoTypedValue() : m_value(psInvalidValue()) {}
  // Takes the value over.
  explicit KelvoTypedValue(psTypedValue value) : m_value(value) {}
  // A counted copy of a value that stays its owner's.
  static KelvoTypedValue Copy(const psTypedValue& value) {
    return KelvoTypedValue(psCopyValue(value));
  }
  KelvoTypedValue(const KelvoTypedValue& other) : m_value(psCopyValue(other.m_value)) {}
  KelvoTypedValue(KelvoTypedValue&& other) noexcept : m_value(other.Release()) {}
  KelvoTypedValue& operator=(KelvoTypedValue other) noexcept {
    std::swap(m_value, other.m_value);
    return *this;
  }
  ~KelvoTypedValue() { ReleaseValue(&m_value); }

  // New values; std::bad_alloc when memory is refused.
  static KelvoTypedValue From(pscDomain*, int32_t i) { return KelvoTypedValue(psIntegerValue(i)); }
  static KelvoTypedValue From(pscDomain*, bool b) { return KelvoTypedValue(psBooleanValue(b)); }
  static KelvoTypedValue From(pscDomain*, float f) { return KelvoTypedValue(psFloatValue(f)); }
  static KelvoTypedValue From(pscDomain* domain, double d);
  static KelvoTypedValue From(pscDomain* domain, std::string_view text);  // up to a NUL
  static KelvoTypedValue From(pscDomain* domain, const char* text) {
    return From(domain, std::string_view(text));
  }
  static KelvoTypedValue From(pscDomain*, KelvoObjectRef object);  // none: Invalid
  static KelvoTypedValue From(pscDomain*, KelvoTypedValue value) { return value; }

  const psTypedValue& Get() const { return m_value; }
  // Hands the value to the caller; Invalid stays.
  [[nodiscard]] psTypedValue Release() { return std::exchange(m_value, psInvalidValue()); }
  bool IsInvalid() const { return IsInvalidValue(&m_value); }
  bool IsString() const { return IsStringValue(&m_value); }
  // The component of an Object, still the value's; null for every other kind.
  pscInstance* Object() const { return psIs(m_value, kPsObjectFlag) ? m_value.value.psc : nullptr; }

  int64_t ToInt64() const;
  double ToDouble() const;
  bool ToBoolean() const;
  std::string ToString() const;
  // A component as it is, anything else boxed.
  KelvoObjectRef CoerceToObject(pscDomain* domain) const;
  KelvoAny ToAny() const;

 private:
  psTypedValue m_value;
};

// The bytes of a text or of a koByteArray, copied. Throws for anything else, and logs it.
class KelvoByteSequence {
 public:
  explicit KelvoByteSequence(const KelvoTypedValue& value);
  // An object that a method got as a parameter; null is neither.
  explicit KelvoByteSequence(pscInstance* object);

  const uint8_t* Data() const { return reinterpret_cast<const uint8_t*>(m_bytes.data()); }
  size_t Size() const { return m_bytes.size(); }
  std::string_view Text() const { return m_bytes; }

 private:
  void Read(const psTypedValue& value);

  std::string m_bytes;
};

// A koString with the text up to its first NUL: script texts hold none. std::bad_alloc when memory
// is refused.
KelvoObjectRef KelvoNewString(pscDomain* domain, std::string_view text);
