// The terminal on standard input, between the player's start and its end.
#pragma once

#include <termios.h>

#include "lib/platform/async_signals.h"
#include "lib/platform/console_owner.h"

// All are for the main thread, while nobody reads the console.

// Raw input, a byte at a time, without echo, but with Ctrl-C as a signal; output keeps turning LF
// into CR LF. Nothing happens when standard input is no terminal.
void SetUpConsoleTerminal();

// Leaves the terminal as a login program expects it: lines with echo, 8 data bits, no parity,
// 115200 baud. A failure is logged.
void RestoreConsoleTerminal();

// Keeps output flowing after Ctrl-C, as long as the object lasts. The terminal's driver then throws
// away what it has not put out yet, and that of a pseudo-terminal does not tell a thread that waits
// for the room: it would wait for ever, and so would all who print after it. Needs the signal
// dispatcher; unlike the rest, not bound to times when nobody reads.
class FlowingOutput final : public lattix::SignalObserver {
 public:
  FlowingOutput();
  ~FlowingOutput();
  FlowingOutput(const FlowingOutput&) = delete;
  FlowingOutput& operator=(const FlowingOutput&) = delete;

  void OnSignal(const siginfo_t& info) override;
};

// The terminal as a program expects it that is run on the console and waited for: lines with echo,
// and nobody else who reads. It is as before when the object goes.
class ProgramTerminal {
 public:
  ProgramTerminal();
  ~ProgramTerminal();
  ProgramTerminal(const ProgramTerminal&) = delete;
  ProgramTerminal& operator=(const ProgramTerminal&) = delete;

 private:
  const lattix::ConsoleLoan m_loan;
  termios m_before = {};
  const bool m_terminal;  // standard input is one
};
