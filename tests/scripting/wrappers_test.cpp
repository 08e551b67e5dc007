// The boxes of intrinsic values and koString.
#include "clwrappers.h"

#include "component_test.h"
#include "ps_heap.h"

namespace {

using component_test::Arg;
using component_test::Core;
using component_test::describe;
using component_test::Value;

struct StringCase {
  const char* text;
  const char* method;
  std::vector<Arg> args;
  const char* expected;
};

class StringMethods : public testing::TestWithParam<StringCase> {};

TEST_P(StringMethods, Give) {
  const StringCase& c = GetParam();
  Core core;
  const Value text(psNewString(core.domain(), c.text));
  EXPECT_EQ(describe(core.call(text.object(), c.method, c.args)), c.expected);
  EXPECT_EQ(core.status(), kPsOkay);
  EXPECT_EQ(psStringText(text.object()), c.text);
}

INSTANTIATE_TEST_SUITE_P(
    Table, StringMethods,
    testing::Values(
        StringCase{"abcd", "Mid", {1, 2}, "\"bc\""}, StringCase{"abcd", "Mid", {-3, 2}, "\"ab\""},
        StringCase{"abcd", "Mid", {1}, "\"bcd\""}, StringCase{"abcd", "Mid", {4}, "\"\""},
        StringCase{"abcd", "Mid", {2147483647}, "\"\""}, StringCase{"abcd", "Mid", {1, -1}, "\"\""},
        StringCase{"abcd", "Left", {9}, "\"abcd\""}, StringCase{"abcd", "Left", {-1}, "\"\""},
        StringCase{"abcd", "Right", {3}, "\"bcd\""}, StringCase{"abcd", "Right", {-3}, "\"\""},
        StringCase{"abcabc", "Instr", {"c"}, "2"}, StringCase{"abcabc", "Instr", {3, "c"}, "5"},
        StringCase{"abcabc", "Instr", {-9, "c"}, "2"},
        StringCase{"abcabc", "Instr", {2147483647, "c"}, "-1"},
        StringCase{"abcabc", "Instr", {"x"}, "-1"}, StringCase{"abcabc", "Instr", {2, ""}, "2"},
        StringCase{"", "Instr", {""}, "-1"},
        StringCase{"a,,b", "Tokenize", {","}, "<koList[\"a\",\"b\"]>"},
        StringCase{" a;b,c ", "Tokenize", {";, "}, "<koList[\"a\",\"b\",\"c\"]>"},
        StringCase{"a b", "Tokenize", {""}, "<koList[\"a b\"]>"},
        StringCase{",,", "Tokenize", {","}, "<koList[]>"},
        StringCase{" \t\n\v\f\r a b \r\n", "Trim", {}, "\"a b\""},
        StringCase{" \n", "Trim", {}, "\"\""},
        StringCase{"<a b='\"&'>", "GetEntityEncode", {}, "\"&lt;a b=&apos;&quot;&amp;&apos;&gt;\""},
        StringCase{" -12ab", "ToInt", {}, "-12"},
        StringCase{"99999999999", "ToInt", {}, "2147483647"},
        StringCase{"-99999999999", "ToInt", {}, "-2147483648"}, StringCase{"- 1", "ToInt", {}, "0"},
        StringCase{" 1.5e1x", "ToFloat", {}, "15f"}, StringCase{"abc", "Len", {}, "3"},
        StringCase{"abc", "GetString", {}, "\"abc\""}));

TEST(StringObject, SetStringAndAppendStringTakeAtMostNBytes) {
  Core core;
  const Value text(pscNewComponentByName(core.domain(), "koString"));
  ASSERT_NE(text.object(), nullptr);
  const auto after = [&](const char* method, std::vector<Arg> args) {
    core.call(text.object(), method, args);
    return std::string(psStringText(text.object()));
  };
  EXPECT_EQ(after("SetString", {"hello", 2}), "he");
  EXPECT_EQ(after("AppendString", {"yours", 3}), "heyou");
  EXPECT_EQ(after("AppendString", {"more", 0}), "heyou");
  EXPECT_EQ(after("SetString", {"abc", 99}), "abc");
  EXPECT_EQ(after("SetString", {"abc", -1}), "");
  EXPECT_EQ(after("SetString", {"whole"}), "whole");
}

TEST(StringObject, WithoutTextReadsAsEmpty) {
  Core core;
  const Value text(pscNewComponentByName(core.domain(), "koString"));
  EXPECT_EQ(describe(core.call(text.object(), "Len", {})), "0");
  EXPECT_EQ(describe(core.call(text.object(), "GetString", {})), "\"\"");
  EXPECT_EQ(describe(core.call(text.object(), "Left", {1})), "\"\"");
  EXPECT_EQ(describe(core.call(text.object(), "Trim", {})), "\"\"");
  EXPECT_EQ(describe(core.call(text.object(), "Tokenize", {","})), "<koList[]>");
  EXPECT_EQ(describe(core.call(text.object(), "Instr", {"a"})), "-1");
  EXPECT_EQ(describe(core.call(text.object(), "ToInt", {})), "0");
}

// The text moves between the instance and the heap; own text as source must survive every move.
TEST(StringObject, TakesPartsOfItsOwnText) {
  Core core;
  for (const size_t n : {0u, 1u, 11u, 12u, 22u, 23u, 24u, 100u, 5000u}) {
    std::string expected(n, 'x');
    for (size_t i = 0; i < n; ++i) expected[i] = static_cast<char>('a' + i % 26);
    const Value text(psNewString(core.domain(), expected));
    ASSERT_TRUE(psStringAppend(text.object(), psStringText(text.object())));
    expected += expected;
    EXPECT_EQ(psStringText(text.object()), expected);
    ASSERT_TRUE(psStringAppend(text.object(), psStringText(text.object()).substr(n / 2)));
    expected += expected.substr(n / 2);
    EXPECT_EQ(psStringText(text.object()), expected);
    ASSERT_TRUE(psStringAssign(text.object(), psStringText(text.object()).substr(n)));
    expected = expected.substr(n);
    EXPECT_EQ(psStringText(text.object()), expected);
    ASSERT_TRUE(psStringAssign(text.object(), psStringText(text.object()).substr(0, n / 100)));
    EXPECT_EQ(psStringText(text.object()), expected.substr(0, n / 100));
    EXPECT_EQ(psStringBuffer(text.object())[n / 100], '\0');
  }
}

TEST(StringObject, AppendingGrowsGeometrically) {
  Core core;
  const Value text(psNewString(core.domain(), ""));
  int moves = 0;
  const char* at = psStringBuffer(text.object());
  uint32_t capacity = pscData<psStringData>(text.object())->capacity;
  for (int i = 0; i < 100000; ++i) {
    ASSERT_TRUE(psStringAppend(text.object(), "x"));
    const uint32_t now = pscData<psStringData>(text.object())->capacity;
    moves += now != capacity ? 1 : 0;
    capacity = now;
  }
  EXPECT_NE(psStringBuffer(text.object()), at);
  EXPECT_EQ(psStringText(text.object()), std::string(100000, 'x'));
  EXPECT_LT(moves, 30);
}

TEST(StringObject, RefusedMemoryLeavesTheTextAsItWas) {
  Core core;
  const Value text(psNewString(core.domain(), "kept"));
  const std::string big(1 << 20, 'b');
  const Value spare(psNewInt(core.domain(), 0));  // the slabs for what follows are there
  psHeapSetLimit(psHeapUsed());
  EXPECT_FALSE(psStringAppend(text.object(), big));
  EXPECT_FALSE(psStringAssign(text.object(), big));
  EXPECT_EQ(psNewString(core.domain(), big), nullptr);
  EXPECT_EQ(psNewStringConcat(core.domain(), big, big), nullptr);
  EXPECT_EQ(psNewStringOfLength(core.domain(), kPsMaxTextLength + 1), nullptr);
  psHeapSetLimit(SIZE_MAX);
  EXPECT_EQ(psStringText(text.object()), "kept");
  EXPECT_FALSE(psStringAppend(text.object(), psText("x", kPsMaxTextLength)));
  EXPECT_TRUE(psStringAppend(text.object(), big));
  EXPECT_EQ(psStringText(text.object()), "kept" + big);
}

TEST(Wrappers, StartWithZeroAndKeepWhatIsSet) {
  Core core;
  const struct {
    const char* cl;
    const char* get;
    const char* set;
    Arg value;
    const char* before;
    const char* after;
  } rows[] = {
      {"koInt", "GetInt", "SetInt", 7, "0", "7"},
      {"koFloat", "GetFloat", "SetFloat", 1.5f, "0f", "1.5f"},
      {"koDouble", "GetDouble", "SetDouble", 0.1, "0d", "0.10000000000000001d"},
      {"koIntrinsicDouble", "GetDouble", "SetDouble", 3, "0d", "3d"},
      {"koBoolean", "GetBoolean", "SetBoolean", true, "false", "true"},
  };
  for (const auto& row : rows) {
    const Value box(pscNewComponentByName(core.domain(), row.cl));
    ASSERT_NE(box.object(), nullptr) << row.cl;
    EXPECT_EQ(describe(core.call(box.object(), row.get, {})), row.before) << row.cl;
    core.call(box.object(), row.set, {row.value});
    EXPECT_EQ(core.status(), kPsOkay);
    EXPECT_EQ(describe(core.call(box.object(), row.get, {})), row.after) << row.cl;
  }
  const Value minus(psNewInt(core.domain(), -5));
  EXPECT_EQ(describe(core.call(minus.object(), "ToStr", {})), "\"-5\"");
}

TEST(Wrappers, AFunctionIsMinusOneUntilSet) {
  Core core;
  const Value box(pscNewComponentByName(core.domain(), "koFunction"));
  const psIfFunction* methods = box.object()->psc_class->if_function;
  ASSERT_NE(methods, nullptr);
  EXPECT_EQ(methods->GetSub(box.object()), -1);
  methods->SetSub(box.object(), 4);
  const Value sub = core.call(box.object(), "GetSub", {});
  EXPECT_TRUE(psIs(sub.get(), kPsFunctionFlag));
  EXPECT_EQ(sub.get().value.i, 4);
}

TEST(Wrappers, AnIntegerEventClassActsAsAnInteger) {
  Core core;
  psInterface iface;
  pscClass cl;
  pscCreateClassNamedInt("koPressed", &iface, &cl);
  pscPrivateClass(&cl);
  const Value event(pscNewComponentByClass(core.domain(), &cl));
  cl.if_int->SetInt(event.object(), 12);
  EXPECT_EQ(describe(core.call(event.object(), "GetInt", {})), "12");
  EXPECT_FALSE(pscFindMemberFunction(event.object(), "ToStr", 0));
  EXPECT_EQ(IntVal(&event.get()), 12);
  EXPECT_STREQ(GetTypeString(&event.get(), false), "koPressed");
}

}  // namespace
