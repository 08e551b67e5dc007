// What a script object does with the bytes that its stream receives: events for single bytes, for
// lines and for blocks, each to a port of its own, and a sequence matcher.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <span>
#include <string>
#include <string_view>

#include "lib/scripting/CommonAPI/Include/interface_mixins.h"
#include "lib/scripting/CommonAPI/Include/stream_events.h"

// The native entries of ifStreamReceiveObserver: bytes that a stream has received, on the thread
// that received them, with the collector lock held.
struct KelvoIfStreamReceiveObserver {
  void (*Receive)(pscInstance*, const uint8_t* bytes, size_t size);
};

// A line longer than this comes in pieces of this length: a peer that never ends its lines must not
// fill the memory.
constexpr size_t kKelvoMaxStreamLine = 65536;

// The interface's methods are the script's; Receive belongs to the one thread that reads the
// stream.
class StreamReceiveMixin {
 public:
  void SetLineEventPort(pscInstance* port) { m_line_port.SetPort(port); }
  void SetByteEventPort(pscInstance* port) { m_byte_port.SetPort(port); }
  void SetByteArrayEventPort(pscInstance* port) { m_byte_array_port.SetPort(port); }
  // A text, or the code of a character. An empty text: no line ever ends.
  void SetReceiveEol(const KelvoTypedValue& eol);
  // Always true; an object that is no observer of streams leaves the stream without a matcher.
  // Waits for a block that the old matcher is being fed.
  bool SetMatcher(pscInstance* matcher);

  // Posts what was received as the events that the script wants, then feeds the matcher. The sender
  // is the object itself, whose user data the events get.
  template <class Sender>
  void Receive(Sender& sender, std::span<const uint8_t> bytes);
  // Posts an event about the stream to the first port that is set: byte, byte array, line. False
  // when none received it.
  template <class Event, class Sender, class... Params>
  bool PostToFirstPort(Sender& sender, Params&&... params) noexcept;

  void EnumReferences(const KelvoReferenceVisitor& visit) const;
  void BreakReferences();

  static constexpr std::string_view kInterfaceName = "ifStreamReceive";
  template <class T>
  static constexpr fundes kFunctions[] = {
      koMethod<&StreamReceiveMixin::SetLineEventPort, T>("SetLineEventPort"),
      koMethod<&StreamReceiveMixin::SetByteEventPort, T>("SetByteEventPort"),
      koMethod<&StreamReceiveMixin::SetByteArrayEventPort, T>("SetByteArrayEventPort"),
      koMethod<&StreamReceiveMixin::SetReceiveEol, T>("SetReceiveEol"),
      koMethod<&StreamReceiveMixin::SetMatcher, T>("SetMatcher"),
      {},
  };
  template <class T>
  static constexpr psInterface kInterface = {"ifStreamReceive", kFunctions<T>};

 private:
  // Takes bytes off the front of the block until a line is complete, which it moves out; false when
  // the block is used up.
  bool NextLine(std::span<const uint8_t>* bytes, std::string* line);
  void FeedMatcher(pscDomain* domain, std::span<const uint8_t> bytes);

  MessageSourceBase m_line_port;
  MessageSourceBase m_byte_port;
  MessageSourceBase m_byte_array_port;

  std::mutex m_eol_mutex;
  std::string m_receive_eol = "\r\n";  // guarded by m_eol_mutex
  std::string m_line;                  // begun, not complete; the receiving thread's

  // Held while the matcher is fed, and the collector lock inside it; so the collector's hooks use
  // m_matcher alone.
  std::mutex m_feed_mutex;
  GuardedObjectRef m_matcher;
  const KelvoIfStreamReceiveObserver* m_observer = nullptr;  // guarded by m_feed_mutex
};

template <class Sender>
void StreamReceiveMixin::Receive(Sender& sender, std::span<const uint8_t> bytes) {
  if (m_byte_port.HasPort()) {
    for (const uint8_t byte : bytes) {
      m_byte_port.PostMessage<StreamByteEventInstance>(sender, byte);
    }
  }
  if (m_line_port.HasPort()) {
    std::string line;
    for (std::span<const uint8_t> rest = bytes; NextLine(&rest, &line);) {
      m_line_port.PostMessage<StreamLineEventInstance>(sender, line);
    }
  } else {
    m_line.clear();
  }
  if (!bytes.empty()) m_byte_array_port.PostMessage<StreamByteArrayEventInstance>(sender, bytes);
  FeedMatcher(sender.GetDomain(), bytes);
}

template <class Event, class Sender, class... Params>
bool StreamReceiveMixin::PostToFirstPort(Sender& sender, Params&&... params) noexcept {
  for (MessageSourceBase* port : {&m_byte_port, &m_byte_array_port, &m_line_port}) {
    if (port->HasPort()) {
      return port->template PostMessage<Event>(sender, std::forward<Params>(params)...);
    }
  }
  return false;
}
