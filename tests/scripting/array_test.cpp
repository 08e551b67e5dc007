// koArray, and what the containers that hold values have in common.
#include <random>
#include <thread>

#include "component_test.h"
#include "ps_heap.h"

namespace {

using component_test::Arg;
using component_test::Core;
using component_test::describe;
using component_test::Value;

Value newArray(Core& core, int32_t capacity, bool resizable) {
  return Value(pscCreateArray(core.domain(), capacity, resizable));
}

// The rules of the array, word by word and without a thought for speed. 0 is an unset slot.
struct ArrayModel {
  int64_t capacity;
  bool resizable;
  std::vector<int> elements = {};
  int64_t enumidx = 0;

  int64_t tail() const { return static_cast<int64_t>(elements.size()) - 1; }
  static std::string text(int element) {
    return element != 0 ? std::to_string(element) : "invalid";
  }
  bool full() const { return tail() + 1 >= capacity; }
  void grow(int64_t needed) {
    if (!resizable) return;
    capacity += std::max<int64_t>(needed - capacity, capacity < 40 ? 10 : capacity / 4);
  }
  void push(int v) {
    if (full()) grow(tail() + 2);
    if (!full()) elements.push_back(v);
  }
  void unshift(int v) {
    if (full()) grow(tail() + 2);
    if (full()) return;
    if (enumidx == 0 || enumidx != tail()) enumidx++;
    elements.insert(elements.begin(), v);
  }
  void leave() {
    if (enumidx != 0 && enumidx == tail()) enumidx--;
  }
  std::string pop() {
    if (elements.empty()) return "invalid";
    leave();
    const int v = elements.back();
    elements.pop_back();
    return text(v);
  }
  std::string shift() {
    if (elements.empty()) return "invalid";
    leave();
    const int v = elements.front();
    elements.erase(elements.begin());
    return text(v);
  }
  std::string erase(int64_t i) {
    if (i < 0 || i > tail()) return "false";
    elements.erase(elements.begin() + i);
    if (enumidx > i) enumidx--;
    return "true";
  }
  std::string get(int64_t i) const {
    return i < 0 || i > tail() ? "invalid" : text(elements[static_cast<size_t>(i)]);
  }
  void set(int64_t i, int v) {
    if (i >= capacity) grow(i + i / 4);
    if (i < 0 || i >= capacity) return;
    if (i > tail()) elements.resize(static_cast<size_t>(i) + 1);
    elements[static_cast<size_t>(i)] = v;
  }
  std::string next() { return enumidx > tail() ? "invalid" : get(enumidx++); }
};

struct ArrayShape {
  int32_t capacity;
  bool resizable;
};

class ArrayBehaviour : public testing::TestWithParam<ArrayShape> {};

TEST_P(ArrayBehaviour, FollowsItsRulesUnderRandomUse) {
  const ArrayShape shape = GetParam();
  Core core;
  std::mt19937 random(42);
  const auto below = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
  for (int round = 0; round < 12; round++) {
    const Value array = newArray(core, shape.capacity, shape.resizable);
    ArrayModel model{shape.capacity, shape.resizable};
    const auto call = [&](const char* name, const std::vector<Arg>& args) {
      return describe(core.call(array.object(), name, args));
    };
    // Every round leans another way, so that arrays fill, drain and wander at both ends.
    const int lean = round % 4;
    for (int step = 1; step < 800; step++) {
      const int roll = below(100);
      const int index = below(static_cast<int>(model.elements.size()) + 4) - 1;
      if (roll < 22) {
        core.call(array.object(), lean == 1 ? "Unshift" : "Push", {step});
        lean == 1 ? model.unshift(step) : model.push(step);
      } else if (roll < 40) {
        core.call(array.object(), lean == 2 ? "Push" : "Unshift", {step});
        lean == 2 ? model.push(step) : model.unshift(step);
      } else if (roll < 52) {
        ASSERT_EQ(call("Pop", {}), model.pop());
      } else if (roll < (lean == 3 ? 70 : 64)) {
        ASSERT_EQ(call("Shift", {}), model.shift());
      } else if (roll < 70) {
        ASSERT_EQ(call("Delete", {index}), model.erase(index));
      } else if (roll < 76) {
        core.call(array.object(), "SetEntry", {index, step});
        model.set(index, step);
      } else if (roll < 82) {
        ASSERT_EQ(call("GetEntry", {index}), model.get(index));
      } else if (roll < 96) {
        ASSERT_EQ(call("IsNext", {}), model.enumidx <= model.tail() ? "true" : "false");
        ASSERT_EQ(call("Next", {}), model.next());
      } else if (roll < 98) {
        core.call(array.object(), "Reset", {});
        model.enumidx = 0;
      } else if (roll == 98) {
        ASSERT_EQ(call("Peek", {}), model.get(model.tail()));
      } else if (below(4) == 0) {
        core.call(array.object(), "Clear", {});
        model.elements.clear();
        model.enumidx = 0;
      }
      ASSERT_EQ(call("Count", {}), std::to_string(model.elements.size()));
      std::string expected;
      for (const int v : model.elements) {
        expected += (expected.empty() ? "" : ",") + ArrayModel::text(v);
      }
      ASSERT_EQ(describe(array), '[' + expected + ']') << "step " << step;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Shapes, ArrayBehaviour,
                         testing::Values(ArrayShape{0, true}, ArrayShape{7, true},
                                         ArrayShape{0, false}, ArrayShape{2, false},
                                         ArrayShape{12, false}, ArrayShape{60, false}));

TEST(Array, SetEntryLeavesUnsetSlotsBetween) {
  Core core;
  const Value array = newArray(core, 0, true);
  core.call(array.object(), "SetEntry", {10, "v"});
  EXPECT_EQ(describe(core.call(array.object(), "Count", {})), "11");
  EXPECT_EQ(describe(core.call(array.object(), "GetEntry", {9})), "invalid");
  EXPECT_EQ(describe(core.call(array.object(), "GetEntry", {10})), "\"v\"");

  // Append passes over slots that were never set.
  const Value copy = newArray(core, 0, true);
  const fundes* append = pscFindMemberFunction(copy.object(), "Append", 1).function;
  core.callValues(copy.object(), append, {array.copy()});
  core.callValues(copy.object(), append, {copy.copy()});
  EXPECT_EQ(describe(copy), "[\"v\"]");
}

TEST(Array, RefusedMemoryDropsTheValueAndKeepsTheArray) {
  Core core;
  EXPECT_EQ(pscCreateArray(core.domain(), -1, true), nullptr);
  EXPECT_EQ(pscCreateArray(core.domain(), INT32_MAX, true), nullptr);
  const Value array = newArray(core, 1, true);
  core.call(array.object(), "Push", {1});
  core.call(array.object(), "SetEntry", {INT32_MAX, 2});
  core.call(array.object(), "SetEntry", {INT32_MAX - 1, 2});
  core.call(array.object(), "SetEntry", {INT32_MIN, 2});
  EXPECT_EQ(describe(array), "[1]");

  // Room for some of the values; those that come later are not taken.
  constexpr int kValues = 60'000;
  psHeapSetLimit(psHeapUsed() + 600'000);
  for (int i = 2; i < kValues; i++) core.call(array.object(), i % 2 ? "Push" : "Unshift", {i});
  psHeapSetLimit(size_t{1} << 33);
  const int32_t count = pscData<psArray>(array.object())->tail + 1;
  EXPECT_GT(count, 10'000);
  EXPECT_LT(count, 600'000 / 16);
  core.call(array.object(), "Push", {kValues});
  EXPECT_EQ(describe(core.call(array.object(), "Pop", {})), std::to_string(kValues));
}

// Sixteen bytes an element and a quarter of them in reserve; and the reserve is not even touched.
TEST(Array, AMillionIntegersCostLittleMoreThanThemselves) {
  Core core;
  const size_t before = psHeapUsed();
  const Value array = newArray(core, 10, true);
  auto* elements = pscData<psArray>(array.object());
  for (int i = 0; i < 1'000'000; i++) psArrayPush(elements, psIntegerValue(i));
  EXPECT_LT(psHeapUsed() - before, 20'100'000u);
}

TEST(Array, AQueueKeepsItsSize) {
  Core core;
  for (const bool resizable : {true, false}) {
    const Value array = newArray(core, 1'000, resizable);
    const psIfArray* methods = clArray.if_array;
    for (int i = 0; i < 1'000; i++) methods->Push(array.object(), psIntegerValue(i));
    for (int i = 0; i < 200'000; i++) {
      ASSERT_EQ(methods->Shift(array.object()).value.i, i);
      methods->Push(array.object(), psIntegerValue(i + 1'000));
    }
    EXPECT_LE(pscData<psArray>(array.object())->block, 4'000) << resizable;
  }
}

// --- Common to the containers of values -------------------------------------------------------

class ValueContainer : public testing::TestWithParam<const char*> {
 protected:
  Value make(Core& core) const {
    const std::string name = GetParam();
    return name == "koArray" ? newArray(core, 0, true)
                             : Value(pscNewComponentByName(core.domain(), GetParam()));
  }
  static void add(const Value& container, const char* key, psTypedValue value) {
    const pscClass* cl = container.object()->psc_class;
    if (cl->if_assoc != nullptr) return cl->if_assoc->AddReplace(container.object(), key, value);
    cl->if_array->Push(container.object(), value);
  }
  static Value only(const Value& container) {
    const pscClass* cl = container.object()->psc_class;
    return Value(cl->if_assoc != nullptr ? cl->if_assoc->Lookup(container.object(), "a")
                                         : cl->if_array_get->GetEntry(container.object(), 0));
  }
};

TEST_P(ValueContainer, OfACycleIsCollected) {
  Core core;
  {
    const Value a = make(core);
    const Value b = make(core);
    add(a, "b", b.copy());
    add(b, "a", a.copy());
    add(b, "text", psObjectValue(psNewString(core.domain(), "text")));
    EXPECT_EQ(pscGarbageCollect(core.domain()).orphaned, 0);
  }
  EXPECT_EQ(pscGarbageCollect(core.domain()).orphaned, 3);
}

TEST_P(ValueContainer, NestedDeeplyIsDroppedWithoutRecursion) {
  Core core;
  Value outer = make(core);
  for (int depth = 0; depth < 300'000; depth++) {
    Value next = make(core);
    add(next, "a", outer.take());
    outer = std::move(next);
  }
}

TEST_P(ValueContainer, DetachesConstantTexts) {
  Core core;
  const Value container = make(core);
  std::string constant = "constant";
  add(container, "a", psStringConstantValue(constant));
  pscDetachStrings(core.domain());
  constant = "overwritten";
  const Value text = only(container);
  EXPECT_EQ(text.get().type_flags, 0x8010);
  EXPECT_EQ(describe(text), "\"constant\"");
}

TEST_P(ValueContainer, AppendedToEachOtherByTwoThreadsDoNotDeadlock) {
  Core core;
  const Value a = make(core);
  const Value b = make(core);
  const auto append = [](const Value& to, const Value& from) {
    const pscClass* cl = to.object()->psc_class;
    const Value held(from.copy());
    for (int i = 0; i < 2'000; i++) {
      add(to, "a", psIntegerValue(i));
      if (cl->if_assoc != nullptr) {
        cl->if_assoc->Append(to.object(), held.object());
      } else {
        cl->if_array->Append(to.object(), held.object());
        if (cl->if_array->Count(to.object()) > 100) cl->if_array->Clear(to.object());
      }
    }
  };
  std::thread other([&] { append(b, a); });
  append(a, b);
  other.join();
}

INSTANTIATE_TEST_SUITE_P(Classes, ValueContainer,
                         testing::Values("koArray", "koList", "koAssociativeArray"));

}  // namespace
