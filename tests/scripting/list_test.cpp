// koList: both ends, the cursor, positional access and enumeration.
#include <list>
#include <random>

#include "component_test.h"
#include "ps_heap.h"

namespace {

using component_test::Arg;
using component_test::Core;
using component_test::describe;
using component_test::Value;

class List : public testing::Test {
 protected:
  std::string call(const char* name, const std::vector<Arg>& args = {}) {
    return describe(core.call(list.object(), name, args));
  }
  void add(std::initializer_list<int> values) {
    for (const int v : values) call("AddTail", {v});
  }
  // The elements by a walk that disturbs neither cursor nor enumeration.
  std::string contents() {
    std::string text;
    auto* data = pscData<psValueList>(list.object());
    for (psNode* node = data->nodes.lh_Head; node->ln_Succ != nullptr; node = node->ln_Succ) {
      text += (text.empty() ? "" : ",") + describe(static_cast<psListNode*>(node)->value);
    }
    return text;
  }

  Core core;
  Value list{psNewList(core.domain())};
};

TEST_F(List, SetEntryBeyondTheEndFillsWithInvalid) {
  add({1});
  call("SetEntry", {3, 4});
  call("SetEntry", {0, 5});
  call("SetEntry", {-1, 6});
  EXPECT_EQ(contents(), "5,invalid,invalid,4");

  psHeapSetLimit(psHeapUsed() + 4'000'000);
  call("SetEntry", {INT32_MAX, 7});
  call("SetEntry", {1'000'000, 7});
  call("SetEntry", {200'000, 7});
  psHeapSetLimit(size_t{1} << 33);
  EXPECT_EQ(call("Count"), "4");
}

// Against a plain list: every operation, with removals under the enumeration and the cursor.
TEST_F(List, FollowsItsRulesUnderRandomUse) {
  std::mt19937 random(7);
  std::list<int> model;
  auto enumeration = model.end();
  auto cursor = model.end();
  const auto text = [](int v) { return std::to_string(v); };
  const auto take = [&](std::list<int>::iterator at) {
    const int v = *at;
    const bool stood = enumeration == at;
    const auto following = model.erase(at);
    if (stood) enumeration = following;
    return text(v);
  };
  for (int step = 1; step < 20'000; step++) {
    const int index = static_cast<int>(random() % (model.size() + 3)) - 1;
    const bool inside = index >= 0 && index < static_cast<int>(model.size());
    switch (random() % 15) {
      case 0:
      case 1:
        call("Push", {step});
        // An enumeration that has come to its end stays there.
        model.push_back(step);
        cursor = model.end();
        break;
      case 2:
        call("Unshift", {step});
        model.push_front(step);
        cursor = model.end();
        break;
      case 3:
        ASSERT_EQ(call("Pop"), model.empty() ? "invalid" : take(std::prev(model.end())));
        cursor = model.end();
        break;
      case 4:
        ASSERT_EQ(call("Shift"), model.empty() ? "invalid" : take(model.begin()));
        cursor = model.end();
        break;
      case 5:
        call("Reset");
        enumeration = model.begin();
        break;
      case 6:
      case 7:
        ASSERT_EQ(call("IsNext"), enumeration != model.end() ? "true" : "false");
        ASSERT_EQ(call("Next"), enumeration != model.end() ? text(*enumeration++) : "invalid");
        break;
      case 8:
        ASSERT_EQ(call("ResetIndex"), model.empty() ? "false" : "true");
        cursor = model.begin();
        break;
      case 9:
        ASSERT_EQ(call("GetIndex"), cursor != model.end() ? text(*cursor++) : "invalid");
        break;
      case 10:
        if (cursor == model.end()) {
          ASSERT_EQ(call("RemoveIndex"), "invalid");
        } else {
          const auto at = cursor++;
          ASSERT_EQ(call("RemoveIndex"), take(at));
        }
        break;
      case 11:
        // A negative index leaves the cursor alone, one behind the end unsets it.
        if (index >= 0) cursor = inside ? std::next(model.begin(), index) : model.end();
        ASSERT_EQ(call("GetEntry", {index}), inside ? text(*cursor) : "invalid");
        break;
      case 12:
        if (inside) {
          call("SetEntry", {index, step});
          cursor = std::next(model.begin(), index);
          *cursor = step;
        }
        break;
      case 13:
        ASSERT_EQ(call("Delete", {index}), inside ? "true" : "false");
        if (inside) {
          const auto at = std::next(model.begin(), index);
          cursor = std::next(at);
          take(at);
        } else if (index >= 0) {
          cursor = model.end();
        }
        break;
      default:
        if (random() % 200 == 0) {
          call("Clear");
          model.clear();
          enumeration = cursor = model.end();
        }
    }
    std::string expected;
    for (const int v : model) expected += (expected.empty() ? "" : ",") + text(v);
    ASSERT_EQ(contents(), expected) << "step " << step;
    ASSERT_EQ(call("Count"), text(static_cast<int>(model.size())));
  }
}

}  // namespace
