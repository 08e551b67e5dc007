// Conversions of script values, containers made and read by native code, JSON documents.
#include <limits>
#include <nlohmann/json.hpp>

#include "lib/scripting/CommonAPI/Include/ko_container.h"
#include "lib/scripting/CommonAPI/Include/ko_json.h"
#include "lib/scripting/Plumscript/Source/ps_heap.h"
#include "tests/objects/object_test.h"

namespace {

using object_test::Arg;
using object_test::describe;
using object_test::Objects;
using object_test::Value;

// What a callable gives, or the text of what it throws.
template <class Callable>
std::string resultOf(Callable callable) {
  try {
    if constexpr (std::is_same_v<decltype(callable()), std::string>) {
      return callable();
    } else {
      return std::to_string(callable());
    }
  } catch (const std::exception& e) {
    return e.what();
  }
}

class Values : public Objects {
 protected:
  ~Values() override { psHeapSetLimit(SIZE_MAX); }

  KelvoTypedValue value(const Arg& arg) { return KelvoTypedValue(core.value(arg)); }
  KelvoTypedValue boxed(pscInstance* box) { return KelvoTypedValue(psObjectValue(box)); }
};

TEST_F(Values, ConvertToIntegers) {
  const char* const too_big = "Float value can not be represented as 64 bit signed integer";
  const char* const too_long = "String value can not be represented as 64 bit signed integer";
  const char* const other = "Failed to convert value to int64_t";
  const struct {
    Arg value;
    const char* expected;
  } rows[] = {{true, "1"},
              {-7, "-7"},
              {2.9f, "2"},
              {-2.9f, "-2"},
              {1e19f, too_big},
              {std::numeric_limits<float>::quiet_NaN(), too_big},
              {-3.7, "-3"},
              {-1e300, too_big},
              {" -42 apples", "-42"},
              {"+9223372036854775807", "9223372036854775807"},
              {"-9223372036854775808", "-9223372036854775808"},
              {"9223372036854775808", too_long},
              {"apples", "0"},
              {"", "0"},
              {"+-5", "0"},
              {nullptr, other}};
  for (const auto& row : rows) {
    EXPECT_EQ(resultOf([&] { return value(row.value).ToInt64(); }), row.expected);
  }
  EXPECT_EQ(boxed(psNewInt(domain(), 5)).ToInt64(), 5);
  EXPECT_EQ(boxed(psNewString(domain(), "12")).ToInt64(), 12);
  EXPECT_EQ(resultOf([&] { return boxed(psNewList(domain())).ToInt64(); }), other);
}

TEST_F(Values, ConvertToDoublesAndBooleans) {
  EXPECT_EQ(value(3).ToDouble(), 3);
  EXPECT_EQ(value(0.1).ToDouble(), 0.1);
  EXPECT_EQ(boxed(psNewFloat(domain(), 1.5f)).ToDouble(), 1.5);
  for (const Arg& arg : {Arg("1"), Arg(true), Arg(nullptr)}) {
    EXPECT_EQ(resultOf([&] { return value(arg).ToDouble(); }),
              "Value could not be converted to a double");
  }
  EXPECT_TRUE(value(true).ToBoolean());
  EXPECT_TRUE(value(-1).ToBoolean());
  EXPECT_FALSE(value(0.5).ToBoolean());
  EXPECT_TRUE(boxed(psNewBoolean(domain(), true)).ToBoolean());
  for (const Arg& arg : {Arg("true"), Arg(nullptr)}) {
    EXPECT_EQ(resultOf([&] { return value(arg).ToBoolean(); }),
              "Value could not be converted to boolean");
  }
}

TEST_F(Values, ConvertToTexts) {
  const struct {
    Arg value;
    const char* expected;
  } rows[] = {{"text", "text"},
              {-15, "-15"},
              {true, "1"},
              {false, "0"},
              {0.1f, "0.100000001"},
              {0.1, "0.10000000000000001"},
              {3.0, "3"},
              {1e30f, "1.00000002e+30"},
              {-std::numeric_limits<float>::infinity(), "-inf"},
              {std::numeric_limits<double>::infinity(), "inf"},
              {std::numeric_limits<float>::quiet_NaN(), "nan"},
              {-std::numeric_limits<double>::quiet_NaN(), "-nan"},
              {nullptr, "Value could not be converted to a string"}};
  for (const auto& row : rows) {
    EXPECT_EQ(resultOf([&] { return value(row.value).ToString(); }), row.expected);
  }
  EXPECT_EQ(boxed(psNewByteArray(domain(), "a\0b", 3)).ToString(), std::string("a\0b", 3));
  EXPECT_EQ(resultOf([&] { return boxed(psNewList(domain())).ToString(); }),
            "Object could not be converted to a string");
}

TEST_F(Values, ConvertToObjectsAndAnything) {
  const KelvoTypedValue list = boxed(psNewList(domain()));
  EXPECT_EQ(list.CoerceToObject(domain()).Get(), list.Object());
  EXPECT_STREQ(value(7).CoerceToObject(domain()).Get()->psc_class->ln_Name, "koInt");
  EXPECT_EQ(psStringText(value("text").CoerceToObject(domain()).Get()), "text");
  EXPECT_EQ(resultOf([] {
              return KelvoTypedValue(psUninitializedValue()).CoerceToObject(nullptr) ? 1 : 0;
            }),
            "Failed to convert value to object");

  EXPECT_EQ(value(7).ToAny(), KelvoAny(int32_t{7}));
  EXPECT_EQ(value(1.5f).ToAny(), KelvoAny(1.5f));
  EXPECT_EQ(value(1.5).ToAny(), KelvoAny(1.5));
  EXPECT_EQ(value(true).ToAny(), KelvoAny(true));
  EXPECT_EQ(value("text").ToAny(), KelvoAny(std::string("text")));
  EXPECT_EQ(list.ToAny(), KelvoAny(KelvoObjectRef(list.Object())));
  EXPECT_EQ(resultOf([&] { return value(nullptr).ToAny().index(); }),
            "Value could not be converted to ANY");
}

// --- Containers -------------------------------------------------------------------------------

TEST_F(Values, MakeContainers) {
  KelvoArrayCreator array(domain());
  array.Add(1);
  array.Add(true);
  array.Add(1.5f);
  array.Add(0.1);
  array.Add("text");
  array.Add(std::string("cut\0off", 7));
  array.Add(KelvoObjectRef());
  array.Add(KelvoListFromContainer(domain(), std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(describe(Value(array.Take().Release())),
            "[1,true,1.5f,0.10000000000000001d,\"text\",\"cut\",invalid,<koList[\"a\",\"b\"]>]");

  KelvoAssocArrayCreator assoc(domain());
  assoc.Set("one", 1);
  assoc.Set("two", KelvoTypedValue::Copy(psIntegerValue(3)));
  assoc.Set("two", 2);
  assoc.Set(std::string_view("cut\0off", 7), CreateByteArray(domain(), "xyz", 3));
  EXPECT_EQ(describe(Value(assoc.Take().Release())),
            "{\"cut\":<koByteArray[120,121,122]>,\"one\":1,\"two\":2}");

  psHeapSetLimit(psHeapUsed() + 100'000);
  KelvoListCreator list(domain());
  EXPECT_THROW(list.Add(std::string(1'000'000, 'x')), std::bad_alloc);
  EXPECT_THROW(CreateByteArray(domain(), std::string(1'000'000, 'x').data(), 1'000'000),
               std::bad_alloc);
  psHeapSetLimit(SIZE_MAX);
}

TEST_F(Values, ReadContainers) {
  KelvoAssocArrayCreator assoc(domain());
  assoc.Set("b", "two");
  assoc.Set("a", 1);
  assoc.Set("c", false);
  const Value map(assoc.Take().Release());
  const std::map<std::string, std::string> texts = {{"a", "1"}, {"b", "two"}, {"c", "0"}};
  EXPECT_EQ(KelvoAssocArrayToStringMap(map.object()), texts);
  EXPECT_EQ(KelvoAssocArrayLookup(map.object(), "B").ToString(), "two");
  EXPECT_EQ(resultOf([&] { return KelvoAssocArrayLookup(map.object(), "d").ToString(); }),
            "Key not found: d");
  EXPECT_EQ(resultOf([&] {
              int n = 0;
              KelvoAssocArrayStringValueEnumerator(map.object(), [&](auto&, auto&) { n++; });
              return n;
            }),
            "Value is not a string");

  // A callback may change what it walks over.
  int seen = 0;
  KelvoAssocArrayEnumerator(map.object(), [&](const std::string&, const KelvoTypedValue&) {
    core.call(map.object(), "Clear", {});
    seen++;
  });
  EXPECT_EQ(seen, 3);

  KelvoAssocArrayCreator mixed(domain());
  mixed.Set("good", 1);
  mixed.Set("none", KelvoTypedValue());
  const Value entries(mixed.Take().Release());
  testing::internal::CaptureStderr();
  EXPECT_EQ(KelvoAssocArrayToAnyMap(entries.object()),
            (std::map<std::string, KelvoAny>{{"good", int32_t{1}}}));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Bad any_cast exception caught: Value could not be converted to ANY");

  KelvoArrayCreator strings(domain());
  strings.Add("x");
  strings.Add("y");
  const Value array(strings.Take().Release());
  EXPECT_EQ(KelvoArrayToStringVector(array.object()), (std::vector<std::string>{"x", "y"}));
}

TEST_F(Values, RefuseContainersOfTheWrongKind) {
  const Value number(psNewInt(domain(), 1));
  const Value port(pscNewComponentByName(domain(), "koMessagePort"));
  const auto ignore = [](const auto&...) {};
  for (pscInstance* wrong : {static_cast<pscInstance*>(nullptr), number.object(), port.object()}) {
    EXPECT_EQ(resultOf([&] { return KelvoObjectEnumerator(wrong, ignore), 0; }),
              "Object does not implement ifEnum");
    EXPECT_EQ(resultOf([&] { return KelvoAssocArrayEnumerator(wrong, ignore), 0; }),
              "Object does not implement ifAssociativeArray");
    EXPECT_EQ(resultOf([&] { return KelvoArrayToStringVector(wrong).size(); }),
              "Object is not an array");
    EXPECT_EQ(resultOf([&] { return KelvoAssocArrayLookup(wrong, "key").ToString(); }),
              "Array doesn't implement ifAssociativeArray");
  }
}

// --- JSON -------------------------------------------------------------------------------------

TEST_F(Values, JsonDocumentsBecomeObjects) {
  const auto convert = [&](const nlohmann::json& json) {
    return describe(Value(JsonToKelvoObject(domain(), json).Release()));
  };
  EXPECT_EQ(convert(nlohmann::json::parse(
                R"({"a":[1,-2,2.5,true,null,"t"],"n":4294967297,"m":-4294967297,"u":4294967295})")),
            "{\"a\":[1d,-2d,2.5d,<koBoolean true>,<koInvalid>,\"t\"],\"m\":-1d,\"n\":1d,"
            "\"u\":4294967295d}");
  EXPECT_EQ(convert(nlohmann::json::parse("[", nullptr, false)), "<koInvalid>");

  nlohmann::json deep;
  for (int i = 0; i < kKelvoMaxJsonDepth; i++) deep = nlohmann::json::array({deep});
  EXPECT_EQ(convert(deep).size(), 2u * kKelvoMaxJsonDepth + std::string("<koInvalid>").size());
  deep = nlohmann::json::array({1, deep});
  EXPECT_EQ(resultOf([&] { return convert(deep); }), "JSON is nested deeper than 256 levels");
}

TEST(Json, ScalarsBecomeTexts) {
  const auto text = [](const char* json) {
    return resultOf([&] { return JsonValueToText(nlohmann::json::parse(json, nullptr, false)); });
  };
  EXPECT_EQ(text("\"t\""), "t");
  EXPECT_EQ(text("4294967297"), "1");
  EXPECT_EQ(text("4294967295"), "4294967295");
  EXPECT_EQ(text("-2147483649"), "2147483647");
  EXPECT_EQ(text("2.5"), "2.500000");
  EXPECT_EQ(text("true"), "1");
  EXPECT_EQ(text("false"), "0");
  EXPECT_EQ(text("null"), "");
  EXPECT_EQ(text("]"), "");
  EXPECT_EQ(text("{}"), "JSON is compound");
  EXPECT_EQ(text("[]"), "JSON is compound");
  EXPECT_EQ(resultOf([] { return JsonValueToText(nlohmann::json::binary({1})); }),
            "JSON is binary");
}

}  // namespace
