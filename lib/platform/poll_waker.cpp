// A pipe rather than a counter: each wake-up stays one byte that is read once, so a loop is told
// how often it was woken.
#include "lib/platform/poll_waker.h"

#include <fcntl.h>

#include <cerrno>

#include "lib/platform/assertion.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/log.h"

using lattix::ErrorText;
using lattix::Log;

PollWaker::PollWaker() {
  int ends[2];
  // Programs that the player starts get no part of its plumbing.
  if (pipe2(ends, O_CLOEXEC) != 0) throw lattix::ErrnoException(errno, "pipe");
  m_read_end.Reset(ends[0]);
  m_write_end.Reset(ends[1]);
}

void PollWaker::Wake() {
  const char byte = '!';
  ssize_t n;
  do {
    n = write(m_write_end.Get(), &byte, 1);
  } while (n < 0 && errno == EINTR);
  if (n < 0) Log("PollWaker::Wake failed: {}\n", ErrorText(errno));
  LATTIX_ASSERT(n == 1);
}

void PollWaker::Acknowledge() {
  char byte;
  ssize_t n;
  do {
    n = read(m_read_end.Get(), &byte, 1);
  } while (n < 0 && errno == EINTR);
  if (n < 0) Log("PollWaker::Acknowledge failed: {}\n", ErrorText(errno));
  LATTIX_ASSERT(n == 1);
}
