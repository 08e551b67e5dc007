#include "apps/orvex/interruptible_output.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

#include "lib/platform/errno_exception.h"

namespace {

constexpr int kSignals[] = {SIGINT, SIGHUP};
// About a screen: what is still under way when Ctrl-C is pressed.
constexpr size_t kPiece = 4096;

}  // namespace

InterruptibleOutput::InterruptibleOutput(Shell& shell) : m_shell(shell) {
  for (const int signal : kSignals) lattix::SignalDispatcher::GetInstance().Attach(signal, this);
}

InterruptibleOutput::~InterruptibleOutput() {
  for (const int signal : kSignals) lattix::SignalDispatcher::GetInstance().Detach(signal, this);
}

void InterruptibleOutput::OnSignal(const siginfo_t&) { m_interrupted = true; }

void InterruptibleOutput::Check() const {
  if (m_interrupted) throw std::runtime_error("Interrupted");
}

void InterruptibleOutput::ShowFile(int fd) const {
  char piece[kPiece];
  for (;;) {
    Check();
    const ssize_t n = read(fd, piece, sizeof piece);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw lattix::ErrnoException(errno, "read");
    if (n == 0) break;
    m_shell.Write(piece, static_cast<size_t>(n));
    m_shell.Flush();
  }
  m_shell.Puts("\n");
}

void InterruptibleOutput::ShowText(std::string_view text) const {
  while (!text.empty()) {
    Check();
    const std::string_view piece = text.substr(0, kPiece);
    m_shell.Write(piece.data(), piece.size());
    m_shell.Flush();
    text.remove_prefix(piece.size());
  }
}
