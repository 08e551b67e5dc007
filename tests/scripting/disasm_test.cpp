// Instructions as listings show them, byte by byte.
#include "disasm.h"

#include "compiled.h"
#include "listing.h"

namespace {

using compiled::Compiler;
using compiled::Program;

// A linked module with a function that has one of everything instructions can name.
struct Sample {
  Sample() {
    for (const int value : {-7, 0, 300}) AddIntConstant(module, value);
    for (int i = 0; i < 256; i++) AddIntConstant(module, 1000 + i);
    AddFloatConstant(module, 2.5f);
    AddDoubleConstant(module, 1e100);
    AddStringConstant(module, "a text");
    for (int i = 0; i < 256; i++) AddStringConstant(module, "t" + std::to_string(i));
    AddName(module, "Member");
    for (int i = 0; i < 256; i++) AddName(module, "n" + std::to_string(i));
    modNewSub(module, "Sample", nullptr);
    function = &module->function_list.front();
    for (int i = 0; i < 256; i++) modNewSub(module, "F" + std::to_string(i), nullptr);
    function->proto = {psInteger, psVoid};
    function->callvarinits = {kPsNoEntry, 0};
    for (const char* name : {"count", "global", "m", "i"}) subAddVar(function, name, psDynamic);
    function->labels = {{"first", 40}, {"second", 1234}};
    modLink(module);
  }
  ~Sample() { modFree(module); }
  Sample(const Sample&) = delete;
  Sample& operator=(const Sample&) = delete;

  std::string disasm(const std::vector<uint8_t>& code) {
    function->code = code;
    std::string text;
    const uint32_t next = Disasm_impl(function, 0, &text);
    return text + std::to_string(next);
  }
  std::string statement(const std::vector<uint8_t>& code, uint32_t pc = 0) {
    function->code = code;
    std::string text;
    DisasmStmt(function, pc, &text);
    return text;
  }

