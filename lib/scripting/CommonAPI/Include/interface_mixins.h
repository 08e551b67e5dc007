// The interfaces that many script objects share, as mixins for MixinForwarder (kocpp.h): state,
// methods, and the row for the class's interface table as kInterface<T>.
//
// | mixin                                          | interface         |
// |------------------------------------------------|-------------------|
// | MessageSourceMixin                             | ifMessagePort     |
// | MessageSourceNoInterfaceMixin                  | none: the port comes another way |
// | UserDataMixin                                  | ifUserData        |
// | IdentityMixin                                  | ifIdentity        |
// | SourceIdentityMixin                            | ifSourceIdentity  |
// | FailureReasonMixin                             | ifFailureReason   |
// | FailureReasonNoInterfaceMixin                  | none: read another way |
// | IntValueMixin                                  | ifInt             |
// | StringValueMixin                               | ifString          |
// | StreamSendMixin                                | ifStreamSend      |
// | StreamReceiveMixin (stream_receive_mixin.h)    | ifStreamReceive   |
//
// Methods of an interface are called on the script's thread; what else may be called on which
// thread is said with each mixin.
#pragma once

#include <concepts>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "lib/scripting/CommonAPI/Include/ko_method.h"
#include "lib/scripting/CommonAPI/Include/ko_ref.h"
#include "lib/scripting/CommonAPI/Include/kocpp.h"

// --- Ports and events -------------------------------------------------------------------------

// Holds the message port that an object posts to, and posts. Any thread.
class MessageSourceBase {
 public:
  // An object that is no message port (null, Invalid, another class) leaves the holder without one.
  void SetPort(pscInstance* port);
  bool HasPort() const;

  // Creates an event of class Event, constructed with the parameters, gives it the sender's user
  // data and identity (where both sides have them) and posts it. False when no port received it:
  // there is none, the script is too far behind, or the event could not be built, which is logged.
  //
  // The caller sees to it that the sender lives until this returns; posting itself destroys no
  // object of the script. Takes the collector lock: the caller holds no lock under which its class
  // reports references.
  template <class Event, class Sender, class... Params>
  bool PostMessage(Sender& sender, Params&&... params) noexcept;

  void EnumReferences(const KelvoReferenceVisitor& visit) const;
  void BreakReferences() { SetPort(nullptr); }

 private:
  // Whether an event that is built now will find a port to take it.
  bool IsListenedTo() const;
  bool Post(KelvoObjectRef event);
  static void LogLostEvent(const char* class_name) noexcept;

  mutable std::mutex m_mutex;
  const psIfMessagePort* m_methods = nullptr;  // of the port's class; guarded by m_mutex
  KelvoObjectRef m_port;                       // guarded by m_mutex
};

class MessageSourceNoInterfaceMixin : public MessageSourceBase {};

class MessageSourceMixin : public MessageSourceBase {
 public:
  static constexpr std::string_view kInterfaceName = "ifMessagePort";
  // For the same methods under another interface name.
  template <class T>
  static constexpr fundes kFunctions[] = {
      koMethod<&MessageSourceBase::SetPort, T>("SetPort"),
      {},
  };
  // Without native entries: an object that has a port is not one.
  template <class T>
  static constexpr psInterface kInterface = {"ifMessagePort", kFunctions<T>};
};

// --- User data --------------------------------------------------------------------------------

// The native entries of ifUserData. Lends; hands over.
struct KelvoIfUserData {
  void (*SetUserData)(pscInstance*, pscInstance* data);
  pscInstance* (*GetUserData)(pscInstance*);
};

// An object that the script keeps with this one, and finds again in its events. Any thread.
class UserDataMixin {
 public:
  void SetUserData(pscInstance* data);  // Invalid and null: none
  pscInstance* GetUserData() const { return m_user_data.Get().Release(); }
  // For one's own use and for events.
  KelvoObjectRef GetUserDataRef() const { return m_user_data.Get(); }
  void SetUserDataRef(KelvoObjectRef data) { m_user_data.Set(std::move(data)); }

