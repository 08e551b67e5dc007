// The command line tool as its users see it: streams, exit statuses, signals, a terminal.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/apps/program_run.h"

namespace {

namespace fs = std::filesystem;
using std::chrono::steady_clock;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class Tool : public ProgramRun {
 public:
  explicit Tool(const std::vector<std::string>& arguments, const fs::path& folder,
                bool terminal = false, const std::vector<std::string>& environment = {})
      : ProgramRun(PLUMSCRIPT_PROGRAM, arguments, folder, terminal, environment) {}
};

class PlumscriptTest : public testing::Test {
 protected:
  PlumscriptTest() {
    ::signal(SIGPIPE, SIG_IGN);  // a tool that ended early must not take the tests along
    std::string folder = testing::TempDir() + "plumscript-XXXXXX";
    m_folder = ::mkdtemp(folder.data());
    fs::create_directory(m_folder / "temporary");
  }
  ~PlumscriptTest() override {
    // Whatever happened, no private root stays behind.
    EXPECT_TRUE(fs::is_empty(m_folder / "temporary"));
    fs::remove_all(m_folder);
  }

  std::string Script(const std::string& text, const std::string& name = "a.plm") {
    std::ofstream(m_folder / name, std::ios::binary) << text;
    return name;
  }
  Tool Start(const std::vector<std::string>& arguments, bool terminal = false) {
    return Tool(arguments, m_folder, terminal, {"TMPDIR=" + (m_folder / "temporary").string()});
  }
  struct Outcome {
    int status;
    std::string out, err;
  };
  Outcome Run(const std::vector<std::string>& arguments, const std::string& input = "") {
    Tool tool = Start(arguments);
    if (!input.empty()) tool.Type(input);
    tool.EndInput();
    const int status = tool.Finish();
    return {status, tool.out, tool.err};
  }

