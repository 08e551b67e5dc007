#include <thread>

#include "lib/scripting/Plumscript/Source/psc.h"
#include "lib/scripting/Plumscript/Source/publicapis.h"
#include "lib/scripting/script_interpreter.h"
#include "lib/scripting/script_runtime.h"
#include "tests/host/host_test.h"

namespace {

using Interpreter = ScriptInterpreter;

struct Row {
  const char* name;
  const char* script;  // null: there is no file
  int result;
  std::vector<std::string> errors;
  const char* printed;
  std::vector<const char*> arguments = {};
};

const Row kRows[] = {
    {"Normal", "sub main()\nprint \"hello\"\nend sub\n", 0, {}, "hello\n"},
    {"End", "sub main()\nend\nprint 1\nend sub\n", 0, {}, ""},
    {"LoadError",
     "sub main()\nprint (\nend sub\n",
     1,
     {"Syntax Error. (compile error &h02) in /storage/sd/test.plm(2)"},
     ""},
    {"RuntimeError",
     "sub main()\nx = 0\nprint 1 / x\nend sub\n",
     2,
     {"Divide by Zero. (runtime error &h14) in /storage/sd/test.plm(3)"},
     "Runtime error: Divide by Zero. (runtime error &h14) in /storage/sd/test.plm(3)\n"},
    {"Stop",
     "sub main()\nstop\nend sub\n",
     2,
     {"STOP (runtime error &hf7) in /storage/sd/test.plm(2)"},
     "Runtime error: STOP (runtime error &hf7) in /storage/sd/test.plm(2)\n"},
    {"NoMain", "sub other()\nend sub\n", 2, {"No Sub Main()"}, ""},
    {"NoFile", nullptr, 3, {"File not found"}, ""},
    {"RestartScript", "sub main()\nRestartScript()\nprint 1\nend sub\n", 4, {}, ""},
    {"RestartApplication", "sub main()\nRestartApplication()\nend sub\n", 5, {}, ""},
    {"Reboot", "sub main()\nRebootSystem()\nend sub\n", 6, {}, ""},
    {"Shutdown", "sub main()\nShutdownSystem()\nend sub\n", 7, {}, ""},
    {"NoArguments", "sub main(a)\nprint a.count()\nend sub\n", 0, {}, " 0\n"},
    {"Arguments", "sub main(a)\nprint a[1]\nend sub\n", 0, {}, "two\n", {"one", "two"}},
};

class InterpreterRows : public HostTest, public testing::WithParamInterface<Row> {};

TEST_P(InterpreterRows, GivesResultErrorsAndOutput) {
  const Row& row = GetParam();
  Insert("sd");
  if (row.script != nullptr) Script("sd/test.plm", row.script);
  TestConsole console;
  ScriptInterpreterOptions options;
  options.console = console.io();
  const auto interpreter = CreateScriptInterpreter(options);
  EXPECT_EQ(interpreter->Run("SD:/test.plm", "", int(row.arguments.size()), row.arguments.data(),
                             nullptr),
            row.result);
  EXPECT_EQ(interpreter->GetErrors(), row.errors);
  EXPECT_EQ(console.text(), row.printed);
}

INSTANTIATE_TEST_SUITE_P(Rows, InterpreterRows, testing::ValuesIn(kRows),
                         [](const auto& info) { return info.param.name; });

class InterpreterTest : public HostTest {
 protected:
  InterpreterTest() {
    Insert("sd");
    options.console = console.io();
  }