  void EnumReferences(const KelvoReferenceVisitor& visit) const {
    m_user_data.EnumReferences(visit);
  }
  void BreakReferences() { m_user_data.BreakReferences(); }

  static constexpr std::string_view kInterfaceName = "ifUserData";
  template <class T>
  static constexpr fundes kFunctions[] = {
      koMethod<&UserDataMixin::SetUserData, T>("SetUserData"),
      koMethod<&UserDataMixin::GetUserData, T>("GetUserData"),
      {},
  };
  template <class T>
  static constexpr KelvoIfUserData kNativeEntries = {
      koNativeEntry<&UserDataMixin::SetUserData, T>::Call,
      koNativeEntry<&UserDataMixin::GetUserData, T>::Call,
  };
  template <class T>
  static constexpr psInterface kInterface = {"ifUserData", kFunctions<T>, &kNativeEntries<T>};

 private:
  GuardedObjectRef m_user_data;
};

// --- Identity ---------------------------------------------------------------------------------

// A number that no other object of the process has; never 0.
class IdentityGeneratorFromCounter {
 public:
  IdentityGeneratorFromCounter();
  int32_t Get() const { return m_identity; }

 private:
  int32_t m_identity;
};

class IdentityMixin {
 public:
  int32_t GetIdentity() const { return m_this_identity.Get(); }

  static constexpr std::string_view kInterfaceName = "ifIdentity";
  template <class T>
  static constexpr fundes kFunctions[] = {
      koMethod<&IdentityMixin::GetIdentity, T>("GetIdentity"),
      {},
  };
  template <class T>
  static constexpr psInterface kInterface = {"ifIdentity", kFunctions<T>};

 private:
  const IdentityGeneratorFromCounter m_this_identity;
};

// The identity of the object that posted an event; 0 for an event that a script made.
class SourceIdentityMixin {
 public:
  int32_t GetSourceIdentity() const { return m_source_identity; }
  // Before the event is posted.
  void SetSourceIdentity(int32_t identity) { m_source_identity = identity; }

  static constexpr std::string_view kInterfaceName = "ifSourceIdentity";
  template <class T>
  static constexpr fundes kFunctions[] = {
      koMethod<&SourceIdentityMixin::GetSourceIdentity, T>("GetSourceIdentity"),
      {},
  };
  template <class T>
  static constexpr psInterface kInterface = {"ifSourceIdentity", kFunctions<T>};

 private:
  int32_t m_source_identity = 0;
};

// --- Failure reason ---------------------------------------------------------------------------

// The text of the last failure; empty until there was one. An exception that leaves a method of the
// class ends up here. Any thread.
class FailureReasonNoInterfaceMixin {
 public:
  std::string GetFailureReason() const;
  void SetFailureReason(std::string reason);

 private:
  mutable std::mutex m_failure_mutex;
  std::string m_failure_reason;  // guarded by m_failure_mutex
};

class FailureReasonMixin : public FailureReasonNoInterfaceMixin {
 public:
  static constexpr std::string_view kInterfaceName = "ifFailureReason";
  template <class T>
  static constexpr fundes kFunctions[] = {
      koMethod<&FailureReasonNoInterfaceMixin::GetFailureReason, T>("GetFailureReason"),
      {},
  };
  template <class T>
  static constexpr psInterface kInterface = {"ifFailureReason", kFunctions<T>};
};

// --- Values of events -------------------------------------------------------------------------
// An event with one of these acts as an integer, or a text, wherever a script uses it as one.

// Set before the event is posted, or by the script.
class IntValueMixin {
 public:
  int32_t GetInt() const { return m_int; }
  void SetInt(int32_t value) { m_int = value; }

