// Two readers: the line editor for a terminal, plain reads for everything else.
//
// The editor's keys are read by a function of ours, because the editor itself goes on reading when
// a signal interrupts it: SIGINT stays blocked except while ppoll waits for a key, so that one that
// arrives at any other moment is still seen before the next key.
#include "apps/plumscript/line_reader.h"

#include <histedit.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <cwchar>

#include "apps/plumscript/host.h"

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

class EditingReader : public LineReader {
 public:
  EditingReader(size_t max_bytes, FILE* echo) : m_max(max_bytes), m_echo(echo) {
    std::setlocale(LC_CTYPE, "");
    m_editor = ::el_init("plumscript", stdin, echo, stderr);
    m_history = ::history_init();
    if (m_editor == nullptr || m_history == nullptr) return;
    HistEvent event;
    ::history(m_history, &event, H_SETSIZE, kHistoryLines);
    ::history(m_history, &event, H_SETUNIQUE, 1);
    ::el_set(m_editor, EL_CLIENTDATA, this);
    ::el_set(m_editor, EL_EDITOR, "emacs");
    ::el_set(m_editor, EL_SIGNAL, 0);
    ::el_set(m_editor, EL_PROMPT, &EditingReader::Prompt);
    ::el_set(m_editor, EL_HIST, ::history, m_history);
    ::el_set(m_editor, EL_GETCFN, &EditingReader::ReadKey);
    // What a Ctrl-D typed ahead, while the terminal was in line mode, reads as.
    ::el_set(m_editor, EL_BIND, "^@", "ed-ignore", nullptr);
    BeginSession();
  }
  ~EditingReader() override {
    if (m_history != nullptr) ::history_end(m_history);
    if (m_editor != nullptr) ::el_end(m_editor);
  }
  EditingReader(const EditingReader&) = delete;
  EditingReader& operator=(const EditingReader&) = delete;

  bool works() const { return m_editor != nullptr && m_history != nullptr; }
  bool interactive() const override { return true; }

  Result Read(const char* prompt, std::string* line) override {
    line->clear();
    m_prompt = prompt;
    m_interrupted = false;
    m_key_state = {};

    sigset_t interrupt;
    ::sigemptyset(&interrupt);
    ::sigaddset(&interrupt, SIGINT);
    ::sigprocmask(SIG_BLOCK, &interrupt, &m_while_waiting);
    ::el_resize(m_editor);
    // The editor writes the prompt first and changes the mode then; whoever answers a prompt
    // quickly would still talk to line mode.
    ::el_set(m_editor, EL_PREP_TERM, 1);
    int n = 0;
    const char* typed = ::el_gets(m_editor, &n);
    ::sigprocmask(SIG_SETMASK, &m_while_waiting, nullptr);

    if (m_interrupted || typed == nullptr) {
      std::fputc('\n', m_echo);
      std::fflush(m_echo);
      return m_interrupted ? Result::kInterrupted : Result::kEnd;
    }
    line->assign(typed, n > 0 ? static_cast<size_t>(n) : 0);
    if (line->ends_with('\n')) line->pop_back();
    StripCarriageReturn(line);
    if (line->size() > m_max) return Result::kTooLong;
    if (line->find_first_not_of(" \t") != std::string::npos) {
      HistEvent event;
      ::history(m_history, &event, H_ENTER, line->c_str());
    }
    return Result::kLine;
  }

 private:
  static constexpr int kHistoryLines = 1000;

  static EditingReader* Of(EditLine* editor) {
    void* self = nullptr;
    ::el_get(editor, EL_CLIENTDATA, &self);
    return static_cast<EditingReader*>(self);
  }
  static char* Prompt(EditLine* editor) { return const_cast<char*>(Of(editor)->m_prompt); }

  // 1 with a character, 0 at the end, -1 to give the line up.
  static int ReadKey(EditLine* editor, wchar_t* key) {
    EditingReader* self = Of(editor);
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
      return 1;
    }
  }

  size_t m_max;
  FILE* m_echo;
  EditLine* m_editor = nullptr;
  History* m_history = nullptr;
  const char* m_prompt = "";
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
    auto editing = std::make_unique<EditingReader>(max_bytes, echo);
    if (editing->works()) return editing;
  }
  return std::make_unique<PlainReader>(max_bytes);
}