  fs::path m_folder;
};

constexpr char kUsageStart[] = "usage: plumscript run [--root DIR] FILE [ARG ...]\n";

// --- The command line -------------------------------------------------------------------------

TEST_F(PlumscriptTest, WrongUsageIs64WithTheUsageOnStandardError) {
  const std::string script = Script("print 1\n");
  for (const std::vector<std::string>& arguments :
       std::initializer_list<std::vector<std::string>>{{},
                                                       {"frobnicate"},
                                                       {"run"},
                                                       {"run", "--root"},
                                                       {"run", "--root", "missing-folder", script},
                                                       {"run", "--verbose", script},
                                                       {"check"},
                                                       {"disasm"},
                                                       {"disasm", script, script},
                                                       {"repl", script},
                                                       {"classes", "koList", "koArray"},
                                                       {"--help", "me"}}) {
    const Outcome outcome = Run(arguments);
    EXPECT_EQ(outcome.status, 64);
    EXPECT_EQ(outcome.out, "");
    EXPECT_THAT(outcome.err, HasSubstr(kUsageStart));
  }
}

TEST_F(PlumscriptTest, HelpAndVersionGoToStandardOutput) {
  const Outcome help = Run({"--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_THAT(help.out, testing::StartsWith(kUsageStart));
  EXPECT_EQ(help.err, "");
  for (const std::vector<std::string>& arguments : std::initializer_list<std::vector<std::string>>{
           {"-h"}, {"run", "--help"}, {"repl", "-h"}, {"check", "--help", "missing.plm"}}) {
    EXPECT_EQ(Run(arguments).out, help.out);
  }
  const Outcome version = Run({"--version"});
  EXPECT_EQ(version.status, 0);
  EXPECT_THAT(version.out, testing::MatchesRegex("plumscript [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

// --- run: statuses and streams ----------------------------------------------------------------

TEST_F(PlumscriptTest, TheExitStatusIsTheScriptResult) {
  struct Row {
    const char* text;
    int status;
    const char* err;
  };
  for (const Row& row : {
           Row{"sub main()\nend sub\n", 0, ""},
           Row{"sub main()\nother()\nend sub\nsub other()\nend\nend sub\n", 0, ""},
           Row{"sub main()\nx = 1 +\nend sub\n", 1,
               "Syntax Error. (compile error &h02) in a.plm(2)\n"},
           Row{"\001", 1, "Error loading file. (compile error &hb9) in a.plm\n"},
           Row{"\xff\xfep\0", 1, "Error: Unicode not supported. (compile error &he1) in a.plm\n"},
           Row{"sub main()\nprint 1/0\nend sub\n", 2,
               "Divide by Zero. (runtime error &h14) in a.plm(2)\n"},
           Row{"sub main()\nstop\nend sub\n", 2, "STOP (runtime error &hf7) in a.plm(2)\n"},
           Row{"sub other()\nend sub\n", 2, "No Main() Found. (runtime error &hac)\n"},
           Row{"sub main(a, b)\nend sub\n", 2,
               "Wrong number of function parameters. (runtime error &hf1)"},
           Row{"sub main()\nRestartScript()\nprint 1\nend sub\n", 4,
               "RestartScript requested by script\n"},
           Row{"sub main()\nRestartApplication()\nend sub\n", 5,
               "RestartApplication requested by script\n"},
           Row{"sub main()\nRebootSystem()\nend sub\n", 6, "Reboot requested by Plumscript\n"},
           Row{"sub main()\nShutdownSystem()\nend sub\n", 7, "Halt requested by script\n"},
       }) {
    const Outcome outcome = Run({"run", Script(row.text)});
    EXPECT_EQ(outcome.status, row.status) << row.text;
    EXPECT_EQ(outcome.out, "") << row.text;
    if (*row.err == '\0') {
      EXPECT_EQ(outcome.err, "") << row.text;
    } else {
      EXPECT_THAT(outcome.err, testing::StartsWith(row.err)) << row.text;
    }
  }
}

TEST_F(PlumscriptTest, WhatIsNoFileIs3) {
  fs::create_directory(m_folder / "folder.plm");
  EXPECT_EQ(Run({"run", "missing.plm"}).status, 3);
  EXPECT_EQ(Run({"run", "missing.plm"}).err,
            "plumscript: missing.plm: No such file or directory\n");
  EXPECT_EQ(Run({"run", "folder.plm"}).status, 3);
  EXPECT_EQ(Run({"run", std::string(5000, 'n')}).status, 3);
  EXPECT_EQ(Run({"check", Script("x=\n"), "missing.plm"}).status, 3);
}

TEST_F(PlumscriptTest, MainGetsTheArguments) {
  const std::string script =
      Script("sub main(a)\nprint a.count()\nfor each x in a\nprint x; type(x)\nnext\nend sub\n");
  EXPECT_EQ(Run({"run", script}).out, " 0\n");
  EXPECT_EQ(Run({"run", script, "one", "--root", ""}).out,
            " 3\nonekoString\n--rootkoString\nkoString\n");
  // A Main without parameters does not see them.
  EXPECT_EQ(Run({"run", Script("print 5\n"), "x"}).status, 0);
}

TEST_F(PlumscriptTest, BufferedOutputComesBeforeErrors) {
  // Both streams in one file show the order.
  const std::string script = Script("sub main()\nprint 1\nRestartScript()\nprint 2\nend sub\n");
  const std::string both = (m_folder / "both").string();
  const std::string command = std::string(PLUMSCRIPT_PROGRAM) + " run " +
                              (m_folder / script).string() + " >" + both + " 2>&1";
  EXPECT_EQ(WEXITSTATUS(std::system(command.c_str())), 4);
  std::string text;
  std::getline(std::ifstream(both), text, '\0');
  EXPECT_EQ(text, " 1\nRestartScript requested by script\n");
}

TEST_F(PlumscriptTest, OutputIsSeenBeforeTheScriptBlocks) {
  for (const char* blocking : {"sleep(60000)", "wait(0, CreateObject(\"koMessagePort\"))"}) {
#ifdef __SANITIZE_THREAD__
    // The thread checker may hold the signal back until after the wait.
    if (std::string_view(blocking).starts_with("wait")) continue;
#endif
    Tool tool = Start({"run", Script("print 1\n" + std::string(blocking) + "\n")});
    EXPECT_TRUE(tool.Expect("1\n"));
    tool.Signal(SIGINT);
    EXPECT_EQ(tool.Finish(), 2);
  }
}

TEST_F(PlumscriptTest, AReaderThatGoesEndsTheRunQuietly) {
  Tool tool = Start({"run", Script("while true\nprint \"0123456789\"\nend while\n")});
  tool.CloseOutput();
  EXPECT_EQ(tool.Finish(), 141);
  EXPECT_EQ(tool.err, "");
}

TEST_F(PlumscriptTest, AFullDiskIsTold) {
  const std::string command = std::string(PLUMSCRIPT_PROGRAM) + " run " +
                              (m_folder / Script("print 1\n")).string() + " >/dev/full 2>" +
                              (m_folder / "err").string();
  EXPECT_EQ(WEXITSTATUS(std::system(command.c_str())), 74);
}

// --- Signals ----------------------------------------------------------------------------------

TEST_F(PlumscriptTest, SigintBreaksALoop) {
  Tool tool = Start({"run", Script("print 1\nsleep(1)\nwhile true\nend while\n")});
  EXPECT_TRUE(tool.Expect("1\n"));
  tool.Signal(SIGINT);
  EXPECT_EQ(tool.Finish(), 2);
  EXPECT_THAT(tool.err, testing::StartsWith("BREAK (runtime error &hf8) in a.plm("));
}

TEST_F(PlumscriptTest, SignalsThatEndTheToolRemoveItsRoot) {
  Tool tool =
      Start({"run", Script("CreateDirectory(\"tmp:/a\")\nCreateDirectory(\"tmp:/a/b\")\n"
                           "WriteAsciiFile(\"tmp:/a/f\", \"x\")\nprint 1\nsleep(60000)\n")});
  EXPECT_TRUE(tool.Expect("1\n"));
  EXPECT_FALSE(fs::is_empty(m_folder / "temporary"));
  tool.Signal(SIGTERM);
  EXPECT_EQ(tool.Finish(), 1000 + SIGTERM);
}

// --- Files ------------------------------------------------------------------------------------

TEST_F(PlumscriptTest, APrivateRootShowsTheScriptsFolder) {
  fs::create_directory(m_folder / "show");
  Script("data", "show/beside.txt");
  Script(
      "print ReadAsciiFile(\"beside.txt\"); ReadAsciiFile(\"SD:/beside.txt\")\n"
      "print WriteAsciiFile(\"tmp:/t\", \"x\"); WriteAsciiFile(\"new.txt\", \"made\")\n"
      "print MapFilenameToNative(\"a/../new.txt\")\nprint GetDefaultDrive()\n"
      "print ReadAsciiFile(\"/../../etc/passwd\"); ReadAsciiFile(\"SD:/\")\n"
      "print ListDir(\"SD:/\").count()\n",
      "show/a.plm");
  const Outcome outcome = Run({"run", "show/a.plm"});
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(outcome.out, "datadata\ntruetrue\n/storage/sd/new.txt\nSD:\n\n 3\n");
  EXPECT_TRUE(fs::exists(m_folder / "show/new.txt"));
  EXPECT_TRUE(fs::exists(m_folder / "show/beside.txt"));
}

TEST_F(PlumscriptTest, TheScriptsFolderIsNeverFormatted) {
  Script("kept", "precious.txt");
  const Outcome outcome = Run({"run", Script("print FormatDrive(\"SD:\", \"exfat\")\n")});
  EXPECT_EQ(outcome.out, "false\n");
  EXPECT_TRUE(fs::exists(m_folder / "precious.txt"));
}

TEST_F(PlumscriptTest, AGivenRootIsKept) {
  fs::create_directories(m_folder / "root/storage/sd");
  const std::string script = Script("print WriteAsciiFile(\"SD:/f\", \"x\")\n");
  EXPECT_EQ(Run({"run", "--root", "root", script}).out, "true\n");
  EXPECT_TRUE(fs::exists(m_folder / "root/storage/sd/f"));
  Tool tool({"run", "--", script}, m_folder, false,
            {"ORVEX_ROOT=" + (m_folder / "missing").string()});
  EXPECT_EQ(tool.Finish(), 0);
  EXPECT_EQ(tool.out, "false\n");
}

TEST_F(PlumscriptTest, LibrariesAreFoundBesideTheScript) {
  Script("function twice(x)\nreturn 2 * x\nend function\n", "library.plm");
  Script("function broken(\n", "broken.plm");
  const std::string script =
      Script("library \"library.plm\"\nsub main()\nprint twice(21)\nend sub\n");
  EXPECT_EQ(Run({"run", script}).out, " 42\n");
  const Outcome broken =
      Run({"check", script, Script("library \"broken.plm\"\nsub main()\nend sub\n", "b.plm")});
  EXPECT_EQ(broken.status, 1);
  EXPECT_THAT(broken.err, HasSubstr("in /storage/sd/broken.plm(1)\n"));
}

// --- repl -------------------------------------------------------------------------------------

TEST_F(PlumscriptTest, PipedStatementsShareOneFrame) {
  const Outcome outcome = Run({"repl"},
                              "x = 20\n"
                              "f = function(a)\nreturn a + 2\nend function\n"
                              "for i = 1 to 2\nprint i;\nend for\n"
                              "print f(x)\n"
                              "print 1/0\n"
                              "y = = 2\n"
                              "print x; type(y)");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, " 1 2 22\n 20<uninitialized>\n");
  EXPECT_THAT(outcome.err, AllOf(HasSubstr("Divide by Zero. (runtime error &h14) in $LIVECOMPILE("),
                                 HasSubstr("Syntax Error. (compile error &h02) in $LIVECOMPILE(")));
}

TEST_F(PlumscriptTest, ReplDefinesSubsAndFunctions) {
  const Outcome outcome = Run({"repl"},
                              "Function Fact(n)\n  if n < 2 then return 1\n"
                              "  return n * Fact(n - 1)\nEnd Function\n"
                              "x = 3\nsub show(n) : print Fact(n); : end sub\n"
                              "show(x) : f = fact\n"
                              // A definition that does not compile leaves the one before.
                              "function fact(n)\nreturn n +\nend function\n"
                              "show(x)\n"
                              "function fact(n)\nreturn -n\nend function\n"
                              "function fact(n) : g = function() : return 100 : end function\n"
                              "return n + g()\nend function\n"
                              "show(x) : print f(x); fact(x); x\n"
                              "sub main()\nend sub\n"
                              "show(x)\n");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, " 6 6 103 103 103 3\n 103");
  EXPECT_THAT(outcome.err, AllOf(HasSubstr("(compile error &h02)"), HasSubstr("&had")));
}

TEST_F(PlumscriptTest, ReplTellsOfABlockThatNeverEnds) {
  const Outcome outcome = Run({"repl"}, "while true\nprint 1\n");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, "");
  EXPECT_THAT(outcome.err, HasSubstr("was not terminated correctly. (compile error &hb5)"));
}

TEST_F(PlumscriptTest, ReplWaitsForTheEndOfALiteral) {
  const Outcome outcome = Run({"repl"},
                              "a = [1, \"]\" ' ]\n{ b: 2\nc: [3]\n}]\n"
                              "print a[1]; a[2].c[0]\n"
                              "x = ]\n"
                              "print 4\n"
                              "y = [\n");
  EXPECT_EQ(outcome.out, "] 3\n 4\n");
  EXPECT_THAT(outcome.err, testing::MatchesRegex("(Syntax Error. [^\n]*\n){2}"));
}

TEST_F(PlumscriptTest, ReplNeverRunsOutOfRoom) {
  // Each loop takes two labels of the 255 that a function has.
  std::string input = "f = function(x)\nreturn 1 / x\nend function\ny = 0\n";
  for (int i = 0; i < 300; ++i) input += "for i = 1 to 2 : y = y + 1 : end for\n";
  const Outcome outcome = Run({"repl"}, input + "print y; f(1)\nprint f(0)\n");
  EXPECT_EQ(outcome.out, " 600 1 \n");
  EXPECT_EQ(outcome.err, "Divide by Zero. (runtime error &h14) in $LIVECOMPILE(2)\n");
}

TEST_F(PlumscriptTest, ReplRefusesEndlessLines) {
  Tool tool = Start({"repl"});
  const std::string part(64 * 1024, 'x');
  for (int i = 0; i < 17; ++i) tool.Type(part);
  tool.Type("\nprint 1\n");
  tool.EndInput();
  EXPECT_EQ(tool.Finish(), 0);
  EXPECT_EQ(tool.out, " 1\n");
  EXPECT_EQ(tool.err, "plumscript: a statement has at most 1048576 bytes\n");
}

TEST_F(PlumscriptTest, ReplEndsWithWhatAStatementRequests) {
  EXPECT_EQ(Run({"repl"}, "RebootSystem()\nprint 1\n").status, 6);
}

TEST_F(PlumscriptTest, ATerminalGetsPromptsAndEditing) {
  Tool tool = Start({"repl"}, true);
  ASSERT_TRUE(tool.Expect("> "));
  tool.Type("print 4x\b2\n");  // a slip of the finger, taken back
  ASSERT_TRUE(tool.Expect("\n 42\r\n> "));
  tool.Type("if true then\n");
  ASSERT_TRUE(tool.Expect("\n... "));
  tool.Type("print 7;\n");
  ASSERT_TRUE(tool.Expect("\n... "));
  tool.Type("end if\n");
  ASSERT_TRUE(tool.Expect("\n 7\r\n> "));       // the prompt starts a line of its own
  tool.Type("nonsense that is never run\003");  // Ctrl-C clears the line
  ASSERT_TRUE(tool.Expect("\n> "));
  tool.Type("while true : end while\n");
  ASSERT_TRUE(tool.Expect("while\r\n"));
  tool.Type("\003");  // and breaks a run
  ASSERT_TRUE(tool.Expect("> "));
  tool.Type("\033[A\033[A\033[A\n");  // the history
  ASSERT_TRUE(tool.Expect("\n 7\r\n> "));
  tool.Type("\004");
  EXPECT_EQ(tool.Finish(), 0);
  EXPECT_THAT(tool.err, AllOf(HasSubstr("BREAK (runtime error &hf8)"), Not(HasSubstr("nonsense"))));
}

// --- debug ------------------------------------------------------------------------------------

TEST_F(PlumscriptTest, DebugKeepsTheScriptsOutputApart) {
  const Outcome outcome =
      Run({"debug", Script("sub main(words)\nprint words[0]\nx = 1 / 0\nend sub\n"), "argument"},
          "? \"told\"\n");
  EXPECT_EQ(outcome.status, 0);  // the end of input ends the run
  EXPECT_EQ(outcome.out, "argument\n");
  EXPECT_THAT(outcome.err, AllOf(HasSubstr("Divide by Zero."), testing::EndsWith("\ntold\n")));
  EXPECT_EQ(Run({"debug", Script("syntax error here")}).status, 1);
  EXPECT_EQ(Run({"debug", Script("stop")}, "RebootSystem()\nc\n").status, 6);
}

TEST_F(PlumscriptTest, InterruptsBreakIntoTheDebugger) {
  constexpr char kPromptText[] = "Plumscript Debugger> ";
  Tool tool = Start(
      {"debug", Script("x = 1\nprint \"up\"\nwhile x = 1\nend while\nprint \"down\"\nstop\n")},
      true);
  ASSERT_TRUE(tool.Expect("up\r\n"));
  // As often as one likes: while the script runs, while a statement does, while a line is typed.
  for (int i = 0; i < 2; i++) {
    tool.Type("\003");
    ASSERT_TRUE(tool.Expect("Break in "));
    ASSERT_TRUE(tool.Expect(kPromptText));
    tool.Type("while true : end while\n");
    ASSERT_TRUE(tool.Expect("while\r\n"));
    tool.Type("\003");
    ASSERT_TRUE(tool.Expect("BREAK (runtime error &hf8) in $LIVECOMPILE("));
    ASSERT_TRUE(tool.Expect(kPromptText));
    tool.Type("nonsense\003");
    ASSERT_TRUE(tool.Expect(kPromptText));
    tool.Type("? 6 * 7;\n");
    ASSERT_TRUE(tool.Expect("\n 42\r\n"));  // the prompt starts a line of its own
    ASSERT_TRUE(tool.Expect(kPromptText));
    tool.Type(i == 0 ? "c\n" : "x = 2\n");
    ASSERT_TRUE(tool.Expect("\r\n"));
  }
  ASSERT_TRUE(tool.Expect(kPromptText));
  tool.Type("c\n");
  ASSERT_TRUE(tool.Expect("\ndown\r\nCurrent Function:\r\n"));
  ASSERT_TRUE(tool.Expect(kPromptText));
  tool.Type("\004");
  EXPECT_EQ(tool.Finish(), 0);
  EXPECT_EQ(tool.err, "");
}

// --- disasm and classes -----------------------------------------------------------------------

TEST_F(PlumscriptTest, DisassemblyFollowsTheSource) {
  const Outcome outcome = Run(
      {"disasm", Script("sub main()\nprint half(9)\nend sub\n"
                        "function half(a as integer) as integer\nreturn a / 2\nend function\n")});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.out,
              AllOf(HasSubstr("Function main() As Void\n"), HasSubstr("002: print half(9)\n"),
                    HasSubstr("pushfun     #half\n"),
                    HasSubstr("Function half(a As Integer) As Integer\n"), HasSubstr("div\n")));
}

TEST_F(PlumscriptTest, ClassesShowTheirMethods) {
  EXPECT_THAT(Run({"classes"}).out, AllOf(HasSubstr("koArray\n"), HasSubstr("koString\n")));
  const Outcome array = Run({"classes", "KOARRAY"});
  EXPECT_EQ(array.status, 0);
  EXPECT_THAT(array.out, testing::StartsWith(
                             "CreateObject(\"koArray\", a As Integer, b As Boolean) As Object\n"
                             "koArray provides:\n Interface "));
  EXPECT_THAT(Run({"classes", "koInt.ifIntOps"}).out,
              "koInt.ifIntOps provides:\n ToStr() As String\n");
  const Outcome missing = Run({"classes", "koNothing"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.err, "koNothing: class not found\n");
}

}  // namespace
