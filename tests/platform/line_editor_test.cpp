// The line editor on a real terminal: a child process edits, the test types and reads the screen.
#include "lib/platform/line_editor.h"

#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "lib/platform/console_owner.h"
#include "lib/platform/monotonic_time.h"
#include "tests/platform/test_support.h"

namespace {

using lattix::ConsoleHold;
using lattix::ConsoleLoan;
using lattix::LineEditor;
using lattix::MakeLineEditor;

// Reads what a child writes and waits for texts in it.
class Screen {
 public:
  ~Screen() {
    if (m_fd >= 0) close(m_fd);
    if (m_child > 0) {
      kill(m_child, SIGKILL);
      waitpid(m_child, nullptr, 0);
    }
  }

  // Runs the function in a child on a terminal like the player's console.
  void Start(const std::function<int()>& run, winsize size = {24, 40, 0, 0}) {
    m_child = forkpty(&m_fd, nullptr, nullptr, &size);
    ASSERT_GE(m_child, 0);
    if (m_child == 0) {
      setenv("TERM", "vt100", 1);
      termios mode;
      tcgetattr(0, &mode);
      cfmakeraw(&mode);
      mode.c_oflag |= OPOST | ONLCR;
      mode.c_lflag |= ISIG;
      mode.c_cc[VQUIT] = mode.c_cc[VSUSP] = _POSIX_VDISABLE;
      tcsetattr(0, TCSANOW, &mode);
      std::setvbuf(stdout, nullptr, _IONBF, 0);
      lattix::ConfigureSignals(lattix::kBlockSignals);
      lattix::SignalDispatcher dispatcher;
      _exit(run());
    }
  }
  // The same with pipes instead of the terminal; all of the input and then its end.
  void StartOnPipe(const std::string& input, const std::function<int()>& run) {
    int in[2];
    int out[2];
    ASSERT_EQ(pipe(in), 0);
    ASSERT_EQ(pipe(out), 0);
    m_child = fork();
    if (m_child == 0) {
      dup2(in[0], 0);
      dup2(out[1], 1);
      for (const int fd : {in[0], in[1], out[0], out[1]}) close(fd);
      std::setvbuf(stdout, nullptr, _IONBF, 0);
      _exit(run());
    }
    close(in[0]);
    close(out[1]);
    m_fd = out[0];
    std::jthread writer([&] {
      for (size_t i = 0; i < input.size();) {
        const ssize_t n = write(in[1], input.data() + i, input.size() - i);
        if (n <= 0) break;
        i += static_cast<size_t>(n);
      }
      close(in[1]);
    });
    WaitForEnd();
  }

