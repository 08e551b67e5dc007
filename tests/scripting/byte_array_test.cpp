// koByteArray: bytes as elements, its text forms, and its files.
#include "component_test.h"
#include "script_folder.h"

namespace {

using component_test::Arg;
using component_test::Core;
using component_test::describe;
using component_test::Value;

class ByteArray : public testing::Test {
 protected:
  std::string call(const char* name, const std::vector<Arg>& args = {}) {
    return describe(core.call(bytes.object(), name, args));
  }
  void set(const char* hex) { call("FromHexString", {hex}); }
  std::string hex() {
    const std::string quoted = call("ToHexString");
    return quoted.substr(1, quoted.size() - 2);
  }
  // An array that may not grow, with room for n bytes.
  void fix(int n) {
    bytes = Value(pscNewComponentByName(core.domain(), "koByteArray"));
    call("SetResize", {n, false});
  }

  Core core;
  Value bytes{pscNewComponentByName(core.domain(), "koByteArray")};
};

TEST_F(ByteArray, ElementsAreBytes) {
  call("Push", {258});
  call("Push", {-1});
  call("Push", {3.9});
  call("Push", {"no number"});
  EXPECT_EQ(hex(), "02FF0300");
  call("Unshift", {7});
  call("SetEntry", {8, 9});
  call("SetEntry", {-1, 9});
  EXPECT_EQ(hex(), "0702FF030000000009");
  EXPECT_EQ(call("GetEntry", {2}), "255");
  EXPECT_EQ(call("GetEntry", {-1}), "invalid");
  EXPECT_EQ(call("GetEntry", {9}), "invalid");
  EXPECT_EQ(call("Delete", {1}), "true");
  EXPECT_EQ(call("Delete", {8}), "false");
  EXPECT_EQ(call("Shift"), "7");
  EXPECT_EQ(call("Pop"), "9");
  EXPECT_EQ(call("Peek"), "0");
  EXPECT_EQ(hex(), "FF0300000000");
  // What was popped does not come back.
  set("AABBCC");
  call("Pop");
  call("SetEntry", {4, 1});
  EXPECT_EQ(hex(), "AABB000001");
}

TEST_F(ByteArray, ChangesRestartAnEnumeration) {
  for (const char* change : {"Pop", "Shift", "Clear", "Unshift", "Delete"}) {
    set("010203040506");
    call("Reset");
    call("Next");
    call("Next");
    std::vector<Arg> args;
    if (std::string(change) == "Unshift" || std::string(change) == "Delete") args = {4};
    call(change, args);
    call("Push", {9});
    const std::string first = call("GetEntry", {0});
    EXPECT_EQ(call("Next"), first) << change;
  }
  set("0102");
  call("Reset");
  EXPECT_EQ(call("Next"), "1");
  EXPECT_EQ(call("Next"), "2");
  EXPECT_EQ(call("IsNext"), "false");
  EXPECT_EQ(call("Next"), "invalid");
}

TEST_F(ByteArray, TextForms) {
  const std::vector<std::tuple<const char*, const char*, const char*>> decodings = {
      {"FromHexString", "0aFf", "0AFF"},
      {"FromHexString", "abc", "EE"},  // odd: ignored
      {"FromHexString", "0g", "00"},
      {"FromHexString", "\xb1\xb2", "12"},
      {"FromHexString", "", ""},
      {"FromBase64String", "AQI=", "0102"},
      {"FromBase64String", "AQ==", "01"},
      {"FromBase64String", "AQIDBA==", "01020304"},
      {"FromBase64String", "AQIDxyz", "010203"},
      {"FromBase64String", "AQI", "EE"},
      {"FromBase64String", "", "EE"},
      {"FromBase64String", "+/+/", "FBFFBF"},
      {"FromBase64String", "A=I=", "0002"},
      {"FromAsciiString", "Hi", "4869"},
      {"FromAsciiString", "", ""},
  };
  for (const auto& [function, text, expected] : decodings) {
    set("EE");
    call(function, {text});
    EXPECT_EQ(hex(), expected) << function << ' ' << text;
  }
  const std::vector<std::pair<const char*, const char*>> base64 = {
      {"", ""}, {"01", "AQ=="}, {"0102", "AQI="}, {"010203", "AQID"}, {"FBFFBF00", "+/+/AA=="}};
  for (const auto& [bytes_hex, text] : base64) {
    set(bytes_hex);
    EXPECT_EQ(call("ToBase64String"), std::string("\"") + text + '"');
  }
  set("48690021");
  EXPECT_EQ(call("ToAsciiString"), "\"Hi\"");
}

TEST_F(ByteArray, ThatMayNotGrowKeepsWhatItHas) {
  fix(2);
  for (const int v : {1, 2, 3}) call("Push", {v});
  call("Unshift", {4});
  call("SetEntry", {2, 5});
  EXPECT_EQ(hex(), "0102");
  call("FromHexString", {"030405"});
  call("FromBase64String", {"AAAA"});
  call("FromAsciiString", {"abc"});
  EXPECT_EQ(hex(), "0102");
  call("FromAsciiString", {"a"});
  EXPECT_EQ(hex(), "61");

  const Value other(psNewByteArray(core.domain(), "xyz", 3));
  const fundes* append = pscFindMemberFunction(bytes.object(), "Append", 1).function;
  core.callValues(bytes.object(), append, {other.copy()});
  EXPECT_EQ(hex(), "6178");
  call("SetResize", {4, true});
  core.callValues(bytes.object(), append, {other.copy()});
  core.callValues(bytes.object(), append, {bytes.copy()});
  EXPECT_EQ(hex(), "617878797A");
  call("SetEntry", {INT32_MAX, 1});
  call("SetResize", {INT32_MIN, true});
  EXPECT_EQ(hex(), "617878797A");
}

TEST_F(ByteArray, WordsAndTheirOddBound) {
  set("FF010000AAAAAAAA"
      "FEFFFFFF");
  EXPECT_EQ(call("GetSignedByte", {0}), "255");
  EXPECT_EQ(call("GetSignedByte", {12}), "0");
  EXPECT_EQ(call("GetSignedLong", {0}), "511");
  EXPECT_EQ(call("GetSignedLong", {1}), "-2");
  EXPECT_EQ(call("GetSignedLong", {2}), "0");
  EXPECT_EQ(call("GetSignedLong", {3}), "0");
  EXPECT_EQ(call("GetSignedLong", {-1}), "0");
  EXPECT_EQ(call("GetSignedLong", {INT32_MAX}), "0");
  EXPECT_EQ(call("IsLittleEndianCPU"), "true");
}

class ByteArrayFiles : public ByteArray {
 protected:
  ScriptFolder folder;
};

TEST_F(ByteArrayFiles, AreWritten) {
  EXPECT_EQ(call("WriteFile", {"SD:/empty"}), "true");
  EXPECT_TRUE(std::filesystem::exists(folder.path() + "/empty"));
  EXPECT_EQ(call("WriteFile", {"SD:/none", 0, 0}), "false");
  call("FromAsciiString", {"abcdef"});
  EXPECT_EQ(call("WriteFile", {"SD:/f"}), "true");
  EXPECT_EQ(call("AppendFile", {"SD:/f"}), "true");
  EXPECT_EQ(folder.read("f"), "abcdefabcdef");
  EXPECT_EQ(call("WriteFile", {"SD:/f", 4, 9}), "true");
  EXPECT_EQ(folder.read("f"), "ef");
  EXPECT_EQ(call("WriteFile", {"SD:/f", 5, 0}), "true");
  EXPECT_EQ(folder.read("f"), "");
  for (const auto& [start, length] : {std::pair{-1, 1}, {1, -1}, {6, 1}}) {
    EXPECT_EQ(call("WriteFile", {"SD:/none", start, length}), "false");
  }
  EXPECT_FALSE(std::filesystem::exists(folder.path() + "/none"));
  EXPECT_EQ(call("WriteFile", {"nowhere:f"}), "false");
  EXPECT_EQ(call("AppendFile", {"SD:/no/folder"}), "false");
}

TEST_F(ByteArrayFiles, AreRead) {
  folder.write("f", "0123456789");
  EXPECT_EQ(call("ReadFile", {"SD:/f"}), "true");
  EXPECT_EQ(call("ToAsciiString"), "\"0123456789\"");
  EXPECT_EQ(call("ReadFile", {"SD:/f", 7, 100}), "true");
  EXPECT_EQ(call("ToAsciiString"), "\"789\"");
  EXPECT_EQ(call("ReadFile", {"SD:/f", 2, 3}), "true");
  EXPECT_EQ(call("ToAsciiString"), "\"234\"");
  EXPECT_EQ(call("ReadFile", {"SD:/f", -1, 3}), "false");
  EXPECT_EQ(call("ReadFile", {"SD:/f", 0, -1}), "false");
  EXPECT_EQ(call("ReadFile", {"SD:/absent"}), "false");
  EXPECT_EQ(call("ToAsciiString"), "\"234\"");
  EXPECT_EQ(call("ReadFile", {"SD:/f", 50, INT32_MAX}), "true");
  EXPECT_EQ(call("Count"), "0");
  fix(4);
  EXPECT_EQ(call("ReadFile", {"SD:/f"}), "false");
  EXPECT_EQ(call("ReadFile", {"SD:/f", 8, 5}), "false");
  EXPECT_EQ(call("ReadFile", {"SD:/f", 8, 4}), "true");
  EXPECT_EQ(call("ToAsciiString"), "\"89\"");
}

}  // namespace
