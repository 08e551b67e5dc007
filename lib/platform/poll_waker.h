// Waking a poll loop from another thread.
#pragma once

#include "lib/platform/unique_fd.h"

// An ordinary pipe whose read end a loop polls for POLLIN. Every Wake is one byte and has to be
// acknowledged once. The pipe is blocking: a waker that nobody acknowledges makes Wake wait
// once the pipe is full (64 KiB on Linux), so a caller that may wake often keeps its own
// "already woken" flag.
//
// Wake may be called from any thread, Acknowledge from the loop's. Destroyed when
// neither is running.
class PollWaker {
 public:
  // Throws lattix::ErrnoException when no pipe can be made.
  PollWaker();
  PollWaker(const PollWaker&) = delete;
  PollWaker& operator=(const PollWaker&) = delete;

  // A failure is logged and, as the loop would sleep on, fails an assertion.
  void Wake();
  // Takes one byte; waits for it when there is none.
  void Acknowledge();

  // The end to poll; the waker keeps it.
  int GetReadFd() const { return m_read_end.Get(); }

 private:
  // In this order: the write end is closed first, so no writer is left without a reader.
  lattix::UniqueFd m_read_end;
  lattix::UniqueFd m_write_end;
};
