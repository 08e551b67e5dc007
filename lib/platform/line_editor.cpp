// The editing library reads its keys through a callback of ours, and everything that may happen
// while somebody types, happens there: the next byte, an interrupt, the loss of the console to
// another reader, the end. The library's own reading cannot be left, because it blocks in read.
//
// Rules of this file:
//  1. The wide-character forms of the library are used throughout: keys are code points, and lines
//     come back as code points, whatever the process's locale. What the library draws does depend
//     on the locale, so a reading thread has a UTF-8 one of its own.
//  2. Standard input is unbuffered, so what poll sees is all there is.
//  3. Before the console is left to another reader, the terminal is given back the mode in which
//     it was found: the other one's library assumes that.
#include "lib/platform/line_editor.h"

#include <fcntl.h>
#include <histedit.h>
#include <locale.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cwchar>
#include <cwctype>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

#include "lib/platform/always_magic.h"
#include "lib/platform/assertion.h"
#include "lib/platform/console_owner.h"
#include "lib/platform/edit_context.h"

namespace lattix {

namespace {

constexpr int kHistoryLines = 64;
// Code points of a line that is not edited. What is more is dropped, so that no stream without a
// line end uses up the memory.
constexpr size_t kLongestLine = 4 << 20;
constexpr char kContinuationPrompt[] = "> ";

// The calling thread's locale while it edits.
class Utf8Locale {
 public:
  Utf8Locale() {
    static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    if (utf8 != nullptr) m_before = uselocale(utf8);
  }
  ~Utf8Locale() {
    if (m_before != nullptr) uselocale(m_before);
  }
  Utf8Locale(const Utf8Locale&) = delete;
  Utf8Locale& operator=(const Utf8Locale&) = delete;

 private:
  locale_t m_before = nullptr;
};

void AppendUtf8(std::string* text, wchar_t c) {
  const auto code = static_cast<uint32_t>(c);
  const auto put = [text](uint32_t byte) { text->push_back(static_cast<char>(byte)); };
  const auto put_low = [&](int shift) { put(0x80 | (code >> shift & 0x3F)); };
  if (code < 0x80) {
    put(code);
  } else if (code < 0x800) {
    put(0xC0 | code >> 6);
    put_low(0);
  } else if (code < 0x10000) {
    put(0xE0 | code >> 12);
    put_low(6);
    put_low(0);
  } else {
    put(0xF0 | code >> 18);
    put_low(12);
    put_low(6);
    put_low(0);
  }
}

std::string ToUtf8(std::wstring_view text) {
  std::string utf8;
  utf8.reserve(text.size());
  for (const wchar_t c : text) AppendUtf8(&utf8, c);
  return utf8;
}

// In the calling thread's locale.
std::wstring FromUtf8(const std::string& text) {
  std::wstring wide(text.size(), L'\0');
  const size_t n = std::mbstowcs(wide.data(), text.c_str(), wide.size());
  wide.resize(n == static_cast<size_t>(-1) ? 0 : n);
  return wide;
}

int ColumnsOf(std::wstring_view text) {
  int columns = 0;
  for (const wchar_t c : text) columns += std::max(::wcwidth(c), 0);
  return columns;
}

std::wstring_view StripNewlines(std::wstring_view line) {
  while (line.ends_with(L'\n')) line.remove_suffix(1);
  return line;
}

// Puts the bytes of standard input together to code points.
class Utf8Decoder {
 public:
  // True when the byte completes a code point.
  bool Add(unsigned char byte, wchar_t* code_point) {
    if (m_missing > 0 && (byte & 0xC0) == 0x80) {
      m_code = m_code << 6 | (byte & 0x3F);
      if (--m_missing > 0 || m_code < m_least || m_code > 0x10FFFF ||
          (m_code >= 0xD800 && m_code <= 0xDFFF)) {
        return false;
      }
      *code_point = static_cast<wchar_t>(m_code);
      return true;
    }
    // A sequence that does not go on is dropped, and a zero byte in it with it.
    const bool broken = std::exchange(m_missing, 0) > 0;
    if (byte == 0 && broken) return false;
    if (byte < 0x80) {
      *code_point = byte;
      return true;
    }
    if ((byte & 0xE0) == 0xC0) {
      Start(byte & 0x1F, 1, 0x80);
    } else if ((byte & 0xF0) == 0xE0) {
      Start(byte & 0x0F, 2, 0x800);
    } else if ((byte & 0xF8) == 0xF0) {
      Start(byte & 0x07, 3, 0x10000);
    }
    return false;
  }

