// Classes bound by the framework: creation, methods, failures, references.
#include <functional>
#include <thread>

#include "lib/scripting/CommonAPI/Include/object_globals.h"
#include "tests/objects/object_test.h"

namespace {

using object_test::describe;
using object_test::Objects;
using object_test::Value;

int alive = 0;

// Constructed with a text and a number, and with methods of every shape.
class GaugeInstance final
    : public MixinForwarder<GaugeInstance, KelvoObjectInstance<GaugeInstance, psText, int32_t>,
                            FailureReasonMixin, IdentityMixin> {
 public:
  static pscClass sm_class;
  GaugeInstance() { alive++; }
  ~GaugeInstance() { alive--; }
  bool Init(psText name, int32_t limit) {
    if (name.empty()) throw std::runtime_error("No name");
    m_name = name;
    m_limit = limit;
    return limit > 0;
  }

  std::string GetName() const { return m_name; }
  int32_t Add(int32_t a, int32_t b, int32_t c) const noexcept { return a + b + c; }
  bool Within(double x) const { return x < m_limit; }
  float Half(float x) { return x / 2; }
  double Precise(double x) { return x / 3; }
  KelvoTypedValue Echo(KelvoTypedValue value) { return value; }
  KelvoObjectRef Self() { return KelvoObjectRef(GetHandle()); }
  KelvoObjectRef Nothing() { return {}; }
  void Rename(psText name) { m_name = name; }
  std::string_view Cut() { return {"ab\0cd", 5}; }

  template <class R>
  R Fail(KelvoTypedValue reason) {
    throw std::runtime_error(reason.ToString());
  }
  int32_t FailOddly() { throw 3; }
  int32_t CountArguments(std::vector<KelvoTypedValue> args) {
    if (args.empty()) throw std::runtime_error("None");
    return static_cast<int32_t>(args.size());
  }

 private:
  std::string m_name;
  int32_t m_limit = 0;
};

constexpr fundes kGaugeFunctions[] = {
    koMethod<&GaugeInstance::GetName>("GetName"),
    koMethod<&GaugeInstance::Add>("Add"),
    koMethod<&GaugeInstance::Within>("Within"),
    koMethod<&GaugeInstance::Half>("Half"),
    koMethod<&GaugeInstance::Precise>("Precise"),
    koMethod<&GaugeInstance::Echo>("Echo"),
    koMethod<&GaugeInstance::Self>("Self"),
    koMethod<&GaugeInstance::Nothing>("Nothing"),
    koMethod<&GaugeInstance::Rename>("Rename"),
    koMethod<&GaugeInstance::Cut>("Cut"),
    koMethod<&GaugeInstance::Fail<int32_t>>("FailInteger"),
    koMethod<&GaugeInstance::Fail<bool>>("FailBoolean"),
    koMethod<&GaugeInstance::Fail<double>>("FailDouble"),
    koMethod<&GaugeInstance::Fail<std::string>>("FailText"),
    koMethod<&GaugeInstance::Fail<KelvoObjectRef>>("FailObject"),
    koMethod<&GaugeInstance::Fail<pscInstance*>>("FailHandle"),
    koMethod<&GaugeInstance::Fail<KelvoTypedValue>>("FailDynamic"),
    koMethod<&GaugeInstance::Fail<void>>("FailVoid"),
    koMethod<&GaugeInstance::FailOddly>("FailOddly"),
    koVariadicMethod<&GaugeInstance::CountArguments>("CountArguments"),
    {},
};
constexpr psInterface kGaugeInterfaces[] = {
    FailureReasonMixin::kInterface<GaugeInstance>,
    {"ifGauge", kGaugeFunctions},
    IdentityMixin::kInterface<GaugeInstance>,
};
constinit pscClass GaugeInstance::sm_class = KelvoClass<GaugeInstance>("koGauge", kGaugeInterfaces);

// No constructor arguments, no mixins, no failure reason; shared state of the class.
class PlainInstance final
    : public MixinForwarder<PlainInstance, KelvoObjectInstance<PlainInstance>> {
 public:
  static pscClass sm_class;
  static inline int classes = 0;
  static bool koInitClass(pscClass* cl) {
    EXPECT_EQ(cl, &sm_class);
    return ++classes == 1;
  }
  static void koUninitClass(pscClass*) { classes--; }

  int32_t Fail() { throw std::runtime_error("Broken"); }
};
constexpr fundes kPlainFunctions[] = {koMethod<&PlainInstance::Fail>("Fail"), {}};
constexpr psInterface kPlainInterfaces[] = {{"ifPlain", kPlainFunctions}};
constinit pscClass PlainInstance::sm_class = KelvoClass<PlainInstance>("koPlain", kPlainInterfaces);

// Any number of arguments; holds what it is given.
class HolderInstance final
    : public MixinForwarder<HolderInstance, KelvoObjectInstanceV<HolderInstance>> {
 public:
  static pscClass sm_class;
  bool Init(std::vector<KelvoTypedValue> args) {
    for (const KelvoTypedValue& arg : args) m_held.Set(arg.CoerceToObject(GetDomain()));
    return args.size() != 3;
  }
  void Hold(pscInstance* object) { m_held.Set(KelvoObjectRef(object)); }

  void EnumOwnReferences(const KelvoReferenceVisitor& visit) const { m_held.EnumReferences(visit); }
  void BreakOwnReferences() { m_held.BreakReferences(); }

 private:
  GuardedObjectRef m_held;
};
constexpr fundes kHolderFunctions[] = {koMethod<&HolderInstance::Hold>("Hold"), {}};
constexpr psInterface kHolderInterfaces[] = {{"ifHolder", kHolderFunctions}};
constinit pscClass HolderInstance::sm_class =
    KelvoClass<HolderInstance>("koHolder", kHolderInterfaces);

// Tells the test when the collector asks it for its references, and when it dies.
class WatchedInstance final
    : public MixinForwarder<WatchedInstance, KelvoObjectInstance<WatchedInstance>, UserDataMixin> {
 public:
  static pscClass sm_class;
  static inline std::function<void()> on_enum;
  static inline std::function<void()> on_death;
  ~WatchedInstance() {
    if (on_death) on_death();
  }
  void EnumOwnReferences(const KelvoReferenceVisitor&) const {
    if (on_enum) on_enum();
  }
};
constexpr psInterface kWatchedInterfaces[] = {UserDataMixin::kInterface<WatchedInstance>};
constinit pscClass WatchedInstance::sm_class =
    KelvoClass<WatchedInstance>("koWatched", kWatchedInterfaces);

class Framework : public Objects {
 protected:
  Framework()
      : Objects({&GaugeInstance::sm_class, &PlainInstance::sm_class, &HolderInstance::sm_class,
                 &WatchedInstance::sm_class}) {}
};

TEST_F(Framework, CreatesWithTheConstructorsArguments) {
  {
    const Value gauge = create("kogauge", {"depth", 7});
    ASSERT_NE(gauge.object(), nullptr);
    EXPECT_EQ(call(gauge, "GetName"), "\"depth\"");
    EXPECT_EQ(call(gauge, "Within", {6.5}), "true");
    EXPECT_EQ(GaugeInstance::Cast(gauge.object()), &GaugeInstance::FromHandle(gauge.object()));
    EXPECT_EQ(PlainInstance::Cast(gauge.object()), nullptr);
    EXPECT_EQ(alive, 1);
  }
  EXPECT_EQ(alive, 0);
  EXPECT_EQ(describe(create("koGauge")), "invalid");
  EXPECT_EQ(describe(create("koGauge", {"depth"})), "invalid");
  EXPECT_EQ(status, kPsComponentParameterCount);
  EXPECT_EQ(describe(create("koGauge", {"depth", "seven"})), "invalid");
  EXPECT_EQ(status, kPsTypeMismatch);
  EXPECT_EQ(describe(create("koPlain", {1})), "invalid");
  EXPECT_EQ(core.takePrinted(), "");
}

TEST_F(Framework, ARefusedCreationLeavesNothing) {
  EXPECT_EQ(describe(create("koGauge", {"depth", 0})), "invalid");
  EXPECT_EQ(status, kPsOkay);
  EXPECT_EQ(core.takePrinted(), "");
  EXPECT_EQ(describe(create("koGauge", {"", 1})), "invalid");
  EXPECT_EQ(core.takePrinted(), "Plumscript creation of koGauge failed:\n  No name\n");
  EXPECT_EQ(alive, 0);
}

TEST_F(Framework, CreatesWithAnyNumberOfArguments) {
  EXPECT_EQ(describe(create("koHolder")), "<koHolder>");
  EXPECT_EQ(describe(create("koHolder", {1, "two"})), "<koHolder>");
  EXPECT_EQ(describe(create("koHolder", {1, "two", nullptr})), "invalid");
  EXPECT_EQ(core.takePrinted(), "");
  EXPECT_EQ(describe(createWith("koHolder", {psMakeValue(kPsVoidPtrFlag, 0)})), "invalid");
  EXPECT_EQ(core.takePrinted(),
            "Plumscript creation of koHolder failed:\n  Failed to convert value to object\n");
}

TEST_F(Framework, MethodsTakeAndGiveWhatTheirSignaturesSay) {
  const Value gauge = create("koGauge", {"depth", 7});
  EXPECT_EQ(call(gauge, "Add", {1, 2.5f, 3}), "6");
  EXPECT_EQ(call(gauge, "Half", {3}), "1.5f");
  EXPECT_EQ(call(gauge, "Precise", {1}), "0.33333333333333331d");
  EXPECT_EQ(call(gauge, "Echo", {"text"}), "\"text\"");
  EXPECT_EQ(describe(callWith(gauge, "Echo", {psObjectValue(psNewList(domain()))})), "<koList[]>");
  EXPECT_EQ(call(gauge, "Self"), "<koGauge>");
  EXPECT_EQ(call(gauge, "Nothing"), "invalid");
  EXPECT_EQ(call(gauge, "Rename", {"width"}), "invalid");
  EXPECT_EQ(call(gauge, "GetName"), "\"width\"");
  EXPECT_EQ(call(gauge, "Cut"), "\"ab\"");
  EXPECT_EQ(call(gauge, "CountArguments", {1, "two", 3.5}), "3");
  const fundes* add = pscFindMemberFunction(gauge.object(), "ADD", 3).function;
  EXPECT_EQ(add->nargs, 3);
  EXPECT_EQ(add->rtype, psInteger);
  EXPECT_EQ(pscGetParamType(add, 2), psInteger);
  EXPECT_EQ(pscFindMemberFunction(gauge.object(), "Echo", 1).function->params[0], psDynamic);
}

TEST_F(Framework, AFailingMethodLeavesItsReason) {
  const Value gauge = create("koGauge", {"depth", 7});
  EXPECT_EQ(call(gauge, "GetFailureReason"), "\"\"");
  const struct {
    const char* method;
    const char* result;
  } rows[] = {{"FailInteger", "0"},       {"FailBoolean", "false"},  {"FailDouble", "0d"},
              {"FailText", "\"\""},       {"FailObject", "invalid"}, {"FailHandle", "invalid"},
              {"FailDynamic", "invalid"}, {"FailVoid", "invalid"}};
  for (const auto& row : rows) {
    EXPECT_EQ(call(gauge, row.method, {row.method}), row.result);
    EXPECT_EQ(core.status(), kPsOkay);
    EXPECT_EQ(call(gauge, "GetFailureReason"), '"' + std::string(row.method) + '"');
  }
  EXPECT_EQ(call(gauge, "FailOddly"), "0");
  EXPECT_EQ(call(gauge, "GetFailureReason"), "\"unknown exception\"");
  EXPECT_EQ(call(gauge, "CountArguments"), "0");
  EXPECT_EQ(call(gauge, "GetFailureReason"), "\"None\"");
  EXPECT_EQ(core.takePrinted(), "");

  EXPECT_EQ(call(create("koPlain"), "Fail"), "0");
  EXPECT_EQ(core.takePrinted(), "koPlain: Broken\n");
}

TEST_F(Framework, ClassHooksRunOncePerRegistration) { EXPECT_EQ(PlainInstance::classes, 1); }

TEST_F(Framework, InterfacesStandInTheOrderOfTheTable) {
  std::string names;
  for (const psInterface& iface : GaugeInstance::sm_class.interfaces) {
    names += std::string(iface.name) + ' ';
  }
  EXPECT_EQ(names, "ifFailureReason ifGauge ifIdentity ");
}

TEST_F(Framework, OwnReferencesAreCollected) {
  EXPECT_EQ(PlainInstance::sm_class.enum_refs, nullptr);
  const Value holder = create("koHolder");
  callWith(holder, "Hold", {psObjectValue(psNewList(domain()))});
  EXPECT_EQ(pscGarbageCollect(domain()).orphaned, 0);
  for (int i = 0; i < 2; i++) {
    const Value first = create("koHolder");
    const Value second = create("koWatched");
    callWith(first, "Hold", {second.copy()});
    callWith(second, "SetUserData", {first.copy()});
  }
  EXPECT_EQ(pscGarbageCollect(domain()).orphaned, 4);
}

TEST_F(Framework, NativeReferencesOutliveTheScripts) {
  KelvoObjectRef kept;
  {
    const Value list(psNewList(domain()));
    kept = KelvoObjectRef(list.object());
    const KelvoObjectRef copy = kept;
    EXPECT_EQ(list.object()->ref_cnt.load(), 3);
    KelvoObjectRef moved = std::move(kept);
    EXPECT_FALSE(kept);
    kept = moved;
    const KelvoObjectRef& same = kept;
    kept = same;
  }
  ASSERT_TRUE(kept);
  EXPECT_EQ(kept.Get()->ref_cnt.load(), 1);
  const GarbageCollectorLockedKelvoObjectRef event(domain(), "koStreamByteEvent");
  EXPECT_STREQ(event.Get()->psc_class->ln_Name, "koStreamByteEvent");
}

// A destructor may wait for a thread (the poll thread, as a rule) that waits for the collector
// lock.
TEST_F(Framework, TheCollectorDestroysNothingWhileItHoldsItsLock) {
  // The collector's own reference becomes the last one.
  KelvoObjectRef kept = KelvoNewObject<WatchedInstance>(domain());
  std::vector<bool> free;
  WatchedInstance::on_enum = [&] { kept.Reset(); };
  WatchedInstance::on_death = [&] {
    std::thread([&] {
      free.push_back(domain()->collector_lock.try_lock());
      if (free.back()) domain()->collector_lock.unlock();
    }).join();
  };
  EXPECT_EQ(pscGarbageCollect(domain()).orphaned, 0);
  // And a cycle.
  {
    const Value cycle = create("koWatched");
    callWith(cycle, "SetUserData", {cycle.copy()});
  }
  EXPECT_EQ(pscGarbageCollect(domain()).orphaned, 1);
  WatchedInstance::on_enum = nullptr;
  WatchedInstance::on_death = nullptr;
  EXPECT_EQ(free, std::vector<bool>({true, true}));
}

TEST(ObjectGlobals, ThePollThreadStartsWhenItIsAskedFor) {
  for (int i = 0; i < 2; i++) {
    KelvoObjectGlobals globals;
    EXPECT_EQ(globals.GetFilenameMapper().GetDefaultDrive(), "SYS:");
    EXPECT_FALSE(PollThread::Exists());
    EXPECT_EQ(&globals.GetPollThread(), &globals.GetPollThread());
    EXPECT_TRUE(PollThread::Exists());
  }
  EXPECT_FALSE(PollThread::Exists());
  // One that the process made itself is used.
  PollThread own;
  KelvoObjectGlobals globals;
  EXPECT_EQ(&globals.GetPollThread(), &own);
}

}  // namespace
