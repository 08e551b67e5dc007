// Modules: the tables behind them, several texts in one, sources and libraries, and functions that
// grow while they run.
#include <cmath>
#include <limits>
#include <memory>
#include <optional>

#include "compiled.h"
#include "containers.h"
#include "hash.h"
#include "ramdisk.h"
#include "run.h"
#include "script_folder.h"

namespace {

using compiled::Compiler;
using compiled::describe;
using compiled::instructions;
using compiled::lineMap;
using compiled::numbered;
using compiled::Program;
using compiled::repeated;

// --- The hash table ---------------------------------------------------------------------------

class Table {
 public:
  explicit Table(int32_t buckets) : table_(hashNew(4, buckets)) {}
  ~Table() { hashFree(table_); }
  Table(const Table&) = delete;
  Table& operator=(const Table&) = delete;

  psHashTable* get() { return table_; }
  void add(std::string_view key, int32_t value) { EXPECT_TRUE(hashAdd(table_, key, &value)); }
  int32_t find(std::string_view key) const {
    const void* data = hashFind(table_, key);
    return data != nullptr ? *static_cast<const int32_t*>(data) : -1;
  }

 private:
  psHashTable* table_;
};

TEST(Hash, IsOneAtATime) {
  EXPECT_EQ(hashExact("a"), 0xca2e9442u);
  EXPECT_EQ(hashExact("The quick brown fox jumps over the lazy dog"), 0x519e91f5u);
  EXPECT_EQ(hashFold("THE quick"), hashExact("the quick"));
  EXPECT_EQ(hashFold(""), 0u);
}

TEST(Hash, FindsTheNewestOfEqualKeysHoweverManyThereAre) {
  Table table(64);
  std::deque<std::string> keys;  // the table does not copy them
  table.add("Twice", 1);
  for (int i = 0; i < 20000; i++) {
    table.add(keys.emplace_back("Key" + std::to_string(i)), i);
    if (i == 10000) table.add("TWICE", 2);
  }
  EXPECT_EQ(table.find("twice"), 2);
  for (int i = 0; i < 20000; i++) ASSERT_EQ(table.find("kEY" + std::to_string(i)), i);
  EXPECT_EQ(table.find("key"), -1);
  EXPECT_EQ(table.find("key200000"), -1);
  hashRemove(table.get(), "twiCE");
  EXPECT_EQ(table.find("twice"), 1);
  hashRemove(table.get(), "twice");
  hashRemove(table.get(), "twice");
  EXPECT_EQ(table.find("twice"), -1);
}

TEST(Hash, ExactKeysDifferByCase) {
  Table table(256);
  const int32_t one = 1;
  const int32_t two = 2;
  hashAddExact(table.get(), "abc", &one);
  hashAddExact(table.get(), "ABC", &two);
  EXPECT_EQ(*static_cast<int32_t*>(hashFindExact(table.get(), "ABC")), 2);
  EXPECT_EQ(*static_cast<int32_t*>(hashFindExact(table.get(), "abc")), 1);
  EXPECT_EQ(hashFindExact(table.get(), "Abc"), nullptr);
  EXPECT_EQ(hashFindExact(table.get(), "ab"), nullptr);
}

// The chains of the nominal buckets, whatever the table has grown to.
TEST(Hash, HistogramCountsChains) {
  Table table(64);
  std::deque<std::string> keys;
  uint32_t lengths[64] = {};
  for (int i = 0; i < 300; i++) {
    const std::string& key = keys.emplace_back("k" + std::to_string(i));
    table.add(key, i);
    lengths[hashExact(key) & 63]++;
  }
  uint32_t expected[5] = {};
  for (const uint32_t length : lengths) expected[std::min<uint32_t>(length, 4)]++;
  uint32_t counts[5];
  hashHistogram(table.get(), counts, 5);
  for (int i = 0; i < 5; i++) EXPECT_EQ(counts[i], expected[i]) << i;

  Table empty(256);
  hashHistogram(empty.get(), counts, 2);
  EXPECT_EQ(counts[0], 256u);
  EXPECT_EQ(counts[1], 0u);
}

// --- Tables of a module -----------------------------------------------------------------------

TEST(Module, EqualConstantsShareAnIndex) {
  Compiler compiler;
  const Program program = compiler.compile("");
  psModule* module = program.module();
  EXPECT_EQ(AddIntConstant(module, 5), 0u);
  EXPECT_EQ(AddIntConstant(module, -5), 1u);
  EXPECT_EQ(AddIntConstant(module, 5), 0u);
  EXPECT_EQ(AddFloatConstant(module, 0.0f), 0u);
  EXPECT_EQ(AddFloatConstant(module, -0.0f), 0u);
  const float nan = std::numeric_limits<float>::quiet_NaN();
  EXPECT_EQ(AddFloatConstant(module, nan), 1u);
  EXPECT_EQ(AddFloatConstant(module, nan), 2u);
  EXPECT_EQ(AddDoubleConstant(module, 0.5), 0u);
  EXPECT_EQ(AddDoubleConstant(module, 0.5), 0u);
  EXPECT_EQ(AddStringConstant(module, "abc"), 0u);
  EXPECT_EQ(AddStringConstant(module, "ABC"), 1u);
  EXPECT_EQ(AddStringConstant(module, "abc"), 0u);
  EXPECT_EQ(AddStringConstant(module, ""), 2u);
  EXPECT_EQ(AddName(module, "Foo"), 0u);
  EXPECT_EQ(AddName(module, "fOO"), 0u);
  EXPECT_EQ(AddName(module, "foo$"), 1u);
}

TEST(Module, LabelsThatNobodyGoesToTakeNoPlace) {
  Compiler compiler;
  const Program program = compiler.compile("a:\nB:\n10 c:\ngoto 10\ngoto b");
  EXPECT_EQ(program.errors(), "2(3)");
  const Program good = compiler.compile("a:\nB:\n10\nc:\ngoto 10\ngoto b");
  ASSERT_EQ(good.main()->labels.size(), 2u);
  EXPECT_EQ(good.main()->labels[0].name, "B");
  EXPECT_EQ(good.main()->labels[1].name, "10");
  EXPECT_EQ(good.main()->label_positions, (std::vector<int32_t>{0, 0}));
}

TEST(Module, FindsTheLineOfAnOffset) {
  Compiler compiler;
  const Program program =
      compiler.compile("\nsub a()\n  x = 1\nend sub\n\nsub b()\n  y = 2\nend sub\n");
  const psModule* module = program.module();
  const psFunction* a = program.function("a");
  const psFunction* b = program.function("b");
  EXPECT_EQ(DebugPCToLine(module, -1, a)->line_num, 2);
  EXPECT_EQ(DebugPCToLine(module, -1, b)->line_num, 6);
  EXPECT_EQ(DebugPCToLine(module, 0, b)->line_num, 7);
  EXPECT_EQ(DebugPCToLine(module, 6, a)->line_num, 4);
  EXPECT_EQ(DebugPCToLine(module, 7, a), nullptr);
  EXPECT_EQ(DebugPCToLine(module, -2, a), nullptr);
  EXPECT_EQ(DebugPCToLine(module, 0, nullptr), nullptr);
}

// Functions that begin or end in the middle of a line have records like all others.
TEST(Module, EveryFunctionOnALineHasItsRecord) {
  Compiler compiler;
  const Program program = compiler.compile(
      "sub a() : stop : end sub : sub b(x = 1) : end sub\nsub c() : stop\nend sub :");
  ASSERT_EQ(program.errors(), "");
  EXPECT_EQ(lineMap(program.function("a")), "0:1");
  EXPECT_EQ(lineMap(program.function("b")), "0:1");
  EXPECT_EQ(lineMap(program.function("c")), "0:2 1:3");
  std::string texts;
  for (const psLineData& line : program.module()->lines) {
    if (line.function != nullptr) texts += line.function->name + '[' + line.srccpy + ']';
  }
  EXPECT_EQ(texts,
            "a[sub a() : stop : end sub :]b[ sub b(x = 1) : end sub]c[sub c() : stop]"
            "c[end sub :\n]");
  EXPECT_EQ(lineMap(compiler.compile("x = 1\ny = 2 :").main()), "0:1 5:2");
}

TEST(Module, ATextEndsAtItsFirstZeroByte) {
  Compiler compiler;
  EXPECT_EQ(compiler.compile(std::string_view("stop\0x =", 8)).code(), "stop; end");
  EXPECT_EQ(compiler.compile(std::string_view("\0", 1)).code(), "end");
}

// --- Several texts ----------------------------------------------------------------------------

struct Text {
  const char* name;
  const char* text;
};

// The errors of the texts compiled into one module, or its functions.
std::string compileAll(Compiler& compiler, std::initializer_list<Text> texts) {
  psParser* parser = compNew(compiler.domain(), nullptr);
  psCompileErrors errors;
  for (const Text& text : texts) {
    errors = compInto(parser, text.text, text.name);
    if (!errors.empty()) break;
  }
  psModule* module = nullptr;
  if (errors.empty()) errors = compFinish(parser, &module);
  compFree(parser);
  std::string result;
  if (!errors.empty()) return errors[0].file + ": " + describe(errors);
  for (const psFunction* function : module->functions) {
    result += '[' + function->name + ": " + instructions(function) + ']';
  }
  result += module->main_function != nullptr ? " main" : " none";
  modFree(module);
  return result;
}

TEST(Module, SeveralTextsKnowEachOthersFunctions) {
  Compiler compiler;
  EXPECT_EQ(compileAll(compiler, {{"a.plm", "sub main()\nf()\nend sub"},
                                  {"b.plm", "' later\n\nsub f()\nmain()\nend sub"}}),
            "[main: &f; args 0; call 0; drop; invalid; return][f: &main; args 0; call 0; drop; "
            "invalid; return] main");
  EXPECT_EQ(compileAll(compiler, {{"a.plm", "sub f()\nend sub"}, {"b.plm", "\nsub F()\nend sub"}}),
            "b.plm: 173(2)");
  EXPECT_EQ(compileAll(compiler, {{"a.plm", "sub f()\nend sub"}, {"b.plm", ""}}),
            "[f: invalid; return] none");
  EXPECT_EQ(compileAll(compiler, {}), "[main: end] main");
  EXPECT_EQ(compileAll(compiler, {{"a.plm", "\n"}, {"b.plm", "' nothing"}}), "[main: end] main");
}

// --- Sources and libraries --------------------------------------------------------------------

psHostHooks decipheringHooks() {
  psHostHooks hooks;
  hooks.decipherSource = [](const std::string& enciphered, std::string* plain) {
    *plain = enciphered;
    for (char& c : *plain) c = static_cast<char>(~c);
    return !enciphered.empty();
  };
  return hooks;
}

// Files named .eplm are deciphered by flipping their bits.
class Sources : public testing::Test {
 protected:
  Sources() {
    compSetLibraryPrefixes({"XX:/", "SD:/one/", "SD:/two/"});
    std::filesystem::create_directories(folder.path() + "/one");
    std::filesystem::create_directories(folder.path() + "/two");
  }
  ~Sources() override { compSetLibraryPrefixes({}); }

