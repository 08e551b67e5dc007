// The interpreter's two forms beside each other, and what other threads ask of it.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "clwrappers.h"
#include "containers.h"
#include "hooks.h"
#include "publicapis.h"
#include "run.h"
#include "run_debugger.h"
#include "run_decode.h"

namespace {

namespace fs = std::filesystem;

const fs::path kScripts = SCRIPT_CASES;

enum class Form { kFused, kPlain, kStepped, kLineByLine };

struct Outcome {
  bool ended_well = false;
  psStatus status = kPsOkay;
  std::string out;
  std::string err;

  bool operator==(const Outcome&) const = default;
};

void PrintTo(const Outcome& outcome, std::ostream* os) {
  *os << "status " << int{outcome.status} << (outcome.ended_well ? ", well\n" : "\n") << outcome.out
      << "--- errors:\n"
      << outcome.err;
}

// A runtime with one process. Scripts find the files beside them, and a folder of their own as
// tmp:, by the names that they use in the tool.
class VmTest : public testing::Test {
 protected:
  void SetUp() override {
    s_test = this;
    char name[] = "/tmp/vm_test.XXXXXX";
    ASSERT_NE(::mkdtemp(name), nullptr);
    m_tmp = name;
    psHostHooks hooks;
    hooks.mapFilename = [](psText script_name, std::string* native) {
      std::string path(script_name);
      fs::path folder = s_test->m_folder;
      if (const size_t colon = path.find(':'); colon != std::string::npos) {
        if (path.starts_with("tmp:/")) {
          folder = s_test->m_tmp;
        } else if (!path.starts_with("sd:/")) {
          return false;
        }
        path.erase(0, colon + 2);
      }
      *native = (folder / path).lexically_normal();
      return true;
    };
    hooks.openFile = [](const std::string& native, int flags, unsigned mode) {
      return ::open(native.c_str(), flags | O_CLOEXEC, mode);
    };
    psInstallHooks(hooks);
    pscSetPrintHook([](void*, psText text) { s_test->m_outcome.err += text; }, nullptr);
    scriptInit({});
    m_process = scriptCreateProcess();
    m_io.putc = [](psIo*, unsigned char ch) { s_test->Print(static_cast<char>(ch)); };
  }

  void TearDown() override {
    psSetFusion(true);
    scriptDestroyProcess(m_process);
    scriptUninit();
    pscSetPrintHook(nullptr, nullptr);
    psInstallHooks({});
    fs::remove_all(m_tmp);
    s_test = nullptr;
  }

  bool Compile(const std::string& text) { return scriptCompileText(m_process, text, "test.plm"); }

  // Runs Main, with an array of texts when it takes a parameter.
  Outcome RunMain(const std::vector<std::string>& words = {}) {
    m_outcome = {};
    psFunction* main = m_process->mod->main_function;
    if (main == nullptr || main->parameters() == 0) {
      m_outcome.ended_well = scriptRun(m_process, &m_io, m_session);
    } else {
      pscInstance* array = pscCreateArray(scriptDomain(), 0, true);
      for (const std::string& word : words) {
        psTypedValue text = psObjectValue(psNewString(scriptDomain(), word));
        psArrayPush(pscData<psArray>(array), text);
      }
      psTypedValue argument = psObjectValue(array);
      psTypedValue result;
      m_outcome.ended_well =
          scriptRunFunction(m_process, &m_io, m_session, main, &argument, 1, &result);
      ReleaseValue(&result);
      pscSubRef(array);
    }
    m_outcome.status = m_process->last_status;
    if (!m_outcome.ended_well) m_outcome.err += scriptGetRuntimeErrorText(m_process);
    return m_outcome;
  }

  void Print(char ch) {
    m_outcome.out += ch;
    if (m_printed) m_printed();
    m_has_printed = true;
    m_has_printed.notify_all();
  }

  // Runs the compiled Main while another thread does something, once the script has printed.
  Outcome RunWhile(const std::function<void()>& other) {
    m_has_printed = false;
    std::thread thread([&] {
      m_has_printed.wait(false);
      other();
    });
    const Outcome outcome = RunMain();
    thread.join();
    return outcome;
  }

