// The functions that scripts call without an object.
#include "clglobal.h"

#include <sys/stat.h>

#include <cmath>

#include "component_test.h"
#include "script_folder.h"

namespace {

using component_test::Arg;
using component_test::Core;
using component_test::describe;
using component_test::Value;

Value call(Core& core, const char* name, const std::vector<Arg>& args) {
  const pscMemberFunction found =
      pscFindInterfaceFunction(&kPsGlobalInterface, name, static_cast<int>(args.size()));
  EXPECT_TRUE(found) << name;
  if (!found) return Value();
  std::vector<psTypedValue> values;
  for (const Arg& arg : args) values.push_back(core.value(arg));
  return core.callValues(nullptr, found.function, std::move(values));
}

struct Case {
  const char* name;
  std::vector<Arg> args;
  const char* expected;
};
class GlobalFunctions : public testing::TestWithParam<Case> {};

TEST_P(GlobalFunctions, Give) {
  Core core;
  EXPECT_EQ(describe(call(core, GetParam().name, GetParam().args)), GetParam().expected);
  EXPECT_EQ(core.status(), kPsOkay);
}

INSTANTIATE_TEST_SUITE_P(Characters, GlobalFunctions,
                         testing::Values(Case{"asc", {"\xe9x"}, "233"}, Case{"asc", {""}, "0"},
                                         Case{"chr", {65}, "\"A\""}, Case{"chr", {255}, "\"\xff\""},
                                         Case{"chr", {256}, "\"\""}, Case{"chr", {300}, "\"\""},
                                         Case{"chr", {0}, "\"\""}, Case{"len", {"h\xc3\xa9"}, "3"},
                                         Case{"str", {2.5}, "\" 2.5\""},
                                         Case{"str", {-7}, "\"-7\""},
                                         Case{"str", {123456789}, "\" 1.234568e+08\""},
                                         Case{"str", {INFINITY}, "\" inf\""},
                                         Case{"strI", {5}, "\" 5\""},
                                         Case{"strI", {-2147483647 - 1}, "\"-2147483648\""},
                                         Case{"LCase", {"AZ[@\xc9z"}, "\"az[@\xc9z\""},
                                         Case{"UCase", {"az{`\xe9Z"}, "\"AZ{`\xe9Z\""}));

INSTANTIATE_TEST_SUITE_P(
    ReadingNumbers, GlobalFunctions,
    testing::Values(Case{"val", {" \n+12.5e-1 apples"}, "1.25d"}, Case{"val", {"abc"}, "0d"},
                    Case{"val", {"-.5"}, "-0.5d"}, Case{"val", {"--5"}, "0d"},
                    Case{"val", {"+-5"}, "0d"}, Case{"val", {"0x1F"}, "31d"},
                    Case{"val", {"-0x.8p1"}, "-1d"}, Case{"val", {"0xg"}, "0d"},
                    Case{"val", {"1e"}, "1d"}, Case{"val", {"1e999"}, "infd"},
                    Case{"val", {"-1e999"}, "-infd"}, Case{"val", {"1e-999"}, "0d"},
                    Case{"val", {"infinity"}, "infd"}, Case{"val", {""}, "0d"},
                    Case{"strtoi", {"12ab"}, "12"}, Case{"strtoi", {" \t-7"}, "-7"},
                    Case{"strtoi", {"ab"}, "0"}, Case{"strtoi", {"2147483648"}, "2147483647"},
                    Case{"strtoi", {"-2147483648"}, "-2147483648"}));

INSTANTIATE_TEST_SUITE_P(
    Arithmetic, GlobalFunctions,
    testing::Values(Case{"cint", {2.5}, "3"}, Case{"cint", {-2.5}, "-2"},
                    Case{"cint", {1e12}, "2147483647"}, Case{"cint", {std::nan("")}, "0"},
                    Case{"fix", {-2.7}, "-2"}, Case{"fix", {2.7}, "2"},
                    Case{"fix", {16777217}, "16777216"}, Case{"fix", {-1e12}, "-2147483648"},
                    Case{"int", {-2.7}, "-3"}, Case{"int", {2147483646.5}, "2147483646"},
                    Case{"sgn", {-0.5}, "-1"}, Case{"sgn", {0}, "0"},
                    Case{"sgn", {std::nan("")}, "0"}, Case{"sgnI", {-3}, "-1"},
                    Case{"abs", {-2}, "2d"}, Case{"sqr", {9.0f}, "3d"}, Case{"cdbl", {3}, "3d"},
                    Case{"csng", {16777217}, "16777216f"}, Case{"Pi", {}, "3.1415926535897931d"},
                    Case{"exp", {0}, "1d"}, Case{"log", {1}, "0d"}, Case{"atn", {0}, "0d"}));

INSTANTIATE_TEST_SUITE_P(
    Pieces, GlobalFunctions,
    testing::Values(Case{"left", {"hello", 2}, "\"he\""}, Case{"left", {"hello", -2}, "\"\""},
                    Case{"left", {"hello", 99}, "\"hello\""}, Case{"right", {"hello", 2}, "\"lo\""},
                    Case{"right", {"hello", -1}, "\"\""}, Case{"right", {"hello", 99}, "\"hello\""},
                    Case{"mid", {"hello", 0, 2}, "\"he\""}, Case{"mid", {"hello", 9, 2}, "\"\""},
                    Case{"mid", {"hello", 4, 9}, "\"lo\""}, Case{"mid", {"hello", 2, -1}, "\"\""},
                    Case{"mid", {"hello", -4}, "\"hello\""}, Case{"mid", {"hello", 6}, "\"\""},
                    Case{"mid", {"hello", 5}, "\"o\""}, Case{"instr", {1, "abc", ""}, "1"},
                    Case{"instr", {3, "abc", ""}, "3"}, Case{"instr", {4, "abc", ""}, "0"},
                    Case{"instr", {"", "a"}, "0"}, Case{"instr", {"", ""}, "0"},
                    Case{"instr", {-5, "abcabc", "bc"}, "2"},
                    Case{"instr", {3, "abcabc", "bc"}, "5"}, Case{"instr", {"abc", "cd"}, "0"},
                    Case{"stringI", {3, 200}, "\"XXX\""}, Case{"stringI", {2, 65}, "\"AA\""},
                    Case{"stringI", {32001, 65}, "\"\""}, Case{"stringI", {-1, 65}, "\"\""},
                    Case{"stringI", {3, 0}, "\"\""}, Case{"string", {3, "xy"}, "\"xxx\""},
                    Case{"string", {3, ""}, "\"\""}, Case{"string", {32001, "x"}, "\"\""}));

INSTANTIATE_TEST_SUITE_P(
    Objects, GlobalFunctions,
    testing::Values(Case{"GetInterface", {7, "IFINTOPS"}, "<ifIntOps>"},
                    Case{"GetInterface", {7, "ifString"}, "invalid"},
                    Case{"FindMemberFunction", {7, "tostr"}, "<ifIntOps>"},
                    Case{"FindMemberFunction", {"x", "instr"}, "<ifStringOps>"},
                    Case{"FindMemberFunction", {1.5f, "GetFloat"}, "<ifFloat>"},
                    Case{"FindMemberFunction", {1.5, "GetDouble"}, "<ifDouble>"},
                    Case{"FindMemberFunction", {true, "SetBoolean"}, "<ifBoolean>"},
                    Case{"FindMemberFunction", {7, "push"}, "invalid"},
                    Case{"FindMemberFunction", {nullptr, "tostr"}, "invalid"},
                    Case{"wait", {1000000, 7}, "invalid"},
                    Case{"StableEnumeration", {7}, "invalid"}, Case{"rnd", {"6"}, "invalid"},
                    Case{"rnd", {nullptr}, "invalid"},
                    Case{"FormatJSON", {"\xc3\xa9", 1}, "\"\"\xc3\xa9\"\""},
                    Case{"FormatJSON", {"\xc3\xa9"}, "\"\"\\u00E9\"\""},
                    Case{"ParseJSON", {"[1]"}, "[1]"}));

TEST(GlobalTable, HoldsItsFunctionsWhereCompiledCodeExpectsThem) {
  const struct {
    int index;
    const char* name;
    int parameters;
    psTypeEnum result;
  } rows[] = {{0, "sleep", 1, psVoid},         {10, "cint", 1, psInteger},
              {25, "mid", 3, psString},        {30, "FindMemberFunction", 2, psInterfaceType},
              {31, "wait", 2, psComponent},    {43, "UpTime", 1, psDouble},
              {44, "csng", 1, psFloat},        {50, "rnd", 1, psDynamic},
              {59, "FormatJSON", 2, psString}, {63, "StableEnumeration", 1, psComponent}};
  for (const auto& row : rows) {
    const fundes& f = kPsGlobalFunctions[row.index];
    EXPECT_STREQ(f.name, row.name);
    EXPECT_EQ(f.nargs, row.parameters) << row.name;
    EXPECT_EQ(f.rtype, row.result) << row.name;
  }
  for (int i = 0; i < kPsGlobalFunctionCount; ++i) {
    EXPECT_EQ(kPsGlobalFunctions[i].meta, kPsStaticFunction) << kPsGlobalFunctions[i].name;
  }
  EXPECT_EQ(kPsGlobalFunctions[kPsGlobalFunctionCount].name, nullptr);
}

TEST(Random, StaysInItsRange) {
  Core core;
  bool seen[7] = {};
  for (int i = 0; i < 500; ++i) {
    const Value f = call(core, "rnd", {0});
    ASSERT_TRUE(psIs(f.get(), kPsFloatFlag));
    ASSERT_GE(f.get().value.f, 0.0f);
    ASSERT_LT(f.get().value.f, 1.0f);
    const Value n = call(core, "rnd", {6.9f});
    ASSERT_TRUE(psIs(n.get(), kPsIntegerFlag));
    ASSERT_GE(n.get().value.i, 1);
    ASSERT_LE(n.get().value.i, 6);
    seen[n.get().value.i] = true;
    const Value minus = call(core, "rnd", {-6});
    ASSERT_LE(minus.get().value.i, 1);
    ASSERT_GE(minus.get().value.i, -5);
  }
  EXPECT_EQ(std::count(std::begin(seen), std::end(seen), true), 6);
}

TEST(UpTime, CountsMillisecondsOfTheMonotonicClock) {
  Core core;
  const double seconds = psDoubleOf(call(core, "UpTime", {0}).object());
  EXPECT_GT(seconds, 0);
  EXPECT_EQ(seconds, std::round(seconds * 1000) / 1000);
}

TEST(StableEnumeration, IsASnapshotOfElementsOrKeys) {
  Core core;
  const Value list = call(core, "ParseJSON", {R"({"b":1})"});
  std::vector<psTypedValue> args = {list.copy()};
  const Value keys = core.callValues(nullptr, &kPsGlobalFunctions[63], args);
  EXPECT_EQ(describe(keys), "[\"b\"]");
  core.call(list.object(), "Clear", {});
  EXPECT_EQ(describe(keys), "[\"b\"]");

  const Value array = call(core, "ParseJSON", {"[1,[2],null]"});
  args = {array.copy()};
  const Value elements = core.callValues(nullptr, &kPsGlobalFunctions[63], args);
  EXPECT_EQ(describe(elements), "[1,[2],invalid]");
  EXPECT_NE(elements.object(), array.object());
}

TEST(RunGarbageCollector, TellsWhatItFound) {
  Core core;
  Value cycle(psNewAssociativeArray(core.domain()));
  core.callValues(cycle.object(), pscFindMemberFunction(cycle.object(), "AddReplace", 2).function,
                  {core.value("self"), cycle.copy()});
  cycle = Value();
  EXPECT_EQ(describe(call(core, "RunGarbageCollector", {})),
            R"({"COUNT":1,"ORPHANED":1,"ROOT":0})");
}

// --- Files ------------------------------------------------------------------------------------

class GlobalFiles : public testing::Test {
 protected:
  ScriptFolder folder_;
  Core core_;
};

TEST_F(GlobalFiles, TextIsWrittenAndReadBack) {
  folder_.write("a.txt", "long old contents");
  EXPECT_EQ(describe(call(core_, "WriteAsciiFile", {"SD:/a.txt", "new\n"})), "true");
  EXPECT_EQ(folder_.read("a.txt"), "new\n");
  EXPECT_EQ(describe(call(core_, "ReadAsciiFile", {"SD:/a.txt"})), "\"new\n\"");
  EXPECT_EQ(describe(call(core_, "WriteAsciiFile", {"SD:/no/a.txt", "x"})), "false");
  EXPECT_EQ(describe(call(core_, "WriteAsciiFile", {"XX:/a.txt", "x"})), "false");
  EXPECT_EQ(describe(call(core_, "ReadAsciiFile", {"SD:/none.txt"})), "\"\"");
  EXPECT_EQ(describe(call(core_, "ReadAsciiFile", {"XX:/a.txt"})), "\"\"");
  EXPECT_EQ(describe(call(core_, "ReadAsciiFile", {"SD:/"})), "\"\"");
  folder_.write("binary", std::string("ab\0cd", 5));
  EXPECT_EQ(describe(call(core_, "ReadAsciiFile", {"SD:/binary"})), "\"ab\"");
}

TEST_F(GlobalFiles, AFileOfEightMebibytesIsRefused) {
  folder_.write("fits", std::string(8388607, 'x'));
  const Value text = call(core_, "ReadAsciiFile", {"SD:/fits"});
  EXPECT_EQ(GetStringPtr(&text.get()).size(), 8388607u);
  EXPECT_EQ(core_.takePrinted(), "");
  folder_.write("big", std::string(8388608, 'x'));
  EXPECT_EQ(describe(call(core_, "ReadAsciiFile", {"SD:/big"})), "\"\"");
  EXPECT_EQ(core_.takePrinted(), "File too big: SD:/big (8388609)\n");
}

TEST_F(GlobalFiles, AFifoInAFilesPlaceDoesNotHoldTheScriptUp) {
  ASSERT_EQ(mkfifo((folder_.path() + "/fifo").c_str(), 0600), 0);
  EXPECT_EQ(describe(call(core_, "ReadAsciiFile", {"SD:/fifo"})), "\"\"");
}

std::vector<std::string> namesIn(const Value& list) {
  std::vector<std::string> names;
  const psIfEnum* enumeration = list.object()->psc_class->if_enum;
  enumeration->Reset(list.object());
  while (enumeration->IsNext(list.object())) {
    const Value name(enumeration->Next(list.object()));
    names.emplace_back(GetStringPtr(&name.get()));
  }
  std::sort(names.begin(), names.end());
  return names;
}

TEST_F(GlobalFiles, FoldersListTheirEntries) {
  folder_.write("b.txt", "");
  folder_.write(".hidden", "");
  std::filesystem::create_directory(folder_.path() + "/folder");
  EXPECT_EQ(namesIn(call(core_, "ListDir", {"SD:/"})),
            (std::vector<std::string>{".hidden", "b.txt", "folder"}));
  EXPECT_TRUE(namesIn(call(core_, "ListDir", {"SD:/b.txt"})).empty());
  EXPECT_TRUE(namesIn(call(core_, "ListDir", {"XX:/"})).empty());
}

TEST_F(GlobalFiles, PatternsChooseNames) {
  for (const char* name :
       {"a.mp4", "b.mp4", "C.TXT", "\xc3\xa9.txt", "a,b", "a]b", "a[b", "x-y", "!n", "\xe9"}) {
    folder_.write(name, "");
  }
  const struct {
    const char* pattern;
    std::vector<std::string> expected;
  } rows[] = {
      {"*.MP4,!B*", {"a.mp4"}},
      {"!b*,*.mp4", {"a.mp4", "b.mp4"}},
      {"!*", {}},
      {"", {}},
      {"?.txt", {"C.TXT", "\xc3\xa9.txt"}},
      {"?", {"\xe9"}},
      {"[ac].*", {"C.TXT", "a.mp4"}},
      {"[^a-b]*.*", {"C.TXT", "\xc3\xa9.txt"}},
      {"[\xc3\xa8-\xc3\xaa]*", {"\xc3\xa9.txt"}},
      {"a[]]b", {"a]b"}},
      {"a[[]b", {"a[b"}},
      {"a[,]b", {"a,b"}},
      {"a\\,b", {"a,b"}},
      {"x[a-]y", {"x-y"}},
      {"\\!n", {"!n"}},
      {"[!]n", {"!n"}},
      {"*.*4", {"a.mp4", "b.mp4"}},
      {"*.mp4,[ab", {}},
      {"*.mp4,a\\", {}},
      {"[]", {}},
      {"c.txt,,", {"C.TXT"}},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(namesIn(call(core_, "MatchFiles", {"SD:/", row.pattern})), row.expected)
        << row.pattern;
  }
  EXPECT_EQ(namesIn(call(core_, "MatchFiles", {"SD:/", "*"})).size(), 10u);
}

TEST_F(GlobalFiles, AHostilePatternTakesNoTime) {
  folder_.write(std::string(250, 'a'), "");
  std::string pattern;
  for (int i = 0; i < 250; ++i) pattern += "*a";
  EXPECT_TRUE(namesIn(call(core_, "MatchFiles", {"SD:/", pattern + "*b"})).empty());
}

TEST_F(GlobalFiles, NativePathsAreToldUpToTheirLimit) {
  EXPECT_EQ(describe(call(core_, "MapFilenameToNative", {"SD:/x"})), '"' + folder_.path() + "/x\"");
  EXPECT_EQ(describe(call(core_, "MapFilenameToNative", {"XX:/x"})), "\"\"");
  EXPECT_EQ(describe(call(core_, "MapFilenameToNative", {"SD:/" + std::string(5000, 'x')})),
            "\"\"");
}

// --- The platform -----------------------------------------------------------------------------

TEST(Platform, RequestsReachTheHost) {
  static std::string log;
  log.clear();
  psHostHooks hooks;
  hooks.deleteFile = [](psText name) {
    log += "delete " + std::string(name) + ";";
    return true;
  };
  hooks.moveFile = [](psText from, psText to) {
    log += "move " + std::string(from) + " " + std::string(to) + ";";
    return true;
  };
  hooks.sleep = [](pscDomain* domain, int32_t ms) {
    log += (domain != nullptr ? "sleep " : "sleep? ") + std::to_string(ms) + ";";
  };
  hooks.rebootSystem = [] { log += "reboot;"; };
  hooks.getDefaultDrive = [] { return std::string("SD:"); };
  hooks.enableZoneSupport = [](bool on) { log += on ? "zones;" : "no zones;"; };
  psInstallHooks(hooks);
  Core core;
  EXPECT_EQ(describe(call(core, "DeleteFile", {"a"})), "true");
  EXPECT_EQ(describe(call(core, "MoveFile", {"a", "b"})), "true");
  EXPECT_EQ(describe(call(core, "CopyFile", {"a", "b"})), "false");
  EXPECT_EQ(describe(call(core, "GetDefaultDrive", {})), "\"SD:\"");
  call(core, "sleep", {-1});
  call(core, "EnableZoneSupport", {true});
  call(core, "EnableAudioMixer", {true});
  call(core, "RebootSystem", {});
  call(core, "ShutdownSystem", {});
  EXPECT_EQ(log, "delete a;move a b;sleep -1;zones;reboot;");
  psInstallHooks({});
}

}  // namespace
