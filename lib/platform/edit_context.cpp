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

// The library keeps two images of the whole screen, so a terminal that claims 65535 x 65535 cells
// would take gigabytes. These are beyond what a person can read.
constexpr unsigned short kMostColumns = 2000;
constexpr unsigned short kMostRows = 1000;

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
  BoundWindow();
  m_editor = el_init(program, stdin, screen, stderr);
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
  // Unless the size has changed since, by whoever owns the terminal.
  winsize window = {};
  if (m_bounded && ioctl(STDIN_FILENO, TIOCGWINSZ, &window) == 0 &&
      std::memcmp(&window, &m_given, sizeof window) == 0) {
    ioctl(STDIN_FILENO, TIOCSWINSZ, &m_claimed);
  }
}

EditContext* EditContext::Of(EditLine* editor) {
  void* data = nullptr;
  el_get(editor, EL_CLIENTDATA, &data);
  CheckPointer(data);
  return static_cast<EditContext*>(data);
}

// The library asks the terminal for its size before every line and cannot be told another one.
void EditContext::BoundWindow() {
  winsize window = {};
  if (ioctl(STDIN_FILENO, TIOCGWINSZ, &window) != 0) return;
  if (window.ws_col <= kMostColumns && window.ws_row <= kMostRows) return;
  m_claimed = window;
  m_given = window;
  m_given.ws_col = std::min(window.ws_col, kMostColumns);
  m_given.ws_row = std::min(window.ws_row, kMostRows);
  m_bounded = ioctl(STDIN_FILENO, TIOCSWINSZ, &m_given) == 0;
}

void EditContext::BeginLine(std::wstring_view prompt) {
  m_prompt = prompt;
  BoundWindow();
}

void EditContext::Remember(int operation, const std::wstring& line) {
  HistEventW event;
  history_w(m_history, &event, operation, line.c_str());
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
