// koDateTime.
#include <fmt/format.h>

#include <algorithm>

#include "lib/scripting/CommonAPI/Include/time_objects.h"

namespace {

using DateStruct = CascadeTime::DateStruct;

}  // namespace

std::optional<DateStruct> KelvoDateOf(pscInstance* object) {
  if (object == nullptr) return {};
  const void* methods = pscGetMethods(object, "ifDateTime");
  if (methods == nullptr) return {};
  return static_cast<const KelvoIfDateTime*>(methods)->GetDate(object);
}

bool DateTimeInstance::Normalize() {
  const std::optional<DateStruct> date = CascadeTime::Normalized(m_date);
  if (date) m_date = *date;
  return date.has_value();
}

// What would leave the calendar stays where it is.
void DateTimeInstance::Move(int64_t milliseconds) {
  m_date = CascadeTime::Moved(m_date, milliseconds).value_or(m_date);
}

bool DateTimeInstance::FromIsoString(psText text) {
  m_date = CascadeTime::ParseIsoString(text);
  return true;
}

int32_t DateTimeInstance::ToSecondsSinceEpoch() const {
  const int64_t seconds = CascadeTime::ToSecondsSinceEpoch(m_date).value_or(0);
  return static_cast<int32_t>(std::clamp<int64_t>(seconds, INT32_MIN, INT32_MAX));
}

bool DateTimeInstance::FromSecondsSinceEpoch(int32_t seconds) {
  const std::optional<DateStruct> date = CascadeTime::FromSecondsSinceEpoch(seconds);
  if (date) m_date = *date;
  return date.has_value();
}

psText DateTimeInstance::GetString() {
  const auto written = fmt::format_to_n(
      m_text, sizeof(m_text) - 1, "{:4}/{:02}/{:02} {:02}:{:02}:{:02}.{:03}", m_date.year,
      m_date.month, m_date.day, m_date.hour, m_date.minute, m_date.second, m_date.millisecond);
  *written.out = '\0';
  return {m_text, static_cast<size_t>(written.out - m_text)};
}

namespace {

constexpr fundes kDateTimeFunctions[] = {
    koMethod<&DateTimeInstance::Get<&DateStruct::day>>("GetDay"),
    koMethod<&DateTimeInstance::Get<&DateStruct::month>>("GetMonth"),
    koMethod<&DateTimeInstance::Get<&DateStruct::year>>("GetYear"),
    koMethod<&DateTimeInstance::Get<&DateStruct::hour>>("GetHour"),
    koMethod<&DateTimeInstance::Get<&DateStruct::minute>>("GetMinute"),
    koMethod<&DateTimeInstance::Get<&DateStruct::second>>("GetSecond"),
    koMethod<&DateTimeInstance::Get<&DateStruct::millisecond>>("GetMillisecond"),
    koMethod<&DateTimeInstance::Get<&DateStruct::day_of_week>>("GetDayOfWeek"),
    koMethod<&DateTimeInstance::Set<&DateStruct::day>>("SetDay"),
    koMethod<&DateTimeInstance::Set<&DateStruct::month>>("SetMonth"),
    koMethod<&DateTimeInstance::Set<&DateStruct::year>>("SetYear"),
    koMethod<&DateTimeInstance::Set<&DateStruct::hour>>("SetHour"),
    koMethod<&DateTimeInstance::Set<&DateStruct::minute>>("SetMinute"),
    koMethod<&DateTimeInstance::Set<&DateStruct::second>>("SetSecond"),
    koMethod<&DateTimeInstance::Set<&DateStruct::millisecond>>("SetMillisecond"),
    koMethod<&DateTimeInstance::Normalize>("Normalize"),
    koMethod<&DateTimeInstance::AddSeconds>("AddSeconds"),
    koMethod<&DateTimeInstance::AddMilliseconds>("AddMilliseconds"),
    koMethod<&DateTimeInstance::SubtractSeconds>("SubtractSeconds"),
    koMethod<&DateTimeInstance::SubtractMilliseconds>("SubtractMilliseconds"),
    koMethod<&DateTimeInstance::ToIsoString>("ToIsoString"),
    koMethod<&DateTimeInstance::FromIsoString>("FromIsoString"),
    koMethod<&DateTimeInstance::ToSecondsSinceEpoch>("ToSecondsSinceEpoch"),
    koMethod<&DateTimeInstance::FromSecondsSinceEpoch>("FromSecondsSinceEpoch"),
    koMethod<&DateTimeInstance::GetString>("GetString"),
    {},
};
constexpr KelvoIfDateTime kDateTimeEntries = {
    koNativeEntry<&DateTimeInstance::GetDate, DateTimeInstance>::Call,
    koNativeEntry<&DateTimeInstance::SetDate, DateTimeInstance>::Call,
};

constexpr fundes kStringFunctions[] = {
    koMethod<&DateTimeInstance::GetString>("GetString"),
    {},
};
constexpr psIfString kStringEntries = {
    koNativeEntry<&DateTimeInstance::GetString, DateTimeInstance>::Call,
    koNativeEntry<&DateTimeInstance::SetString, DateTimeInstance>::Call,
};

constexpr psInterface kDateTimeInterfaces[] = {
    {"ifDateTime", kDateTimeFunctions, &kDateTimeEntries},
    {"ifString", kStringFunctions, &kStringEntries},
};

}  // namespace

constinit pscClass DateTimeInstance::sm_class =
    KelvoClass<DateTimeInstance>("koDateTime", kDateTimeInterfaces);
