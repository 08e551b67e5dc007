// koStreamByteEvent, koStreamEndEvent, koStreamConnectResultEvent, koStreamLineEvent and
// koStreamByteArrayEvent. The payload is set when the event is made; from then on it is the
// script's.
#include "lib/scripting/CommonAPI/Include/ko_container.h"
#include "lib/scripting/CommonAPI/Include/stream_events.h"

namespace {

template <class T>
constexpr psInterface kIntEventInterfaces[] = {
    IntValueMixin::kInterface<T>,
    UserDataMixin::kInterface<T>,
};

}  // namespace

constinit pscClass StreamByteEventInstance::sm_class = KelvoClass<StreamByteEventInstance>(
    "koStreamByteEvent", kIntEventInterfaces<StreamByteEventInstance>);
constinit pscClass StreamEndEventInstance::sm_class = KelvoClass<StreamEndEventInstance>(
    "koStreamEndEvent", kIntEventInterfaces<StreamEndEventInstance>);
constinit pscClass StreamConnectResultEventInstance::sm_class =
    KelvoClass<StreamConnectResultEventInstance>(
        "koStreamConnectResultEvent", kIntEventInterfaces<StreamConnectResultEventInstance>);

// --- koStreamLineEvent ------------------------------------------------------------------------

namespace {

constexpr psInterface kLineInterfaces[] = {
    StringValueMixin::kInterface<StreamLineEventInstance>,
    UserDataMixin::kInterface<StreamLineEventInstance>,
};

}  // namespace

constinit pscClass StreamLineEventInstance::sm_class =
    KelvoClass<StreamLineEventInstance>("koStreamLineEvent", kLineInterfaces);

// --- koStreamByteArrayEvent -------------------------------------------------------------------

KelvoObjectRef StreamByteArrayEventInstance::GetByteArray() {
  return CreateByteArray(GetDomain(), m_bytes.data(), m_bytes.size());
}

namespace {

constexpr fundes kGetByteArrayFunctions[] = {
    koMethod<&StreamByteArrayEventInstance::GetByteArray>("GetByteArray"),
    {},
};
constexpr psInterface kByteArrayInterfaces[] = {
    UserDataMixin::kInterface<StreamByteArrayEventInstance>,
    {"ifGetByteArray", kGetByteArrayFunctions},
};

}  // namespace

constinit pscClass StreamByteArrayEventInstance::sm_class =
    KelvoClass<StreamByteArrayEventInstance>("koStreamByteArrayEvent", kByteArrayInterfaces);
