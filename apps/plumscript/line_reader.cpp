// Two readers: the line editor for a terminal, plain reads for everything else.
//
// The editor's keys are read by a function of ours, because the editor itself goes on reading when
// a signal interrupts it: SIGINT stays blocked except while ppoll waits for a key, so that one that
// arrives at any other moment is still seen before the next key.
#include "apps/plumscript/line_reader.h"

#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <cwctype>

#include "apps/plumscript/host.h"
#include "lib/platform/edit_context.h"

namespace {

void StripCarriageReturn(std::string* line) {
  if (line->ends_with('\r')) line->pop_back();
}

class PlainReader : public LineReader {
 public:
  explicit PlainReader(size_t max_bytes) : m_max(max_bytes) {}

  Result Read(const char*, std::string* line) override {
    line->clear();
    bool too_long = false;
    bool some = false;
    for (;;) {
      if (m_next == m_end && !Fill()) {
        if (!some) return Result::kEnd;
        break;
      }
      some = true;
      const char* start = m_buffer + m_next;
      const auto* end = static_cast<const char*>(std::memchr(start, '\n', m_end - m_next));
      const size_t n = end != nullptr ? static_cast<size_t>(end - start) : m_end - m_next;
      m_next += n + (end != nullptr ? 1 : 0);
      too_long = too_long || line->size() + n > m_max;
      if (!too_long) line->append(start, n);
      if (end != nullptr) break;
    }
    StripCarriageReturn(line);
    return too_long ? Result::kTooLong : Result::kLine;
  }
  bool interactive() const override { return false; }

 private:
  bool Fill() {
    ssize_t n;
    do {
      n = ::read(STDIN_FILENO, m_buffer, sizeof(m_buffer));
    } while (n < 0 && errno == EINTR);
    m_next = 0;
    m_end = n > 0 ? static_cast<size_t>(n) : 0;
    return n > 0;
  }

  size_t m_max;
  size_t m_next = 0;
  size_t m_end = 0;
  char m_buffer[16 * 1024];
};

std::string Narrow(std::wstring_view text) {
  std::string narrow;
  mbstate_t state = {};
  for (const wchar_t c : text) {
    char bytes[MB_LEN_MAX];
    const size_t n = std::wcrtomb(bytes, c, &state);
    if (n != static_cast<size_t>(-1)) narrow.append(bytes, n);
  }
  return narrow;
}

// The terminal as it was before the editor first changed its mode, for the signal handlers.
termios g_terminal;
std::atomic<bool> g_editing{false};

class EditingReader : public LineReader {
 public:
  EditingReader(size_t max_bytes, FILE* echo)
      : m_max(max_bytes), m_echo(echo), m_context("plumscript", echo, kHistoryLines, this) {
    HistEventW event;
    ::history_w(m_context.history(), &event, H_SETUNIQUE, 1);
    ::el_set(m_editor, EL_SIGNAL, 0);
    ::el_set(m_editor, EL_GETCFN, &EditingReader::ReadKey);
    // What a Ctrl-D typed ahead, while the terminal was in line mode, reads as.
    ::el_set(m_editor, EL_BIND, "^@", "ed-ignore", nullptr);
    BeginSession();
  }

  bool interactive() const override { return true; }

  Result Read(const char* prompt, std::string* line) override {
    line->clear();
    m_context.BeginLine(std::wstring(prompt, prompt + std::strlen(prompt)));
    m_interrupted = false;
    m_key_state = {};

    sigset_t interrupt;
    ::sigemptyset(&interrupt);
    ::sigaddset(&interrupt, SIGINT);
    ::sigprocmask(SIG_BLOCK, &interrupt, &m_while_waiting);
    // The editor writes the prompt first and changes the mode then; whoever answers a prompt
    // quickly would still talk to line mode.
    g_editing = true;
    ::el_set(m_editor, EL_PREP_TERM, 1);
    DisableQuitKey();
    int n = 0;
    const wchar_t* typed = ::el_wgets(m_editor, &n);
    g_editing = false;
    m_context.EndLine();
    ::sigprocmask(SIG_SETMASK, &m_while_waiting, nullptr);

    if (m_interrupted || typed == nullptr) {
      std::fputc('\n', m_echo);
      std::fflush(m_echo);
      return m_interrupted ? Result::kInterrupted : Result::kEnd;
    }
    std::wstring text(typed, n > 0 ? static_cast<size_t>(n) : 0);
    while (text.ends_with(L'\n') || text.ends_with(L'\r')) text.pop_back();
    *line = Narrow(text);
    if (line->size() > m_max) return Result::kTooLong;
    if (text.find_first_not_of(L" \t") != text.npos) m_context.Remember(H_ENTER, text);
    return Result::kLine;
  }

 private:
  static constexpr int kHistoryLines = 1000;

  // Ctrl-\ at the prompt would leave the editor's mode and the private root behind.
  static void DisableQuitKey() {
    termios mode;
    if (::tcgetattr(STDIN_FILENO, &mode) != 0) return;
    mode.c_cc[VQUIT] = _POSIX_VDISABLE;
    ::tcsetattr(STDIN_FILENO, TCSADRAIN, &mode);
  }

  // 1 with a character, 0 at the end, -1 to give the line up.
  static int ReadKey(EditLine* editor, wchar_t* key) {
    auto* const self = static_cast<EditingReader*>(lattix::EditContext::Of(editor)->owner());
    self->m_context.BeforeKey();
    for (;;) {
      pollfd input = {STDIN_FILENO, POLLIN, 0};
      const int ready = ::ppoll(&input, 1, nullptr, &self->m_while_waiting);
      if (TakeInterrupt()) {
        self->m_interrupted = true;
        return -1;
      }
      if (ready < 0) continue;  // another signal
      char byte;
      const ssize_t n = ::read(STDIN_FILENO, &byte, 1);
      if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
      if (n <= 0) return 0;
      const size_t converted = std::mbrtowc(key, &byte, 1, &self->m_key_state);
      if (converted == static_cast<size_t>(-2)) continue;  // more bytes make the character
      if (converted == static_cast<size_t>(-1)) {
        self->m_key_state = {};
        continue;  // no character of this locale
      }
      if (self->m_context.IsFull() && std::iswcntrl(static_cast<wint_t>(*key)) == 0) continue;
      return 1;
    }
  }

  size_t m_max;
  FILE* m_echo;
  lattix::EditContext m_context;
  EditLine* const m_editor = m_context.editor();
  bool m_interrupted = false;
  sigset_t m_while_waiting;
  mbstate_t m_key_state = {};
};

}  // namespace

std::unique_ptr<LineReader> LineReader::Make(size_t max_bytes) {
  FILE* echo = ::isatty(STDOUT_FILENO) == 1   ? stdout
               : ::isatty(STDERR_FILENO) == 1 ? stderr
                                              : nullptr;
  if (::isatty(STDIN_FILENO) == 1 && echo != nullptr) {
    std::setlocale(LC_CTYPE, "");
    ::tcgetattr(STDIN_FILENO, &g_terminal);
    return std::make_unique<EditingReader>(max_bytes, echo);
  }
  return std::make_unique<PlainReader>(max_bytes);
}

void RestoreTerminal() {
  if (g_editing) ::tcsetattr(STDIN_FILENO, TCSANOW, &g_terminal);
}