  static constexpr std::string_view kInterfaceName = "ifInt";
  template <class T>
  static constexpr fundes kFunctions[] = {
      koMethod<&IntValueMixin::GetInt, T>("GetInt"),
      koMethod<&IntValueMixin::SetInt, T>("SetInt"),
      {},
  };
  template <class T>
  static constexpr psIfInt kNativeEntries = {
      koNativeEntry<&IntValueMixin::GetInt, T>::Call,
      koNativeEntry<&IntValueMixin::SetInt, T>::Call,
  };
  template <class T>
  static constexpr psInterface kInterface = {"ifInt", kFunctions<T>, &kNativeEntries<T>};

 private:
  int32_t m_int = 0;
};

// Set before the event is posted, or by the script. The text ends before its first NUL.
class StringValueMixin {
 public:
  psText GetString() const { return {m_text.c_str(), m_text.size()}; }
  void SetString(psText text);
  // False, and unchanged, when memory is refused.
  bool TrySetString(psText text) noexcept;

  static constexpr std::string_view kInterfaceName = "ifString";
  template <class T>
  static constexpr fundes kFunctions[] = {
      koMethod<&StringValueMixin::GetString, T>("GetString"),
      koMethod<&StringValueMixin::SetString, T>("SetString"),
      {},
  };
  template <class T>
  static constexpr psIfString kNativeEntries = {
      koNativeEntry<&StringValueMixin::GetString, T>::Call,
      koNativeEntry<&StringValueMixin::TrySetString, T>::Call,
  };
  template <class T>
  static constexpr psInterface kInterface = {"ifString", kFunctions<T>, &kNativeEntries<T>};

 private:
  KelvoText m_text;
};

// --- Sending ----------------------------------------------------------------------------------

// Text and bytes to a stream. The script's thread only.
class StreamSendMixin {
 public:
  virtual ~StreamSendMixin() = default;

  void SendByte(int32_t byte);  // its low eight bits
  void SendLine(psText line);   // followed by the end-of-line text, in one piece
  void SendBlock(const KelvoTypedValue& block);
  void SetSendEol(psText eol);
  void Flush() { DoFlush(); }

  static constexpr std::string_view kInterfaceName = "ifStreamSend";
  template <class T>
  static constexpr fundes kFunctions[] = {
      koMethod<&StreamSendMixin::SendByte, T>("SendByte"),
      koMethod<&StreamSendMixin::SendLine, T>("SendLine"),
      koMethod<&StreamSendMixin::SendBlock, T>("SendBlock"),
      koMethod<&StreamSendMixin::SetSendEol, T>("SetSendEol"),
      koMethod<&StreamSendMixin::Flush, T>("Flush"),
      {},
  };
  template <class T>
  static constexpr psInterface kInterface = {"ifStreamSend", kFunctions<T>};

 protected:
  // What the object does with bytes; both may throw.
  virtual void DoSend(std::string_view bytes) = 0;
  virtual void DoFlush() {}

 private:
  std::string m_send_eol = "\r\n";
};

// --- Templates --------------------------------------------------------------------------------

template <class Event, class Sender, class... Params>
bool MessageSourceBase::PostMessage(Sender& sender, Params&&... params) noexcept {
  if (!IsListenedTo()) return false;
  try {
    // Until the event is out of our hands: what the collector found there it would not touch, nor
    // anything that the event leads to.
    const CollectorLock lock(sender.GetDomain());
    KelvoObjectRef ref = KelvoNewObject<Event>(sender.GetDomain(), std::forward<Params>(params)...);
    Event& event = Event::FromHandle(ref.Get());
    if constexpr (std::derived_from<Sender, UserDataMixin> &&
                  std::derived_from<Event, UserDataMixin>) {
      event.SetUserDataRef(sender.GetUserDataRef());
    }
    if constexpr (std::derived_from<Sender, IdentityMixin> &&
                  std::derived_from<Event, SourceIdentityMixin>) {
      event.SetSourceIdentity(sender.GetIdentity());
    }
    return Post(std::move(ref));
  } catch (...) {
    LogLostEvent(Event::sm_class.ln_Name);
    return false;
  }
}
