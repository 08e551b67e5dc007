// The editing library on standard input, made fit for a console that must survive whatever is typed
// on it and whatever the terminal claims to be.
//
// The keys are the library's for emacs, except for those behind which there is no bound to time and
// memory: its searches run what is typed as a regular expression at every place of every line, and
// its command line resizes the library's own tables. Ctrl-R and Ctrl-S search the history for plain
// text instead, M-p and M-n go through it as Ctrl-P and Ctrl-N do, and M-x does nothing. A line has
// at most about 38000 columns.
#pragma once

#include <histedit.h>
#include <sys/ioctl.h>

#include <cstdio>
#include <string>
#include <string_view>

namespace lattix {

// The client data of its editing context. Used from one thread at a time.
class EditContext {
 public:
  // The screen is where the library draws; the owner is found again from callbacks. What is bound
  // to the letters of Latin-1 depends on the calling thread's locale. Throws std::bad_alloc.
  EditContext(const char* program, FILE* screen, int history_lines, void* owner);
  ~EditContext();
  EditContext(const EditContext&) = delete;
  EditContext& operator=(const EditContext&) = delete;

  static EditContext* Of(EditLine* editor);

  EditLine* editor() { return m_editor; }
  HistoryW* history() { return m_history; }
  void* owner() { return m_owner; }

  // To be called around the library's reading of a line, and before each key of it is waited for.
  void BeginLine(std::wstring_view prompt);
  void EndLine();
  void BeforeKey();
  // Whether the line has become as long as it may be: what is typed has to be dropped.
  bool IsFull() const { return m_full; }
  // What stands before the line, which during a search is what is searched for.
  const std::wstring& prompt() const { return m_prompt; }
  // H_ENTER or H_APPEND.
  void Remember(int operation, const std::wstring& line);

 private:
  static unsigned char OnSearchKey(EditLine* editor, wint_t key);
  unsigned char Search(bool older);
  void PretendWindow();
  void RestoreWindow();
  const wchar_t* Find(const std::wstring& text, bool older, int* entry);

  EditLine* m_editor = nullptr;
  HistoryW* m_history = nullptr;
  void* const m_owner;
  std::wstring m_prompt;
  bool m_full = false;
  size_t m_newest_weight = 0;  // of the newest entry in the history
  bool m_pretends = false;     // the terminal has the size that is pretended instead of its own
  winsize m_window = {};
  winsize m_pretended = {};
};

}  // namespace lattix
