// The shell's loop: lines from standard input, until one of them or another thread ends it.
#include "apps/orvex/orvex_shell.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

OrvexShell::OrvexShell() = default;
OrvexShell::~OrvexShell() = default;

void OrvexShell::RequestExit(int status) {
  m_exit_status = status;
  if (!m_exit_requested.exchange(true)) m_exit_waker.Wake();
}

void OrvexShell::RunConsole(const std::string& prompt) {
  std::string line;
  std::fputs(prompt.c_str(), stdout);
  while (!m_exit_requested) {
    pollfd fds[] = {{STDIN_FILENO, POLLIN, 0}, {m_exit_waker.GetReadFd(), POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0 && errno == EINTR) continue;
    if (fds[0].revents == 0) continue;
    char ch;
    if (::read(STDIN_FILENO, &ch, 1) <= 0) return;
    if (ch != '\n' && ch != '\r') {
      line += ch;
      continue;
    }
    if (line == "exit") return;
    line.clear();
    std::fputs(prompt.c_str(), stdout);
  }
}