 private:
  void Start(uint32_t bits, int missing, uint32_t least) {
    m_code = bits;
    m_missing = missing;
    m_least = least;
  }

  uint32_t m_code = 0;
  uint32_t m_least = 0;  // below it the sequence is longer than it needs to be
  int m_missing = 0;     // bytes to come
};

class LineEditorImpl final : public LineEditor {
 public:
  explicit LineEditorImpl(const char* prompt);
  LineEditorImpl(const LineEditorImpl&) = delete;
  LineEditorImpl& operator=(const LineEditorImpl&) = delete;

  bool ReadLine(std::string* line) override;
  void Run(const LineHandler& handler) override;
  void SetPrompt(const std::string& prompt) override { m_prompt = prompt; }
  bool GetChar(char* c) override;

  void PutChar(char c) override { std::putc(c, stdout); }
  void Puts(const char* text) override { std::fputs(text, stdout); }
  void Puts(const std::string& text) override { std::fputs(text.c_str(), stdout); }
  void Write(const char* data, size_t length) override { std::fwrite(data, 1, length, stdout); }
  void Flush() override {
    std::fflush(stdout);
    tcdrain(fileno(stdout));
  }

 private:
  using Magic = AlwaysMagic<4228010014>;
  enum class Edited { kLine, kInterrupted, kEnd };
  enum class Byte {
    kRead,
    kInterrupted,
    kEnd,      // of the stream
    kStopped,  // by EndConsoleInput
  };

  static LineEditorImpl* Of(EditLine* editor);
  static int ReadKey(EditLine* editor, wchar_t* key);

  // Reads and edits a line; it is the library's until the next one.
  Edited Edit(ConsoleReader::Place place, std::wstring_view* line);
  Byte NextByte(unsigned char* byte);
  bool LendConsole();
  void KeepMode(const termios& found);
  void LeaveLine();
  bool HasRoomFor(wchar_t key);

  using Stream = std::unique_ptr<FILE, int (*)(FILE*)>;

