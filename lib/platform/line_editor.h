// The console: lines edited on standard input and output.
//
// Several editors share the one console, each with a prompt and a history of its own: the shell's,
// the debugger's. Whoever reads, owns the console while the read lasts (console_owner.h). A read by
// ReadLine or GetChar takes the console away from a reader on another thread, which leaves its line
// on the screen, keeps what was half typed and, when the console comes back, draws prompt and text
// anew. The command loop (Run) is the reader in the background: it has the console only while
// nobody else wants it.
//
// SIGINT abandons the line that the owner is reading, in Run the whole command, and the owner gives
// a fresh prompt.
//
// Input ends at the end of the stream, when the terminal vanishes, or when EndConsoleInput says so.
// Output goes through stdio: each call is one piece, whatever other threads write.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

namespace lattix {

// An editor is used from one thread at a time.
class LineEditor {
 public:
  // The words of a command, words[0] the command itself. False ends the loop.
  using LineHandler = std::function<bool(int count, const char** words)>;

  // Reads one line, without its end; what goes beyond four million characters, or at a terminal
  // beyond what EditContext bears, is dropped. False at the end of input.
  virtual bool ReadLine(std::string* line) = 0;
  // Reads commands and calls the handler for each, until it returns false or input ends. A command
  // is split at blanks; quotes ('...' and "...") and backslashes keep blanks in a word, and go on
  // in the next line, for which the prompt is "> ". A line of blanks is a command of no words. What
  // the handler throws passes through.
  virtual void Run(const LineHandler& handler) = 0;
  // From the next line on.
  virtual void SetPrompt(const std::string& prompt) = 0;
  // Reads one byte as it comes, without editing. False at the end of input.
  virtual bool GetChar(char* c) = 0;

  virtual void PutChar(char c) = 0;
  virtual void Puts(const char* text) = 0;
  virtual void Puts(const std::string& text) = 0;
  virtual void Write(const char* data, size_t length) = 0;
  // Returns when the terminal has sent everything.
  virtual void Flush() = 0;

  virtual ~LineEditor() = default;
};

// An editor with the keys of emacs and a history of 64 lines, on standard input and output; plain
// lines without a prompt when standard input is no terminal. Text is UTF-8; what is not, is dropped
// from the input. Standard input must not have been read through stdio before. Throws
// std::logic_error for a null prompt and std::bad_alloc.
std::shared_ptr<LineEditor> MakeLineEditor(const char* prompt);

}  // namespace lattix
