// The port holder's lock is held while it posts, so that a port is never let go of under an event;
// the port itself only queues. Every lock here is taken for a moment, with nothing called under it
// that could take another one of ours.
#include "lib/scripting/CommonAPI/Include/interface_mixins.h"

#include <atomic>

#include "lib/platform/log.h"

// --- Ports and events -------------------------------------------------------------------------

void MessageSourceBase::SetPort(pscInstance* port) {
  const void* methods = port != nullptr ? pscGetMethods(port, "ifMessagePort") : nullptr;
  KelvoObjectRef ref(methods != nullptr ? port : nullptr);  // then: what is to be released
  const std::lock_guard lock(m_mutex);
  m_methods = static_cast<const psIfMessagePort*>(methods);
  std::swap(m_port, ref);
}

bool MessageSourceBase::HasPort() const {
  const std::lock_guard lock(m_mutex);
  return m_methods != nullptr;
}

bool MessageSourceBase::IsListenedTo() const {
  const std::lock_guard lock(m_mutex);
  return m_methods != nullptr && m_methods->HasRoom(m_port.Get());
}

bool MessageSourceBase::Post(KelvoObjectRef event) {
  pscInstance* message = event.Release();
  {
    const std::lock_guard lock(m_mutex);
    if (m_methods != nullptr && m_methods->PostMessage(m_port.Get(), message)) return true;
  }
  // Its user data may lead to the sender, whose destructor would wait for the thread it runs on.
  pscLeaveToScript(message);
  return false;
}

void MessageSourceBase::EnumReferences(const KelvoReferenceVisitor& visit) const {
  const std::lock_guard lock(m_mutex);
  visit(m_port);
}

void MessageSourceBase::LogLostEvent(const char* class_name) noexcept {
  lattix::Log("Failed to post {}: {}\n", class_name, lattix::CurrentExceptionText());
}

// --- User data, identity, failure reason ------------------------------------------------------

void UserDataMixin::SetUserData(pscInstance* data) {
  const bool none = data == nullptr || data->psc_class == &clInvalid;
  m_user_data.Set(none ? KelvoObjectRef() : KelvoObjectRef(data));
}

IdentityGeneratorFromCounter::IdentityGeneratorFromCounter() {
  static std::atomic<uint32_t> counter{0};
  do {
    m_identity = static_cast<int32_t>(counter.fetch_add(1, std::memory_order_relaxed) + 1);
  } while (m_identity == 0);  // once in four billion objects
  LATTIX_ASSERT_TEXT(m_identity != 0, "m_this_identity.identity != 0");
}

std::string FailureReasonNoInterfaceMixin::GetFailureReason() const {
  const std::lock_guard lock(m_failure_mutex);
  return m_failure_reason;
}

void FailureReasonNoInterfaceMixin::SetFailureReason(std::string reason) {
  const std::lock_guard lock(m_failure_mutex);
  m_failure_reason = std::move(reason);
}

// --- Values of events -------------------------------------------------------------------------

void StringValueMixin::SetString(psText text) { m_text = text.substr(0, text.find('\0')); }

bool StringValueMixin::TrySetString(psText text) noexcept {
  try {
    SetString(text);
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

// --- Sending ----------------------------------------------------------------------------------

void StreamSendMixin::SendByte(int32_t byte) {
  const char c = static_cast<char>(byte);
  DoSend({&c, 1});
}

void StreamSendMixin::SendLine(psText line) {
  std::string text(line);
  text += m_send_eol;
  DoSend(text);
}

void StreamSendMixin::SendBlock(const KelvoTypedValue& block) {
  DoSend(KelvoByteSequence(block).Text());
}

void StreamSendMixin::SetSendEol(psText eol) { m_send_eol = eol; }
