// A fixed buffer in front of write(2). Everything that prints goes through one instance of it, so
// there is no second buffer that could hold text back.
#include "apps/plumscript/output.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

// Writes everything, also to a descriptor that somebody made non-blocking; 0, or the errno.
int WriteAll(int fd, const char* text, size_t n) {
  while (n > 0) {
    const ssize_t written = ::write(fd, text, n);
    if (written >= 0) {
      text += written;
      n -= static_cast<size_t>(written);
    } else if (errno == EAGAIN) {
      pollfd ready = {fd, POLLOUT, 0};
      ::poll(&ready, 1, -1);
    } else if (errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

}  // namespace

Output::Output() : m_terminal(::isatty(STDOUT_FILENO) == 1) {}

void Output::WriteOut(const char* text, size_t n) {
  if (m_failure != 0) return;
  m_failure = WriteAll(STDOUT_FILENO, text, n);
  if (m_failure != 0 && m_on_failure) m_on_failure();
}

void Output::Write(std::string_view text) {
  if (text.size() > kCapacity - m_used) {
    Flush();
    if (text.size() >= kCapacity) {
      WriteOut(text.data(), text.size());
      return;
    }
  }
  std::memcpy(m_buffer + m_used, text.data(), text.size());
  m_used += text.size();
  if (m_terminal) Flush();
}

void Output::Flush() {
  const size_t n = m_used;
  m_used = 0;
  if (n > 0) WriteOut(m_buffer, n);
}

void Output::Error(std::string_view text) {
  Flush();
  WriteAll(STDERR_FILENO, text.data(), text.size());
}

Output& Out() {
  static Output output;
  return output;
}
