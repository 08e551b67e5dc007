// koTimespan.
#include <algorithm>
#include <cstdio>
#include <stdexcept>

#include "lib/platform/monotonic_time.h"
#include "lib/scripting/CommonAPI/Include/time_objects.h"

namespace {

int64_t MonotonicMilliseconds() { return lattix::get_monotonic_time() / 1'000'000; }

int32_t Limited(int64_t value) {
  return static_cast<int32_t>(std::clamp<int64_t>(value, INT32_MIN, INT32_MAX));
}

}  // namespace

void TimespanInstance::Mark() { m_mark = MonotonicMilliseconds(); }

int32_t TimespanInstance::TotalMilliseconds() const {
  return Limited(MonotonicMilliseconds() - m_mark);
}

int32_t TimespanInstance::TotalSeconds() const {
  return Limited((MonotonicMilliseconds() - m_mark) / 1000);
}

// "2024-03-05T07:08:09", with a fraction and a zone where there is one. The extended format without
// its separators is the basic one, which CascadeTime reads; there a text without zone is local,
// here it is UTC. The calendar is longer than a time base is, so the count is in milliseconds.
int32_t TimespanInstance::GetSecondsToISO8601Date(psText date) const {
  constexpr std::string_view kShape = "dddd-dd-ddTdd:dd:dd";
  std::string basic;
  for (size_t i = 0; i < kShape.size(); ++i) {
    const char c = i < date.size() ? date[i] : '\0';
    const bool fits = kShape[i] == 'd' ? c >= '0' && c <= '9' : c == kShape[i];
    if (!fits) throw std::runtime_error("Not an ISO 8601 date: " + std::string(date));
    if (c != '-' && c != ':') basic += c;
  }
  basic += date.substr(kShape.size());
  const auto [utc, offset] = CascadeTime::ReadIsoString(basic);
  const int64_t seconds = CascadeTime::ToSecondsSinceEpoch(utc).value() - offset.value_or(0);
  const int64_t now = CascadeTime::ReadPresentTimeBase().nanoseconds / 1'000'000;
  return Limited((seconds * 1000 + utc.millisecond - now) / 1000);
}

namespace {

constexpr fundes kTimespanFunctions[] = {
    koMethod<&TimespanInstance::Mark>("Mark"),
    koMethod<&TimespanInstance::TotalMilliseconds>("TotalMilliseconds"),
    koMethod<&TimespanInstance::TotalSeconds>("TotalSeconds"),
    koMethod<&TimespanInstance::GetSecondsToISO8601Date>("GetSecondsToISO8601Date"),
    {},
};
constexpr psInterface kTimespanInterfaces[] = {
    {"ifTimespan", kTimespanFunctions},
};

}  // namespace

constinit pscClass TimespanInstance::sm_class =
    KelvoClass<TimespanInstance>("koTimespan", kTimespanInterfaces);