  static VmTest* s_test;
  fs::path m_folder = kScripts;
  fs::path m_tmp;
  psIo m_io;
  psProc* m_process = nullptr;
  psDebugSession* m_session = nullptr;
  Outcome m_outcome;
  std::function<void()> m_printed;
  std::atomic<bool> m_has_printed{false};
};

VmTest* VmTest::s_test = nullptr;

// --- The forms --------------------------------------------------------------------------------

// The script cases that "run" alone: those of other commands, and those that read a console, are
// for the tool.
std::vector<fs::path> Scripts() {
  std::vector<fs::path> scripts;
  for (const fs::directory_entry& area : fs::directory_iterator(kScripts)) {
    if (!area.is_directory()) continue;
    for (const fs::directory_entry& file : fs::directory_iterator(area)) {
      fs::path path = file.path();
      if (path.extension() != ".plm") continue;
      if (fs::exists(fs::path(path).replace_extension(".cmd"))) continue;
      if (fs::exists(fs::path(path).replace_extension(".in"))) continue;
      scripts.push_back(std::move(path));
    }
  }
  std::sort(scripts.begin(), scripts.end());
  return scripts;
}

// Steps from line to line; after many lines it runs on, or a long loop would take its time.
psStatus StepOn(psProc* p) {
  constexpr int kMostSteps = 2000;
  static int steps;
  psDebugSession* session = p->debug_session;
  if (session->selected == nullptr) steps = 0;
  session->selected = p->ctx;
  if (p->last_status != kPsBreak || p->turns_left == 0) return p->last_status;
  if (++steps <= kMostSteps) return DebugExecuteLine(p, "s");
  p->break_word &= ~kPsBreakStep;
  return kPsOkay;
}

class EitherForm : public VmTest, public testing::WithParamInterface<fs::path> {
 protected:
  Outcome RunAs(Form form) {
    for (const fs::directory_entry& left : fs::directory_iterator(m_tmp)) fs::remove_all(left);
    m_folder = GetParam().parent_path();
    psSetFusion(form != Form::kPlain);
    if (!scriptCompileFile(m_process, GetParam(), GetParam().filename())) return {};
    std::vector<std::string> words;
    std::ifstream arguments(fs::path(GetParam()).replace_extension(".args"));
    for (std::string line; std::getline(arguments, line);) words.push_back(line);

    const std::unique_ptr<psDebugSession, void (*)(psDebugSession*)> session(
        DebugCreateSession(nullptr, &m_io), DebugDeleteSession);
    if (form == Form::kStepped) {
      session->step_hook = [](psProc*, uint32_t) { return false; };
      session->shell = nullptr;
      m_session = session.get();
      m_process->break_word |= kPsBreakStep;
    }
    if (form == Form::kLineByLine) {
      session->shell = StepOn;
      m_session = session.get();
      m_process->break_word |= kPsBreak;
    }
    // A class that only the whole system has may leave a script waiting for what never comes.
    psSetTurnLimit(m_process, 20'000'000);
    const Outcome outcome = RunMain(words);
    m_process->break_word = 0;
    m_session = nullptr;
    return outcome;
  }
};

TEST_P(EitherForm, PrintsAndEndsAlike) {
  const Outcome fused = RunAs(Form::kFused);
  EXPECT_EQ(fused, RunAs(Form::kPlain));
  EXPECT_EQ(fused, RunAs(Form::kStepped));
  EXPECT_EQ(fused, RunAs(Form::kLineByLine));
}

INSTANTIATE_TEST_SUITE_P(Scripts, EitherForm, testing::ValuesIn(Scripts()), [](const auto& info) {
  std::string name =
      info.param.parent_path().filename().string() + '_' + info.param.stem().string();
  for (char& ch : name) {
    if (std::isalnum(static_cast<unsigned char>(ch)) == 0) ch = '_';
  }
  return name;
});

// The rest of a line that a break or an error has stopped in the middle of may run in another form
// than its beginning.
TEST_F(VmTest, GoesOnAlikeWhereverItStopped) {
  const std::string text =
      "sub main()\n"
      "d# = 1.5 : none = 0 : o = {} : a = [0, 0] : s = \"s\" + \"\"\n"
      "for i = 1 to 2\n"
      "o[stri(i)] = d# * 2.5\na[val(\"1\")] = d# + i\ns = s + stri(i) + str(d# * i)\n"
      "x = i / none\nprint o; a; s; x; d#\ny = d# / none\nprint y\n"
      "next\nend sub\n";
  const std::unique_ptr<psDebugSession, void (*)(psDebugSession*)> session(
      DebugCreateSession(nullptr, &m_io), DebugDeleteSession);
  session->shell = [](psProc* p) -> psStatus {
    p->break_word &= ~kPsBreakStep;
    if (p->last_status != kPsBreak || p->turns_left != 0) return kPsOkay;
    psSetTurnLimit(p, 100'000);
    p->break_word |= kPsBreakStep;
    return kPsOkay;
  };
  session->step_hook = nullptr;
  m_session = session.get();
  psSetFusion(false);
  ASSERT_TRUE(Compile(text));
  const Outcome plain = RunMain();
  EXPECT_TRUE(plain.ended_well);
  psSetFusion(true);
  for (uint64_t turns = 0; turns < 40; turns++) {
    ASSERT_TRUE(Compile(text));
    psSetTurnLimit(m_process, turns);
    EXPECT_EQ(plain, RunMain()) << turns;
    m_process->break_word = 0;
  }
  m_session = nullptr;
}

// --- Breaks -----------------------------------------------------------------------------------

struct Endless {
  const char* name;
  const char* text;
};

void PrintTo(const Endless& endless, std::ostream* os) { *os << endless.name; }

// Every way to go on for ever. Each prints once before it does.
constexpr Endless kEndless[] = {
    {"While", "print 1\nwhile true\nend while"},
    {"WhileWithBody", "print 1\ni = 0\nwhile i >= 0\ni = i + 1\nif i > 5 then i = 0\nend while"},
    {"Goto", "print 1\nagain:\ngoto again"},
    {"GotoOnCondition", "print 1\nx = 1\nagain:\nx = -x\nif x <> 0 goto again"},
    {"For", "print 1\nfor i = 1 to 1 step 0\nnext"},
    {"ForFloat", "print 1\nfor x = 0.5 to 1e38 step 1e-30\nnext"},
    {"ForEach", "print 1\na = [1]\nfor each x in a\na.push(x)\na.shift()\nnext"},
    {"Calls",
     "print 1\nwhile f(1) = 1\nend while\nend sub\nfunction f(x)\nreturn x\nend function\n"
     "sub after()"},
    {"Methods",
     "print 1\no = {n: 0, f: function() : m.n = 1 : end function}\nwhile true\no.f()\n"
     "end while"},
    {"NativeCalls", "print 1\na = [0]\nwhile a.count() = 1\na[0] = len(\"x\") + a[0]\nend while"},
    {"Recursion",
     "print 1\nf(1)\nend sub\nsub f(n)\nif n < 150 then f(n + 1)\nif n < 150 then "
     "f(n + 1)"},
    {"GarbageCollector",
     "print 1\nwhile true\no = {}\no.o = o\nr = RunGarbageCollector()\nend while"},
};

class Breaking : public VmTest, public testing::WithParamInterface<std::tuple<Endless, bool>> {
 protected:
  void SetUp() override {
    VmTest::SetUp();
    psSetFusion(std::get<1>(GetParam()));
    const std::string text = std::get<0>(GetParam()).text;
    ASSERT_TRUE(Compile("sub main()\n" + text + "\nend sub\n"));
  }
};

TEST_P(Breaking, StopsWhatIsEndless) {
  for (int time = 0; time < 2; time++) {
    const Outcome outcome = RunWhile([&] { scriptBreak(m_process, kPsBreak); });
    EXPECT_FALSE(outcome.ended_well);
    EXPECT_EQ(outcome.status, kPsBreak);
    EXPECT_EQ(outcome.err.find("BREAK (runtime error &hf8) in test.plm("), 0u) << outcome.err;
  }
}

TEST_P(Breaking, EndsWhatIsEndless) {
  const Outcome outcome = RunWhile([&] { scriptRequestEnd(m_process); });
  EXPECT_TRUE(outcome.ended_well);
  EXPECT_EQ(outcome.err, "");
}

TEST_P(Breaking, TurnLimitStopsWhatIsEndless) {
  psSetTurnLimit(m_process, 5000);
  const Outcome outcome = RunMain();
  EXPECT_FALSE(outcome.ended_well);
  EXPECT_EQ(outcome.status, kPsBreak);
}

INSTANTIATE_TEST_SUITE_P(Vm, Breaking,
                         testing::Combine(testing::ValuesIn(kEndless), testing::Bool()),
                         [](const auto& info) {
                           return std::string(std::get<0>(info.param).name) +
                                  (std::get<1>(info.param) ? "" : "Plain");
                         });

TEST_F(VmTest, TurnLimitLetsShorterRunsEnd) {
  ASSERT_TRUE(Compile("sub main()\nfor i = 1 to 1000\nnext\nprint i\nend sub\n"));
  psSetTurnLimit(m_process, 5000);
  EXPECT_TRUE(RunMain().ended_well);
  EXPECT_EQ(m_outcome.out, " 1001\n");
  // What is left of the turns stays for the next run.
  for (int time = 0; time < 5; time++) RunMain();
  EXPECT_EQ(m_outcome.status, kPsBreak);
}

TEST_F(VmTest, TurnLimitEndsALoopOfEndlessTexts) {
  ASSERT_TRUE(
      Compile("sub main()\nwhile true\n"
              "r = eval(\"while true : end while\")\n"
              "end while\nend sub\n"));
  psSetTurnLimit(m_process, 5000);
  RunMain();
  EXPECT_EQ(m_outcome.status, kPsBreak);
}

TEST_F(VmTest, InstructionCounterMovesInALoopThatCallsNothing) {
  ASSERT_TRUE(Compile("sub main()\nfor i = 1 to 10000\nnext\nend sub\n"));
  const uint32_t before = psInstructionCounter;
  EXPECT_TRUE(RunMain().ended_well);
  EXPECT_GE(psInstructionCounter - before, 9000u);
}

TEST_F(VmTest, BreakInEvaluatedTextEndsThatTextOnly) {
  ASSERT_TRUE(
      Compile("sub main()\n"
              "r = eval(\"print 0 : while true : end while\")\n"
              "print r\nend sub\n"));
  const Outcome outcome = RunWhile([&] { scriptBreak(m_process, kPsBreak); });
  EXPECT_TRUE(outcome.ended_well);
  EXPECT_EQ(outcome.out, " 0\n 248\n");
  EXPECT_EQ(outcome.err, "Eval runtime error: BREAK (&hf8) at line 1\n");
}

TEST_F(VmTest, RequestToEndGoesThroughEvaluatedText) {
  ASSERT_TRUE(
      Compile("sub main()\n"
              "r = eval(\"print 0 : while true : end while\")\n"
              "print r\nend sub\n"));
  const Outcome outcome = RunWhile([&] { scriptRequestEnd(m_process); });
  EXPECT_TRUE(outcome.ended_well);
  EXPECT_EQ(outcome.out, " 0\n");
}

TEST_F(VmTest, ListingStopsAtABreak) {
  ASSERT_TRUE(
      Compile("sub main()\na = []\nfor i = 1 to 1000\na.push(i)\nnext\nprint a\nend sub\n"));
  m_printed = [&] { scriptBreak(m_process, kPsBreak); };
  const Outcome outcome = RunMain();
  EXPECT_EQ(outcome.status, kPsBreak);
  EXPECT_LT(outcome.out.size(), 20u);
}

TEST_F(VmTest, BreakInAnEnumerationThatWaitsIsNoMessage) {
  ASSERT_TRUE(
      Compile("sub main()\nport = CreateObject(\"koMessagePort\")\nprint 0\n"
              "for each message in port\nprint message\nnext\nend sub\n"));
  const Outcome outcome = RunWhile([&] { scriptBreak(m_process, kPsBreak); });
  EXPECT_EQ(outcome.status, kPsBreak);
  EXPECT_EQ(outcome.out, " 0\n");
}

// --- Programs that run programs ---------------------------------------------------------------

class NestedRun : public VmTest {
 protected:
  void SetUp() override {
    VmTest::SetUp();
    Write("inner.plm", "sub main()\nprint \"inner\"\nwhile true\nend while\nend sub\n");
    Write(
        "outer.plm",
        "function main()\nr = run(\"tmp:/inner.plm\")\nprint \"outer\"; GetLastRunRuntimeError()\n"
        "return 5\nend function\n");
    ASSERT_TRUE(
        Compile("sub main()\nr = run(\"tmp:/outer.plm\")\n"
                "print r; GetLastRunRuntimeError()\nend sub\n"));
  }

  void Write(const char* name, const char* text) { std::ofstream(m_tmp / name) << text; }

  // Once all of the first word is out, the innermost program is running.
  Outcome RunUntilInner(const std::function<void()>& other) {
    std::atomic<bool> inner{false};
    m_printed = [&] {
      if (m_outcome.out != "inner\n") return;
      inner = true;
      inner.notify_all();
    };
    return RunWhile([&] {
      inner.wait(false);
      other();
    });
  }
};

TEST_F(NestedRun, BreakStopsTheInnermostProgramOnly) {
  const Outcome outcome = RunUntilInner([&] { scriptBreak(m_process, kPsBreak); });
  EXPECT_TRUE(outcome.ended_well);
  EXPECT_EQ(outcome.out, "inner\nouter 248\n 5 255\n");
}

TEST_F(NestedRun, RequestToEndEndsThemAll) {
  const Outcome outcome = RunUntilInner([&] { scriptRequestEnd(m_process); });
  EXPECT_TRUE(outcome.ended_well);
  EXPECT_EQ(outcome.out, "inner\n");
}

// --- Calls from native code -------------------------------------------------------------------

TEST_F(VmTest, RunsAFunctionWithArgumentsAndGivesItsResult) {
  ASSERT_TRUE(
      Compile("function f(a, b = a)\nm.n = a\nreturn [a, b, m.n]\nend function\n"
              "function main()\nend function\n"));
  psFunction* f = modFindSub(m_process->mod, "F");
  pscInstance* object = psNewAssociativeArray(scriptDomain());
  psTypedValue arguments[] = {psObjectValue(object), psIntegerValue(5)};
  for (const int n : {1, 2}) {
    psTypedValue result;
    ASSERT_TRUE(scriptRunFunction(m_process, &m_io, nullptr, f, arguments, n, &result));
    ASSERT_TRUE(psIs(result, kPsObjectFlag));
    EXPECT_EQ(object->ref_cnt, 4 - n + 1);
    ReleaseValue(&result);
    EXPECT_EQ(object->ref_cnt, 1);
  }
  pscSubRef(object);
}

TEST_F(VmTest, RefusesTooManyAndTooFewArguments) {
  ASSERT_TRUE(Compile("\nfunction f(a, b)\nend function\nfunction main()\nend function\n"));
  psFunction* f = modFindSub(m_process->mod, "f");
  psTypedValue arguments[] = {psIntegerValue(1), psIntegerValue(2), psIntegerValue(3)};
  for (const int n : {1, 3}) {
    EXPECT_FALSE(scriptRunFunction(m_process, &m_io, nullptr, f, arguments, n, nullptr));
    EXPECT_EQ(scriptGetRuntimeErrorText(m_process),
              "Wrong number of function parameters. (runtime error &hf1) in test.plm(2)\n");
  }
  EXPECT_TRUE(scriptRunFunction(m_process, &m_io, nullptr, f, arguments, 2, nullptr));
}

TEST_F(VmTest, RunsAgainAfterAFailure) {
  ASSERT_TRUE(
      Compile("sub main()\nm.n = 1\nprint m.n\nfor each x in [1]\nprint down([x])\nnext\n"
              "end sub\nfunction down(a)\nreturn [down([a])]\nend function\n"));
  const Outcome first = RunMain();
  EXPECT_EQ(first.err, "Stack overflow. (runtime error &hdf) in test.plm(9)\n");
  EXPECT_EQ(first, RunMain());
}

}  // namespace
