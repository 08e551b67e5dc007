// Long output that the operator can stop.
#pragma once

#include <atomic>

#include "lib/platform/async_signals.h"
#include "lib/platform/shell.h"

// As long as it lives, Ctrl-C (and the loss of the terminal) is meant for the output of the command
// that made it. Made and used on the shell's thread.
class InterruptibleOutput final : public lattix::SignalObserver {
 public:
  explicit InterruptibleOutput(Shell& shell);
  ~InterruptibleOutput();
  InterruptibleOutput(const InterruptibleOutput&) = delete;
  InterruptibleOutput& operator=(const InterruptibleOutput&) = delete;

  // On the signal dispatcher's thread.
  void OnSignal(const siginfo_t& info) override;

  bool IsInterrupted() const { return m_interrupted; }
  // Throws std::runtime_error "Interrupted" once the operator has asked for it.
  void Check() const;
  // What can be read from the descriptor, and a newline, in pieces that the terminal can keep up
  // with. Throws what Check does and lattix::ErrnoException.
  void ShowFile(int fd) const;
  void ShowText(std::string_view text) const;

 private:
  Shell& m_shell;
  std::atomic<bool> m_interrupted{false};
};