  static void write(const std::string& name, std::string_view bytes) {
    ScriptFolder::write(name, bytes);
  }
  static std::string enciphered(std::string text) {
    for (char& c : text) c = static_cast<char>(~c);
    return text;
  }
  // The text, or the error.
  static std::string read(const std::string& name) {
    std::string text;
    psStatus error = kPsOkay;
    bool was_enciphered = false;
    if (!ReadScriptSource(ScriptFolder::path() + '/' + name, &text, &error, &was_enciphered)) {
      return "error " + std::to_string(error);
    }
    return text + (was_enciphered ? " (enciphered)" : "");
  }
  // Errors with the file of each.
  std::string compile(std::string_view text, psProc* process = nullptr) {
    const Program program = compiler.compile(text, process);
    std::string result;
    for (const psCompileError& error : program.errorList()) {
      result += error.file.substr(error.file.rfind('/') + 1) + ':' + describe({error}) + ' ';
    }
    if (program.module() == nullptr) return result;
    for (const psFunction* function : program.module()->functions) result += function->name + ' ';
    return result;
  }

  ScriptFolder folder{decipheringHooks()};
  Compiler compiler;
};

TEST_F(Sources, MustBeginWithText) {
  struct {
    const char* name;
    std::string bytes;
    std::string expected;
  } const kRows[] = {
      {"plain", "print 1", "print 1"},
      {"empty", "", ""},
      {"blank", "\t\v\f\r\n ~", "\t\v\f\r\n ~"},
      {"mark", "\xef\xbb\xbfprint 1", "print 1"},
      {"only mark", "\xef\xbb\xbf", ""},
      {"two marks", "\xef\xbb\xbf\xef\xbb\xbfx", "error 185"},
      {"half a mark", "\xef\xbbx", "error 185"},
      {"utf-16", std::string("\xff\xfep\0", 4), "error 225"},
      {"utf-16 the other way", std::string("\xfe\xff\0p", 4), "error 225"},
      {"utf-16 only", "\xff\xfe", "error 225"},
      {"control", "\x01x", "error 185"},
      {"delete", "\x7fx", "error 185"},
      {"zero", std::string("\0x", 2), "error 185"},
      {"accent", "\xc3\xa9 = 1", "error 185"},
      {"accent behind a mark", "\xef\xbb\xbf\xc3\xa9 = 1", "error 185"},
      {"control inside", "x\x01\xff", "x\x01\xff"},
  };
  for (const auto& row : kRows) {
    write("source", row.bytes);
    EXPECT_EQ(read("source"), row.expected) << row.name;
  }
  EXPECT_EQ(read("missing"), "error 185");
  EXPECT_EQ(read("one"), "error 185");
}

TEST_F(Sources, AreDecipheredByTheEndOfTheirName) {
  write("a.eplm", enciphered("\xef\xbb\xbfprint 1"));
  EXPECT_EQ(read("a.eplm"), "print 1 (enciphered)");
  write("a.EPLM", enciphered("print 1"));
  EXPECT_EQ(read("a.EPLM"), "error 185");
  write("a.eplm", "");
  EXPECT_EQ(read("a.eplm"), "error 185");
  write("a.eplm", enciphered("\x01"));
  EXPECT_EQ(read("a.eplm"), "error 185");
  write("a.eplm", enciphered("\xff\xfe"));
  EXPECT_EQ(read("a.eplm"), "error 225");
}

TEST_F(Sources, OfLibrariesAreLookedForUnderEachPrefix) {
  write("two/lib.plm", "function helper()\nend function");
  write("one/both.plm", "sub first()\nend sub");
  write("two/both.plm", "sub second()\nend sub");
  EXPECT_EQ(
      compile("library \"lib.plm\"\n' and\nLIBRARY \"both.plm\" : sub main()\nhelper()\nend sub"),
      "helper first main ");
  // One that cannot be read gives way to the next.
  write("one/lib.plm", "\x01");
  EXPECT_EQ(compile("library \"lib.plm\"\nsub main()\nend sub"), "helper main ");
  // The last error counts when none can be read.
  write("two/none.plm", "\xff\xfe");
  EXPECT_EQ(compile("\nlibrary \"none.plm\"\nsub main()\nend sub"), "test.plm:225(2) ");
  EXPECT_EQ(compile("library \"missing.plm\"\nx = 1"), "test.plm:185(1) ");
  // A name that no prefix makes a path of is ignored.
  compSetLibraryPrefixes({"XX:/", "YY:/"});
  EXPECT_EQ(compile("library \"missing.plm\"\nsub main()\nend sub"), "main ");
  compSetLibraryPrefixes({});
  EXPECT_EQ(compile("library \"missing.plm\"\nx = 1"), "main ");
}

TEST_F(Sources, OfLibrariesCountTheirOwnLines) {
  write("one/bad.plm", "\rsub a()\r  x =\r  goto y\rend sub\r");
  EXPECT_EQ(compile("\n\nlibrary \"bad.plm\"\nsub main()\nend sub"),
            "bad.plm:2(3) bad.plm:14(y) test.plm:2(3) ");
  write("one/good.plm", "\r\rsub a()\rend sub\r");
  EXPECT_EQ(compile("library \"good.plm\"\n\nsub main()\nx =\nend sub"), "test.plm:2(4) ");
  EXPECT_EQ(compile("library \"good.plm\" x\nsub main()\nend sub"), "test.plm:2(1) ");
  // Statements are the library's Main.
  write("one/main.plm", "print 1");
  EXPECT_EQ(compile("library \"main.plm\"\n"), "main ");
  EXPECT_EQ(compile("library \"main.plm\"\nsub main()\nend sub"), "test.plm:173(2) ");
}

TEST_F(Sources, OfLibrariesThatNameEachOtherEnd) {
  write("one/self.plm", "library \"self.plm\"");
  EXPECT_EQ(compile("library \"self.plm\""), "self.plm:174(1) ");
  for (int i = 1; i <= 33; i++) {
    write("one/l" + std::to_string(i), "library \"l" + std::to_string(i + 1) + "\"");
  }
  write("one/l33", "sub last()\nend sub");
  EXPECT_EQ(compile("library \"l2\"\n"), "last ");
  EXPECT_EQ(compile("library \"l1\"\n"), "l32:174(1) ");
}

TEST_F(Sources, ThatAreEncipheredEndTheRunOnErrors) {
  write("one/lib.plm", "sub a()\nend sub");
  write("one/lib.eplm", enciphered("sub b()\nend sub"));
  const auto process = std::make_unique<psProc>();
  EXPECT_EQ(compile("library \"lib.plm\"\n", process.get()), "a ");
  EXPECT_FALSE(process->stop_on_error);
  EXPECT_EQ(compile("library \"lib.eplm\"\n", process.get()), "b ");
  EXPECT_TRUE(process->stop_on_error);
}

TEST(Module, ATextTooLargeIsOutOfMemory) {
  Compiler compiler;
  const std::string text(((size_t{64} << 20) + 1), ' ');
  EXPECT_EQ(compiler.compile(text).errors(), "12(1)");
}

// --- Live compilation -------------------------------------------------------------------------

// Everything that a failed live compilation must leave as it was.
std::string contents(const psModule* module) {
  std::string text;
  for (const psFunction* function : module->functions) {
    text += function->name + ' ' + compiled::hex(function->code) + ' ';
    for (const psVariable& variable : function->variables) text += variable.name + ' ';
    for (const psLabel& label : function->labels) {
      text += label.name + '=' + std::to_string(label.pc) + ' ';
    }
    text += std::to_string(function->variable_count) + ' ' +
            std::to_string(function->label_positions.size()) + ' ' + lineMap(function) + '\n';
  }
  return text + std::to_string(module->lines.size()) + ' ' +
         std::to_string(module->function_list.size()) + ' ' +
         std::to_string(module->strings.size());
}

class LiveCompilation : public testing::Test {
 protected:
  void begin(std::string_view text) {
    program.emplace(compiler.compile(text));
    ASSERT_EQ(program->errors(), "");
    main = program->main();
  }
  std::string live(std::string_view text) {
    return describe(LiveCompile(text, program->module(), main, &start, compiler.domain()));
  }
  // What the last one appended.
  std::string appended() const { return instructions(main, start); }

