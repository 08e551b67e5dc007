// Lines typed at a prompt, or piped into standard input.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

class LineReader {
 public:
  enum class Result {
    kLine,
    kTooLong,      // the line was read to its end and dropped
    kInterrupted,  // SIGINT at the prompt: what was typed is dropped
    kEnd,
  };

  virtual ~LineReader() = default;
  // Reads a line without its end ("\n" or "\r\n").
  virtual Result Read(const char* prompt, std::string* line) = 0;
  // Whether it is a person that types.
  virtual bool interactive() const = 0;

  // With editing and a history of this session when standard input, and somewhere to echo it, are
  // terminals; otherwise plain lines without a prompt. Lines above max_bytes are too long.
  static std::unique_ptr<LineReader> Make(size_t max_bytes);
};

// The terminal as it was found, if a line is being edited. Async-signal-safe.
void RestoreTerminal();