  Magic m_magic;
  // Standard output again, but buffered: the library writes byte by byte and flushes before it
  // waits for a key, and what other threads log must not get between the bytes of a prompt.
  Stream m_screen;
  std::unique_ptr<EditContext> m_context;
  EditLine* m_editor = nullptr;  // the context's
  std::string m_prompt;
  ConsoleReader m_reader;
  const bool m_terminal;         // the library edits; without one it just collects the keys
  bool m_editing = false;        // between the first and the last key of a line
  size_t m_keys = 0;             // since the first one
  Byte m_outcome = Byte::kRead;  // of the last attempt to read a key
};

LineEditorImpl::LineEditorImpl(const char* prompt)
    : m_screen(fdopen(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3), "w"), std::fclose),
      m_prompt(prompt),
      m_terminal(isatty(STDIN_FILENO) == 1 && isatty(STDOUT_FILENO) == 1) {
  if (m_screen == nullptr) m_screen = Stream(stdout, [](FILE*) { return 0; });
  termios found;
  const bool has_mode = tcgetattr(STDIN_FILENO, &found) == 0;
  // What the library binds to the letters of Latin-1, inserting them or a command, is decided here.
  const Utf8Locale locale;
  m_context = std::make_unique<EditContext>("orvex", m_screen.get(), kHistoryLines, this);
  m_editor = m_context->editor();
  el_set(m_editor, EL_GETCFN, &LineEditorImpl::ReadKey);
  if (has_mode) KeepMode(found);
}

// Between two lines the library gives the terminal a mode with echo, lines and job control, unless
// it is told otherwise. The console's owner has chosen another one, which commands rely on, and
// what is typed ahead must not be echoed by the terminal and by the next prompt both.
void LineEditorImpl::KeepMode(const termios& found) {
  const struct {
    const char* on;
    const char* off;
    bool is_on;
  } modes[] = {
      {"+icanon", "-icanon", (found.c_lflag & ICANON) != 0},
      {"+echo", "-echo", (found.c_lflag & ECHO) != 0},
      {"+echoe", "-echoe", (found.c_lflag & ECHOE) != 0},
      {"+echoctl", "-echoctl", (found.c_lflag & ECHOCTL) != 0},
      {"+iexten", "-iexten", (found.c_lflag & IEXTEN) != 0},
      {"+icrnl", "-icrnl", (found.c_iflag & ICRNL) != 0},
  };
  for (const auto& mode : modes) {
    el_set(m_editor, EL_SETTY, "-x", mode.is_on ? mode.on : mode.off, nullptr);
  }
  for (const char* mode : {"-x", "-d"}) {
    if (found.c_cc[VQUIT] == _POSIX_VDISABLE) el_set(m_editor, EL_SETTY, mode, "quit=", nullptr);
    if (found.c_cc[VSUSP] == _POSIX_VDISABLE) el_set(m_editor, EL_SETTY, mode, "susp=", nullptr);
  }
  tcsetattr(STDIN_FILENO, TCSADRAIN, &found);
}

LineEditorImpl* LineEditorImpl::Of(EditLine* editor) {
  auto* const self = static_cast<LineEditorImpl*>(EditContext::Of(editor)->owner());
  Magic::CheckMagic(&self->m_magic);
  return self;
}

// 1 with a key, -1 at the end of input and for an interrupt.
int LineEditorImpl::ReadKey(EditLine* editor, wchar_t* key) {
  Utf8Decoder decoder;
  if (Of(editor)->m_terminal) Of(editor)->m_context->BeforeKey();
  for (;;) {
    LineEditorImpl* const self = Of(editor);
    unsigned char byte;
    self->m_outcome = self->NextByte(&byte);
    if (self->m_outcome != Byte::kRead) {
      if (self->m_outcome == Byte::kInterrupted) errno = EINTR;
      return -1;
    }
    // Nobody else translates the line ends of a file that was written elsewhere, or of a terminal
    // in raw mode whose output goes to a file.
    if (byte == '\r' && !self->m_terminal) byte = '\n';
    if (decoder.Add(byte, key) && self->HasRoomFor(*key)) return 1;
  }
}

bool LineEditorImpl::HasRoomFor(wchar_t key) {
  ++m_keys;
  if (std::iswcntrl(static_cast<wint_t>(key)) != 0) return true;
  return m_terminal ? !m_context->IsFull() : m_keys < kLongestLine;
}

LineEditorImpl::Byte LineEditorImpl::NextByte(unsigned char* byte) {
  for (;;) {
    switch (m_reader.Wait()) {
      case ConsoleReader::Event::kEnded: return Byte::kStopped;
      case ConsoleReader::Event::kInterrupted: return Byte::kInterrupted;
      case ConsoleReader::Event::kSuspended:
        if (!LendConsole()) return Byte::kStopped;
        continue;
      case ConsoleReader::Event::kInput: break;
    }
    const int c = std::getc(stdin);
    if (c != EOF) {
      *byte = static_cast<unsigned char>(c);
      return Byte::kRead;
    }
    if (!std::ferror(stdin) || (errno != EINTR && errno != EAGAIN)) return Byte::kEnd;
    std::clearerr(stdin);
  }
}

// False when input has ended before the console came back.
bool LineEditorImpl::LendConsole() {
  const bool on_screen = m_terminal && m_editing;
  if (on_screen) {
    LeaveLine();
    el_set(m_editor, EL_PREP_TERM, 0);
  }
  if (!m_reader.Suspend()) return false;
  if (on_screen) {
    el_set(m_editor, EL_PREP_TERM, 1);
    el_wset(m_editor, EL_REFRESH);
  }
  return true;
}

// Moves on to the line below all that has been typed.
void LineEditorImpl::LeaveLine() {
  winsize size = {};
  ioctl(STDOUT_FILENO, TIOCGWINSZ, &size);
  const int columns = size.ws_col > 0 ? size.ws_col : 80;
  const int start = ColumnsOf(m_context->prompt());
  const LineInfoW* const line = el_wline(m_editor);
  const int cursor = start + ColumnsOf({line->buffer, line->cursor});
  const int end = start + ColumnsOf({line->buffer, line->lastchar});
  std::string newlines = "\r";
  newlines.append(static_cast<size_t>(end / columns - cursor / columns) + 1, '\n');
  Puts(newlines);
}

LineEditorImpl::Edited LineEditorImpl::Edit(ConsoleReader::Place place, std::wstring_view* line) {
  struct Turn {
    ConsoleReader& reader;
    Turn(ConsoleReader* r, ConsoleReader::Place place) : reader(*r) { reader.Begin(place); }
    ~Turn() { reader.End(); }
  };
  const Turn turn(&m_reader, place);
  const Utf8Locale locale;
  m_context->BeginLine(FromUtf8(m_prompt));
  int count = 0;
  m_keys = 0;
  m_editing = true;
  const wchar_t* const text = el_wgets(m_editor, &count);
  m_editing = false;
  m_context->EndLine();
  if (m_outcome == Byte::kInterrupted) {
    if (m_terminal) {
      Puts("^C");
      LeaveLine();
    }
    return Edited::kInterrupted;
  }
  // A last line that only the end of the stream ended, counts; one that was cut off does not.
  if (text == nullptr || m_outcome == Byte::kStopped) {
    if (m_terminal) LeaveLine();
    return Edited::kEnd;
  }
  LATTIX_ASSERT_TEXT(count >= 0, "count > 0");
  *line = {text, static_cast<size_t>(count)};
  return Edited::kLine;
}

bool LineEditorImpl::ReadLine(std::string* line) {
  std::wstring_view typed;
  Edited edited;
  do {
    edited = Edit(ConsoleReader::Place::kForeground, &typed);
  } while (edited == Edited::kInterrupted);
  line->clear();
  if (edited == Edited::kEnd) return false;
  typed = StripNewlines(typed);
  if (typed.empty()) return true;
  *line = ToUtf8(typed);
  m_context->Remember(H_ENTER, std::wstring(typed));
  return true;
}

void LineEditorImpl::Run(const LineHandler& handler) {
  const std::unique_ptr<TokenizerW, void (*)(TokenizerW*)> tokenizer(tok_winit(nullptr), tok_wend);
  if (tokenizer == nullptr) throw std::bad_alloc();
  const std::string prompt = m_prompt;
  bool continued = false;
  const auto start_anew = [&] {
    tok_wreset(tokenizer.get());
    if (continued) m_prompt = prompt;
    continued = false;
  };
  for (;;) {
    std::wstring_view typed;
    const Edited edited = Edit(ConsoleReader::Place::kBackground, &typed);
    if (edited == Edited::kEnd) break;
    if (edited == Edited::kInterrupted) {
      start_anew();
      continue;
    }
    int count = 0;
    const wchar_t** words = nullptr;
    const int more =
        tok_wline(tokenizer.get(), el_wline(m_editor), &count, &words, nullptr, nullptr);
    if (more < 0) break;
    typed = StripNewlines(typed);
    if (!typed.empty()) {
      // One entry for the whole command, with its line ends: recalled, it reads as it was typed.
      std::wstring entry(typed);
      if (continued) entry.insert(0, 1, L'\n');
      m_context->Remember(continued ? H_APPEND : H_ENTER, entry);
    }
    if (more > 0) {
      m_prompt = kContinuationPrompt;
      continued = true;
      continue;
    }
    std::vector<std::string> texts;
    for (int i = 0; i < count; ++i) texts.push_back(ToUtf8(words[i]));
    std::vector<const char*> arguments;
    for (const std::string& text : texts) arguments.push_back(text.c_str());
    arguments.push_back(nullptr);
    const bool go_on = handler(count, arguments.data());
    start_anew();
    if (!go_on) break;
  }
}

bool LineEditorImpl::GetChar(char* c) {
  m_reader.Begin(ConsoleReader::Place::kForeground);
  unsigned char byte = 0;
  Byte outcome;
  do {
    outcome = NextByte(&byte);
  } while (outcome == Byte::kInterrupted);
  m_reader.End();
  *c = static_cast<char>(byte);
  return outcome == Byte::kRead;
}

}  // namespace

std::shared_ptr<LineEditor> MakeLineEditor(const char* prompt) {
  static std::once_flag unbuffered;
  std::call_once(unbuffered, [] { std::setvbuf(stdin, nullptr, _IONBF, 0); });
  return std::make_shared<LineEditorImpl>(prompt);
}

}  // namespace lattix
