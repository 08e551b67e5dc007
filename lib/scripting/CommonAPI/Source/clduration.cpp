// koDuration.
#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>

#include "lib/scripting/CommonAPI/Include/time_objects.h"

namespace {

constexpr int64_t kHour = 3600;
// Far from both ends of the type, so that a sum of two lengths fits.
constexpr int64_t kLongest = INT64_MAX / 4;

int64_t Limited(int64_t seconds) { return std::clamp(seconds, -kLongest, kLongest); }

int32_t ToInteger(int64_t value) {
  return static_cast<int32_t>(std::clamp<int64_t>(value, INT32_MIN, INT32_MAX));
}

// A number without sign, followed by the separator (none: by the end of the text).
std::optional<int64_t> TakeNumber(std::string_view* text, char separator, int64_t max) {
  int64_t number = 0;
  const char* end = text->data() + text->size();
  if (text->empty() || text->front() == '-') return {};
  const auto [after, error] = std::from_chars(text->data(), end, number);
  if (error != std::errc() || number > max) return {};
  text->remove_prefix(static_cast<size_t>(after - text->data()));
  if (separator == '\0') return text->empty() ? std::optional(number) : std::nullopt;
  if (!text->starts_with(separator)) return {};
  text->remove_prefix(1);
  return number;
}

}  // namespace

int32_t DurationInstance::GetHours() const { return ToInteger(m_seconds / kHour); }
int32_t DurationInstance::GetTotalSeconds() const { return ToInteger(m_seconds); }

void DurationInstance::SetHours(int32_t hours) { m_seconds = hours * kHour + m_seconds % kHour; }

void DurationInstance::SetMinutes(int32_t minutes) {
  m_seconds = Limited(m_seconds + (int64_t{minutes} - GetMinutes()) * 60);
}

void DurationInstance::SetSeconds(int32_t seconds) {
  m_seconds = Limited(m_seconds + (int64_t{seconds} - GetSeconds()));
}

bool DurationInstance::AddDuration(pscInstance* duration) {
  if (duration == nullptr) return false;
  const void* methods = pscGetMethods(duration, "ifDuration");
  if (methods == nullptr) return false;
  m_seconds =
      Limited(m_seconds + static_cast<const KelvoIfDuration*>(methods)->GetLength(duration));
  return true;
}

bool DurationInstance::FromString(psText text) {
  std::string_view rest = text;
  const bool negative = rest.starts_with('-');
  if (negative) rest.remove_prefix(1);
  const auto hours = TakeNumber(&rest, ':', INT32_MAX);
  const auto minutes = hours ? TakeNumber(&rest, ':', 59) : std::nullopt;
  const auto seconds = minutes ? TakeNumber(&rest, '\0', 59) : std::nullopt;
  if (!seconds) return false;
  const int64_t length = *hours * kHour + *minutes * 60 + *seconds;
  m_seconds = negative ? -length : length;
  return true;
}

bool DurationInstance::FromTimeOfDay(pscInstance* date_time) {
  const std::optional<CascadeTime::DateStruct> date = KelvoDateOf(date_time);
  if (!date) return false;
  m_seconds = date->hour * kHour + date->minute * 60 + date->second;
  return true;
}

std::string DurationInstance::GetString() const {
  const int64_t length = std::abs(m_seconds);
  return fmt::format("{}{:02}:{:02}:{:02}", m_seconds < 0 ? "-" : "", length / kHour,
                     length / 60 % 60, length % 60);
}

namespace {

constexpr fundes kDurationFunctions[] = {
    koMethod<&DurationInstance::Reset>("Reset"),
    koMethod<&DurationInstance::GetHours>("GetHours"),
    koMethod<&DurationInstance::GetMinutes>("GetMinutes"),
    koMethod<&DurationInstance::GetSeconds>("GetSeconds"),
    koMethod<&DurationInstance::GetTotalSeconds>("GetTotalSeconds"),
    koMethod<&DurationInstance::SetHours>("SetHours"),
    koMethod<&DurationInstance::SetMinutes>("SetMinutes"),
    koMethod<&DurationInstance::SetSeconds>("SetSeconds"),
    koMethod<&DurationInstance::SetTotalSeconds>("SetTotalSeconds"),
    koMethod<&DurationInstance::AddDuration>("AddDuration"),
    koMethod<&DurationInstance::FromString>("FromString"),
    koMethod<&DurationInstance::FromTimeOfDay>("FromTimeOfDay"),
    koMethod<&DurationInstance::GetString>("GetString"),
    {},
};
constexpr KelvoIfDuration kDurationEntries = {
    koNativeEntry<&DurationInstance::GetLength, DurationInstance>::Call,
};
constexpr psInterface kDurationInterfaces[] = {
    {"ifDuration", kDurationFunctions, &kDurationEntries},
};

}  // namespace

constinit pscClass DurationInstance::sm_class =
    KelvoClass<DurationInstance>("koDuration", kDurationInterfaces);
