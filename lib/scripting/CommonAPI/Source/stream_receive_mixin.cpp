// A line is gathered byte by byte and is complete when it ends with the end-of-line text, so the
// beginning of one that turns out to be none stays in the line, and the text may change in between.
#include "lib/scripting/CommonAPI/Include/stream_receive_mixin.h"

#include "lib/platform/log.h"

void StreamReceiveMixin::SetReceiveEol(const KelvoTypedValue& eol) {
  std::string text =
      eol.IsString() ? eol.ToString() : std::string(1, static_cast<char>(eol.ToInt64()));
  const std::lock_guard lock(m_eol_mutex);
  m_receive_eol = std::move(text);
}

bool StreamReceiveMixin::SetMatcher(pscInstance* matcher) {
  const void* methods =
      matcher != nullptr ? pscGetMethods(matcher, "ifStreamReceiveObserver") : nullptr;
  KelvoObjectRef before;  // released without the lock
  const std::lock_guard lock(m_feed_mutex);
  before = m_matcher.Get();
  m_matcher.Set(methods != nullptr ? KelvoObjectRef(matcher) : KelvoObjectRef());
  m_observer = static_cast<const KelvoIfStreamReceiveObserver*>(methods);
  return true;
}

bool StreamReceiveMixin::NextLine(std::span<const uint8_t>* bytes, std::string* line) {
  std::string eol;
  {
    const std::lock_guard lock(m_eol_mutex);
    eol = m_receive_eol;
  }
  while (!bytes->empty()) {
    m_line += static_cast<char>(bytes->front());
    *bytes = bytes->subspan(1);
    const bool ended = !eol.empty() && m_line.ends_with(eol);
    if (ended) m_line.resize(m_line.size() - eol.size());
    if (!ended && m_line.size() < kKelvoMaxStreamLine) continue;
    if (!ended) {
      lattix::Log("No end of line within {} bytes of a stream: delivering a part\n", m_line.size());
    }
    line->clear();
    std::swap(*line, m_line);
    return true;
  }
  return false;
}

void StreamReceiveMixin::FeedMatcher(pscDomain* domain, std::span<const uint8_t> bytes) {
  const std::lock_guard lock(m_feed_mutex);
  if (m_observer == nullptr) return;
  // Only the collector can take the matcher away now, and with it what this thread must not
  // destroy: the matcher's port and its events may lead back to the stream.
  const CollectorLock collector_lock(domain);
  const KelvoObjectRef matcher = m_matcher.Get();
  if (matcher) m_observer->Receive(matcher.Get(), bytes.data(), bytes.size());
}

void StreamReceiveMixin::EnumReferences(const KelvoReferenceVisitor& visit) const {
  for (const MessageSourceBase* port : {&m_line_port, &m_byte_port, &m_byte_array_port}) {
    port->EnumReferences(visit);
  }
  m_matcher.EnumReferences(visit);
}

void StreamReceiveMixin::BreakReferences() {
  for (MessageSourceBase* port : {&m_line_port, &m_byte_port, &m_byte_array_port}) {
    port->BreakReferences();
  }
  m_matcher.BreakReferences();
}
