#include "lib/platform/edit_context.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <new>

#include "lib/platform/always_magic.h"

namespace lattix {

namespace {

// The library loses its place, and crashes, in a line that needs more rows than the terminal has.
// So it is told of far more rows than there are, and of columns within reason, and no line may
// weigh more than fits into the smallest such screen behind the longest prompt.
constexpr unsigned short kRows = 2000;
constexpr unsigned short kFewestColumns = 20;
constexpr unsigned short kMostColumns = 500;
constexpr unsigned short kUsualColumns = 80;
constexpr size_t kHeaviestLine = kRows * kFewestColumns - 2000;

// What a character takes on the screen at most: a row for a line end, and eight columns for what is
// shown by its number, or as a tabulator.
size_t WeightOf(wchar_t c) { return c == L'\n' ? kFewestColumns : c >= L' ' && c <= L'~' ? 1 : 8; }

size_t WeightOf(std::wstring_view text) {
  size_t weight = 0;
  for (const wchar_t c : text) weight += WeightOf(c);
  return weight;
}

// As much of the text as a line may have.
std::wstring_view Bearable(std::wstring_view text) {
  size_t weight = 0;
  size_t n = 0;
  while (n < text.size() && (weight += WeightOf(text[n])) <= kHeaviestLine) ++n;
  return text.substr(0, n);
}

constexpr size_t kLongestPattern = 200;

constexpr wchar_t kCtrlG = 7;
constexpr wchar_t kBackspace = 8;
constexpr wchar_t kCtrlR = 18;
constexpr wchar_t kCtrlS = 19;
constexpr wchar_t kDelete = 127;

void SetLine(EditLine* editor, const wchar_t* text) {
  const LineInfoW* const line = el_wline(editor);
  el_cursor(editor, static_cast<int>(line->lastchar - line->cursor));
  el_wdeletestr(editor, static_cast<int>(line->lastchar - line->buffer));
  el_winsertstr(editor, text);
}

}  // namespace

EditContext::EditContext(const char* program, FILE* screen, int history_lines, void* owner)
    : m_owner(owner) {
  PretendWindow();
  m_editor = el_init(program, stdin, screen, stderr);
  RestoreWindow();
  m_history = history_winit();
  if (m_editor == nullptr || m_history == nullptr) {
    if (m_editor != nullptr) el_end(m_editor);
    if (m_history != nullptr) history_wend(m_history);
    throw std::bad_alloc();
  }
  HistEventW event;
  history_w(m_history, &event, H_SETSIZE, history_lines);
  el_set(m_editor, EL_CLIENTDATA, this);
  el_wset(
      m_editor, EL_PROMPT,
      +[](EditLine* editor) -> wchar_t* { return Of(editor)->m_prompt.data(); });
  el_set(m_editor, EL_EDITOR, "emacs");
  el_wset(m_editor, EL_HIST, history_w, m_history);
  el_wset(m_editor, EL_ADDFN, L"search-history", L"Search the history for a text", &OnSearchKey);
  for (const wchar_t* key : {L"^R", L"^S"}) {
    el_wset(m_editor, EL_BIND, key, L"search-history", nullptr);
  }
  const struct {
    wchar_t letter;
    const wchar_t* function;
  } meta_keys[] = {
      {L'p', L"ed-prev-history"}, {L'P', L"ed-prev-history"}, {L'n', L"ed-next-history"},
      {L'N', L"ed-next-history"}, {L'x', L"ed-unassigned"},   {L'X', L"ed-unassigned"},
  };
  for (const auto& key : meta_keys) {
    const wchar_t after_escape[] = {L'^', L'[', key.letter, 0};
    el_wset(m_editor, EL_BIND, after_escape, key.function, nullptr);
    // Where a character is a byte, it is the one with the high bit set, too.
    const wchar_t single[] = {static_cast<wchar_t>(key.letter | 0x80), 0};
    if (MB_CUR_MAX == 1) el_wset(m_editor, EL_BIND, single, key.function, nullptr);
  }
}

EditContext::~EditContext() {
  el_end(m_editor);
  history_wend(m_history);
}

EditContext* EditContext::Of(EditLine* editor) {
  void* data = nullptr;
  el_get(editor, EL_CLIENTDATA, &data);
  CheckPointer(data);
  return static_cast<EditContext*>(data);
}

// The library asks the terminal for its size when it begins a line, and cannot be told another one.
void EditContext::PretendWindow() {
  if (m_pretends || ioctl(STDIN_FILENO, TIOCGWINSZ, &m_window) != 0) return;
  m_pretended = m_window;
  m_pretended.ws_row = kRows;
  m_pretended.ws_col = std::clamp(m_window.ws_col != 0 ? m_window.ws_col : kUsualColumns,
                                  kFewestColumns, kMostColumns);
  m_pretends = ioctl(STDIN_FILENO, TIOCSWINSZ, &m_pretended) == 0;
}

void EditContext::RestoreWindow() {
  if (!m_pretends) return;
  m_pretends = false;
  // Unless somebody has changed it meanwhile.
  winsize window = {};
  ioctl(STDIN_FILENO, TIOCGWINSZ, &window);
  if (std::memcmp(&window, &m_pretended, sizeof window) != 0) return;
  ioctl(STDIN_FILENO, TIOCSWINSZ, &m_window);
}

void EditContext::BeginLine(std::wstring_view prompt) {
  m_prompt = prompt;
  PretendWindow();
}

void EditContext::EndLine() { RestoreWindow(); }

void EditContext::BeforeKey() {
  RestoreWindow();
  const LineInfoW* const line = el_wline(m_editor);
  const std::wstring_view text(line->buffer, static_cast<size_t>(line->lastchar - line->buffer));
  m_full = false;
  if (text.size() * kFewestColumns < kHeaviestLine) return;
  const size_t weight = WeightOf(text);
  m_full = weight + kFewestColumns > kHeaviestLine;
  // What has been put in at once, by a number before a key or from the history, may be too much.
  if (weight <= kHeaviestLine) return;
  SetLine(m_editor, std::wstring(Bearable(text)).c_str());
  el_wset(m_editor, EL_REFRESH);
}

void EditContext::Remember(int operation, const std::wstring& line) {
  const size_t weight = WeightOf(line) + (operation == H_APPEND ? m_newest_weight : 0);
  if (operation == H_APPEND && weight > kHeaviestLine) return;
  m_newest_weight = weight;
  HistEventW event;
  history_w(m_history, &event, operation, std::wstring(Bearable(line)).c_str());
}

// --- Searching --------------------------------------------------------------------------------

unsigned char EditContext::OnSearchKey(EditLine* editor, wint_t key) {
  return Of(editor)->Search(key != kCtrlS);
}

// The nearest entry, from that one on, that has the text in it; 0 is the newest. Null, and the
// number as it was, when there is none.
const wchar_t* EditContext::Find(const std::wstring& text, bool older, int* entry) {
  HistEventW event;
  const wchar_t* nearest = nullptr;
  const int from = *entry;
  int i = 0;
  for (int n = history_w(m_history, &event, H_FIRST); n >= 0 && (older || i <= from);
       n = history_w(m_history, &event, H_NEXT), ++i) {
    if (older && i < from) continue;
    if (std::wcsstr(event.str, text.c_str()) == nullptr) continue;
    nearest = event.str;
    *entry = i;
    if (older) break;
  }
  return nearest;
}

// Each key narrows the search, Ctrl-R and Ctrl-S go on to the next entry, Ctrl-G gives up. Any
// other control key ends the search and does to the line what it always does.
unsigned char EditContext::Search(bool older) {
  const LineInfoW* const line = el_wline(m_editor);
  const std::wstring before(line->buffer, line->lastchar);
  const std::wstring prompt = m_prompt;
  std::wstring text;
  int entry = 0;
  wchar_t key;
  for (;;) {
    m_prompt = (older ? L"(back) " : L"(forward) ") + text + L": ";
    el_wset(m_editor, EL_REFRESH);
    if (el_wgetc(m_editor, &key) != 1) {
      m_prompt = prompt;
      return CC_EOF;
    }
    int from = entry;
    if (key == kCtrlR || key == kCtrlS) {
      older = key == kCtrlR;
      from += older ? 1 : -1;
    } else if (key == kBackspace || key == kDelete) {
      if (!text.empty()) text.pop_back();
      from = 0;
    } else if (key < L' ') {
      break;
    } else if (text.size() < kLongestPattern) {
      text += key;
    }
    if (text.empty()) continue;
    const wchar_t* const found = Find(text, older, &from);
    if (found == nullptr) {
      el_beep(m_editor);
      continue;
    }
    entry = from;
    SetLine(m_editor, found);
  }
  if (key == kCtrlG) {
    SetLine(m_editor, before.c_str());
  } else {
    const wchar_t again[] = {key, 0};
    el_wpush(m_editor, again);
  }
  m_prompt = prompt;
  return CC_REFRESH;
}

}  // namespace lattix
