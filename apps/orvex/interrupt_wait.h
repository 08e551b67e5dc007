// Waiting, for commands that wait for the network, until the operator has had enough.
#pragma once

#include <poll.h>

#include <atomic>
#include <cstdint>
#include <span>
#include <stop_token>

#include "lib/platform/async_signals.h"
#include "lib/platform/poll_waker.h"

// As long as it lives, Ctrl-C (and the loss of the terminal) ends its waits. Made and used on the
// shell's thread.
class InterruptWait final : public lattix::SignalObserver {
 public:
  InterruptWait();
  ~InterruptWait();
  InterruptWait(const InterruptWait&) = delete;
  InterruptWait& operator=(const InterruptWait&) = delete;

  // On the signal dispatcher's thread.
  void OnSignal(const siginfo_t& info) override;

  // Throws std::runtime_error "Interrupted" once the operator has asked for it.
  void Check() const;
  // Waits until a descriptor is ready, or the deadline (on the monotonic clock, nanoseconds) has
  // come; with descriptor -1 in an entry it is skipped. Returns whether one is ready. Throws what
  // Check does, at once when the operator asks for it, and lattix::ErrnoException.
  bool Poll(std::span<pollfd> descriptors, int64_t deadline) const;
  // Stops when the operator asks for it; its callbacks run on the signal dispatcher's thread.
  std::stop_token stop_token() const { return m_stop.get_token(); }

 private:
  PollWaker m_waker;  // woken once
  std::stop_source m_stop;
  std::atomic<bool> m_interrupted{false};
};
