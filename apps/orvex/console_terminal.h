// The terminal on standard input, between the player's start and its end.
#pragma once

#include <termios.h>

// All are for the main thread, while nobody reads the console.

// Raw input, a byte at a time, without echo, but with Ctrl-C as a signal; output keeps turning LF
// into CR LF. Nothing happens when standard input is no terminal.
void SetUpConsoleTerminal();

// Leaves the terminal as a login program expects it: lines with echo, 8 data bits, no parity,
// 115200 baud. A failure is logged.
void RestoreConsoleTerminal();

// The terminal as a program expects it that is run on the console and waited for: lines with echo.
// It is as before when the object goes.
class ProgramTerminal {
 public:
  ProgramTerminal();
  ~ProgramTerminal();
  ProgramTerminal(const ProgramTerminal&) = delete;
  ProgramTerminal& operator=(const ProgramTerminal&) = delete;

 private:
  termios m_before = {};
  const bool m_terminal;  // standard input is one
};
