// The text as the compiler sees it: literals, names, words, blanks, statement ends and lines.
#include <limits>

#include "compiled.h"

namespace {

using compiled::Compiler;
using compiled::Program;
using compiled::repeated;

struct Row {
  std::string text;
  std::string expected;
};
void PrintTo(const Row& row, std::ostream* os) { *os << row.text.substr(0, 60); }

// What an expression becomes, without the assignment around it.
std::string expression(Compiler& compiler, const std::string& text) {
  std::string code = compiler.compile("x = " + text).code();
  const size_t tail = code.find("; -> x; end");
  return tail != std::string::npos ? code.substr(0, tail) : code;
}

// --- Numbers ----------------------------------------------------------------------------------

class LexerNumber : public testing::TestWithParam<Row> {};

TEST_P(LexerNumber, HasKindAndValue) {
  Compiler compiler;
  EXPECT_EQ(expression(compiler, GetParam().text), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Decimal, LexerNumber,
    testing::Values(Row{"0", "0"}, Row{"007", "7"}, Row{"123456789", "123456789"}, Row{"7%", "7"},
                    Row{"7!", "pushfloat #7.000000"}, Row{"2#", "pushdoub #2"},
                    Row{"1234567890", "pushdoub #1.23457e+09"},
                    Row{"0.123456789", "pushdoub #0.123457"},
                    Row{"0.12345678", "pushfloat #0.123457"}, Row{"0000000001", "pushdoub #1"},
                    Row{"1234567890%", "pushdoub #1.23457e+09"},
                    Row{"1234567890!", "pushdoub #1.23457e+09"}, Row{"1.5", "pushfloat #1.500000"},
                    Row{"1.5%", "pushfloat #1.500000"}, Row{"1.5#", "pushdoub #1.5"},
                    Row{".5", "pushfloat #0.500000"}, Row{"1.2.3", "pushfloat #1.200000"},
                    Row{"1e3", "pushfloat #1000.000000"}, Row{"1E-2", "pushfloat #0.010000"},
                    Row{"1e+2%", "pushfloat #100.000000"}, Row{"1e", "pushfloat #1.000000"},
                    Row{"1e+", "pushfloat #1.000000"}, Row{"1e3#", "pushdoub #1000"},
                    Row{"2d0", "pushdoub #2"}, Row{"1.5D3", "pushdoub #1.5"},
                    Row{"1d3!", "pushdoub #1"}, Row{"1e39", "pushfloat #inf"},
                    Row{"1e-50", "pushfloat #0.000000"}, Row{"1e999#", "pushdoub #inf"},
                    Row{"4.9e-324#", "pushdoub #4.94066e-324"}, Row{"1e999", "pushfloat #inf"}));

INSTANTIATE_TEST_SUITE_P(Hexadecimal, LexerNumber,
                         testing::Values(Row{"&h1F", "31"}, Row{"& H1f", "31"},
                                         Row{"&HFFFFFFFF", "-1"}, Row{"&h1FFFFFFFF", "-1"},
                                         Row{"&h", "0"}, Row{"&h80000000", "-2147483648"},
                                         Row{"&hg", "errors 2(1)"}, Row{"&1", "errors 2(1)"},
                                         Row{"&", "errors 2(1)"}));

// 78 characters with the suffix are converted; a longer literal is zero.
INSTANTIATE_TEST_SUITE_P(
    LongOnes, LexerNumber,
    testing::Values(Row{"1" + repeated(76, "0") + "#", "pushdoub #1e+76"},
                    Row{"1" + repeated(77, "0") + "#", "pushdoub #0"},
                    Row{"2e" + repeated(75, "0") + "1", "pushfloat #20.000000"},
                    Row{"2e" + repeated(76, "0") + "1", "pushfloat #0.000000"}));

TEST(Lexer, DotWithoutDigitIsZeroAndConsumesNothing) {
  Compiler compiler;
  EXPECT_EQ(expression(compiler, ".a"), "0; dot a");
  EXPECT_EQ(compiler.compile("x = .").errors(), "2(1)");
  // The items of PRINT come to an end all the same.
  EXPECT_EQ(compiler.compile("print .").errors(), "2(1)");
  EXPECT_EQ(compiler.compile("x = [.]").errors(), "2(1)");
}

TEST(Lexer, ConstantsKeepTheirPrecision) {
  Compiler compiler;
  const Program program = compiler.compile("x = 0.1\nx = 0.1#\nx = 16777217.0\nx = 3.4e38");
  ASSERT_EQ(program.errors(), "");
  EXPECT_EQ(program.module()->floats, (std::vector<float>{0.1f, 16777217.0f, 3.4e38f}));
  EXPECT_EQ(program.module()->doubles, (std::vector<double>{0.1}));
}

// --- Texts ------------------------------------------------------------------------------------

class LexerText : public testing::TestWithParam<Row> {};

TEST_P(LexerText, IsReadUpToItsFirstQuote) {
  Compiler compiler;
  EXPECT_EQ(compiler.compile(GetParam().text).code(), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Texts, LexerText,
                         testing::Values(Row{"x = \"\"", "\"\"; -> x; end"},
                                         Row{"x = \"a\\n'b:c\"", "\"a\\n'b:c\"; -> x; end"},
                                         Row{"x = \"h\xc3\xa9\"", "\"h\xc3\xa9\"; -> x; end"},
                                         Row{"x = \"a\"\"b\"", "errors 2(1)"},
                                         Row{"x = \"open", "errors 179(1)"},
                                         Row{"y = 1\nx = \"open\nz = 2\"", "errors 179(2) 2(3)"},
                                         Row{"x = \"cr\rlf\"", "errors 179(1) 2(2)"},
                                         Row{"x = \"cr\r\nlf\"", "errors 179(1) 2(2)"},
                                         Row{"x = createobject(\"open", "errors 179(1)"},
                                         Row{"library \"open", "errors 179(1)"}));

// --- Names ------------------------------------------------------------------------------------

constexpr const char* kReserved[] = {
    "END",  "LET",      "PRINT",        "IF",     "ELSE",     "ENDIF",     "THEN",
    "GOTO", "FOR",      "TO",           "STEP",   "NEXT",     "RETURN",    "DIM",
    "NOT",  "AND",      "OR",           "TAB",    "STOP",     "OBJFUN",    "TYPE",
    "TRUE", "FALSE",    "CREATEOBJECT", "WHILE",  "ENDWHILE", "EXITWHILE", "EACH",
    "EXIT", "INVALID",  "ENDFUNCTION",  "ENDSUB", "ELSEIF",   "REM",       "LINE_NUM",
    "SUB",  "FUNCTION",
};

class LexerWord : public testing::TestWithParam<const char*> {};

TEST_P(LexerWord, NamesNothingWhenReserved) {
  Compiler compiler;
  const std::string word = GetParam();
  std::string mixed = word;
  mixed[0] = static_cast<char>(mixed[0] | 0x20);
  EXPECT_EQ(compiler.compile("sub main(" + word + ")\nend sub").errors(), "2(1)");
  EXPECT_EQ(compiler.compile("sub " + mixed + "()\nend sub").errors(), "2(1)");
  EXPECT_EQ(compiler.compile("for each " + mixed + " in a\nnext").errors().substr(0, 4), "2(1)");
  EXPECT_EQ(compiler.compile("dim " + word + "[1]").errors(), "2(1)");
  EXPECT_EQ(compiler.compile("goto " + word).errors(), "2(1)");
  // It needs its exact length: a longer name, or one with a type suffix, is a name.
  EXPECT_EQ(compiler.compile("sub main(" + word + "s)\nend sub").errors(), "");
  EXPECT_EQ(compiler.compile("sub main(" + word + "$)\nend sub").errors(), "");
  // Members may have any name.
  EXPECT_EQ(compiler.compile("x = a." + word).errors(), "");
  EXPECT_EQ(compiler.compile("a." + mixed + " = { " + word + ": 1 }").errors(), "");
}

TEST_P(LexerWord, AssignsNothingWhenReserved) {
  Compiler compiler;
  const std::string word = GetParam();
  const Program assigned = compiler.compile(word + " = 5");
  if (word == "REM") {
    EXPECT_EQ(assigned.code(), "end");
  } else {
    EXPECT_NE(assigned.errors(), "");
  }
  EXPECT_EQ(compiler.compile(word + "$ = \"\"").errors(), "");
}

INSTANTIATE_TEST_SUITE_P(Reserved, LexerWord, testing::ValuesIn(kReserved));

TEST(Lexer, OtherWordsOfTheLanguageAreNames) {
  Compiler compiler;
  for (const char* name : {"in", "as", "mod", "endfor", "integer", "object", "void", "dynamic",
                           "single", "double", "string", "boolean", "remark", "_", "x9_"}) {
    const std::string text = std::string(name) + " = 5";
    EXPECT_EQ(compiler.compile(text).code(), std::string("5; -> ") + name + "; end");
  }
}

TEST(Lexer, CaseIsIgnoredAndTheSuffixBelongsToTheName) {
  Compiler compiler;
  EXPECT_EQ(compiler.compile("Foo = 1\nfOO = foo").code(), "1; -> foo; foo; -> foo; end");
  const Program program = compiler.compile("x = 1\nx% = 2\nx$ = \"\"\nx! = 3\nx# = 4");
  ASSERT_EQ(program.errors(), "");
  std::string types;
  for (const psVariable& variable : program.main()->variables) {
    types += variable.name + '=' + std::to_string(variable.type) + ' ';
  }
  EXPECT_EQ(types, "global=5 m=4 x=13 x%=1 x$=14 x!=2 x#=15 ");
}

TEST(Lexer, BytesAbove127BelongToNoName) {
  Compiler compiler;
  EXPECT_EQ(compiler.compile("x\xc3\xa9 = 1").errors(), "2(1)");
  EXPECT_EQ(compiler.compile("x = 1\xa0").errors(), "2(1)");
  EXPECT_EQ(compiler.compile("x = 1 ' \xc3\xa9\nrem \xff").code(), "1; -> x; end");
}

TEST(Lexer, ModNeedsNoWordBoundary) {
  Compiler compiler;
  EXPECT_EQ(expression(compiler, "5 mod3"), "5; 3; mod");
  EXPECT_EQ(expression(compiler, "5MODe"), "5; e; mod");
  EXPECT_EQ(expression(compiler, "a mode"), "a; e; mod");
  EXPECT_EQ(expression(compiler, "mode"), "mode");
  // AND, OR and NOT are whole words.
  EXPECT_EQ(compiler.compile("x = a andb").errors(), "2(1)");
  EXPECT_EQ(expression(compiler, "nota"), "nota");
}

// --- Statement ends and lines -----------------------------------------------------------------

class LexerLines : public testing::TestWithParam<Row> {};

TEST_P(LexerLines, EndWhereTheTextsOwnLineEndIs) {
  Compiler compiler;
  EXPECT_EQ(compiler.compile(GetParam().text).errors(), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Ends, LexerLines,
                         testing::Values(Row{"a = 1\nb = 2\nc =\nd = 4", "2(3)"},
                                         Row{"a = 1\r\nb = 2\r\nc =\r\nd = 4\r\n", "2(3)"},
                                         Row{"a = 1\rb = 2\rc =\rd = 4\r", "2(3)"},
                                         // The first line decides: CRs among LF lines are blanks …
                                         Row{"a = 1\nb = 2\r\rc = 3\nd =", "2(2) 2(3)"},
                                         Row{"a = \r\r\n", "2(1) 2(3)"},
                                         // … and LFs among CR lines are no line ends.
                                         Row{"a = 1\rb = 2\nc = 3\rd =", "2(2) 2(3)"},
                                         Row{"\r\n\r\nc =", "2(3)"}, Row{"\r\rc =", "2(3)"},
                                         Row{"\n\n\nc =", "2(4)"}, Row{"a = 1\r", ""},
                                         Row{"a = 1 ' note\r\nb = 2 'x\r\nc = 'y", "2(3)"},
                                         Row{"a = 1 ' note\rb = 2 'x\rc = 'y", "2(3)"},
                                         Row{"' a\n' b\nrem c\nd =", "2(4)"},
                                         Row{"a = 1 : b = : c = 3\nd =", "2(1) 2(2)"},
                                         Row{std::string("a = 1\0b =", 9), ""}));

INSTANTIATE_TEST_SUITE_P(
    LineStarts, LexerLines,
    testing::Values(Row{"if a then\nend if", ""}, Row{"\n \tif a then\n end if", ""},
                    // Behind blanks the first line of a text has no start.
                    Row{" if a then\nend if", "2(1) 2(2)"}, Row{" 10 a = 1", "2(1)"},
                    Row{" here: ", "2(1)"}, Row{"\n here:\n\tthere :", ""},
                    Row{"a = 1 : if a then\nend if", "2(1) 2(2)"}, Row{"a = 1 : here:", "2(1)"},
                    Row{"10 a = 1\n10 a = 2", "180(2)"}, Row{"10 a = 1\n10: ", "180(2)"},
                    Row{"10: a = 2", "2(1)"}, Row{"10:\n10 a = 2", "180(2)"},
                    Row{"10a:\n10A:", "180(2)"}, Row{"here: a = 1", "2(1)"},
                    Row{"10\n20\t\n30", ""}, Row{"10a = 1", "2(1)"},
                    Row{"10if a then\nend if", "2(1) 2(2)"}));

TEST(Lexer, StatementsAreSeparatedByColonsAndComments) {
  Compiler compiler;
  const std::string both = "1; -> a; 2; -> b; end";
  for (const char* text :
       {"a = 1 : b = 2", "a=1:b=2:", ":: a = 1 ::: b = 2", "a = 1 ' x\nb = 2",
        "a = 1 ' : b = 3\nb = 2", "a = 1\n\n\t\n  b = 2", "a = 1 : rem c = 3\nb = 2",
        "rem\na = 1\nREM b = 3\nb = 2", "a = 1\r\nb = 2", "a = 1\r  b = 2\r"}) {
    EXPECT_EQ(compiler.compile(text).code(), both) << text;
  }
}

TEST(Lexer, LineNumIsTheLineOfTheWord) {
  Compiler compiler;
  EXPECT_EQ(compiler.compile("x = line_num\nx = [\nLINE_NUM]").code(),
            "1; -> x; \"koArray\"; 10; true; createobject_exp(3); dup; dot push; args 1; 3; call "
            "1; drop; -> x; end");
}

// Each line's record has its text, with a line end only where the text's own is two characters or
// missing.
TEST(Lexer, LineRecordsCopyTheirLines) {
  Compiler compiler;
  const auto texts = [&](const char* text) {
    const Program program = compiler.compile(text);
    std::string all;
    if (program.module() == nullptr) return program.errors();
    for (const psLineData& line : program.module()->lines) {
      all += std::to_string(line.line_num) + '[' + line.srccpy + ']';
    }
    return all;
  };
  EXPECT_EQ(texts("a = 1\n  b = 2 ' x\n"), "1[a = 1]2[  b = 2 ' x]");
  EXPECT_EQ(texts("a = 1\r\nb = 2\r\n"), "1[a = 1\n]2[b = 2\n]");
  EXPECT_EQ(texts("a = 1\rb = 2"), "1[a = 1]2[b = 2\n]");
  EXPECT_EQ(texts("a = 1 : b = 2"), "1[a = 1 : b = 2\n]");
}

TEST(Lexer, ErrorsOfTwoTextsNameTheirFiles) {
  Compiler compiler;
  psParser* parser = compNew(compiler.domain(), nullptr);
  EXPECT_TRUE(compInto(parser, "sub a()\nend sub", "one.plm").empty());
  const psCompileErrors errors = compInto(parser, "\n\rsub b(\nend sub", "two.plm");
  ASSERT_EQ(compiled::describe(errors), "2(2)");
  EXPECT_EQ(errors[0].file, "two.plm");
  compFree(parser);
}

}  // namespace
