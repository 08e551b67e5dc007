// The shared interfaces, and events on their way from any thread to a port.
#include <atomic>
#include <functional>
#include <thread>

#include "lib/scripting/CommonAPI/Include/ko_container.h"
#include "lib/scripting/CommonAPI/Include/stream_receive_mixin.h"
#include "lib/scripting/Plumscript/Source/ps_heap.h"
#include "tests/objects/object_test.h"

namespace {

using object_test::Arg;
using object_test::describe;
using object_test::Objects;
using object_test::Value;

class PulseEventInstance final
    : public MixinForwarder<PulseEventInstance, KelvoObjectInstance<PulseEventInstance>,
                            UserDataMixin, SourceIdentityMixin, IntValueMixin, StringValueMixin> {
 public:
  static pscClass sm_class;
  PulseEventInstance() = default;
  PulseEventInstance(int32_t number, std::string_view text) {
    SetInt(number);
    SetString(text);
  }
  // The last step before an event is posted.
  static inline std::function<void()> before_posting;
  void SetSourceIdentity(int32_t identity) {
    SourceIdentityMixin::SetSourceIdentity(identity);
    if (before_posting) before_posting();
  }
};
constexpr psInterface kPulseEventInterfaces[] = {
    UserDataMixin::kInterface<PulseEventInstance>,
    SourceIdentityMixin::kInterface<PulseEventInstance>,
    IntValueMixin::kInterface<PulseEventInstance>,
    StringValueMixin::kInterface<PulseEventInstance>,
};
constinit pscClass PulseEventInstance::sm_class =
    KelvoClass<PulseEventInstance>("koPulseEvent", kPulseEventInterfaces);

class PulseInstance final
    : public MixinForwarder<PulseInstance, KelvoObjectInstance<PulseInstance>, MessageSourceMixin,
                            UserDataMixin, IdentityMixin> {
 public:
  static pscClass sm_class;
  static inline std::function<void()> on_death;
  ~PulseInstance() {
    if (on_death) on_death();
  }
  bool Fire(int32_t number, std::string_view text = {}) {
    return PostMessage<PulseEventInstance>(*this, number, text);
  }
};
constexpr psInterface kPulseInterfaces[] = {
    MessageSourceMixin::kInterface<PulseInstance>,
    UserDataMixin::kInterface<PulseInstance>,
    IdentityMixin::kInterface<PulseInstance>,
};
constinit pscClass PulseInstance::sm_class = KelvoClass<PulseInstance>("koPulse", kPulseInterfaces);

// Sends to a text; receives what the test says.
class WireInstance final
    : public MixinForwarder<WireInstance, KelvoObjectInstance<WireInstance>, StreamReceiveMixin,
                            UserDataMixin, StreamSendMixin, FailureReasonMixin> {
 public:
  static pscClass sm_class;
  std::string m_sent;
  int m_flushed = 0;

  void Take(std::string_view bytes) {
    Receive(*this, {reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()});
  }

 private:
  void DoSend(std::string_view bytes) override {
    if (bytes == "!") throw std::runtime_error("Stream not open");
    m_sent += bytes;
  }
  void DoFlush() override { m_flushed++; }
};
constexpr psInterface kWireInterfaces[] = {
    StreamReceiveMixin::kInterface<WireInstance>,
    UserDataMixin::kInterface<WireInstance>,
    StreamSendMixin::kInterface<WireInstance>,
    FailureReasonMixin::kInterface<WireInstance>,
};
constinit pscClass WireInstance::sm_class = KelvoClass<WireInstance>("koWire", kWireInterfaces);

// Observes a stream, and posts an event for each block as a sequence matcher may.
class ObserverInstance final
    : public MixinForwarder<ObserverInstance, KelvoObjectInstance<ObserverInstance>,
                            MessageSourceMixin> {
 public:
  static pscClass sm_class;
  std::string m_seen;
  void Observe(const uint8_t* bytes, size_t size) {
    m_seen.append(reinterpret_cast<const char*>(bytes), size);
    PostMessage<PulseEventInstance>(*this, static_cast<int32_t>(size), "");
  }
};
constexpr fundes kNoFunctions[] = {{}};
constexpr KelvoIfStreamReceiveObserver kObserverEntries = {
    koNativeEntry<&ObserverInstance::Observe, ObserverInstance>::Call};
constexpr psInterface kObserverInterfaces[] = {
    MessageSourceMixin::kInterface<ObserverInstance>,
    {"ifStreamReceiveObserver", kNoFunctions, &kObserverEntries},
};
constinit pscClass ObserverInstance::sm_class =
    KelvoClass<ObserverInstance>("koObserver", kObserverInterfaces);

class Mixins : public Objects {
 protected:
  Mixins()
      : Objects({&PulseEventInstance::sm_class, &PulseInstance::sm_class, &WireInstance::sm_class,
                 &ObserverInstance::sm_class}) {}
  ~Mixins() override {
    psHeapSetLimit(SIZE_MAX);
    PulseEventInstance::before_posting = nullptr;
    PulseInstance::on_death = nullptr;
  }

