// Each conversion asks for the kinds it accepts, the most frequent first, and throws at its end.
#include "lib/scripting/CommonAPI/Include/ko_value.h"

#include <charconv>
#include <cmath>
#include <stdexcept>

#include "lib/platform/assertion.h"
#include "lib/platform/log.h"
#include "lib/scripting/Plumscript/Source/clwrappers.h"
#include "lib/scripting/Plumscript/Source/containers.h"

namespace {

// The bytes of a koByteArray: copied out, for another thread may be at it.
bool ReadByteArray(pscInstance* object, std::string* bytes) {
  if (object == nullptr || object->psc_class != &clByteArray) return false;
  auto* array = pscData<psByteArray>(object);
  const psGuard guard(array->lock);
  *bytes = psByteArrayText(array);
  return true;
}

// As strtoll in base 10: leading white space, a sign, digits; what follows is of no interest.
int64_t ParseInt64(std::string_view text) {
  const size_t start = text.find_first_not_of(" \t\n\v\f\r");
  if (start == std::string_view::npos) return 0;
  text.remove_prefix(start);
  // from_chars takes no plus, and would take a minus behind one.
  if (text.front() == '+' && !text.substr(1).starts_with('-')) text.remove_prefix(1);
  int64_t value = 0;
  const auto read = std::from_chars(text.data(), text.data() + text.size(), value);
  if (read.ec == std::errc::result_out_of_range) {
    throw std::runtime_error("String value can not be represented as 64 bit signed integer");
  }
  return value;
}

int64_t TruncateToInt64(double value) {
  constexpr double kLimit = 9.223372e18;
  if (!(value >= -kLimit && value <= kLimit)) {
    throw std::runtime_error("Float value can not be represented as 64 bit signed integer");
  }
  return static_cast<int64_t>(value);
}

// "%.*g" whatever the locale, with fixed names for what is no number.
std::string FormatFloating(double value, int precision) {
  const char* sign = std::signbit(value) ? "-" : "";
  if (std::isnan(value)) return std::string(sign) + "nan";
  if (std::isinf(value)) return std::string(sign) + "inf";
  char buffer[40];
  const auto end =
      std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::general, precision);
  return {buffer, end.ptr};
}

}  // namespace

// --- Making -----------------------------------------------------------------------------------

KelvoObjectRef KelvoNewString(pscDomain* domain, std::string_view text) {
  pscInstance* instance = psNewString(domain, text.substr(0, text.find('\0')));
  if (instance == nullptr) throw std::bad_alloc();
  return KelvoObjectRef::Adopt(instance);
}

KelvoTypedValue KelvoTypedValue::From(pscDomain* domain, double d) {
  pscInstance* box = psNewDouble(domain, d);
  if (box == nullptr) throw std::bad_alloc();
  return KelvoTypedValue(psObjectValue(box));
}

KelvoTypedValue KelvoTypedValue::From(pscDomain* domain, std::string_view text) {
  return KelvoTypedValue(psObjectValue(KelvoNewString(domain, text).Release()));
}

KelvoTypedValue KelvoTypedValue::From(pscDomain*, KelvoObjectRef object) {
  return object ? KelvoTypedValue(psObjectValue(object.Release())) : KelvoTypedValue();
}

// --- Converting -------------------------------------------------------------------------------

int64_t KelvoTypedValue::ToInt64() const {
  if (IsStringValue(&m_value)) return ParseInt64(GetStringPtr(&m_value));
  if (IsBooleanValue(&m_value)) return BoolVal(&m_value) ? 1 : 0;
  switch (NumericKind(&m_value)) {
    case psInteger: return IntVal(&m_value);
    case psFloat:
    case psDouble: return TruncateToInt64(DoubleVal(&m_value));
    default: throw std::runtime_error("Failed to convert value to int64_t");
  }
}

double KelvoTypedValue::ToDouble() const {
  if (!IsNumeric(&m_value)) throw std::runtime_error("Value could not be converted to a double");
  return DoubleVal(&m_value);
}

bool KelvoTypedValue::ToBoolean() const {
  if (!IsBooleanValue(&m_value) && !IsNumeric(&m_value)) {
    throw std::runtime_error("Value could not be converted to boolean");
  }
  return BoolVal(&m_value);
}

std::string KelvoTypedValue::ToString() const {
  if (IsStringValue(&m_value)) return std::string(GetStringPtr(&m_value));
  if (IsBooleanValue(&m_value)) return BoolVal(&m_value) ? "1" : "0";
  switch (NumericKind(&m_value)) {
    case psInteger: return std::to_string(IntVal(&m_value));
    case psFloat: return FormatFloating(FloatVal(&m_value), 9);
    case psDouble: return FormatFloating(DoubleVal(&m_value), 17);
    default: break;
  }
  std::string bytes;
  if (ReadByteArray(Object(), &bytes)) return bytes;
  throw std::runtime_error(psIs(m_value, kPsObjectFlag)
                               ? "Object could not be converted to a string"
                               : "Value could not be converted to a string");
}

KelvoObjectRef KelvoTypedValue::CoerceToObject(pscDomain* domain) const {
  psTypedValue copy = psCopyValue(m_value);
  if (!psIs(copy, kPsObjectFlag)) {
    const psStatus status = ConvertIntrinsicToObject(domain, &copy);
    if (status == kPsOutOfMemory) throw std::bad_alloc();
    if (status != kPsOkay) {
      ReleaseValue(&copy);
      throw std::runtime_error("Failed to convert value to object");
    }
  }
  LATTIX_ASSERT(psIs(copy, kPsObjectFlag) && copy.value.psc != nullptr);
  return KelvoObjectRef::Adopt(copy.value.psc);
}

KelvoAny KelvoTypedValue::ToAny() const {
  if (IsStringValue(&m_value)) return std::string(GetStringPtr(&m_value));
  if (IsBooleanValue(&m_value)) return BoolVal(&m_value);
  switch (NumericKind(&m_value)) {
    case psInteger: return static_cast<int32_t>(IntVal(&m_value));
    case psFloat: return FloatVal(&m_value);
    case psDouble: return DoubleVal(&m_value);
    default: break;
  }
  if (Object() == nullptr || IsInvalid()) {
    throw std::runtime_error("Value could not be converted to ANY");
  }
  return KelvoObjectRef(Object());
}

// --- Bytes ------------------------------------------------------------------------------------

KelvoByteSequence::KelvoByteSequence(const KelvoTypedValue& value) { Read(value.Get()); }

KelvoByteSequence::KelvoByteSequence(pscInstance* object) {
  Read(object != nullptr ? psObjectValue(object) : psInvalidValue());
}

void KelvoByteSequence::Read(const psTypedValue& value) {
  if (IsStringValue(&value)) {
    m_bytes = GetStringPtr(&value);
    return;
  }
  const bool is_object = psIs(value, kPsObjectFlag);
  if (is_object && ReadByteArray(value.value.psc, &m_bytes)) return;
  lattix::Log("KelvoByteSequence: parameter is {}neither a string nor a byte array.\n",
              is_object ? "an object but " : "");
  throw std::runtime_error("Parameter is neither a string nor a byte array");
}
