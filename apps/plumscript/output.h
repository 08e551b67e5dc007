// The tool's standard output and standard error.
//
// Standard output is buffered unless it is a terminal. Whatever is about to be seen beside it (text
// on standard error, a script that blocks, a prompt) flushes it first, so that the two streams read
// in the order things happened.
//
// One instance, used by the script's thread.
#pragma once

#include <cstddef>
#include <functional>
#include <string_view>

class Output {
 public:
  Output();
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  void Write(std::string_view text);
  void Flush();
  // Flushes standard output, then writes at once.
  void Error(std::string_view text);

  // Called once when standard output fails; what is written after that is dropped.
  void OnFailure(std::function<void()> callback) { m_on_failure = std::move(callback); }
  // The errno of that failure; 0 when all went well. EPIPE: the reader has gone.
  int failure() const { return m_failure; }
  bool terminal() const { return m_terminal; }

 private:
  static constexpr size_t kCapacity = 64 * 1024;

  void WriteOut(const char* text, size_t n);

  bool m_terminal;
  int m_failure = 0;
  size_t m_used = 0;
  std::function<void()> m_on_failure;
  char m_buffer[kCapacity];
};

// The process's output.
Output& Out();
