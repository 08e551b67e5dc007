// The settings are those of the device's serial console, whatever was there before: the player may
// have been started by an init system that never set the line up.
#include "apps/orvex/console_terminal.h"

#include <unistd.h>

#include <cerrno>

#include "lib/platform/errno_exception.h"
#include "lib/platform/log.h"

using lattix::ErrorText;
using lattix::Log;

void SetUpConsoleTerminal() {
  termios terminal;
  if (::tcgetattr(STDIN_FILENO, &terminal) != 0) return;
  ::cfmakeraw(&terminal);
  terminal.c_oflag |= OPOST | ONLCR;
  terminal.c_lflag |= ISIG;
  terminal.c_cc[VQUIT] = 0;
  terminal.c_cc[VSUSP] = 0;
  terminal.c_cc[VMIN] = 1;
  terminal.c_cc[VTIME] = 0;
  ::tcsetattr(STDIN_FILENO, TCSADRAIN, &terminal);
}

void RestoreConsoleTerminal() {
  termios terminal;
  if (::tcgetattr(STDIN_FILENO, &terminal) != 0) {
    Log("Failed to get serial configuration: {}\n", ErrorText(errno));
    return;
  }
  terminal.c_iflag = BRKINT | ICRNL | IMAXBEL;
  terminal.c_oflag = OPOST | ONLCR;
  terminal.c_cflag &= ~static_cast<tcflag_t>(CSIZE | CSTOPB | PARENB);
  terminal.c_cflag |= CS8;
  terminal.c_lflag |= ICANON | ECHO | IEXTEN;
  if (::cfsetispeed(&terminal, B115200) != 0) {
    Log("Failed to set serial ispeed: {}\n", ErrorText(errno));
  }
  if (::cfsetospeed(&terminal, B115200) != 0) {
    Log("Failed to set serial ospeed: {}\n", ErrorText(errno));
  }
  if (::tcsetattr(STDIN_FILENO, TCSADRAIN, &terminal) != 0) {
    Log("Failed to configure serial port: {}\n", ErrorText(errno));
  }
}

FlowingOutput::FlowingOutput() { lattix::SignalDispatcher::GetInstance().Attach(SIGINT, this); }

FlowingOutput::~FlowingOutput() { lattix::SignalDispatcher::GetInstance().Detach(SIGINT, this); }

void FlowingOutput::OnSignal(const siginfo_t&) {
  // The driver signals first and throws away then, with its settings locked meanwhile: who has read
  // them comes after it. Starting what was stopped wakes those who wait.
  termios terminal;
  if (::tcgetattr(STDIN_FILENO, &terminal) != 0) return;
  ::tcflow(STDIN_FILENO, TCOOFF);
  ::tcflow(STDIN_FILENO, TCOON);
}

ProgramTerminal::ProgramTerminal() : m_terminal(::tcgetattr(STDIN_FILENO, &m_before) == 0) {
  if (!m_terminal) return;
  termios lines = m_before;
  lines.c_iflag |= ICRNL;
  lines.c_lflag |= ICANON | ECHO | ECHOE | IEXTEN;
  ::tcsetattr(STDIN_FILENO, TCSADRAIN, &lines);
}

ProgramTerminal::~ProgramTerminal() {
  if (m_terminal) ::tcsetattr(STDIN_FILENO, TCSADRAIN, &m_before);
}
