// The debugger's sessions and shells from the host's side; what is typed and told is in the script
// cases.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "publicapis.h"
#include "run.h"
#include "run_debugger.h"

namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

class DebuggerTest : public testing::Test {
 protected:
  void SetUp() override {
    s_test = this;
    pscSetPrintHook([](void*, psText text) { s_test->m_log += text; }, nullptr);
    scriptInit({});
    m_process = scriptCreateProcess();
    m_io.putc = [](psIo*, unsigned char ch) { s_test->m_told += static_cast<char>(ch); };
    m_io.read_line = [](psIo*, char* buffer, size_t size, const char*) {
      return s_test->Read(buffer, size);
    };
    m_io.close = [](psIo*) { s_test->m_closed++; };
  }
  void TearDown() override {
    scriptDestroyProcess(m_process);
    scriptUninit();
    pscSetPrintHook(nullptr, nullptr);
    s_test = nullptr;
  }

  // Whether the run ended well.
  bool Debug(const std::string& script, std::vector<std::string> lines,
             const char* kind = nullptr) {
    m_lines = std::move(lines);
    EXPECT_TRUE(scriptCompileText(m_process, script, "test.plm"));
    psDebugSession* session = DebugCreateSession(kind, &m_io);
    session->owns_debug_con = true;
    m_hooks = "";
    session->attach_hook = [](psProc*) { s_test->m_hooks += "attach "; };
    session->delete_hook = [](psDebugSession*) { s_test->m_hooks += "delete "; };
    const bool ended_well = scriptRun(m_process, &m_io, session);
    EXPECT_EQ(m_process->debug_session, nullptr);
    DebugDeleteSession(session);
    EXPECT_EQ(m_hooks, "attach delete ");
    EXPECT_EQ(m_closed, 1);
    return ended_well;
  }

  int Read(char* buffer, size_t size) {
    if (m_reading) m_reading();
    if (m_next == m_lines.size()) return -1;
    const std::string& line = m_lines[m_next++];
    EXPECT_LT(line.size(), size);
    std::memcpy(buffer, line.data(), line.size());
    return static_cast<int>(line.size());
  }

  static DebuggerTest* s_test;
  psIo m_io;
  psProc* m_process = nullptr;
  std::vector<std::string> m_lines;
  size_t m_next = 0;
  std::function<void()> m_reading;
  std::string m_told, m_log, m_hooks;
  int m_closed = 0;
};

DebuggerTest* DebuggerTest::s_test = nullptr;

TEST_F(DebuggerTest, TheDumperReportsTheFirstStopAndEndsTheRun) {
  EXPECT_TRUE(Debug("print \"abc\";\nx = 1 / 0\nprint \"never\"\n", {"c"}, "dumper"));
  EXPECT_EQ(m_told,
            "abc\n"
            "Current Function:\n"
            "001: print \"abc\";\n002: x = 1 / 0\n003: print \"never\"\n"
            "Divide by Zero. (runtime error &h14) in test.plm(2)\n\n"
            "002: x = 1 / 0\n"
            "Backtrace:\n"
            "Function main() As Void\n   file/line: test.plm(2)\n"
            "\nLocal Variables:\n"
            "global   &h0020 kotINTERFACE:ifGlobal\n"
            "m        &h0010 psc:koAssociativeArray, refcnt=2\n"
            "x        &h0000 <uninitialized> val:Uninitialized\n");
}

TEST_F(DebuggerTest, AnEndRequestLeavesTheShellAtOnce) {
  m_reading = [this] {
    if (m_next == 1) scriptRequestEnd(m_process);
  };
  EXPECT_TRUE(Debug("stop\nprint 6 * 7\n", {"? 1", "? 6 * 7", "c"}));
  EXPECT_EQ(m_log, "Sticky break!\n");
  EXPECT_THAT(m_told, EndsWith("\n 1\n"));
}

TEST_F(DebuggerTest, ABreakIsToldWithItsLineAndStaysOutOfStatements) {
  m_process->break_word = kPsBreak;
  // The one that led here is over; one that comes with a line is meant for what the line runs.
  int reads = 0;
  m_reading = [&] {
    if (++reads == 2) scriptBreak(m_process, kPsBreak);
  };
  EXPECT_TRUE(Debug("x = 1\nprint x\n", {"for i = 1 to 3 : ? i; : end for : ?", "? 42;", "c"}));
  EXPECT_THAT(m_told, HasSubstr("Break in 1\n001: x = 1\nBacktrace:\n"));
  EXPECT_THAT(m_told, HasSubstr(" 1 2 3\n"));
  EXPECT_THAT(m_told, HasSubstr("BREAK (runtime error &hf8) in $LIVECOMPILE("));
  EXPECT_THAT(m_told, Not(HasSubstr(" 42")));
}

TEST_F(DebuggerTest, RecordsAndInstancesAreListedWithTheirAddresses) {
  EXPECT_TRUE(Debug("a = box(7)\nb = box(\"some text that is longer than thirty-two\")\nstop",
                    {"bsc", "ld", "counts"}));
  EXPECT_THAT(m_told,
              AllOf(ContainsRegex("\n               koInt refcnt= 1 addr=0x[0-9a-f]+ \\[7\\]\n"),
                    ContainsRegex("\n            koString refcnt= 1 addr=0x[0-9a-f]+ "
                                  "\\[some text that is longer than th\\]\n"),
                    ContainsRegex("\n001: 000, 0[0-9]+, 0x[0-9a-f]+, a = box\\(7\\)\n"),
                    EndsWith("koGlobal: 1\nkoAssociativeArray: 1\nkoInt: 1\nkoString: 1\n")));
}

// A function that is running may gain any number of variables and statements from its debugger.
TEST_F(DebuggerTest, StatementsNeverUseUpTheRoomOfAFunction) {
  std::vector<std::string> lines(2000, "if x = 1 then x = 1 else x = 2");
  for (int i = 0; i < 400; i++) lines.push_back("v" + std::to_string(i) + " = x");
  lines.push_back("? \"still\"; x");
  lines.insert(lines.begin(), "up");
  EXPECT_TRUE(
      Debug("sub main()\nx = 1\ncaller(x)\nprint \"end\"; x\nend sub\n"
            "sub caller(n)\n stop\nend sub\n",
            lines));
  EXPECT_THAT(m_told, HasSubstr("Variable table size exceeded. (compile error &hb0)"));
  EXPECT_THAT(m_told, HasSubstr("still 1\n"));
}

}  // namespace
