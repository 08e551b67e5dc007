// The registry, dispatch, listing and help, on an editor that plays a script of lines.
#include "lib/platform/shell.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/platform/test_support.h"

namespace {

using Line = std::vector<const char*>;

class ScriptedEditor final : public lattix::LineEditor {
 public:
  explicit ScriptedEditor(std::vector<Line> lines) : m_lines(std::move(lines)) {}

  bool ReadLine(std::string*) override { return false; }
  void Run(const LineHandler& handler) override {
    for (Line& words : m_lines) {
      const int count = static_cast<int>(words.size());
      words.push_back(nullptr);
      if (!handler(count, words.data())) return;
    }
    m_out += "<end>";
  }
  void SetPrompt(const std::string&) override {}
  bool GetChar(char*) override { return false; }
  void PutChar(char c) override { m_out += c; }
  void Puts(const char* text) override { m_out += text; }
  void Puts(const std::string& text) override { m_out += text; }
  void Write(const char* data, size_t length) override { m_out.append(data, length); }
  void Flush() override {}

  std::string m_out;

 private:
  std::vector<Line> m_lines;
};

const std::string kLong(300, 'x');

int Say(Shell& shell, int argc, const char** argv) {
  for (int i = 0; i < argc; ++i) shell.Puts(argv[i]);
  return 0;
}
int Leave(Shell& shell, int, const char**) {
  shell.RequestExit();
  return 0;
}
int AddMore(Shell&, int, const char**);

const ShellCommand kTable[] = {
    {"say", Say, "says", Say},
    {"silent", Say, ShellCommand::kHidden, Say},
    {"bare", Leave, nullptr, nullptr},
    {"wide-name", AddMore, kLong.c_str(), nullptr},
};
const ShellCommand kMore[] = {{"more", Say, "added by a command", nullptr},
                              {"say", Leave, "never runs", nullptr}};

int AddMore(Shell&, int, const char**) {
  Shell::AddCommands(kMore, 2);
  return 0;
}

// What the lines print, without the welcome.
std::string Output(std::vector<Line> lines) {
  const auto editor = std::make_shared<ScriptedEditor>(std::move(lines));
  Shell shell(editor);
  Shell::AddCommands(kTable, std::size(kTable));
  shell.Run();
  Shell::RemoveCommands(kMore, std::size(kMore));
  Shell::RemoveCommands(kTable, std::size(kTable));
  Shell::RemoveCommands(kTable, std::size(kTable));  // not there: skipped
  const size_t welcome = editor->m_out.find("<command>.\n\n");
  return editor->m_out.substr(welcome + 12);
}

TEST(Shell, WelcomesWithVersionAndBuildDate) {
  const TemporaryRoot root;
  root.Write("/etc/orvex-version", " 9.1.2 \nrest");
  root.Write("/etc/orvex-build-date", "2025-02-03\n");
  const auto editor = std::make_shared<ScriptedEditor>(std::vector<Line>{});
  Shell(editor).Run();
  EXPECT_EQ(editor->m_out,
            "\n\nWelcome to the Orvex Shell version 9.1.2 (2025-02-03)\n"
            "Type '?' for help or 'help <command>' for help on <command>.\n\n<end>");
}

TEST(Shell, ListsInTheOrderOfRegistrationWithoutTheHidden) {
  const std::string listing =
      "Valid commands are:\n"
      " ?         - displays this list\n"
      " help      - provides help on a command\n"
      " clear     - clears the terminal window\n"
      " say       - says\n"
      " bare\n" +
      (" wide-name - " + kLong).substr(0, 254) + "\n\n";
  EXPECT_EQ(Output({{"?"}}), listing + "<end>");
  EXPECT_EQ(Output({{"help"}}), listing + "<end>");
}

TEST(Shell, RunsTheFirstCommandOfAName) {
  const struct {
    std::vector<Line> lines;
    const char* output;
  } rows[] = {
      {{{}}, "<end>"},
      {{{"say", "a", "b"}}, "sayab\n<end>"},
      {{{"silent"}}, "silent\n<end>"},
      {{{"Say"}}, "Say: command not found\n\n<end>"},
      {{{"more"}, {"wide-name"}, {"more"}, {"say"}},
       "more: command not found\n\n\nmore\nsay\n<end>"},
      {{{"bare"}, {"say"}}, "\n"},
      {{{"help", "say", "x"}}, "sayx\n<end>"},
      {{{"help", "silent"}}, "silent\n<end>"},
      {{{"help", "bare"}}, "help: No help for bare\n\n<end>"},
      {{{"help", "clear"}}, "help: No help for clear\n\n<end>"},
      {{{"help", "none"}}, "help: 'none': unknown command\n\n<end>"},
      {{{"clear"}}, "\x1b[H\x1b[2J\n<end>"},
      {{{"clear", "all"}}, "usage: clear\n\n<end>"},
  };
  for (const auto& row : rows) EXPECT_EQ(Output(row.lines), row.output);
}

}  // namespace
