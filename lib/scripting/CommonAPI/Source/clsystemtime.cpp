// koSystemTime and koNetworkTimeEvent.
#include "lib/platform/network_time.h"
#include "lib/scripting/CommonAPI/Include/ko_container.h"
#include "lib/scripting/CommonAPI/Include/time_objects.h"

// --- The network's time -----------------------------------------------------------------------

// A program may have no network-time thread; one that has it creates it before the first script.
SystemTimeInstance::SystemTimeInstance() {
  if (!NetworkTimeThread::Exists()) return;
  m_listener = NetworkTimeThread::GetInstance().Attempts().Add([this](std::string failure_reason) {
    PostMessage<NetworkTimeEventInstance>(*this, std::move(failure_reason));
  });
}

SystemTimeInstance::~SystemTimeInstance() {
  if (m_listener != 0) NetworkTimeThread::GetInstance().Attempts().Remove(m_listener);
}

KelvoObjectRef SystemTimeInstance::GetLastNetworkTimeResult() {
  NetworkTimeThread::Result result;
  if (m_listener != 0) result = NetworkTimeThread::GetInstance().GetLastResult();
  const auto text = [](const std::optional<CascadeTime::TimeBase>& time) {
    return time ? CascadeTime::ToUtcIsoString(*time) : std::string();
  };
  KelvoAssocArrayCreator entries(GetDomain());
  entries.Set("success_timestamp", text(result.success));
  entries.Set("attempt_timestamp", text(result.attempt));
  entries.Set("failure_reason", result.failure_reason);
  return entries.Take();
}

// --- The clock --------------------------------------------------------------------------------

KelvoObjectRef SystemTimeInstance::GetUtcDateTime() {
  return KelvoNewObject<DateTimeInstance>(GetDomain(),
                                          CascadeTime::ToUtc(CascadeTime::ReadPresentTimeBase()));
}

KelvoObjectRef SystemTimeInstance::GetLocalDateTime() {
  return KelvoNewObject<DateTimeInstance>(GetDomain(),
                                          CascadeTime::ToLocal(CascadeTime::ReadPresentTimeBase()));
}

KelvoObjectRef SystemTimeInstance::GetZoneDateTime(psText name) {
  const CascadeTime::ZonePtr zone = CascadeTime::FindZone(name);
  if (zone == nullptr) return {};
  return KelvoNewObject<DateTimeInstance>(
      GetDomain(), CascadeTime::ToZone(CascadeTime::ReadPresentTimeBase(), *zone));
}

bool SystemTimeInstance::SetUtcDateTime(pscInstance* date_time) {
  const std::optional<CascadeTime::DateStruct> date = KelvoDateOf(date_time);
  const auto time = date ? CascadeTime::FromUtc(*date) : std::nullopt;
  return time && CascadeTime::SetSystemClock(*time);
}

bool SystemTimeInstance::SetLocalDateTime(pscInstance* date_time) {
  const std::optional<CascadeTime::DateStruct> date = KelvoDateOf(date_time);
  const auto time = date ? CascadeTime::FromLocal(*date) : std::nullopt;
  return time && CascadeTime::SetSystemClock(*time);
}

std::string SystemTimeInstance::GetUtcTimeIsoString() {
  return CascadeTime::ToUtcIsoString(CascadeTime::ReadPresentTimeBase());
}

std::string SystemTimeInstance::GetLocalTimeIsoString() {
  return CascadeTime::ToIsoString(CascadeTime::ReadPresentTimeBase(), *CascadeTime::CurrentZone());
}

std::string SystemTimeInstance::GetZoneTimeIsoString(psText name) {
  const CascadeTime::ZonePtr zone = CascadeTime::FindZone(name);
  if (zone == nullptr) return {};
  return CascadeTime::ToIsoString(CascadeTime::ReadPresentTimeBase(), *zone);
}

namespace {

constexpr fundes kSystemTimeFunctions[] = {
    koMethod<&SystemTimeInstance::GetUtcDateTime>("GetUtcDateTime"),
    koMethod<&SystemTimeInstance::GetLocalDateTime>("GetLocalDateTime"),
    koMethod<&SystemTimeInstance::GetZoneDateTime>("GetZoneDateTime"),
    koMethod<&SystemTimeInstance::SetUtcDateTime>("SetUtcDateTime"),
    koMethod<&SystemTimeInstance::SetLocalDateTime>("SetLocalDateTime"),
    koMethod<&SystemTimeInstance::GetTimeZone>("GetTimeZone"),
    koMethod<&SystemTimeInstance::SetTimeZone>("SetTimeZone"),
    koMethod<&SystemTimeInstance::IsValid>("IsValid"),
    koMethod<&SystemTimeInstance::GetLastNetworkTimeResult>("GetLastNetworkTimeResult"),
    koMethod<&SystemTimeInstance::GetUtcTimeIsoString>("GetUtcTimeIsoString"),
    koMethod<&SystemTimeInstance::GetLocalTimeIsoString>("GetLocalTimeIsoString"),
    koMethod<&SystemTimeInstance::GetZoneTimeIsoString>("GetZoneTimeIsoString"),
    {},
};
constexpr psInterface kSystemTimeInterfaces[] = {
    MessageSourceMixin::kInterface<SystemTimeInstance>,
    UserDataMixin::kInterface<SystemTimeInstance>,
    {"ifSystemTime", kSystemTimeFunctions},
};

constexpr fundes kNetworkTimeEventFunctions[] = {
    koMethod<&NetworkTimeEventInstance::WasSuccessful>("WasSuccessful"),
    koMethod<&NetworkTimeEventInstance::GetFailureReason>("GetFailureReason"),
    {},
};
constexpr psInterface kNetworkTimeEventInterfaces[] = {
    UserDataMixin::kInterface<NetworkTimeEventInstance>,
    {"ifNetworkTimeEvent", kNetworkTimeEventFunctions},
};

}  // namespace

constinit pscClass SystemTimeInstance::sm_class =
    KelvoClass<SystemTimeInstance>("koSystemTime", kSystemTimeInterfaces);
constinit pscClass NetworkTimeEventInstance::sm_class =
    KelvoClass<NetworkTimeEventInstance>("koNetworkTimeEvent", kNetworkTimeEventInterfaces);