  TestConsole console;
  ScriptInterpreterOptions options;
};

TEST_F(InterpreterTest, TellsWhatItLoadsAndCannotLoad) {
  Script("sd/a.plm", "sub main()\nprint (\nend sub\nsub b()\nprint (\nend sub\n");
  std::filesystem::create_directory(root.path() + "/storage/sd/folder.plm");
  const auto interpreter = CreateScriptInterpreter(options);
  testing::internal::CaptureStderr();
  EXPECT_EQ(interpreter->Run("sd:/a.plm", "", 0, nullptr, nullptr), Interpreter::kLoadError);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Loading 'sd:/a.plm' (9615bbc96247b8d8c0ce6269bdda0a33f535aa3f)\n");
  interpreter->PrintErrors();
  EXPECT_EQ(console.text(),
            "Errors during load:\n"
            "  Syntax Error. (compile error &h02) in /storage/sd/a.plm(2)\n"
            "  Syntax Error. (compile error &h02) in /storage/sd/a.plm(5)\n");
  EXPECT_EQ(interpreter->Run("SD:/folder.plm", "", 0, nullptr, nullptr), Interpreter::kFileError);
  EXPECT_EQ(interpreter->GetErrors(), std::vector<std::string>{"File not found"});
  for (const std::string& name : {std::string("USB1:/a.plm"), "SD:/" + std::string(600, 'a')}) {
    EXPECT_EQ(interpreter->Run(name, "", 0, nullptr, nullptr), Interpreter::kFileError);
    EXPECT_EQ(interpreter->GetErrors(), std::vector<std::string>{"Failed to map filename"});
  }
  interpreter->PrintErrors();
  EXPECT_TRUE(console.text().ends_with("Error: Failed to map filename\n"));
}

TEST_F(InterpreterTest, AnInterruptBreaksAndAStopEndsForGood) {
  Script("sd/a.plm", "sub main()\nprint \"on\"\nwhile true\nend while\nend sub\n");
  Script("sd/b.plm", "sub main()\nprint \"waiting\"\nsleep(100000)\nend sub\n");
  const auto interpreter = CreateScriptInterpreter(options);
  std::thread breaks([&] {
    EXPECT_TRUE(console.AwaitText("on\n"));
    interpreter->AsyncInterrupt(Interpreter::InterruptDisposition::kBreak);
  });
  EXPECT_EQ(interpreter->Run("SD:/a.plm", "", 0, nullptr, nullptr), Interpreter::kRuntimeError);
  breaks.join();
  EXPECT_EQ(interpreter->GetErrors(),
            std::vector<std::string>{"BREAK (runtime error &hf8) in /storage/sd/a.plm(3)"});
  std::thread stops([&] {
    EXPECT_TRUE(console.AwaitText("waiting\n"));
    interpreter->Stop();
    interpreter->AsyncInterrupt(Interpreter::InterruptDisposition::kBreak);
  });
  EXPECT_EQ(interpreter->Run("SD:/b.plm", "", 0, nullptr, nullptr), Interpreter::kNormal);
  stops.join();
  EXPECT_EQ(interpreter->Run("SD:/a.plm", "", 0, nullptr, nullptr), Interpreter::kNormal);
}

TEST_F(InterpreterTest, TheDebuggerMayContinueOrEndTheRun) {
  Script("sd/a.plm", "sub main()\nx = 1\nstop\nprint \"x is\"; x\nstop\nprint 2\nend sub\n");
  TestConsole debugged({"x = 7", "cont", "exit"});
  options.console = debugged.io();
  options.debug = true;
  const auto interpreter = CreateScriptInterpreter(options);
  EXPECT_EQ(interpreter->Run("SD:/a.plm", "", 0, nullptr, nullptr), Interpreter::kNormal);
  EXPECT_TRUE(interpreter->WasOfferedDebugger());
  EXPECT_NE(debugged.text().find("x is 7\n"), std::string::npos) << debugged.text();
  EXPECT_EQ(debugged.text().find("\n 2\n"), std::string::npos) << debugged.text();
}

TEST_F(InterpreterTest, AnOperatorMayChooseToDebugInTime) {
  Script("sd/a.plm", "sub main()\nstop\nprint \"went on\"\nend sub\n");
  options.interruptible = true;
  TestConsole debugged({"cont"});
  options.console = debugged.io();
  auto interpreter = CreateScriptInterpreter(options);
  std::thread chooses([&] {
    EXPECT_TRUE(debugged.AwaitText("Press Ctrl-C to debug\n"));
    interpreter->AsyncInterrupt(Interpreter::InterruptDisposition::kBreak);
  });
  EXPECT_EQ(interpreter->Run("SD:/a.plm", "", 0, nullptr, nullptr), Interpreter::kNormal);
  chooses.join();
  EXPECT_TRUE(debugged.text().ends_with("went on\n")) << debugged.text();

  options.debug_choice = std::chrono::milliseconds(1);
  interpreter.reset();
  interpreter = CreateScriptInterpreter(options);
  EXPECT_EQ(interpreter->Run("SD:/a.plm", "", 0, nullptr, nullptr), Interpreter::kRuntimeError);
}

size_t OpenDescriptors() {
  size_t n = 0;
  for ([[maybe_unused]] const auto& fd : std::filesystem::directory_iterator("/proc/self/fd")) ++n;
  return n;
}

TEST_F(InterpreterTest, RunsLeaveNothingBehind) {
  Script("sd/a.plm",
         "sub main()\na = {}\nb = {a: a}\na.b = b\nm.a = a\n"
         "p = CreateObject(\"koMessagePort\")\np.PostMessage(a)\nsleep(1)\nx = 1 / 0\nend sub\n");
  const ScriptRuntime runtime;
  const auto run = [&] {
    const auto interpreter = CreateScriptInterpreter(options);
    EXPECT_EQ(interpreter->Run("SD:/a.plm", "", 0, nullptr, nullptr), Interpreter::kRuntimeError);
  };
  const auto instances = [] {
    int n = 0;
    pscEnumerateInstances(
        scriptDomain(), [](pscInstance*, void* count) { ++*static_cast<int*>(count); }, &n);
    return n;
  };
  run();
  const int before = instances();
  const size_t descriptors = OpenDescriptors();
  for (int i = 0; i < 100; ++i) run();
  EXPECT_EQ(instances(), before);
  EXPECT_EQ(OpenDescriptors(), descriptors);
}

}  // namespace