  void Type(const std::string& keys) {
    ASSERT_EQ(write(m_fd, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
  }
  // Waits until the text has been written after what was waited for before.
  void WaitFor(const std::string& text) {
    if (testing::Test::HasFailure()) return;  // one wait too long is enough
    const int64_t deadline = lattix::monotonic_time_after_ms(30'000);
    size_t at;
    while ((at = m_text.find(text, m_seen)) == std::string::npos) {
      ASSERT_TRUE(ReadSome(deadline)) << "no \"" << text << "\" in:\n" << m_text.substr(m_seen);
    }
    m_seen = at + text.size();
  }
  // The exit status.
  int WaitForEnd() {
    const int64_t deadline = lattix::monotonic_time_after_ms(30'000);
    while (ReadSome(deadline)) {
    }
    if (testing::Test::HasFailure()) kill(m_child, SIGKILL);
    int status = -1;
    waitpid(m_child, &status, 0);
    m_child = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  void HangUp() {
    close(m_fd);
    m_fd = -1;
  }
  const std::string& text() const { return m_text; }
  size_t seen() const { return m_seen; }

 private:
  bool ReadSome(int64_t deadline) {
    if (m_fd < 0) return false;
    pollfd fd = {m_fd, POLLIN, 0};
    const int64_t left = (deadline - lattix::get_monotonic_time()) / 1'000'000;
    if (left <= 0 || poll(&fd, 1, static_cast<int>(left)) <= 0) return false;
    char buffer[4096];
    const ssize_t n = read(m_fd, buffer, sizeof buffer);
    if (n > 0) m_text.append(buffer, static_cast<size_t>(n));
    return n > 0;
  }

  pid_t m_child = -1;
  int m_fd = -1;
  std::string m_text;
  size_t m_seen = 0;
};

// Whether a terminal in this mode is as the tests' console was set up.
bool IsConsoleMode() {
  termios mode;
  tcgetattr(0, &mode);
  return (mode.c_lflag & (ICANON | ECHO | IEXTEN)) == 0 && (mode.c_lflag & ISIG) != 0 &&
         mode.c_cc[VSUSP] == _POSIX_VDISABLE && mode.c_cc[VQUIT] == _POSIX_VDISABLE;
}

void PrintWords(LineEditor& editor, int count, const char** words) {
  std::string line = "<";
  for (int i = 0; i < count; ++i) line += std::string(i > 0 ? "|" : "") + words[i];
  editor.Puts(line + ">\n");
}

// A shell that shows the words of its commands; exit ends it.
int Shell() {
  const auto editor = MakeLineEditor("Orvex> ");
  editor->Run([&](int count, const char** words) {
    PrintWords(*editor, count, words);
    if (isatty(0) && !IsConsoleMode()) editor->Puts("wrong mode\n");
    return count == 0 || std::string(words[0]) != "exit";
  });
  editor->Puts("ended\n");
  return 0;
}

TEST(LineEditor, EditsRecallsAndContinuesCommands) {
  Screen screen;
  screen.Start(Shell);
  screen.WaitFor("Orvex> ");
  screen.Type("dir 'a  b' \"c\"d e\\ f\r");
  screen.WaitFor("<dir|a  b|cd|e f>");
  screen.Type("   \r");
  screen.WaitFor("<>");
  screen.Type("bd\x1b[D\x1b[Dy\x05\x08z\r");  // cursor keys, end of line, backspace
  screen.WaitFor("<ybz>");
  screen.Type(
      "\xC3\xA9t\xC3\xA9 x\x1b"
      "by\r");  // letters whose codes are meta keys; Meta-B
  screen.WaitFor("<\xC3\xA9t\xC3\xA9|yx>");
  screen.Type("one \\\r");
  screen.WaitFor("> ");
  screen.Type("\"two\r");
  screen.WaitFor("> ");
  screen.Type("three\" four\r");
  screen.WaitFor("<one|two\r\nthree|four>");
  screen.WaitFor("Orvex> ");
  screen.Type("\x10\r");  // one entry of the history holds the whole command
  screen.WaitFor("<one|two\r\nthree|four>");
  screen.Type("\x10\x10\x10\x10\r");
  screen.WaitFor("<ybz>");
  // Searching: given up, narrowed too far and ended by a cursor key, and from entry to entry.
  screen.Type(
      "ab\x12"
      "dir 'a\x07"
      "c\r");
  screen.WaitFor("<abc>");
  screen.Type(
      "\x12"
      "yxx\x7f\x1b[Da\r");
  screen.WaitFor("<\xC3\xA9t\xC3\xA9|yax>");
  screen.Type(
      "\x12"
      "y\x12\x12\x13\r");
  screen.WaitFor("<ybz>");
  // More than the screen holds.
  const std::string more(200, 'm');
  screen.Type(std::string(1000, 'l'));
  screen.Type("\x01\x05");
  screen.Type(more);
  screen.Type("\r");
  screen.WaitFor("l" + more + ">");
  screen.WaitFor("Orvex> ");
  screen.Type("exit\r");
  screen.WaitFor("ended");
  EXPECT_EQ(screen.WaitForEnd(), 0);
  EXPECT_EQ(screen.text().find("wrong mode"), std::string::npos);
}

TEST(LineEditor, AnInterruptAbandonsTheCommandThatIsTyped) {
  Screen screen;
  screen.Start(Shell);
  screen.WaitFor("Orvex> ");
  for (int i = 0; i < 3; ++i) {
    screen.Type("abandoned");
    screen.WaitFor("abandoned");
    screen.Type("\x03");
    screen.WaitFor("Orvex> ");
    screen.Type("\"open\r");
    screen.WaitFor("> ");
    screen.Type("\x03");
    screen.WaitFor("Orvex> ");
  }
  // Keys that stop or kill a process elsewhere do neither here.
  screen.Type(
      "\x1a\x1c"
      "kept\r");
  screen.WaitFor("<kept>");
  screen.WaitFor("Orvex> ");
  screen.Type("\x04");
  screen.WaitFor("ended");
  EXPECT_EQ(screen.WaitForEnd(), 0);
}

// What the editing library would do for these takes gigabytes or for ever.
TEST(LineEditor, NeitherKeysNorTheTerminalsSizeStopTheConsole) {
  Screen screen;
  screen.Start(Shell, {65535, 65535, 0, 0});
  screen.WaitFor("Orvex> ");
  screen.Type("\x1bxsettc li 50000000\r");
  screen.WaitFor("<settc|li|50000000>");
  screen.Type(
      "'"
      R"(\(\(\(a\{1,255\}\)\{1,255\}\)\{1,255\}\))"
      "\x1bp\r");
  screen.WaitFor("<settc|li|50000000>");
  screen.WaitFor("Orvex> ");
  screen.Type(
      "\x1b"
      "99999y\r");
  screen.WaitFor("yyy>");  // as many as a line may have
  screen.WaitFor("Orvex> ");
  screen.Type(
      "\x12"
      "y[z\x03");
  screen.WaitFor("Orvex> ");
  screen.Type("exit\r");
  screen.WaitFor("ended");
  EXPECT_EQ(screen.WaitForEnd(), 0);
}

TEST(LineEditor, AVanishedTerminalIsTheEndOfInput) {
  int report[2];
  ASSERT_EQ(pipe(report), 0);
  Screen screen;
  screen.Start([&] {
    Shell();
    [[maybe_unused]] const ssize_t n = write(report[1], "e", 1);
    return 0;
  });
  screen.WaitFor("Orvex> ");
  screen.Type("half");
  screen.WaitFor("half");
  screen.HangUp();
  pollfd ended = {report[0], POLLIN, 0};
  EXPECT_EQ(poll(&ended, 1, 30'000), 1);
  close(report[0]);
  close(report[1]);
}

// Two editors in one process: the shell reads, and each byte in the pipe breaks into a debugger on
// another thread, which reads until "continue".
TEST(LineEditor, TheDebuggerTakesTheConsoleAndReturnsItAsItWas) {
  int breaks[2];
  ASSERT_EQ(pipe(breaks), 0);
  Screen screen;
  screen.Start([&] {
    const auto shell = MakeLineEditor("Orvex> ");
    const auto debugger = MakeLineEditor("Debugger> ");
    std::thread script([&] {
      char byte;
      while (read(breaks[0], &byte, 1) == 1 && byte == 'b') {
        const ConsoleHold hold;
        std::string line;
        while (line != "continue" && debugger->ReadLine(&line)) debugger->Puts("[" + line + "]\n");
      }
    });
    shell->Run([&](int count, const char** words) {
      if (count > 0 && std::string(words[0]) == "lend") {
        const ConsoleLoan loan;
        shell->Puts("lent\n");
        std::string keys;
        for (char key = 0; key != 'q' && read(0, &key, 1) == 1;) keys += key;
        shell->Puts("[" + keys + "]\n");
        return true;
      }
      PrintWords(*shell, count, words);
      return count == 0 || std::string(words[0]) != "exit";
    });
    lattix::EndConsoleInput();
    script.join();
    std::string line;
    return debugger->ReadLine(&line) ? 1 : 0;
  });
  screen.WaitFor("Orvex> ");
  for (int round = 0; round < 20; ++round) {
    screen.Type("half typed");
    screen.WaitFor("half typed");
    ASSERT_EQ(write(breaks[1], "b", 1), 1);
    screen.WaitFor("Debugger> ");
    const size_t debugging = screen.text().size();
    screen.Type("list\r");
    screen.WaitFor("[list]");
    screen.WaitFor("Debugger> ");
    screen.Type("gone\x03");
    screen.WaitFor("Debugger> ");
    EXPECT_EQ(screen.text().find("Orvex> ", debugging), std::string::npos);
    screen.Type("continue\r");
    screen.WaitFor("[continue]");
    screen.WaitFor("Orvex> half typed");
    screen.Type(" line\r");
    screen.WaitFor("<half|typed|line>");
    screen.WaitFor("Orvex> ");
  }
  // A program that the console has been left to keeps it.
  screen.Type("lend\r");
  screen.WaitFor("lent\r\n");
  const size_t lent = screen.seen();
  ASSERT_EQ(write(breaks[1], "b", 1), 1);
  screen.Type("list\rq");
  screen.WaitFor("[list\rq]");
  EXPECT_GT(screen.text().find("Debugger> ", lent), screen.seen());
  screen.WaitFor("Debugger> ");
  screen.Type("continue\r");
  screen.WaitFor("[continue]");
  screen.WaitFor("Orvex> ");
  // A command that ends meanwhile brings no prompt; the end of input reaches both.
  ASSERT_EQ(write(breaks[1], "be", 2), 2);
  screen.WaitFor("Debugger> ");
  screen.Type("continue\r");
  screen.WaitFor("Orvex> ");
  screen.Type("exit\r");
  EXPECT_EQ(screen.WaitForEnd(), 0);
}

// Without a terminal: plain lines and no prompt.
TEST(LineEditor, TakesLinesOfAnyLengthAndDropsWhatIsNoText) {
  const std::string long_word(200'000, 'x');
  const struct {
    std::string input;
    std::string output;
  } rows[] = {
      {"a b\r\nlast", "<a|b>\n<>\n<last>\nended\n"},
      {long_word + "\n", "<" + long_word + ">\nended\n"},
      {"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\n", "<\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80>\nended\n"},
      // Stray and missing continuation bytes, overlong forms, a surrogate, too large a code point.
      {"a\x80\xC3z\xC0\xAF\xE0\x80\xAF\xED\xA0\x80\xF4\x90\x80\x80\xF8\xFF"
       "b\n",
       "<azb>\nended\n"},
      {"a \\\nb \"c\nd\"\n", "<a|b|c\nd>\nended\n"},
  };
  for (const auto& row : rows) {
    Screen screen;
    screen.StartOnPipe(row.input, Shell);
    EXPECT_EQ(screen.text(), row.output);
  }
}

TEST(LineEditor, ReadsLinesAndBytesAndStopsWhenItIsTold) {
  Screen screen;
  screen.StartOnPipe(
      "one\n\nx\xFF"
      "two words\nrest",
      [] {
        const auto editor = MakeLineEditor("? ");
        std::string line = "-";
        char c = 0;
        bool right =
            editor->ReadLine(&line) && line == "one" && editor->ReadLine(&line) && line.empty();
        right = right && editor->GetChar(&c) && c == 'x' && editor->GetChar(&c) && c == '\xFF';
        right = right && editor->ReadLine(&line) && line == "two words";
        lattix::EndConsoleInput();
        right = right && !editor->ReadLine(&line) && !editor->GetChar(&c);
        editor->Puts(right ? "right" : "wrong at " + line);
        return 0;
      });
  EXPECT_EQ(screen.text(), "right");
}

}  // namespace
