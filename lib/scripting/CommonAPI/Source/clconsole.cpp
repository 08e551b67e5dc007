// koConsole: standard input as events on the script's ports, standard output as a stream.
//
// While somebody else has claimed the console the object polls nothing. When the last claim
// has gone, a waker makes the poll thread ask for its descriptor again.
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <stdexcept>

#include "lib/platform/console_owner.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/log.h"
#include "lib/scripting/CommonAPI/Include/console_object.h"
#include "lib/scripting/CommonAPI/Include/object_globals.h"

using lattix::Log;

ConsoleInstance::~ConsoleInstance() {
  if (m_releases == 0) return;
  lattix::ConsoleReleases().Remove(m_releases);
  PollThread& poll_thread = KelvoObjectGlobals::GetInstance().GetPollThread();
  poll_thread.Detach(this);
  poll_thread.Detach(&m_look_again);
}

bool ConsoleInstance::Init() {
  SetSendEol("\n");
  SetReceiveEol(KelvoTypedValue::From(GetDomain(), int32_t{'\n'}));
  PollThread& poll_thread = KelvoObjectGlobals::GetInstance().GetPollThread();
  if (!poll_thread.TryAttach(&m_look_again, POLLIN) || !poll_thread.TryAttach(this, POLLIN)) {
    poll_thread.Detach(&m_look_again);
    throw std::runtime_error("Too many poll clients");
  }
  m_releases = lattix::ConsoleReleases().Add([this] { m_look_again.GetWaker().Wake(); });
  // For a claim that went before the listener was there.
  m_look_again.GetWaker().Wake();
  return true;
}

int ConsoleInstance::GetFd() const {
  return m_failed || lattix::IsConsoleClaimed() ? -1 : STDIN_FILENO;
}

void ConsoleInstance::OnEvents(short) {
  uint8_t bytes[256];
  const std::optional<ssize_t> n = lattix::ReadUnclaimedConsole(bytes, sizeof bytes);
  if (!n) return;
  if (*n < 0) {
    const int error = errno;
    if (error == EINTR || error == EAGAIN) return;
    Log("Failed to read from serial port on fd {}: {} ({})\n", STDIN_FILENO,
        lattix::ErrorText(error), error);
    m_failed = true;  // poll would report it for ever
    return;
  }
  if (*n == 0) {
    Log("Read zero bytes from serial port on fd {}\n", STDIN_FILENO);
    LATTIX_ASSERT(false);  // on purpose: a closed console cannot be recovered
  }
  Receive(*this, {bytes, static_cast<size_t>(*n)});
}

void ConsoleInstance::DoSend(std::string_view bytes) {
  if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size()) {
    throw lattix::ErrnoException(errno, "standard output");
  }
}

void ConsoleInstance::DoFlush() {
  std::fflush(stdout);
  ::tcdrain(STDOUT_FILENO);
}

namespace {

constexpr psInterface kInterfaces[] = {
    StreamSendMixin::kInterface<ConsoleInstance>,
    StreamReceiveMixin::kInterface<ConsoleInstance>,
    UserDataMixin::kInterface<ConsoleInstance>,
    FailureReasonMixin::kInterface<ConsoleInstance>,
};

}  // namespace

constinit pscClass ConsoleInstance::sm_class =
    KelvoClass<ConsoleInstance>("koConsole", kInterfaces);
