// ParseJSON and FormatJSON.
#include "cljsonparser.h"

#include <cmath>

#include "component_test.h"

namespace {

using component_test::Core;
using component_test::describe;
using component_test::Value;

struct ParseCase {
  const char* text;
  const char* expected;  // a value, or the message
};
class Parsing : public testing::TestWithParam<ParseCase> {};

TEST_P(Parsing, GivesAValueOrAMessage) {
  Core core;
  const Value value(ParseJSON(core.domain(), GetParam().text));
  const std::string printed = core.takePrinted();
  if (value.object() != nullptr) {
    EXPECT_EQ(describe(value), GetParam().expected);
    EXPECT_EQ(printed, "");
  } else {
    const std::string message = GetParam().expected;
    EXPECT_EQ(printed, message.empty() ? "" : "PLUMSCRIPT: ParseJSON: " + message + "\n");
  }
}

INSTANTIATE_TEST_SUITE_P(
    Values, Parsing,
    testing::Values(ParseCase{"[1,2.5,true,null,\"x\"]", "[1,2.5f,true,invalid,\"x\"]"},
                    ParseCase{" \t\r\n\f\v[ ] ", "[]"}, ParseCase{"{}", "{}"},
                    ParseCase{R"({ "A" : 1 , "a" : [ { } ] })", R"({"A":1,"a":[{}]})"},
                    ParseCase{R"({"a":1,"a":2})", R"({"a":2})"},
                    ParseCase{R"({"":1,"\u0041b":2})", R"({"":1,"Ab":2})"},
                    ParseCase{R"({"a\tb":{"c\td":"e\tf"}})", "{\"a\tb\":{\"c\td\":\"e\tf\"}}"},
                    ParseCase{"3000000000", "<koFloat 3e+09>"}, ParseCase{"12", "<koInt 12>"},
                    ParseCase{"true", "<koBoolean true>"}, ParseCase{"null", "<koInvalid>"},
                    ParseCase{"\"x\"", "\"x\""}, ParseCase{"-5", "<koInt -5>"},
                    ParseCase{"-", "<koInt 0>"}, ParseCase{"-.5", "<koFloat -0.5>"},
                    ParseCase{"007", "<koInt 7>"}, ParseCase{"2147483647", "<koInt 2147483647>"},
                    ParseCase{"-2147483648", "<koFloat -2.14748365e+09>"},
                    ParseCase{"1e3", "<koFloat 1000>"}, ParseCase{"1E+2", "<koFloat 100>"},
                    ParseCase{"25e-1", "<koFloat 2.5>"}, ParseCase{"7e-", "<koFloat 7>"},
                    ParseCase{"7e+", "<koFloat 7>"}, ParseCase{"0e999999999999", "<koFloat 0>"},
                    ParseCase{"1e999", "<koFloat inf>"}, ParseCase{"1e-999", "<koFloat 0>"},
                    ParseCase{"0.00000000000000000000000000000000000000000000000000001",
                              "<koFloat 0>"},
                    ParseCase{"\"\\\"\\\\\\/\\b\\f\\n\\r\\t\"", "\"\"\\/\b\f\n\r\t\""},
                    ParseCase{R"("\u007f\u00e9\u20AC\ud83d\ude00")",
                              "\"\x7f\xc3\xa9\xe2\x82\xac\xed\xa0\xbd\xed\xb8\x80\""},
                    ParseCase{"\"tab\tand\x01 bell\x07 stay\"", "\"tab\tand\x01 bell\x07 stay\""},
                    ParseCase{"\"\xe9 raw \xc3\xa9\"", "\"\xe9 raw \xc3\xa9\""},
                    ParseCase{R"("cut\u0000here")", "\"cut\""}, ParseCase{R"("\u0000")", "\"\""}));

INSTANTIATE_TEST_SUITE_P(
    Messages, Parsing,
    testing::Values(
        ParseCase{"", "Data is empty"}, ParseCase{" \n ", "Data is empty"},
        ParseCase{"[1 2]", "Match failed, wanted 44 got 1001"},
        ParseCase{"[1 2.5]", "Match failed, wanted 44 got 1002"},
        ParseCase{"[1", "Match failed, wanted 44 got 1003"},
        ParseCase{"[1 true]", "Match failed, wanted 44 got 1004"},
        ParseCase{"[1 false]", "Match failed, wanted 44 got 1005"},
        ParseCase{"[1 null]", "Match failed, wanted 44 got 1006"},
        ParseCase{"[1 \"x\"]", "Match failed, wanted 44 got 1000"},
        ParseCase{"[1}", "Match failed, wanted 44 got 125"},
        ParseCase{"{1:2}", "Match failed, wanted 1000 got 1001"},
        ParseCase{"{\"a\":1,}", "Match failed, wanted 1000 got 125"},
        ParseCase{"{", "Match failed, wanted 1000 got 1003"},
        ParseCase{"{\"a\" 1}", "Match failed, wanted 58 got 1001"},
        ParseCase{"{\"a\":1 \"b\"}", "Match failed, wanted 44 got 1000"},
        ParseCase{"[", "Unexpected end of data"}, ParseCase{"{\"a\":", "Unexpected end of data"},
        ParseCase{"[1,]", "Unexpected token type 93"}, ParseCase{"[,", "Unexpected token type 44"},
        ParseCase{":", "Unexpected token type 58"}, ParseCase{"{}x", "Unexpected trailing data"},
        ParseCase{"nullx", "Unexpected trailing data"},
        ParseCase{"\"a\" \"b\"", "Unexpected trailing data"},
        ParseCase{"1.", "Invalid number format"}, ParseCase{"1.e5", "Invalid number format"},
        ParseCase{"1e", "Invalid number format"}, ParseCase{"1ex", "Invalid number format"},
        ParseCase{"\"abc", "Unterminated string"}, ParseCase{"\"a\nb\"", "Unterminated string"},
        ParseCase{"\"a\rb\"", "Unterminated string"},
        ParseCase{"\"a\\qb\"", "Unknown escape sequence q"},
        ParseCase{"\"\\u12g4\"", "Invalid \\u escape sequence"},
        ParseCase{"\"\\u12", "Invalid \\u escape sequence"}, ParseCase{"\"abc\\", ""},
        ParseCase{"[1, nul, 2]", "Unknown identifier 'nul, 2]'"},
        ParseCase{"[1 @", "Unknown identifier '@'"},
        ParseCase{"{\"k\":[{\"x\":[1,\"text\",{}]},{\"bad\"}]}",
                  "Match failed, wanted 58 got 125"}));

TEST(ParseJSON, CutsALongMessage) {
  Core core;
  EXPECT_EQ(ParseJSON(core.domain(), "@" + std::string(5000, 'x')), nullptr);
  const std::string head = "Unknown identifier '@";
  EXPECT_EQ(core.takePrinted(),
            "PLUMSCRIPT: ParseJSON: " + head + std::string(255 - head.size(), 'x') + "\n");
}

TEST(ParseJSON, EndsAtAnEmbeddedNul) {
  Core core;
  const Value value(ParseJSON(core.domain(), psText("[1]\0]", 5)));
  EXPECT_EQ(describe(value), "[1]");
}

TEST(ParseJSON, MarksTextsAsStrings) {
  Core core;
  const Value value(ParseJSON(core.domain(), "[\"x\"]"));
  const psArray* array = pscData<psArray>(value.object());
  EXPECT_EQ(array->elements[0].type_flags, kPsObjectFlag | kPsStringFlavourFlag);
}

// Every length puts the special character at another place of the words that are read at once.
TEST(ParseJSON, FindsTheEndOfAStringAtAnyDistance) {
  Core core;
  for (size_t n = 0; n < 40; ++n) {
    const std::string plain(n, '\xc3');
    const std::string quoted = '"' + plain + '"';
    const Value text(ParseJSON(core.domain(), quoted));
    EXPECT_EQ(psStringText(text.object()), plain);
    const Value escaped(ParseJSON(core.domain(), '"' + plain + "\\n\t" + plain + '"'));
    EXPECT_EQ(psStringText(escaped.object()), plain + "\n\t" + plain);
    EXPECT_EQ(ParseJSON(core.domain(), quoted.substr(0, n + 1)), nullptr);
    EXPECT_EQ(core.takePrinted(), "PLUMSCRIPT: ParseJSON: Unterminated string\n");
  }
}

TEST(ParseJSON, NestsTo256Levels) {
  Core core;
  const std::string open(256, '[');
  const std::string close(256, ']');
  const Value deepest(ParseJSON(core.domain(), open + close));
  EXPECT_NE(deepest.object(), nullptr);
  EXPECT_EQ(ParseJSON(core.domain(), "[" + open + close + "]"), nullptr);
  EXPECT_EQ(core.takePrinted(), "PLUMSCRIPT: ParseJSON: Max nesting depth exceeded\n");
  std::string objects;
  for (int i = 0; i < 257; ++i) objects += "{\"k\":";
  EXPECT_EQ(ParseJSON(core.domain(), objects), nullptr);
  EXPECT_EQ(core.takePrinted(), "PLUMSCRIPT: ParseJSON: Max nesting depth exceeded\n");
}

// --- Formatting -------------------------------------------------------------------------------

std::string format(Core& core, const psTypedValue& value, int32_t flags = 0) {
  const Value text(DoFormatJSON(core.domain(), value, flags));
  if (text.object() == nullptr) return "(none)";
  EXPECT_EQ(psStringBuffer(text.object())[psStringText(text.object()).size()], '\0');
  return std::string(psStringText(text.object()));
}

TEST(FormatJSON, WritesNumbersByTheirKind) {
  Core core;
  const struct {
    double value;
    const char* expected;
  } rows[] = {{3, "3"},
              {0.5, "0.5"},
              {-0.0, "-0"},
              {1.0 / 3, "0.333333"},
              {123456.789, "123457"},
              {1e-7 + 1e-8, "1.1e-07"},
              {9007199254740991.0, "9007199254740991"},
              {9007199254740992.0, "9.007199255e+15"},
              {-1e300, "-1e+300"},
              {INFINITY, "inf"}};
  for (const auto& row : rows) {
    const Value number(psNewDouble(core.domain(), row.value));
    EXPECT_EQ(format(core, number.get()), row.expected);
  }
  EXPECT_EQ(format(core, psFloatValue(3)), "3");
  EXPECT_EQ(format(core, psFloatValue(0.1f)), "0.1");
  EXPECT_EQ(format(core, psIntegerValue(INT64_MIN)), "-9223372036854775808");
}

struct TextCase {
  std::string text;
  const char* escaped;
  const char* raw;  // with the flag
};
class FormattingText : public testing::TestWithParam<TextCase> {};

TEST_P(FormattingText, EscapesWhatJsonMust) {
  Core core;
  const TextCase& c = GetParam();
  for (const size_t shift : {0u, 3u, 8u, 13u}) {
    const std::string before(shift, 'p');
    const Value text(psNewString(core.domain(), before + c.text + before));
    EXPECT_EQ(format(core, text.get()), '"' + before + c.escaped + before + '"');
    EXPECT_EQ(format(core, text.get(), kPsJsonRawUtf8), '"' + before + c.raw + before + '"');
    EXPECT_EQ(format(core, psStringConstantValue(c.text)), std::string("\"") + c.escaped + '"');
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, FormattingText,
    testing::Values(TextCase{"", "", ""}, TextCase{"a/ ~z", "a/ ~z", "a/ ~z"},
                    TextCase{"\"\\\b\t\n\f\r", R"(\"\\\b\t\n\f\r)", R"(\"\\\b\t\n\f\r)"},
                    TextCase{"\x01\x1f\x7f", R"(\u0001\u001F\u007F)", R"(\u0001\u001F\u007F)"},
                    TextCase{"\xc3\xa9", "\\u00E9", "\xc3\xa9"},
                    TextCase{"\xe2\x82\xac", "\\u20AC", "\xe2\x82\xac"},
                    TextCase{"\xf0\x9f\x98\x80", "\\uF600", "\xf0\x9f\x98\x80"},
                    TextCase{"\xed\xa0\xbd", "\\uD83D", "\xed\xa0\xbd"},
                    TextCase{"\xe9", "\\u00E9", "\xc3\xa9"},                     // no sequence
                    TextCase{"\xe2\x82", "\\u00E2\\u0082", "\xc3\xa2\xc2\x82"},  // a cut one
                    TextCase{"\xc0\xaf", "\\u00C0\\u00AF",
                             "\xc3\x80\xc2\xaf"},  // longer than needed
                    TextCase{"\xf4\x90\x80\x80", "\\u00F4\\u0090\\u0080\\u0080",
                             "\xc3\xb4\xc2\x90\xc2\x80\xc2\x80"}));

TEST(FormatJSON, SortsKeysByTheirBytes) {
  Core core;
  const Value value(ParseJSON(
      core.domain(),
      R"({"b":1,"a":2,"B":3,"":4,"prefix_of_more":5,"prefix_of":6,"prefix_o":7,"é":8,"prefix_of_less":9})"));
  EXPECT_EQ(format(core, value.get(), kPsJsonRawUtf8),
            R"({"":4,"B":3,"a":2,"b":1,"prefix_o":7,"prefix_of":6,"prefix_of_less":9,)"
            R"("prefix_of_more":5,"é":8})");
}

TEST(FormatJSON, WritesContainersAndBoxes) {
  Core core;
  const char* text = R"({"a":[],"b":{},"c":[1,[2.5,{"d":null}],true,"x"]})";
  const Value value(ParseJSON(core.domain(), text));
  EXPECT_EQ(format(core, value.get()), text);

  const Value array(pscCreateArray(core.domain(), 0, true));
  auto* elements = pscData<psArray>(array.object());
  psArraySetEntry(elements, 1, psObjectValue(psNewInt(core.domain(), -4)));
  psArrayPush(elements, psObjectValue(psNewBoolean(core.domain(), false)));
  psArrayPush(elements, psObjectValue(psNewFloat(core.domain(), 0.25f)));
  psArrayPush(elements, psObjectValue(pscNewComponentByName(core.domain(), "koDouble")));
  psArrayPush(elements, psObjectValue(pscNewComponentByName(core.domain(), "koInvalid")));
  EXPECT_EQ(format(core, array.get()), "[null,-4,false,0.25,0,null]");
}

TEST(FormatJSON, LeavesALoopOverTheArrayAlone) {
  Core core;
  const Value array(ParseJSON(core.domain(), "[1,2,3]"));
  const psIfEnum* loop = array.object()->psc_class->if_enum;
  loop->Reset(array.object());
  EXPECT_EQ(describe(loop->Next(array.object())), "1");
  EXPECT_EQ(format(core, array.get()), "[1,2,3]");
  EXPECT_EQ(describe(loop->Next(array.object())), "2");
}

TEST(FormatJSON, RefusesWhatJsonHasNoFormFor) {
  Core core;
  EXPECT_EQ(format(core, psFunctionValue(3)), "(none)");
  EXPECT_EQ(core.takePrinted(), "PLUMSCRIPT: FormatJSON: Value type not supported: Function\n");
  EXPECT_EQ(format(core, psUninitializedValue()), "(none)");
  EXPECT_EQ(core.takePrinted(),
            "PLUMSCRIPT: FormatJSON: Value type not supported: <uninitialized>\n");
  const Value list(psNewList(core.domain()));
  EXPECT_EQ(format(core, list.get()), "(none)");
  EXPECT_EQ(core.takePrinted(), "");
}

TEST(FormatJSON, EndsInCyclesAndBelow256Levels) {
  Core core;
  Value array(pscCreateArray(core.domain(), 0, true));
  psArrayPush(pscData<psArray>(array.object()), array.copy());
  EXPECT_EQ(format(core, array.get()), "(none)");
  EXPECT_EQ(core.takePrinted(), "PLUMSCRIPT: FormatJSON: Maximum nesting depth exceeded\n");
  core.call(array.object(), "Clear", {});

  // 256 arrays hold an Integer, but not an object.
  for (int i = 0; i < 255; ++i) {
    Value outer(pscCreateArray(core.domain(), 0, true));
    psArrayPush(pscData<psArray>(outer.object()), array.take());
    array = std::move(outer);
  }
  EXPECT_EQ(format(core, array.get()), std::string(256, '[') + std::string(256, ']'));
  pscInstance* inner = array.object();
  while (pscData<psArray>(inner)->tail >= 0) inner = pscData<psArray>(inner)->elements[0].value.psc;
  psArrayPush(pscData<psArray>(inner), psIntegerValue(1));
  EXPECT_EQ(format(core, array.get()), std::string(256, '[') + "1" + std::string(256, ']'));
  psArrayPush(pscData<psArray>(inner), psObjectValue(psNewString(core.domain(), "x")));
  EXPECT_EQ(format(core, array.get()), "(none)");
  EXPECT_EQ(core.takePrinted(), "PLUMSCRIPT: FormatJSON: Maximum nesting depth exceeded\n");
}

}  // namespace