  Value port{pscNewComponentByName(domain(), "koMessagePort")};

  // What the port holds, each event as its class and value.
  std::string events(const Value& from) {
    std::string text;
    for (;;) {
      const Value event = take(from);
      if (event.object() == nullptr) return text;
      const pscClass* cl = event.object()->psc_class;
      text += text.empty() ? "" : " ";
      if (cl->if_int != nullptr) {
        text += std::to_string(cl->if_int->GetInt(event.object()));
      } else if (cl->if_string != nullptr) {
        text += '"' + std::string(cl->if_string->GetText(event.object())) + '"';
      } else {
        const Value bytes = core.call(event.object(), "GetByteArray", {});
        text += '[' + std::string(KelvoByteSequence(bytes.object()).Text()) + ']';
      }
    }
  }
  std::string events() { return events(port); }
};

TEST_F(Mixins, AnEventCarriesItsSendersMarks) {
  const Value pulse = create("koPulse");
  const Value other = create("koPulse");
  const std::string identity = call(pulse, "GetIdentity");
  EXPECT_NE(identity, "0");
  EXPECT_NE(identity, call(other, "GetIdentity"));
  EXPECT_EQ(call(pulse, "GetUserData"), "invalid");

  callWith(pulse, "SetPort", {port.copy()});
  callWith(pulse, "SetUserData", {psObjectValue(psNewString(domain(), "mark"))});
  EXPECT_TRUE(PulseInstance::FromHandle(pulse.object()).Fire(7, {"on\0off", 6}));
  const Value event = take(port);
  EXPECT_EQ(call(event, "GetUserData"), "\"mark\"");
  EXPECT_EQ(call(event, "GetSourceIdentity"), identity);
  EXPECT_EQ(call(event, "GetInt"), "7");
  EXPECT_EQ(call(event, "GetString"), "\"on\"");
  // It is used as a number and as a text, and changed by the script.
  EXPECT_EQ(IntVal(&event.get()), 7);
  EXPECT_EQ(GetStringPtr(&event.get()), "on");
  call(event, "SetInt", {8});
  call(event, "SetString", {"again"});
  EXPECT_EQ(IntVal(&event.get()), 8);
  EXPECT_EQ(GetStringPtr(&event.get()), "again");

  call(pulse, "SetUserData", {nullptr});
  EXPECT_EQ(call(pulse, "GetUserData"), "invalid");
  EXPECT_EQ(call(event, "GetUserData"), "\"mark\"");
  // A script may make an event of its own.
  EXPECT_EQ(call(create("koPulseEvent"), "GetSourceIdentity"), "0");
}

TEST_F(Mixins, OnlyAMessagePortIsAPort) {
  const Value pulse = create("koPulse");
  PulseInstance& source = PulseInstance::FromHandle(pulse.object());
  EXPECT_FALSE(source.Fire(1));
  callWith(pulse, "SetPort", {port.copy()});
  EXPECT_TRUE(source.Fire(2));
  // An object that takes a port itself has an interface of that name, too.
  callWith(pulse, "SetPort", {psObjectValue(create("koPulse").take().value.psc)});
  EXPECT_FALSE(source.Fire(3));
  callWith(pulse, "SetPort", {port.copy()});
  EXPECT_TRUE(source.Fire(4));
  call(pulse, "SetPort", {nullptr});
  EXPECT_FALSE(source.Fire(5));
  EXPECT_EQ(events(), "2 4");
}

TEST_F(Mixins, AnEventOutlivesItsSender) {
  KelvoObjectRef native;
  {
    const Value pulse = create("koPulse");
    callWith(pulse, "SetPort", {port.copy()});
    callWith(pulse, "SetUserData", {psObjectValue(psNewString(domain(), "mark"))});
    native = KelvoObjectRef(pulse.object());
  }
  EXPECT_TRUE(PulseInstance::FromHandle(native.Get()).Fire(1));
  native.Reset();
  EXPECT_EQ(call(take(port), "GetUserData"), "\"mark\"");
}

TEST_F(Mixins, CyclesThroughPortsAndUserDataAreCollected) {
  {
    const Value pulse = create("koPulse");
    const Value own_port(pscNewComponentByName(domain(), "koMessagePort"));
    callWith(pulse, "SetPort", {own_port.copy()});
    callWith(pulse, "SetUserData", {pulse.copy()});
    EXPECT_TRUE(PulseInstance::FromHandle(pulse.object()).Fire(1));
    const Value wire = create("koWire");
    callWith(wire, "SetUserData", {wire.copy()});
    callWith(wire, "SetLineEventPort", {own_port.copy()});
    callWith(own_port, "PostMessage", {wire.copy()});
  }
  // Two sources, the port with its queue, the event.
  EXPECT_EQ(pscGarbageCollect(domain()).orphaned, 5);
}

TEST_F(Mixins, AnEventThatMemoryRefusesIsLost) {
  const Value pulse = create("koPulse");
  callWith(pulse, "SetPort", {port.copy()});
  PulseInstance& source = PulseInstance::FromHandle(pulse.object());
  EXPECT_TRUE(source.Fire(1));  // the slabs for the small parts are there
  testing::internal::CaptureStderr();
  psHeapSetLimit(psHeapUsed() + 100'000);
  const std::string payload(1'000'000, 'x');
  EXPECT_FALSE(source.Fire(2, payload));
  psHeapSetLimit(SIZE_MAX);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Failed to post koPulseEvent: std::bad_alloc\n");
  EXPECT_TRUE(source.Fire(3, payload));
  EXPECT_EQ(events(), "1 3");
}

// Sources on threads of their own, a script that listens, rewires and collects.
TEST_F(Mixins, ThreadsPostWhileTheScriptWorks) {
  constexpr int kThreads = 3;
  constexpr int kEach = 300;
  std::vector<Value> pulses;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; t++) {
    pulses.push_back(create("koPulse"));
    const Value& pulse = pulses.back();
    callWith(pulse, "SetPort", {port.copy()});
    callWith(pulse, "SetUserData", {psObjectValue(psNewAssociativeArray(domain()))});
    threads.emplace_back([source = KelvoObjectRef(pulse.object())] {
      for (int i = 0; i < kEach; i++) {
        EXPECT_TRUE(PulseInstance::FromHandle(source.Get()).Fire(i, "some text of the event"));
      }
    });
  }
  for (int received = 0; received < kThreads * kEach; received++) {
    const void* methods = pscGetMethods(port.object(), "ifMessagePort");
    const Value event(
        static_cast<const psIfMessagePort*>(methods)->WaitMessage(port.object(), 60'000));
    ASSERT_NE(event.object(), nullptr);
    EXPECT_EQ(call(event, "GetUserData"), "{}");
    if (received % 50 != 0) continue;
    // A cycle: the data knows the event that brings it.
    const Value data = core.call(event.object(), "GetUserData", {});
    psAssocAddReplace(pscData<psAssocArray>(data.object()), "self", psKeyHash("self"), data.copy());
    for (const Value& pulse : pulses) {
      callWith(pulse, "SetUserData", {psObjectValue(psNewAssociativeArray(domain()))});
      callWith(pulse, "SetPort", {port.copy()});
    }
    core.call(data.object(), "Clear", {});
    pscGarbageCollect(domain());
  }
  for (std::thread& thread : threads) thread.join();
}

// Handling an event, a script may let go of all that leads to the source while the source is still
// at its post. It is destroyed when that is over, not by it: its destructor waits for the posting
// thread, as for the poll thread.
TEST_F(Mixins, APostNeverDestroysItsSource) {
  constexpr int kRounds = 500;
  PulseInstance* source = nullptr;
  std::atomic<PulseInstance*> serving{nullptr};
  std::atomic<bool> posting{false}, quit{false};
  std::atomic<int> deaths{0};
  std::thread poster([&] {
    while (!quit) {
      posting = true;
      if (PulseInstance* served = serving) served->Fire(1);
      posting = false;
      std::this_thread::yield();
    }
  });
  PulseInstance::on_death = [&] {
    EXPECT_NE(std::this_thread::get_id(), poster.get_id());
    serving = nullptr;
    while (posting && std::this_thread::get_id() != poster.get_id()) std::this_thread::yield();
    deaths++;
  };
  // A source that only its user data leads to.
  const auto doom = [&] {
    const Value pulse = create("koPulse");
    source = &PulseInstance::FromHandle(pulse.object());
    KelvoAssocArrayCreator data(domain());
    data.Set("source", KelvoObjectRef(pulse.object()));
    source->SetUserData(data.Get().Get());
    source->SetPort(port.object());
  };
  for (int round = 0; round < kRounds; round++) {
    doom();
    serving = source;
    const void* methods = pscGetMethods(port.object(), "ifMessagePort");
    Value event(static_cast<const psIfMessagePort*>(methods)->WaitMessage(port.object(), 60'000));
    source->SetUserData(nullptr);
    for (event = Value(); deaths == round;) take(port);
  }
  quit = true;
  poster.join();

  // Nor is it when no port has taken the event.
  PulseEventInstance::before_posting = [&] {
    source->SetPort(nullptr);
    source->SetUserData(nullptr);
  };
  doom();
  EXPECT_FALSE(source->Fire(1));
  EXPECT_EQ(deaths, kRounds);
  pscGarbageCollect(domain());
  EXPECT_EQ(deaths, kRounds + 1);
}

// --- Streams ----------------------------------------------------------------------------------

TEST_F(Mixins, SendsTextAndBytes) {
  const Value wire = create("koWire");
  WireInstance& object = WireInstance::FromHandle(wire.object());
  call(wire, "SendByte", {'a' + 256});
  call(wire, "SendLine", {"line"});
  call(wire, "SetSendEol", {"|"});
  call(wire, "SendLine", {"next"});
  call(wire, "SendBlock", {"block"});
  callWith(wire, "SendBlock", {psObjectValue(psNewByteArray(domain(), "\0z", 2))});
  EXPECT_EQ(object.m_sent, std::string("aline\r\nnext|block\0z", 19));
  call(wire, "Flush");
  EXPECT_EQ(object.m_flushed, 1);

  testing::internal::CaptureStderr();
  call(wire, "SendBlock", {7});
  EXPECT_EQ(call(wire, "GetFailureReason"), "\"Parameter is neither a string nor a byte array\"");
  callWith(wire, "SendBlock", {psObjectValue(psNewList(domain()))});
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "KelvoByteSequence: parameter is neither a string nor a byte array.\n"
            "KelvoByteSequence: parameter is an object but neither a string nor a byte array.\n");
  call(wire, "SendByte", {'!'});
  EXPECT_EQ(call(wire, "GetFailureReason"), "\"Stream not open\"");
}

TEST_F(Mixins, ReceivesBytesLinesAndBlocks) {
  const Value wire = create("koWire");
  WireInstance& object = WireInstance::FromHandle(wire.object());
  callWith(wire, "SetUserData", {psObjectValue(psNewString(domain(), "mark"))});
  object.Take("nobody listens\r\nlost");
  callWith(wire, "SetByteEventPort", {port.copy()});
  object.Take("\xff\r");
  EXPECT_EQ(events(), "255 13");
  call(wire, "SetByteEventPort", {nullptr});

  callWith(wire, "SetLineEventPort", {port.copy()});
  object.Take("one\r\ntw");
  object.Take("o\r");
  object.Take("\n\r\nab\rcd\r\n");
  EXPECT_EQ(events(), "\"one\" \"two\" \"\" \"ab\rcd\"");
  call(wire, "SetReceiveEol", {"END"});
  object.Take("abENDcdENxEN");
  EXPECT_EQ(events(), "\"ab\"");
  object.Take("DEND");
  EXPECT_EQ(events(), "\"cdENx\" \"\"");
  call(wire, "SetReceiveEol", {10});
  object.Take("x\ny");
  EXPECT_EQ(events(), "\"x\"");
  call(wire, "SetReceiveEol", {""});
  object.Take("z\n");
  EXPECT_EQ(events(), "");
  call(wire, "SetReceiveEol", {"\n"});
  object.Take("\n");
  EXPECT_EQ(events(), "\"yz\n\"");

  callWith(wire, "SetByteArrayEventPort", {port.copy()});
  object.Take(std::string_view("a\0b\n", 4));
  EXPECT_EQ(events(), "\"a\" [" + std::string("a\0b\n", 4) + "]");
  object.Take("");
  EXPECT_EQ(events(), "");
  object.Take("c");
  EXPECT_EQ(call(take(port), "GetUserData"), "\"mark\"");
}

TEST_F(Mixins, ALineWithoutEndComesInPieces) {
  const Value wire = create("koWire");
  callWith(wire, "SetLineEventPort", {port.copy()});
  testing::internal::CaptureStderr();
  WireInstance::FromHandle(wire.object()).Take(std::string(kKelvoMaxStreamLine + 2, 'x') + "\r\n");
  EXPECT_NE(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(call(take(port), "GetString").size(), kKelvoMaxStreamLine + 2);
  EXPECT_EQ(events(), "\"xx\"");
}

TEST_F(Mixins, EventsAboutTheStreamGoToTheFirstPort) {
  const Value wire = create("koWire");
  WireInstance& object = WireInstance::FromHandle(wire.object());
  const auto end = [&](int code) {
    return object.PostToFirstPort<StreamEndEventInstance>(object, code);
  };
  const Value second(pscNewComponentByName(domain(), "koMessagePort"));
  EXPECT_FALSE(end(1));
  callWith(wire, "SetLineEventPort", {port.copy()});
  EXPECT_TRUE(end(2));
  callWith(wire, "SetByteArrayEventPort", {second.copy()});
  EXPECT_TRUE(end(3));
  callWith(wire, "SetByteEventPort", {port.copy()});
  EXPECT_TRUE(end(4));
  EXPECT_EQ(events(), "2 4");
  EXPECT_EQ(events(second), "3");
}

TEST_F(Mixins, AMatcherSeesWholeBlocks) {
  const Value wire = create("koWire");
  const Value observer = create("koObserver");
  WireInstance& object = WireInstance::FromHandle(wire.object());
  const std::string& seen = ObserverInstance::FromHandle(observer.object()).m_seen;
  EXPECT_EQ(describe(callWith(wire, "SetMatcher", {observer.copy()})), "true");
  object.Take("ab");
  object.Take("c");
  EXPECT_EQ(seen, "abc");
  EXPECT_EQ(describe(callWith(wire, "SetMatcher", {port.copy()})), "true");
  object.Take("d");
  EXPECT_EQ(describe(callWith(wire, "SetMatcher", {observer.copy()})), "true");
  EXPECT_EQ(call(wire, "SetMatcher", {nullptr}), "true");
  object.Take("e");
  EXPECT_EQ(seen, "abc");
}

// The matcher is fed under a lock and takes the collector's; the collector asks the stream for its
// matcher.
TEST_F(Mixins, AMatcherIsFedWhileTheCollectorRuns) {
  const Value wire = create("koWire");
  const Value observer = create("koObserver");
  callWith(observer, "SetPort", {port.copy()});
  callWith(wire, "SetMatcher", {observer.copy()});
  std::thread reader([source = KelvoObjectRef(wire.object())] {
    for (int i = 0; i < 500; i++) WireInstance::FromHandle(source.Get()).Take("x");
  });
  for (int i = 0; i < 200; i++) {
    pscGarbageCollect(domain());
    callWith(wire, "SetMatcher", {observer.copy()});
  }
  reader.join();
  EXPECT_EQ(ObserverInstance::FromHandle(observer.object()).m_seen.size(), 500u);
}

}  // namespace
