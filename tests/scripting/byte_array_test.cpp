// koByteArray: bytes as elements, its text forms, and its files.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "component_test.h"
#include "hooks.h"

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

// Script names are names in a folder of the test's own; "nowhere:" does not map.
class ByteArrayFiles : public ByteArray {
 protected:
  ByteArrayFiles() {
    char name[] = "/tmp/byte_array_test.XXXXXX";
    folder() = mkdtemp(name);
    psHostHooks hooks;
    hooks.mapFilename = [](psText script_name, std::string* native) {
      *native = folder() + '/' + std::string(script_name);
      return !script_name.starts_with("nowhere:");
    };
    hooks.openFile = [](const std::string& native, int flags, unsigned mode) {
      return open(native.c_str(), flags, mode);
    };
    psInstallHooks(hooks);
  }
  ~ByteArrayFiles() override {
    psInstallHooks({});
    std::filesystem::remove_all(folder());
  }
  static std::string& folder() {
    static std::string path;
    return path;
  }
  static std::string contents(const char* name) {
    std::ifstream in(folder() + '/' + name, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  void write(const char* text) { std::ofstream(folder() + "/f", std::ios::binary) << text; }
};

TEST_F(ByteArrayFiles, AreWritten) {
  EXPECT_EQ(call("WriteFile", {"empty"}), "true");
  EXPECT_TRUE(std::filesystem::exists(folder() + "/empty"));
  EXPECT_EQ(call("WriteFile", {"none", 0, 0}), "false");
  call("FromAsciiString", {"abcdef"});
  EXPECT_EQ(call("WriteFile", {"f"}), "true");
  EXPECT_EQ(call("AppendFile", {"f"}), "true");
  EXPECT_EQ(contents("f"), "abcdefabcdef");
  EXPECT_EQ(call("WriteFile", {"f", 4, 9}), "true");
  EXPECT_EQ(contents("f"), "ef");
  EXPECT_EQ(call("WriteFile", {"f", 5, 0}), "true");
  EXPECT_EQ(contents("f"), "");
  for (const auto& [start, length] : {std::pair{-1, 1}, {1, -1}, {6, 1}}) {
    EXPECT_EQ(call("WriteFile", {"none", start, length}), "false");
  }
  EXPECT_FALSE(std::filesystem::exists(folder() + "/none"));
  EXPECT_EQ(call("WriteFile", {"nowhere:f"}), "false");
  EXPECT_EQ(call("AppendFile", {"no/folder"}), "false");
}

TEST_F(ByteArrayFiles, AreRead) {
  write("0123456789");
  EXPECT_EQ(call("ReadFile", {"f"}), "true");
  EXPECT_EQ(call("ToAsciiString"), "\"0123456789\"");
  EXPECT_EQ(call("ReadFile", {"f", 7, 100}), "true");
  EXPECT_EQ(call("ToAsciiString"), "\"789\"");
  EXPECT_EQ(call("ReadFile", {"f", 2, 3}), "true");
  EXPECT_EQ(call("ToAsciiString"), "\"234\"");
  EXPECT_EQ(call("ReadFile", {"f", -1, 3}), "false");
  EXPECT_EQ(call("ReadFile", {"f", 0, -1}), "false");
  EXPECT_EQ(call("ReadFile", {"absent"}), "false");
  EXPECT_EQ(call("ToAsciiString"), "\"234\"");
  EXPECT_EQ(call("ReadFile", {"f", 50, INT32_MAX}), "true");
  EXPECT_EQ(call("Count"), "0");
  fix(4);
  EXPECT_EQ(call("ReadFile", {"f"}), "false");
  EXPECT_EQ(call("ReadFile", {"f", 8, 5}), "false");
  EXPECT_EQ(call("ReadFile", {"f", 8, 4}), "true");
  EXPECT_EQ(call("ToAsciiString"), "\"89\"");
}

}  // namespace