  Compiler compiler;
  std::optional<Program> program;
  psFunction* main = nullptr;
  uint32_t start = 0;
};

TEST_F(LiveCompilation, AppendsToTheCodeThatIsThere) {
  begin("sub main(a%)\n  x = a%\nend sub\n");
  const std::vector<uint8_t> before = main->code;
  EXPECT_EQ(live("y = x : a% = 2\nprint z"), "");
  EXPECT_EQ(start, before.size());
  EXPECT_EQ(appended(), "x; -> y; 2; as Integer; -> a%; z; print 1 PNE; end");
  EXPECT_EQ(main->variable_count, 6u);
  EXPECT_TRUE(std::equal(before.begin(), before.end(), main->code.begin()));

  const auto first_end = static_cast<uint32_t>(main->code.size());
  EXPECT_EQ(live("return"), "");
  EXPECT_EQ(start, first_end);
  EXPECT_EQ(appended(), "invalid; return; end");
  // Lines go on behind those of the module; old code keeps its lines.
  EXPECT_EQ(lineMap(main), "0:1 3:2 9:3 11:4 24:5 33:6");
  const psLineData* line = DebugPCToLine(program->module(), static_cast<int32_t>(start), main);
  EXPECT_EQ(*line->file, "$LIVECOMPILE");
  EXPECT_EQ(line->srccpy, "return\n");
  EXPECT_EQ(live(""), "");
  EXPECT_EQ(appended(), "end");
  EXPECT_EQ(live("' nothing\r\n\r\n x = 1 :"), "");
  EXPECT_EQ(appended(), "1; -> x; end");
}

TEST_F(LiveCompilation, KnowsTheFunctionsLabelsAndItsResult) {
  begin(
      "function main() as integer\nhere:\nx = 1\nif x then here\nreturn helper(1)\nend function\n"
      "function helper(a)\nreturn a\nend function");
  EXPECT_EQ(live("goto here"), "");
  EXPECT_EQ(appended(), "jump J0@0; end");
  EXPECT_EQ(live("while x : goto there : end while\nthere:\nreturn helper"), "");
  // The function's labels go on being numbered.
  EXPECT_TRUE(appended().starts_with("x; iffalse J")) << appended();
  EXPECT_NE(appended().find("&helper; as Integer; return; end"), std::string::npos);
  EXPECT_EQ(main->label_positions.size(), 4u);
  EXPECT_EQ(main->label_positions[2], main->label_positions[3]);
  EXPECT_EQ(live("f = function(n) : return n : end function"), "");
  EXPECT_EQ(appended(), "&$anon; -> f; end");
  EXPECT_EQ(program->module()->functions.size(), 3u);
  EXPECT_EQ(program->module()->functions[2]->parent, main);
}

TEST_F(LiveCompilation, FailsWithoutATrace) {
  begin("sub main(a%)\nhere:\nx = \"text\"\nif x then here\nend sub\n");
  ASSERT_EQ(live("y = 1\nwhile y : end while"), "");
  const std::string before = contents(program->module());
  const std::string many = "print " + numbered(300, "v~ ; ");
  struct {
    std::string text;
    std::string expected;
  } const kRows[] = {
      {"z = \"new\" : z =", "2(8)"},
      {"\nz = function() : return 1 : end function\nf = function() : x", "2(10) 181(10)"},
      {"while z\nthere:\ngoto there\n", "181(9)"},
      {"goto nowhere\nthere:", "14(nowhere)"},
      {"goto there\nthere:\nthere:", "180(10)"},
      {"exit while : exit for", "175(8)"},
      {"return 1", "170(8)"},
      {"sub b()\nend sub", "2(8) 2(9)"},
      {"x\nx\nx\nx\nx\nx", "2(8) 2(9) 2(10) 2(11) 2(12)"},
      {"z = [function(p)\nq = 1\nend function, 5 5]", "2(8) 2(10)"},
      {numbered(300, "v~ = 0\n"), "176(258)"},
      {"x = " + repeated(251, "(") + "1" + repeated(251, ")"), "174(8)"},
      {"print v0" + numbered(300, ", v~") + "\n", "2(8)"},
      {numbered(300, "print v~\n"), "176(308)"},
  };
  for (const auto& row : kRows) {
    EXPECT_EQ(live(row.text), row.expected) << row.text;
    EXPECT_EQ(contents(program->module()), before) << row.text;
  }
  EXPECT_EQ(live("z = 1"), "");
  EXPECT_EQ(appended(), "1; -> z; end");
}

}  // namespace
