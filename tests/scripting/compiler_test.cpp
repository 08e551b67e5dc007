// What the compiler makes of every expression, statement and function header, and what it refuses.
#include <random>

#include "compiled.h"
#include "run.h"

namespace {

using compiled::Compiler;
using compiled::instructions;
using compiled::lineMap;
using compiled::numbered;
using compiled::Program;
using compiled::repeated;

struct Row {
  std::string text;
  std::string expected;
};
void PrintTo(const Row& row, std::ostream* os) { *os << row.text.substr(0, 80); }

// --- Expressions ------------------------------------------------------------------------------

const std::string kNewArray = "\"koArray\"; 10; true; createobject_exp(3)";
std::string pushed(const std::string& element) {
  return "; dup; dot push; args 1; " + element + "; call 1; drop";
}
// "{}" stands for the instruction that makes an associative array.
std::string withNewAA(std::string text) {
  const std::string made =
      "createobject " + std::to_string(pscFindClassByName("koAssociativeArray")->index);
  for (size_t at; (at = text.find("{}")) != std::string::npos;) text.replace(at, 2, made);
  return text;
}

class CompiledExpression : public testing::TestWithParam<Row> {};

TEST_P(CompiledExpression, Becomes) {
  Compiler compiler;
  EXPECT_EQ(compiler.compile("x = " + GetParam().text).code(),
            withNewAA(GetParam().expected) + "; -> x; end");
}

INSTANTIATE_TEST_SUITE_P(
    Precedence, CompiledExpression,
    testing::Values(Row{"1 + 2 * 3", "1; 2; 3; mul; add"}, Row{"1 * 2 + 3", "1; 2; mul; 3; add"},
                    Row{"(1 + 2) * 3", "1; 2; add; 3; mul"}, Row{"1 - 2 - 3", "1; 2; sub; 3; sub"},
                    Row{"w - x + y - z", "w; x; sub; y; add; z; sub"},
                    Row{"a * b / c mod d", "a; b; mul; c; div; d; mod"},
                    Row{"2 ^ 3 ^ 2", "2; 3; 2; exp; exp"}, Row{"-2 ^ 2", "2; 2; exp; neg"},
                    Row{"2 ^ -1", "2; 1; neg; exp"}, Row{"a * -b", "a; b; neg; mul"},
                    Row{"a - - b", "a; b; neg; sub"}, Row{"- - a", "a; neg; neg"},
                    Row{"+a + +b", "a; b; add"}, Row{"a < b = c", "a; b; lt; c; eq"},
                    Row{"a + b <= c * d", "a; b; add; c; d; mul; le"}, Row{"a >= b", "a; b; ge"},
                    Row{"a <> b", "a; b; ne"}, Row{"a > b", "a; b; gt"}, Row{"a < b", "a; b; lt"},
                    Row{"a = b", "a; b; eq"}, Row{"not a = b", "a; b; eq; not"},
                    Row{"not not a", "a; not; not"}, Row{"a + not b = c", "a; b; c; eq; not; add"},
                    Row{"-not a", "a; not; neg"}));

// A pretest's distance leads to the end of its whole chain; the second number is the byte behind.
INSTANTIATE_TEST_SUITE_P(
    Chains, CompiledExpression,
    testing::Values(Row{"a and b", "a; and_pretest +5 169; b; and"},
                    Row{"a AND b and 1",
                        "a; and_pretest +10 169; b; and; and_pretest +4 134; 1; and"},
                    Row{"a or b or c", "a; or_pretest +11 169; b; or; or_pretest +5 169; c; or"},
                    Row{"a or b and c", "a; or_pretest +11 169; b; and_pretest +5 169; c; and; or"},
                    Row{"a and b or c", "a; and_pretest +5 169; b; and; or_pretest +5 169; c; or"},
                    Row{"not a and b", "a; not; and_pretest +5 169; b; and"},
                    Row{"a = b and c < d", "a; b; eq; and_pretest +9 169; c; d; lt; and"},
                    Row{"a and not b or -c",
                        "a; and_pretest +6 169; b; not; and; or_pretest +6 169; c; neg; or"}));

INSTANTIATE_TEST_SUITE_P(
    Accessors, CompiledExpression,
    testing::Values(
        Row{"a.b.If", "a; dot b; dot if"}, Row{"a[1, b][2]", "a; 1; b; array 2; 2; array 1"},
        Row{"a . b [ 1 ] . c ( 2 )", "a; dot b; 1; array 1; dot c; args 1; 2; call 1"},
        Row{"a@b", "a; attr b"}, Row{"a.c @ For", "a; dot c; attr for"},
        Row{"a@b + c@d", "a; attr b; c; attr d; add"}, Row{"f()", "f; args 0; call 0"},
        Row{"f(1, g(a))", "f; args 2; 1; g; args 1; a; call 1; call 2"},
        Row{"f(1)(2).m", "f; args 1; 1; call 1; args 1; 2; call 1; dot m"},
        Row{"(a)[0]", "a; 0; array 1"}, Row{"\"t\".len()", "\"t\"; dot len; args 0; call 0"},
        Row{"-a.b", "a; dot b; neg"}, Row{"a.b ^ c[0]", "a; dot b; c; 0; array 1; exp"}));

INSTANTIATE_TEST_SUITE_P(
    Literals, CompiledExpression,
    testing::Values(Row{"true", "true"}, Row{"FALSE", "false"}, Row{"Invalid", "invalid"},
                    Row{"[]", kNewArray}, Row{"[\n\n]", kNewArray},
                    Row{"[1, a]", kNewArray + pushed("1") + pushed("a")},
                    Row{"[1, 2\n3 : 4 ' five\nrem six\n]",
                        kNewArray + pushed("1") + pushed("2") + pushed("3") + pushed("4")},
                    Row{"[\n1,\n2,\n]", kNewArray + pushed("1") + pushed("2")},
                    Row{"[[0]]", kNewArray + pushed(kNewArray + pushed("0"))}, Row{"{ }", "{}"},
                    Row{"{\n' nothing\n}", "{}"},
                    Row{"{ a: 1, B: b }", "{}; dup; 1; swap; dotset a; dup; b; swap; dotset b"},
                    Row{"{\n  if: 1\n  Rem: 2\n x$: 3\n}",
                        "{}; dup; 1; swap; dotset if; dup; 3; swap; dotset x$"},
                    Row{"{ a: { b: [] }, }",
                        "{}; dup; {}; dup; " + kNewArray + "; swap; dotset b; swap; dotset a"},
                    Row{"{ a: 1 }.a", "{}; dup; 1; swap; dotset a; dot a"},
                    Row{"function() : end function", "&$anon"},
                    Row{"[function(a)\nreturn a\nendfunction, 1]",
                        kNewArray + pushed("&$anon") + pushed("1")}));

INSTANTIATE_TEST_SUITE_P(
    Calls, CompiledExpression,
    testing::Values(
        Row{"LEN(\"a\")", "\"a\"; len(1)"},
        Row{"mid(a, 1) + mid(a, 1, 2)", "a; 1; mid(2); a; 1; 2; mid(3); add"},
        Row{"UpTime(0)", "0; UpTime(1)"},
        Row{"RunGarbageCollector().count", "RunGarbageCollector(0); dot count"},
        // A count that no global function takes makes it a call of the script's own function.
        Row{"len()", "len; args 0; call 0"},
        Row{"len(a, f(b))", "len; args 2; a; f; args 1; b; call 1; call 2"}, Row{"len", "len"},
        Row{"len[0]", "len; 0; array 1"}, Row{"a.len(b)", "a; dot len; args 1; b; call 1"},
        Row{"CreateObject(\"koAssociativeArray\")", "{}"},
        Row{"createobject( \"KOASSOCIATIVEARRAY\" ).a", "{}; dot a"},
        Row{"CreateObject(\"nope\")", "createobject 0"},
        Row{"CreateObject(\"\")", "createobject 0"},
        Row{"CreateObject(\"koArray\", 5, true)", "\"koArray\"; 5; true; createobject_exp(3)"},
        Row{"CreateObject(\"ko\" + a)", "\"ko\"; a; add; createobject_exp(1)"},
        Row{"CreateObject(a)", "a; createobject_exp(1)"}, Row{"TYPE(a)", "a; type(1)"},
        Row{"type(a, 3)", "a; 3; type(2)"}, Row{"pos(0)", "0; pos(1)"},
        Row{"GetGlobalAA().a", "get_global_AA(0); dot a"}, Row{"eval(a)", "a; eval(1)"},
        Row{"Box(1)", "1; box(1)"}, Row{"ObjFun(a, b, c)", "a; b; c; objfun(3)"},
        Row{"run(a, 1)", "a; 1; run(2)"}, Row{"GetLastRunRuntimeError()", "run_rterr(0)"},
        Row{"GetLastRunCompileError()", "run_clerr(0)"}));

TEST(CompiledExpression, NamesOfFunctionsMeanTheFunctionWhereverItIsDefined) {
  Compiler compiler;
  const Program program = compiler.compile(
      "sub main()\nf(g)\nf = 1\nf.x = f\nend sub\n"
      "sub f(a)\nend sub\nfunction G()\nend function\n");
  EXPECT_EQ(program.code(),
            "&f; args 1; &g; call 1; drop; "
            // An assignment's target is always a variable.
            "1; -> f; &f; f; dotset x; invalid; return");
}

// Variables that are assigned have their slots first; those that are only read follow when the text
// has ended, in the order of reading.
TEST(CompiledExpression, VariablesAreNumberedInOrder) {
  Compiler compiler;
  const Program program = compiler.compile(
      "sub main(p)\nprint r1 + r2\na = r3\nb.c = r1\nfor i = 0 to r4\nnext\n"
      "print len(r5, r6)\nend sub");
  ASSERT_EQ(program.errors(), "");
  std::string names;
  for (const psVariable& variable : program.main()->variables) names += variable.name + ' ';
  EXPECT_EQ(names, "p global m a b i r1 r2 r3 r4 len r5 r6 ");
}

// --- Statements -------------------------------------------------------------------------------

class CompiledStatement : public testing::TestWithParam<Row> {};

TEST_P(CompiledStatement, Becomes) {
  Compiler compiler;
  const std::string& expected = GetParam().expected;
  EXPECT_EQ(compiler.compile(GetParam().text).code(),
            expected + (expected.empty() ? "end" : "; end"));
}

INSTANTIATE_TEST_SUITE_P(
    Assignments, CompiledStatement,
    testing::Values(Row{"", ""}, Row{"x = y", "y; -> x"}, Row{"x% = y", "y; as Integer; -> x%"},
                    Row{"x! = y", "y; as Float; -> x!"}, Row{"x# = y", "y; as koDouble; -> x#"},
                    Row{"x$ = y", "y; as koString; -> x$"}, Row{"m = y", "y; as Component; -> m"},
                    Row{"global = y", "y; as Interface; -> global"},
                    Row{"x = y = z", "y; z; eq; -> x"}, Row{"a.b = 1", "1; a; dotset b"},
                    Row{"a.b.c = d.e", "d; dot e; a; dot b; dotset c"},
                    Row{"a[1, i] = 3", "3; a; 1; i; array_set 2"},
                    Row{"a[b[0]].c[d] = f(e)",
                        "f; args 1; e; call 1; a; b; 0; array 1; array 1; dot c; d; array_set 1"},
                    Row{"f(1)[2] = 3", "3; f; args 1; 1; call 1; 2; array_set 1"},
                    Row{"f(1).x = 3", "3; f; args 1; 1; call 1; dotset x"},
                    Row{"a.f(1).x = 3", "3; a; dot f; args 1; 1; call 1; dotset x"},
                    Row{"GetGlobalAA().x = 1", "1; get_global_AA(0); dotset x"},
                    Row{"CreateObject(a).x = 1", "1; a; createobject_exp(1); dotset x"},
                    Row{"len(a, 1).x = 1", "1; len; args 2; a; 1; call 2; dotset x"},
                    // The built-in functions' names that are not reserved can be assigned.
                    Row{"run = 1", "1; -> run"}));

INSTANTIATE_TEST_SUITE_P(
    Calls, CompiledStatement,
    testing::Values(Row{"f()", "f; args 0; call 0; drop"},
                    Row{"f(1)(2)", "f; args 1; 1; call 1; args 1; 2; call 1; drop"},
                    Row{"f().g()", "f; args 0; call 0; dot g; args 0; call 0; drop"},
                    Row{"a.b.c(1)", "a; dot b; dot c; args 1; 1; call 1; drop"},
                    Row{"a[1]()", "a; 1; array 1; args 0; call 0; drop"},
                    Row{"sleep(1)", "1; sleep(1); drop"},
                    Row{"sleep()", "sleep; args 0; call 0; drop"},
                    Row{"eval(a) : run(a)", "a; eval(1); drop; a; run(1); drop"},
                    Row{"CreateObject(a).b()",
                        "a; createobject_exp(1); dot b; args 0; call 0; drop"},
                    Row{"objfun(a, b, c)", "a; b; c; objfun(3); drop"}));

INSTANTIATE_TEST_SUITE_P(
    Print, CompiledStatement,
    testing::Values(Row{"print", "print 0 NE"}, Row{"?", "print 0 NE"},
                    Row{"? 1", "1; print 1 PNE"}, Row{"print a; b;", "a; b; print 2 PPE"},
                    Row{"print a b", "a; b; print 2 PPNE"},
                    Row{"print a, b,", "a; b; print 2 P,P,E"}, Row{"print ;", "print 0 E"},
                    Row{"print ,", "print 0 ,E"}, Row{"print a;,b", "a; b; print 2 P,PNE"},
                    Row{"print tab(5); a tab(i)", "5; a; i; print 3 TPTNE"},
                    Row{"print a; tab(5);", "a; 5; print 2 PTE"}, Row{"print #1", "1; print 1 #NE"},
                    Row{"print #a, b;", "a; b; print 2 #PE"},
                    Row{"print @5, a", "5; a; print 2 @PNE"},
                    Row{"print #1, @2, 3", "1; 2; 3; print 3 #@PNE"},
                    Row{"print #1, @2", "1; 2; print 2 #@NE"}));

INSTANTIATE_TEST_SUITE_P(
    Jumps, CompiledStatement,
    testing::Values(Row{"10 goto 10", "jump J0@0"},
                    Row{"goto done\nx = 1\nDONE:", "jump J0@7; 1; -> x"},
                    Row{"20 x = 1\n30 y = 1\ngoto 30", "1; -> x; 1; -> y; jump J0@5"},
                    Row{"a:\nb:\ngoto b\ngoto a\ngoto b", "jump J1@0; jump J0@0; jump J1@0"},
                    Row{"stop : end", "stop; end"}, Row{"return", "invalid; return"},
                    Row{"dim a[5], b[2, i]", "5; dim a 1; 2; i; dim b 2"}));

INSTANTIATE_TEST_SUITE_P(
    Ifs, CompiledStatement,
    testing::Values(Row{"if a then x = 1", "a; iffalse +6; 1; -> x"},
                    Row{"if a x = 1", "a; iffalse +6; 1; -> x"},
                    Row{"if a then x = 1 else y = 2", "a; iffalse +8; 1; -> x; jmpfwd +6; 2; -> y"},
                    Row{"if a then x = 1 : y = 2 : else stop : end",
                        "a; iffalse +13; 1; -> x; 2; -> y; jmpfwd +3; stop; end"},
                    Row{"if a then there\nthere:", "a; iffalse +3; jump J0@7"},
                    Row{"if a 10 else 20\n10 stop\n20 stop",
                        "a; iffalse +5; jump J0@11; jmpfwd +3; jump J1@12; stop; stop"},
                    Row{"if a then 10 : stop\n10", "a; iffalse +3; jump J0@8; stop"},
                    Row{"if a then if b then stop else end",
                        "a; iffalse +10; b; iffalse +4; stop; jmpfwd +2; end"},
                    Row{"if a then stop else if b then end else stop",
                        "a; iffalse +4; stop; jmpfwd +10; b; iffalse +4; end; jmpfwd +2; stop"},
                    Row{"if a then\nend if", "a; iffalse +1"},
                    Row{"if a ' note\nstop\nendif", "a; iffalse +2; stop"},
                    Row{"if a then : stop : end if", "a; iffalse +2; stop"},
                    Row{"if a then\nstop\nelse end : end if",
                        "a; iffalse +4; stop; jmpfwd +2; end"},
                    Row{"if a then\nstop\nelse if b\nend\nelseif c then\nelse\nreturn\nend if",
                        "a; iffalse +4; stop; jmpfwd +18; b; iffalse +4; end; jmpfwd +10; c; "
                        "iffalse +3; jmpfwd +3; invalid; return"}));

// The labels of a FOR are its exit and its body, those of a WHILE its top and its exit.
INSTANTIATE_TEST_SUITE_P(
    Loops, CompiledStatement,
    testing::Values(
        Row{"for i = 1 to n\nprint i\nnext",
            "1; -> i; n; 1; for i, J0@24; i; print 1 PNE; next i, J1@13; drop; drop"},
        Row{"for i% = 1 to 2 step -1 : end for",
            "1; as Integer; -> i%; 2; 1; neg; for i%, J0@18; next i%, J1@15; drop; drop"},
        Row{"for i = 0 to 1\nfor j = 0 to 1\nexit for\nnext j\nnext I",
            "0; -> i; 1; 1; for i, J0@34; 0; -> j; 1; 1; for j, J2@29; jump J2@29; next j, J3@24; "
            "drop; drop; next i, J1@12; drop; drop"},
        Row{"for each e in c\nexit for\nnext e",
            "c; foreach e, J0@11; jump J0@11; nexteach e, J1@6; drop; drop"},
        Row{"for each e in [] : endfor e",
            kNewArray + "; foreach e, J0@13; nexteach e, J1@10; drop; drop"},
        Row{"while a\nend while", "a; iffalse J1@7; jump J0@0"},
        Row{"while a : exit while : exitwhile : endwhile",
            "a; iffalse J1@11; jump J1@11; jump J1@11; jump J0@0"},
        // Leaving the outer WHILE leaves what the FOR keeps on the stack.
        Row{"while a\nfor i = 0 to 1\nexit while\nnext\nend while",
            "a; iffalse J1@26; 0; -> i; 1; 1; for i, J2@22; jump J1@26; next i, J3@17; drop; drop; "
            "jump J0@0"},
        Row{"for i = 0 to 1\nwhile a\nexit for\nend while\nnext",
            "0; -> i; 1; 1; for i, J0@24; a; iffalse J3@21; jump J0@24; jump J2@12; next i, J1@12; "
            "drop; drop"}));

// --- Functions --------------------------------------------------------------------------------

std::string header(const psFunction* function) {
  std::string text;
  for (const uint32_t type : function->proto) text += std::to_string(type) + ' ';
  text += '|';
  for (const uint16_t entry : function->callvarinits) text += ' ' + std::to_string(entry);
  text += " | ";
  for (const psVariable& variable : function->variables) {
    text += variable.name + '=' + std::to_string(variable.type) + ' ';
  }
  return text;
}

struct FunctionRow {
  std::string text;
  std::string header;
  std::string code;
};
void PrintTo(const FunctionRow& row, std::ostream* os) { *os << row.text; }

class CompiledFunction : public testing::TestWithParam<FunctionRow> {};

TEST_P(CompiledFunction, Becomes) {
  Compiler compiler;
  const Program program = compiler.compile(GetParam().text);
  ASSERT_EQ(program.errors(), "");
  EXPECT_EQ(header(program.function("f")), GetParam().header);
  EXPECT_EQ(program.code("f"), GetParam().code);
  EXPECT_EQ(program.main(), nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    Headers, CompiledFunction,
    testing::Values(
        FunctionRow{"sub f()\nend sub", "12 | 0 | global=5 m=4 ", "invalid; return"},
        FunctionRow{"FUNCTION F ( ) : ENDFUNCTION", "13 | 0 | global=5 m=4 ", "invalid; return"},
        FunctionRow{"sub f() as integer\nreturn 1\nend sub", "1 | 0 | global=5 m=4 ",
                    "1; as Integer; return; 0; as Integer; return"},
        FunctionRow{"function f() as void\nreturn\nend function", "12 | 0 | global=5 m=4 ",
                    "invalid; return; invalid; return"},
        FunctionRow{"function f()\nreturn a\nend function", "13 | 0 | global=5 m=4 a=13 ",
                    "a; return; invalid; return"},
        FunctionRow{"function f(a, b$, c as Object) as Double\nend function",
                    "13 14 4 15 | 65535 65535 65535 0 | a=13 b$=14 c=4 global=5 m=4 ",
                    "b$ as koString; c as Component; 0; as koDouble; return"},
        FunctionRow{"function f(a as float, b = 2, c% = b as integer)\nend function",
                    "2 13 1 13 | 65535 0 5 13 | a=2 b=13 c%=1 global=5 m=4 ",
                    "2; -> b; b; as Integer; -> c%; a as Float; c% as Integer; invalid; return"},
        // A default may read anything; what it registers is registered again behind the rest.
        FunctionRow{"sub f(a = b + g())\nb = 1\nend sub\nsub g()\nend sub",
                    "13 12 | 0 14 | a=13 global=5 m=4 b=13 ",
                    "b; &g; args 0; call 0; add; -> a; 1; -> b; invalid; return"},
        FunctionRow{"sub f(a as integer, b as single, c as double, d as boolean, e as string, f as "
                    "object, g as function, h as dynamic)\nend sub",
                    "1 2 15 3 14 4 6 13 12 | 65535 65535 65535 65535 65535 65535 65535 65535 0 | "
                    "a=1 b=2 c=15 d=3 e=14 f=4 g=6 h=13 global=5 m=4 ",
                    "a as Integer; b as Float; c as koDouble; d as Boolean; e as koString; f as "
                    "Component; g as Function; invalid; return"},
        // A parameter keeps its declared type when it is assigned.
        FunctionRow{"sub f(a as string)\na = 1\nend sub", "14 12 | 65535 0 | a=14 global=5 m=4 ",
                    "a as koString; 1; as koString; -> a; invalid; return"},
        FunctionRow{"sub f(m)\nm = 1\nend sub", "13 12 | 65535 0 | m=13 global=5 m=4 ",
                    "1; -> m; invalid; return"}));

TEST(CompiledFunction, AnonymousOnesBelongToTheFunctionAround) {
  Compiler compiler;
  const Program program = compiler.compile(
      "function outer(a)\n"
      "  while a\n"
      "    f = function(b% = 1) as integer\n"
      "      for i = 0 to b%\n"
      "        g = function() : return a : end function\n"
      "      end for\n"
      "    end function : exit while\n"
      "  end while\n"
      "end function\n");
  ASSERT_EQ(program.errors(), "");
  ASSERT_EQ(program.module()->functions.size(), 3u);
  const psFunction* outer = program.module()->functions[0];
  const psFunction* middle = program.module()->functions[1];
  const psFunction* inner = program.module()->functions[2];
  EXPECT_EQ(middle->parent, outer);
  EXPECT_EQ(inner->parent, middle);
  EXPECT_EQ(outer->parent, nullptr);
  // Numbered in the order of their words, so the inner one is one more.
  ASSERT_EQ(middle->name.substr(0, 6), "$anon_");
  EXPECT_LT(std::stoul(middle->name.substr(6), nullptr, 16),
            std::stoul(inner->name.substr(6), nullptr, 16));
  EXPECT_EQ(instructions(outer),
            "a; iffalse J1@15; &$anon; -> f; jump J1@15; jump J0@0; invalid; return");
  EXPECT_EQ(header(inner), "13 | 0 | global=5 m=4 a=13 ");
  EXPECT_EQ(instructions(inner), "a; return; invalid; return");
}

TEST(CompiledFunction, MainIsFoundInAnyCase) {
  Compiler compiler;
  const Program program = compiler.compile("sub a()\nend sub\nSUB MAIN()\nEND SUB");
  EXPECT_EQ(program.module()->main_function, program.module()->functions[1]);
  EXPECT_EQ(compiler.compile("sub a()\nend sub").module()->main_function, nullptr);
  const Program statements = compiler.compile("' nothing\n\n");
  EXPECT_EQ(statements.module()->main_function, statements.main());
  EXPECT_EQ(header(statements.main()), "12 | 0 | global=5 m=4 ");
}

// --- Errors -----------------------------------------------------------------------------------

class CompileErrors : public testing::TestWithParam<Row> {};

TEST_P(CompileErrors, HaveTheirCodesAndLines) {
  Compiler compiler;
  EXPECT_EQ(compiler.compile(GetParam().text).errors(), GetParam().expected);
}

// Each of these is a syntax error of its one line.
constexpr const char* kSyntaxErrors[] = {
    // Statements that are none.
    "x", "x.y", "x[1]", "1 = 2", "let x = 5", "print = 1", "x.y(1) = 2", "pos", "pos.x = 1", "else",
    "end if", "endif", "next", "end while", "endfor", "end function", "end sub", "elseif x", "to",
    "each", "exit", "exit if", "exit sub", "sub", "= 1", ")", "x y", "x() y", "x()()y",
    "print print", "dim", "dim x", "dim x[]", "dim x[1],", "dim x[1", "goto", "goto if", "goto x y",
    "x = 1 y = 2", "end x", "stop x", "library", "library x", "library = 1", "' \nx",
    // Expressions that stop short.
    "x =", "x = 1 +", "x = 1 *", "x = 2 ^", "x = -", "x = not", "x = a and", "x = a or", "x = a <",
    "x = a < > b", "x = a = ", "x = (", "x = (1", "x = ()", "x = f(", "x = f(1", "x = f(1,",
    "x = f(1,)", "x = f(,1)", "x = f(1 2)", "x = a[", "x = a[1", "x = a[1,]", "x = a[]", "x = a.",
    "x = a@", "x = a@b.c", "x = a@b@", "x = [", "x = [1", "x = [,]", "x = [1 2]", "x = {", "x = {a",
    "x = {a 1}", "x = {a:}", "x = {a: 1", "x = {a: 1 b: 2}", "x = {\"a\": 1}", "x = {,}",
    "x = {1: 2}", "x = sub() : end sub", "x = function", "x = function(", "x = function() x",
    // Built-in functions are no values.
    "x = type", "x = pos", "x = run + 1", "x = createobject", "type = 1", "x = objfun", "box",
    "x = createobject(\"a\"", "x = createobject(\"a\",)", "x = type(1,)",
    // Blocks' heads.
    "if", "if then", "if x else y = 1", "if x then y = 1 z", "if x then else y = 1",
    "if x then y = 1 else", "if x then for i = 1 to 2", "if x then rem", "if x then stop : x",
    "if x then stop : rem", "if x then stop else stop else stop", "while", "while then", "for",
    "for i", "for i 1 to 2", "for i = 1", "for i = to 2", "for i = 1 to", "for i.x = 1 to 2",
    "for i = 1 to 2 step", "for i = 1 to 2 x", "for 1 = 1 to 2", "for each", "for each e",
    "for each e c", "for each e in", "for each e in c d", "for each e.x in c", "while x y",
    "print tab", "print tab 5", "print tab(5", "print tab()", "print #", "print @", "print #1; 2",
    "print 1 : 2", "print x = ", "return )",
    // A named label stands alone, and at the start of its line.
    "a: b = 1", "x = 1 : a:", "a b:"};

class CompileSyntaxErrors : public testing::TestWithParam<const char*> {};

TEST_P(CompileSyntaxErrors, AreOnesOfTheirLine) {
  Compiler compiler;
  const std::string text = GetParam();
  const int line = text[0] == '\'' ? 2 : 1;
  EXPECT_EQ(compiler.compile(text).errors(), "2(" + std::to_string(line) + ")");
  // In a function, whose end is found all the same.
  if (text.starts_with("library") || text.starts_with("end sub")) return;
  EXPECT_EQ(compiler.compile("sub main()\n" + text + "\nend sub\nsub b()\nend sub").errors(),
            "2(" + std::to_string(line + 1) + ")");
}

INSTANTIATE_TEST_SUITE_P(All, CompileSyntaxErrors, testing::ValuesIn(kSyntaxErrors));

INSTANTIATE_TEST_SUITE_P(
    Headers, CompileErrors,
    testing::Values(
        Row{"sub f\nend sub", "2(1)"}, Row{"sub f(\nend sub", "2(1)"}, Row{"sub (x)", "2(1)"},
        Row{"sub f(a b)", "2(1)"}, Row{"sub f(a,)", "2(1)"}, Row{"sub f(1)", "2(1)"},
        Row{"sub f(a =)", "2(1)"}, Row{"sub f() x", "2(1)"}, Row{"sub f(a, A)", "2(1)"},
        Row{"\nfunction f(x, y = 2, z)\nend function", "164(2)"},
        Row{"sub f(a as thing)\nend sub", "167(1)"}, Row{"sub f(a as void)\nend sub", "167(1)"},
        Row{"sub f(a as)\nend sub", "167(1)"}, Row{"sub f() as thing\nend sub", "167(1)"},
        Row{"sub f() as\nend sub", "167(1)"}, Row{"sub f() as interface\nend sub", "167(1)"},
        Row{"sub f(a as integers)", "167(1)"}, Row{"sub s(x% as string)\nend sub", "24(1)"},
        Row{"sub s(x$ as dynamic)\nend sub", "24(1)"}, Row{"sub s(x% as integer)\nend sub", ""},
        Row{"sub a()\nend sub\n\nfunction A()\nend function", "173(4)"},
        Row{"sub a()\nend sub\nx = 1\nsub b()\nend sub", "2(3)"},
        Row{"sub a()\nend sub x\nsub b()\nend sub", "2(2)"},
        Row{"x = 1\nsub b()\nend sub", "2(2) 2(3)"}, Row{"sub a()\nend sub\nlibrary \"x\"", "2(3)"},
        // The first error of a header ends the compilation; those before it stay.
        Row{"sub a()\nx\nend sub\nsub b(\nx\nend sub", "2(2) 2(4)"}));

INSTANTIATE_TEST_SUITE_P(
    Statements, CompileErrors,
    testing::Values(
        Row{"goto nowhere", "14(nowhere)"}, Row{"goto x, y", "2(1) 14(x)"},
        Row{"if x then a_very_long_label", "14(a_very_long_lab)"},
        Row{"sub a()\nb:\nend sub\nsub c()\ngoto b\nx\nend sub", "2(6) 14(b)"},
        Row{"f = function()\ngoto out\nend function\nout:", "14(out)"}, Row{"exit for", "165(1)"},
        Row{"while x\nexit for\nend while", "165(2)"},
        Row{"for i = 0 to 1\nf = function()\nexit for\nend function\nnext", "165(3)"},
        Row{"exit while", "175(1)"}, Row{"while x : end while\nexit while", "175(2)"},
        Row{"for i = 0 to 1\nexitwhile\nnext", "175(2)"},
        Row{"for i = 0 to 1\nnext\nexit for", "165(3)"}, Row{"return 1", "170(1)"},
        Row{"sub a()\nreturn 1\nend sub", "170(2)"},
        Row{"function a() as void\nreturn 1\nend function", "170(2)"},
        Row{"function a()\nreturn\nend function", "169(2)"},
        Row{"function a() as object\nif x then return else stop\nend function", "169(2)"},
        Row{"for each e% in c\nnext", "171(1) 2(2)"},
        Row{"sub a(e as object)\nfor each e in c\nnext\nend sub", "171(2) 2(3)"},
        Row{"sub a(e as dynamic)\nfor each e in c\nnext\nend sub", ""},
        Row{"a:\nx = 1\nA:", "180(3)"}, Row{"10 x = 1\n20 x = 2\n10 x =", "180(3)"},
        Row{"for i = 0 to 1\nnext j", "182(2)"}, Row{"for each i in x\nnext j", "182(2)"},
        Row{"for each i in x\nend for j", "182(2)"}, Row{"for i = 0 to 1\nend for i", "2(2)"},
        Row{"for i = 0 to 1\nfor j = 0 to 1\nnext i\nnext j", "182(3) 182(4)"}));

// The line is the first one of the body of the innermost block that the text ends in.
INSTANTIATE_TEST_SUITE_P(
    OpenBlocks, CompileErrors,
    testing::Values(Row{"x = 1\nfor i = 0 to 1\nx = 1\n\n", "181(3)"}, Row{"while x", "181(2)"},
                    Row{"while x\nif y then\nend if\nfor i = 0 to 1\nnext\n", "181(2)"},
                    Row{"for each i in x : y = 1", "181(1)"}, Row{"if x then\ny = 1\n", "181(2)"},
                    Row{"if x then\ny = 1\nelse\ny = 2", "181(3)"},
                    Row{"if x then\nelse if x\ny = 2", "181(3)"},
                    Row{"for i = 0 to 1\nwhile x\nnext", "2(3) 181(3)"},
                    Row{"sub main()\nx = 1\n", "181(2)"},
                    Row{"sub main()\nfor i = 0 to 1\nend sub\nsub b()\nend sub",
                        "2(3) 2(4) 2(5) 181(3)"},
                    Row{"x = function()\ny = 1", "181(2)"},
                    Row{"x = function(a)\nend sub\nfunction b()\nend function", "2(2) 2(3)"}));

INSTANTIATE_TEST_SUITE_P(
    Recovery, CompileErrors,
    testing::Values(
        // Five are recorded and the sixth never; an open block needs a place among the five.
        Row{"x\nx\nx\nx\nx\nx\nx", "2(1) 2(2) 2(3) 2(4) 2(5)"},
        Row{"while x\nx\nx\nx\nx", "2(2) 2(3) 2(4) 2(5) 181(2)"},
        Row{"while x\nx\nx\nx\nx\nx", "2(2) 2(3) 2(4) 2(5) 2(6)"},
        // The rest of a line with an error is skipped.
        Row{"x : y : z\nx = \"a : b\nif x then y z : z", "2(1) 179(2) 2(3)"},
        // A failed assignment is one of the line where it began, whatever lines it had reached;
        // what follows there is compiled anew.
        Row{"x = [\n1\n2 3\n]\ny = 1", "2(1) 2(3) 2(4)"},
        Row{"x.y = {\na: 1\n?\n}", "2(1) 2(2) 2(4)"}, Row{"print [\n1 2", "2(2)"},
        // In an anonymous function compilation goes on inside.
        Row{"x = function()\ny\nz = 1 +\nend function\nw", "2(2) 2(3) 2(5)"},
        Row{"x = [function()\ny\nend function, 1\nfoo 5]", "2(2) 2(1) 2(2) 2(3) 2(4)"},
        // A missing label is found at the function's end; nothing of the next one is skipped.
        Row{"sub a()\ngoto x : end sub\nsub b()\nx = \nend sub", "14(x) 2(4)"},
        Row{"sub a()\ngoto x\nend sub : sub b()\ny = \nend sub", "14(x) 2(4)"},
        Row{"goto a\ngoto b\ngoto c\ngoto d\ngoto e\ngoto f", "14(a) 14(b) 14(c) 14(d) 14(e)"}));

TEST(CompileErrors, MissingLabelsKnowTheirLines) {
  Compiler compiler;
  const Program program = compiler.compile("x = 1\ngoto a\nif x then b else goto a");
  ASSERT_EQ(program.errors(), "14(a) 14(b) 14(a)");
  EXPECT_EQ(program.errorList()[0].line, 2);
  EXPECT_EQ(program.errorList()[2].line, 3);
  EXPECT_EQ(program.errorList()[2].file, "test.plm");
}

// --- Limits -----------------------------------------------------------------------------------

// A text around a number of copies of a piece, in which "~" is the copy's number, and as many of
// its closing half. It compiles, and with one copy more it does not.
struct Limit {
  int most;
  const char* errors;  // of one more
  const char* before;
  const char* piece;
  std::string between = "";
  const char* closing = "";

  std::string text(int n) const {
    return before + numbered(n, piece) + between + repeated(n, closing);
  }
};
void PrintTo(const Limit& limit, std::ostream* os) { *os << limit.before << limit.piece; }

class CompilerLimits : public testing::TestWithParam<Limit> {};

TEST_P(CompilerLimits, HoldExactly) {
  Compiler compiler;
  const Limit& limit = GetParam();
  EXPECT_EQ(compiler.compile(limit.text(limit.most)).errors(), "");
  EXPECT_EQ(compiler.compile(limit.text(limit.most + 1)).errors(), limit.errors);
}

// An operand of 255 bytes: as many NEGs as the row has copies, 61 numbers of two bytes with their
// 60 ADDs, the operator itself and one byte before all of it.
const std::string kSum = "1" + repeated(60, " + 1");

INSTANTIATE_TEST_SUITE_P(Chains, CompilerLimits,
                         testing::Values(Limit{32, "174(1)", "x = a", " and a"},
                                         Limit{32, "174(1)", "x = a", " or a"},
                                         Limit{71, "174(1)", "x = a and ", "-", kSum},
                                         Limit{71, "174(1)", "x = a or ", "-", kSum}));

INSTANTIATE_TEST_SUITE_P(
    Tables, CompilerLimits,
    testing::Values(
        Limit{253, "176(254)", "", "v~ = 0\n"}, Limit{253, "176(256)", "print ", "v~\nprint "},
        Limit{253, "176(254)", "", "v~.x = 0\n"}, Limit{253, "176(254)", "", "v~.x()\n"},
        Limit{253, "176(254)", "", "dim v~[1]\n"},
        Limit{252, "176(254)", "", "v~ = 0\n", "for i = 0 to 1\nnext"},
        Limit{252, "176(254)", "", "v~ = 0\n", "for each i in []\nnext"},
        Limit{252, "176(1)", "sub a(", "p~,", "q)\nend sub"},
        Limit{255, "177(256)", "", "x = ~.5\n"}, Limit{255, "177(256)", "", "x = ~.5#\n"},
        Limit{65535, "177(65536)", "", "x = ~\n"}, Limit{65535, "177(65536)", "", "x = \"~\"\n"},
        Limit{65535, "177(65536)", "", "x = y.n~\n"}, Limit{65535, "177(65536)", "", "y.n~ = 0\n"},
        Limit{65535, "177(1)", "x = {", "n~:0:", "}"}, Limit{65535, "177(65536)", "", "x = y@n~\n"},
        Limit{254, "174(1)", "f(", "0,", "0)"}, Limit{254, "174(1)", "x = a[", "0,", "0]"},
        Limit{254, "174(1)", "dim a[", "0,", "0]"},
        // One more than the pattern holds, because it is looked at behind each item.
        Limit{19, "2(1)", "print a", "; a"}));

// A FOR has two labels, and one that takes the last can have no body label. GOTO's labels are
// numbered behind those of loops, and one byte tells 256 of them apart.
INSTANTIATE_TEST_SUITE_P(Labels, CompilerLimits,
                         testing::Values(Limit{127, "161(256)", "", "for i = 0 to 1\nnext\n"},
                                         Limit{127, "161(128)", "", "for each i in x : next\n"},
                                         Limit{127, "177(128)", "", "while x : end while\n"},
                                         Limit{256, "14(l256)", "", "l~:\ngoto l~\n"}));

// All that nests counts as one level, however many levels of precedence lie between.
INSTANTIATE_TEST_SUITE_P(
    Nesting, CompilerLimits,
    testing::Values(Limit{250, "174(1)", "x = ", "(", "1", ")"},
                    Limit{250, "174(1)", "x = ", "[", "", "]"},
                    Limit{250, "174(1)", "x = ", "{a:", "1", "}"},
                    Limit{250, "174(1)", "x = ", "-", "1"}, Limit{250, "174(1)", "x = ", "+", "1"},
                    Limit{250, "174(1)", "x = ", "not ", "1"}, Limit{250, "174(1)", "x = 1", "^1"},
                    Limit{250, "174(1)", "x = ", "f(", "1", ")"},
                    Limit{250, "174(1)", "x = ", "len(", "1", ")"},
                    // Calls with another count of arguments than the global function's.
                    Limit{250, "174(1)", "x = ", "len(1,", "1", ")"},
                    Limit{250, "174(1)", "x = ", "a[", "1", "]"},
                    Limit{250, "174(1)", "x = ", "function() : return ", "1", " : end function"},
                    Limit{250, "174(251)", "", "if a then\n", "", "end if\n"},
                    Limit{250, "174(1)", "", "if a then ", "stop"}));

TEST(CompilerLimits, JumpsThatAreTooFarGoToLabels) {
  Compiler compiler;
  const std::string body = "if a then " + repeated(49, "x = 1:") + "stop:stop:stop:stop";
  const auto tail = [&](const std::string& text) {
    const std::string code = compiler.compile(text).code();
    return code.substr(0, code.find(';', code.find(';') + 1));
  };
  // 245 bytes of assignments, up to 14 more, and the operand itself.
  EXPECT_EQ(tail(body + repeated(5, ":stop")), "a; iffalse +255");
  EXPECT_EQ(tail(body + repeated(6, ":stop")), "a; iffalse J0@260");
  EXPECT_EQ(tail(body + repeated(3, ":stop") + " else stop"), "a; iffalse +255");
  EXPECT_EQ(tail(body + repeated(4, ":stop") + " else stop"), "a; iffalse J0@260");
  // The jump over a long ELSE part, of a line and of a block.
  const std::string end = "a; iffalse +4; stop; jump J0@264; stop";
  const std::string stops = repeated(255, ":stop");
  EXPECT_EQ(compiler.compile("if a then stop else stop" + stops).code().substr(0, end.size()), end);
  EXPECT_EQ(compiler.compile("if a then\nstop\nelse" + stops + ":stop\nend if")
                .code()
                .substr(0, end.size()),
            end);
}

// 254 labels of loops and one more are all that an instruction can name. A plain IF whose body is
// too long for its jump then jumps nowhere, which scripts never noticed; all others are errors.
TEST(CompilerLimits, JumpsThatFindNoLabelLeft) {
  Compiler compiler;
  const std::string loops = repeated(127, "for i = 0 to 1 : next\n");
  const std::string far = "if a then stop" + repeated(255, ":stop");
  EXPECT_EQ(compiler.compile(loops + far + "\n" + far).errors(), "");
  EXPECT_EQ(compiler.compile(loops + far + "\n" + far + " else stop").errors(), "174(129)");
  EXPECT_EQ(compiler.compile(loops + far + "\nif a then stop else stop" + repeated(255, ":stop"))
                .errors(),
            "174(129)");
  EXPECT_EQ(compiler.compile(loops + far + "\nif a then\n" + repeated(256, ":stop") + "\nend if\nx")
                .errors(),
            "174(131)");
  const std::string chain = "\nif a then\nstop\nelse\n" + repeated(256, ":stop") + "\nend if\nx";
  EXPECT_EQ(compiler.compile(loops + far + chain).errors(), "174(133)");
}

TEST(CompilerLimits, LabelsBehindTheLastAreErrorsEach) {
  Compiler compiler;
  // The search for l257 passes two labels that no operand reaches.
  EXPECT_EQ(compiler.compile(numbered(258, "l~:\ngoto l~\n")).errors(),
            "14(l256) 14(l257) 14(l257)");
  EXPECT_EQ(
      compiler.compile(numbered(257, "l~:\n") + numbered(257, "goto l~\n") + "goto none").errors(),
      "14(l256) 14(none) 14(none)");
}

TEST(CompilerLimits, FunctionsAreNumberedInTwoBytes) {
  Compiler compiler;
  const std::string functions = numbered(65535, "sub s~():end sub\n");
  EXPECT_EQ(compiler.compile(functions + "sub main():s65534():end sub").errors(), "");
  EXPECT_EQ(compiler.compile(functions + "sub last():end sub:sub main():last():end sub").errors(),
            "177(65537)");
}

TEST(CompilerLimits, TheFirstOneEndsTheCompilation) {
  Compiler compiler;
  EXPECT_EQ(compiler.compile("x\ny = a" + repeated(33, " or a") + "\nz").errors(), "2(1) 174(2)");
  EXPECT_EQ(
      compiler.compile("sub a()\ny = a" + repeated(33, " or a") + "\nend sub\nsub b(").errors(),
      "174(2)");
}

// Wide operands: low byte first, but for a function's number.
TEST(CompilerLimits, WideOperandsBeginAt256) {
  Compiler compiler;
  const Program program =
      compiler.compile("sub main()\n" + numbered(257, "x = ~ : x = \"~\" : x = y.n~ : y.n~ = 0\n") +
                       "s255()\nend sub\n" + numbered(257, "sub s~() : end sub\n"));
  ASSERT_EQ(program.errors(), "");
  const std::string text = compiled::hex(program.main()->code);
  const std::string last =
      "87 00 01 aa 02 00 85 00 01 aa 02 00 a9 03 00 b2 00 01 aa 02 00 86 00 a9 03 00 ae 00 01 "
      "8a 01 00 bc 00 8c 00 a7 83 b4";
  const std::string before =
      "86 ff aa 02 00 84 ff aa 02 00 a9 03 00 b1 ff aa 02 00 86 00 a9 03 00 "
      "ad ff ";
  EXPECT_EQ(text.substr(text.size() - last.size() - before.size()), before + last);
}

// --- Line records -----------------------------------------------------------------------------

struct LineRow {
  std::string text;
  std::string code;
  std::string map;
};
void PrintTo(const LineRow& row, std::ostream* os) { *os << row.text; }

class CompilerLines : public testing::TestWithParam<LineRow> {};

TEST_P(CompilerLines, FollowTheCode) {
  Compiler compiler;
  const Program program = compiler.compile(GetParam().text);
  if (!GetParam().code.empty()) {
    EXPECT_EQ(program.code(), withNewAA(GetParam().code) + "; end");
  }
  ASSERT_NE(program.main(), nullptr);
  EXPECT_EQ(lineMap(program.main()), GetParam().map);
}

INSTANTIATE_TEST_SUITE_P(
    Statements, CompilerLines,
    testing::Values(LineRow{"x = 1\n\n' note\ny = 2 : z = 3\nstop\n", "", "0:1 5:4 15:5"},
                    // FOR's own instruction belongs to its line, the one that goes round to NEXT's.
                    LineRow{"for i = 0 to 1\nstop\nnext\nstop", "", "0:1 12:2 13:3 18:4"},
                    LineRow{"for each i in x\nstop\nnext\nstop", "", "0:1 6:2 7:3 12:4"},
                    LineRow{"while x\nstop\nend while\nstop", "", "0:1 5:2 6:3 8:4"},
                    LineRow{"if x then\nstop\nelse if y\nstop\nelse\nstop\nend if\nstop", "",
                            "0:1 5:2 6:3 13:4 14:5 16:6 17:8"},
                    LineRow{"stop\r\nstop\r\nstop", "", "0:1 1:2 2:3"}));

INSTANTIATE_TEST_SUITE_P(
    SeveralLines, CompilerLines,
    testing::Values(
        LineRow{"x = {\n  a: 1\n  b: 2\n}\nstop", "", "0:1 2:2 8:3 14:4 17:5"},
        // What converts belongs to the target's line.
        LineRow{"x$ = {\n  a: 1\n}\nstop", "", "0:1 2:2 8:1 13:4"},
        // The target's code moves behind the value's and keeps its line.
        LineRow{"o.m = {\n  a: 1\n  b: 2\n}\nstop", "", "0:1 2:2 8:3 14:1 19:5"},
        LineRow{"x = 1\no.m = {\n  a: 1\n} : y = 2\nstop", "", "0:1 5:2 7:3 13:2 18:4 23:5"},
        LineRow{"a[{\n  k: 1\n}] = {\n  l: 2\n}\nstop",
                "{}; dup; 2; swap; dotset l; a; {}; dup; 1; swap; dotset k; array_set 1; stop",
                "0:3 2:4 8:1 13:2 19:3 21:6"},
        // The prefix of a call is inserted before its arguments.
        LineRow{"x = len({\n  a: 1\n}, 2)\nstop", "", "0:1 7:2 13:3 20:4"}));

TEST_P(CompilerLines, CoverAllCode) {
  Compiler compiler;
  const Program program = compiler.compile(GetParam().text);
  ASSERT_NE(program.main(), nullptr);
  EXPECT_EQ(lineMap(program.main()).find("none"), std::string::npos);
}

TEST(CompilerLines, OfAnonymousFunctionsAreTheirOwn) {
  Compiler compiler;
  const Program program = compiler.compile(
      "sub main()\n"
      "  o.f = function(a)\n"
      "    x = a\n"
      "    return x\n"
      "  end function : stop\n"
      "  f(function() : stop : end function, 1)\n"
      "end sub\n");
  ASSERT_EQ(program.errors(), "");
  EXPECT_EQ(lineMap(program.module()->functions[0]), "0:5 3:2 8:5 9:6 22:7");
  EXPECT_EQ(lineMap(program.module()->functions[1]), "0:3 6:4 10:5");
  EXPECT_EQ(lineMap(program.module()->functions[2]), "0:6");
  std::string texts;
  for (const psLineData& line : program.module()->lines) {
    if (line.function == program.module()->functions[1]) texts += '[' + line.srccpy + ']';
  }
  EXPECT_EQ(texts, "[function(a)][    x = a][    return x][  end function]");
}

// Random statements over many lines, in which every word tells its line: LINE_NUM as a value, the
// line's number in the names of variables and members. Wherever an instruction has gone, its record
// must be the one of that line.
class Scribbler {
 public:
  explicit Scribbler(unsigned seed) : random_(seed) {}

  std::string program() {
    text_ = repeated(kFirstLine - 1, "\n");
    line_ = kFirstLine;
    for (int i = 0; i < 12; i++) statement(3);
    return text_;
  }
  // Above all constants that the compiler itself uses.
  static constexpr int kFirstLine = 100;

 private:
  // "#" is the line's number, "@" an expression, "%" accessors, "&" statements, "~" perhaps a line
  // end, ";" what separates elements. The first two expressions contain no other.
  static constexpr const char* kExpressions[] = {"line_num",
                                                 "v#",
                                                 "[~@~]",
                                                 "[~@;@;@~]",
                                                 "{~key: @~}",
                                                 "{~key: @;key: @~}",
                                                 "len(@)",
                                                 "mid(@)",
                                                 "v#(@, @)",
                                                 "v#[@].n#",
                                                 "@ + @",
                                                 "@ and @",
                                                 "(@)",
                                                 "function()\n&end function",
                                                 "function() : &end function"};
  static constexpr const char* kStatements[] = {
      "v# = @",  "v#$ = @", "len(line_num)% = @", "len(line_num, line_num)% = @", "v#% = @",
      "v#% = @", "print @"};

  int pick(size_t n) { return static_cast<int>(random_() % n); }
  void newLine() {
    text_ += pick(4) == 0 ? " ' note\n" : "\n";
    line_++;
    if (pick(5) == 0) newLine();
  }
  void statement(int depth) {
    write(kStatements[pick(std::size(kStatements))], depth);
    if (pick(4) == 0) {
      text_ += " : ";
    } else {
      newLine();
    }
  }
  void write(const char* pattern, int depth) {
    for (; *pattern != '\0'; pattern++) {
      switch (*pattern) {
        case '#': text_ += std::to_string(line_); break;
        case '@':
          write(kExpressions[pick(depth > 0 ? std::size(kExpressions) : 2)], depth - 1);
          break;
        case '%':
          for (int i = pick(3); i >= 0; i--) write(pick(2) == 0 ? ".n#" : "[@]", depth - 1);
          break;
        case '&':
          for (int i = pick(2); i >= 0; i--) statement(depth);
          break;
        case ';':
          if (pick(2) == 0) {
            text_ += ", ";
            if (pick(3) != 0) break;
          }
          newLine();
          break;
        case '~':
          if (pick(2) == 0) newLine();
          break;
        case '\n': newLine(); break;
        default: text_ += *pattern;
      }
    }
  }

  std::mt19937 random_;
  std::string text_;
  int line_ = 0;
};

// What an instruction tells about the line it was written on; 0: nothing.
int lineTold(const psFunction* function, uint32_t pc) {
  const auto number = [](const std::string& name) {
    return name.size() > 1 ? std::atoi(name.c_str() + 1) : 0;
  };
  const uint8_t* code = function->code.data() + pc;
  switch (code[0]) {
    case kOpPushInt: {
      const int value = function->module->integers[code[1]];
      return value >= Scribbler::kFirstLine ? value : 0;
    }
    case kOpPushInt2: return function->module->integers[code[1] + 256u * code[2]];
    case kOpPushLocal: return number(GetVarByIndex(function, code[1]).name);
    case kOpPopLocal: {
      const std::string& name = GetVarByIndex(function, code[1]).name;
      return name.back() == '$' ? number(name) : 0;
    }
    case kOpDot:
    case kOpDotSet: return number(GetIdByIndex(function->module, code[1]).text);
    default: return 0;
  }
}

TEST(CompilerLines, StayRightWhateverMoves) {
  Compiler compiler;
  int compiled = 0;
  for (unsigned seed = 1; seed <= 600; seed++) {
    const std::string text = Scribbler(seed).program();
    const Program program = compiler.compile(text);
    // A long text may have more variables or longer chains than a function can hold.
    if (program.module() == nullptr) {
      ASSERT_TRUE(program.errors().starts_with("17")) << program.errors() << "\n" << text;
      continue;
    }
    compiled++;
    for (const psFunction* function : program.module()->functions) {
      const psLineData* before = nullptr;
      for (uint32_t pc = 0; pc < function->code.size();) {
        const psLineData* line =
            DebugPCToLine(program.module(), static_cast<int32_t>(pc), function);
        ASSERT_NE(line, nullptr) << "seed " << seed << " pc " << pc << text;
        // A listing that starts with a line starts with an instruction.
        if (line != before) {
          ASSERT_EQ(line->pc_start, pc) << seed << text;
        }
        before = line;
        const int told = lineTold(function, pc);
        std::string instruction;
        const uint32_t next = Disasm_impl(function, pc, &instruction);
        if (told != 0) {
          ASSERT_EQ(line->line_num, told) << seed << ' ' << pc << instruction << text;
        }
        pc = next;
      }
    }
  }
  EXPECT_GT(compiled, 500);
}

}  // namespace