  psModule* module = modNew();
  psFunction* function = nullptr;
};

// One row an opcode: the name, an instruction with it, and its text with the offset behind.
struct OpcodeRow {
  const char* mnemonic;
  std::vector<uint8_t> code;
  const char* text;
};
const OpcodeRow kRows[] = {
    {"pushbool true", {0x81}, "pushbool    true\n1"},
    {"pushbool false", {0x82}, "pushbool    false\n1"},
    {"pushinvalid", {0x83}, "pushinvalid\n1"},
    {"pushstring", {0x84, 0}, "pushstring  #\"a text\"\n2"},
    {"pushstring2", {0x85, 0, 1}, "pushstring2 #\"t255\"\n3"},
    {"pushint", {0x86, 0}, "pushint     #-7\n2"},
    {"pushint2", {0x87, 2, 1}, "pushint2    #1255\n3"},
    {"pushfloat", {0x88, 0}, "pushfloat   #2.500000\n2"},
    {"pushdoub", {0x89, 0}, "pushdoub    #1e+100\n2"},
    {"pushfun", {0x8a, 1, 0}, "pushfun     #f255\n3"},
    {"call_global", {0x8b, 2, 26}, "call_global mid(num_args=2)\n3"},
    {"call", {0x8c, 3}, "call        [sp-3]\n2"},
    {"call_objfun", {0x8d, 3}, "call_objfun num_args=3\n2"},
    {"call_type", {0x8e, 1}, "call_type   num_args=1\n2"},
    {"print", {0x8f, 2, '#', 'P', ',', 'N', 'E'}, "print       num_args=2, pattern=#P,NE\n7"},
    {"iffalse", {0x90, 1}, "iffalse     J001           'addr=1234\n2"},
    {"call_get_global_AA", {0x91, 0}, "call_get_global_AA     num_args=0\n2"},
    {"call_createobject_exp", {0x92, 3}, "call_createobject_exp  num_args=3\n2"},
    {"createobject_idx", {0x93, 5}, "createobject_idx index=5\n2"},
    {"not", {0x94}, "not\n1"},
    {"neg", {0x95}, "neg\n1"},
    {"or_pretest", {0x96, 9, 0xa9}, "or_pretest  +9 169\n2"},
    {"and_pretest", {0x97, 9, 0xa9}, "and_pretest +9 169\n2"},
    {"add", {0x98}, "add\n1"},
    {"sub", {0x99}, "sub\n1"},
    {"mul", {0x9a}, "mul\n1"},
    {"div", {0x9b}, "div\n1"},
    {"exp", {0x9c}, "exp\n1"},
    {"and", {0x9d}, "and\n1"},
    {"or", {0x9e}, "or\n1"},
    {"gt", {0x9f}, "gt\n1"},
    {"eq", {0xa0}, "eq\n1"},
    {"lt", {0xa1}, "lt\n1"},
    {"le", {0xa2}, "le\n1"},
    {"ge", {0xa3}, "ge\n1"},
    {"ne", {0xa4}, "ne\n1"},
    {"mod", {0xa5}, "mod\n1"},
    {"swap", {0xa6}, "swap\n1"},
    {"drop", {0xa7}, "drop\n1"},
    {"convert", {0xa8, 4}, "convert     [sp], newtype=Component\n2"},
    {"pushlocal", {0xa9, 3, 0}, "pushlocal   i\n3"},
    {"poplocal", {0xaa, 0, 0}, "poplocal    count\n3"},
    {"convert", {0xab, 0, 14}, "convert     count, newtype=koString\n3"},
    {"array_set", {0xac, 2}, "array_set  [sp-2]\n2"},
    {"dotset", {0xad, 0}, "dotset      member\n2"},
    {"dotset2", {0xae, 0, 1}, "dotset2     n255\n3"},
    {"end", {0xaf}, "end\n1"},
    {"array", {0xb0, 1}, "array      [sp-1]\n2"},
    {"dot", {0xb1, 0}, "dot         member\n2"},
    {"dot2", {0xb2, 0, 1}, "dot2        n255\n3"},
    {"jump", {0xb3, 0}, "jump        J000           'addr=40\n2"},
    {"return", {0xb4}, "return\n1"},
    {"for", {0xb5, 3, 0}, "for          i, J000   ' jump to addr=40\n3"},
    {"foreach", {0xb6, 3, 1}, "foreach      i, J001   ' jump to addr=1234\n3"},
    {"nexteach", {0xb7, 3, 1}, "nexteach     i, J001   ' jump to addr=1234\n3"},
    {"next", {0xb8, 3, 0}, "next         i, J000   ' jump to addr=40\n3"},
    {"stop", {0xb9}, "stop\n1"},
    {"iffalse", {0xba, 7}, "iffalse     +7\n2"},
    {"dim", {0xbb, 2, 3}, "dim         i, numdims=2\n3"},
    {"num_fun_args", {0xbc, 4}, "num_fun_args 4\n2"},
    {"call_pos", {0xbd, 1}, "call_pos    num_args=1\n2"},
    {"call_eval", {0xbe, 1}, "call_eval   num_args=1\n2"},
    {"call_box", {0xbf, 1}, "call_box    num_args=1\n2"},
    {"call_run", {0xc0, 2}, "call_run    num_args=2\n2"},
    {"call_run_rterr", {0xc1, 0}, "call_run_rterr num_args=0\n2"},
    {"call_run_clerr", {0xc2, 0}, "call_run_clerr num_args=0\n2"},
    {"attr", {0xc3, 0, 1}, "attr        n255\n3"},
    {"jmpfwd", {0xc4, 255}, "jmpfwd      +255\n2"},
    {"dup", {0xc5}, "dup\n1"},
    {"nop", {0xc6}, "nop\n1"},
};

TEST(Disasm, WritesEveryInstruction) {
  Sample sample;
  ASSERT_EQ(std::size(kRows), 70u);
  for (size_t i = 0; i < std::size(kRows); i++) {
    const OpcodeRow& row = kRows[i];
    ASSERT_EQ(row.code[0], 0x81 + i);
    EXPECT_STREQ(psOpcodeInfo(row.code[0])->mnemonic, row.mnemonic);
    EXPECT_EQ(sample.disasm(row.code), row.text);
  }
}

TEST(Disasm, NamesTypes) {
  Sample sample;
  std::string names;
  for (uint8_t type = 0; type < 16; type++) {
    const std::string text = sample.disasm({0xa8, type});
    names += text.substr(26, text.size() - 28) + ' ';
  }
  EXPECT_EQ(names,
            " Integer Float Boolean Component Interface Function Invalid StringConstant "
            "ThisSub VoidPtr ComponentMemberFunction Void Dynamic koString koDouble ");
}

TEST(Disasm, TextsOfAnyLengthAreWhole) {
  Sample sample;
  const std::string text = compiled::repeated(200, "long ");
  const uint32_t index = AddStringConstant(sample.module, text);
  modLink(sample.module);
  EXPECT_EQ(sample.disasm({0x85, static_cast<uint8_t>(index), static_cast<uint8_t>(index >> 8)}),
            "pushstring2 #\"" + text + "\"\n3");
}

TEST(Disasm, KnowsHowLongInstructionsAre) {
  for (const OpcodeRow& row : kRows) {
    const auto size = static_cast<uint32_t>(row.code.size());
    const std::string text = row.text;
    const int length = std::stoi(text.substr(text.find('\n') + 1));
    EXPECT_EQ(psInstructionLength(row.code.data(), size, 0), length) << row.mnemonic;
    // One that is cut off is none.
    for (uint32_t cut = 0; cut < static_cast<uint32_t>(length); cut++) {
      EXPECT_EQ(psInstructionLength(row.code.data(), cut, 0), 0) << row.mnemonic;
    }
  }
  for (const int byte : {0, 0x45, 0x80, 0xc7, 0xff}) {
    const uint8_t code[] = {static_cast<uint8_t>(byte), 0, 0};
    EXPECT_EQ(psInstructionLength(code, 3, 0), 0);
    EXPECT_EQ(psOpcodeInfo(code[0]), nullptr);
  }
}

TEST(Disasm, LinesUpItsColumns) {
  Sample sample;
  sample.function->label_positions = {2, 2, 5};
  const std::vector<uint8_t> code = {0x8c, 1, 0xa7, 0x98, 0x83, 0xa9, 3, 0};
  EXPECT_EQ(sample.statement(code, 0), "         8c 01    call        [sp-1]\n");
  EXPECT_EQ(sample.statement(code, 2), "J000     a7       drop\n");
  EXPECT_EQ(sample.statement(code, 3), "         98       add\n");
  EXPECT_EQ(sample.statement(code, 5), "J002     a9 03 00 pushlocal   i\n");
  sample.function->label_positions = std::vector<int32_t>(1000, 0);
  sample.function->label_positions.push_back(1);
  EXPECT_EQ(sample.statement({0xa7, 0xa7}, 1), "J1000    a7       drop\n");
  sample.function->label_positions.clear();
  EXPECT_EQ(sample.statement({0x8f, 0, 'E'}),
            "         8f 00 45 print       num_args=0, pattern=E\n");
  EXPECT_EQ(sample.statement({0x8f, 1, 'P', 'E'}),
            "         8f 01 50 \n"
            "         45       print       num_args=1, pattern=PE\n");
  EXPECT_EQ(sample.statement({0x8f, 2, 'P', 'P', ',', 'N', 'E'}),
            "         8f 02 50 \n"
            "         50 2c 4e \n"
            "         45       print       num_args=2, pattern=PP,NE\n");
}

// The listing of a function: source lines, each with the instructions it became.
TEST(Listing, ShowsSourceAboveInstructions) {
  Compiler compiler;
  const Program program = compiler.compile(
      "\r\nfunction f(a as integer, b$ = \"x\") as string\r\n"
      "  ' nothing\r\n"
      "  b$ = [\r\n"
      "    a ] : stop\r\n"
      "end function\r\n");
  ASSERT_EQ(program.errors(), "");
  const psFunction* f = program.function("f");
  EXPECT_EQ(psFunctionHeader(f, 2), "Function f(a As Integer, b$ As String) As String\n");
  EXPECT_EQ(psFunctionHeader(f, 1), "Function f(a As Integer) As String\n");
  EXPECT_EQ(psFunctionHeader(f, 0), "Function f() As String\n");
  EXPECT_EQ(psFunctionListing(f, true),
            "002: function f(a as integer, b$ = \"x\") as string\n"
            "         84 00    pushstring  #\"x\"\n"
            "         a8 0e    convert     [sp], newtype=koString\n"
            "         aa 01 00 poplocal    b$\n"
            "         ab 00 01 convert     a, newtype=Integer\n"
            "         ab 01 0e convert     b$, newtype=koString\n"
            "003:   ' nothing\n"
            "004:   b$ = [\n"
            "         84 01    pushstring  #\"koArray\"\n"
            "         86 00    pushint     #10\n"
            "         81       pushbool    true\n"
            "         92 03    call_createobject_exp  num_args=3\n"
            "005:     a ] : stop\n"
            "         c5       dup\n"
            "         b1 00    dot         push\n"
            "         bc 01    num_fun_args 1\n"
            "         a9 00 00 pushlocal   a\n"
            "         8c 01    call        [sp-1]\n"
            "         a7       drop\n"
            "004:   b$ = [\n"
            "         a8 0e    convert     [sp], newtype=koString\n"
            "         aa 01 00 poplocal    b$\n"
            "005:     a ] : stop\n"
            "         b9       stop\n"
            "006: end function\n"
            "         86 01    pushint     #0\n"
            "         a8 0e    convert     [sp], newtype=koString\n"
            "         b4       return\n");
  EXPECT_EQ(psFunctionListing(compiler.compile("sub main()\nend sub").main(), true),
            "001: sub main()\n<no disassm>\n002: end sub\n         83       pushinvalid\n"
            "         b4       return\n");
  EXPECT_EQ(psFunctionListing(compiler.compile("x = 1\ny = 2").main(), false),
            "001: x = 1\n002: y = 2\n");
}

}  // namespace
