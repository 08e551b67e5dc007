// Threads without signals.
#pragma once

#include <csignal>

namespace lattix {

// Blocks all signals in this thread as long as the object lasts. A thread gets the signal mask of
// the one that starts it: signals are taken by the threads that know what to do with them, so a
// service starts its own thread under one of these.
class AllSignalsBlocked {
 public:
  AllSignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &m_before);
  }
  ~AllSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
  AllSignalsBlocked(const AllSignalsBlocked&) = delete;
  AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;

 private:
  sigset_t m_before;
};

}  // namespace lattix
