// The stack of claims, and the one reader or loan that uses the terminal.
//
// Owning and using are two things: the reader that lost the top of the stack is still using the
// terminal until it has left its line, and a loan as long as it lasts. So a claim waits for two
// conditions: it is on top, and nobody uses the terminal. The reader that lost the top is woken
// from its poll and becomes inactive soon, since it does nothing else meanwhile; a byte that it has
// read by then stays in its own line.
//
// The signal dispatcher's mutex is taken before this one, never after it: a reader attaches itself
// before it locks.
#include "lib/platform/console_owner.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "lib/platform/assertion.h"
#include "lib/platform/condition_variable.h"

namespace lattix {

struct ConsoleOwnership {
  std::mutex m_mutex;
  std::vector<ConsoleClaim*> m_claims;   // the last is the owner
  ConsoleReader* m_active = nullptr;     // uses the terminal
  const ConsoleClaim* m_loan = nullptr;  // or this does
  bool m_ended = false;
  condition_variable m_changed;
  ListenerList<> m_releases;  // called without the mutex

  // Lives for ever: readers may end after the static objects have.
  static ConsoleOwnership& Get() {
    static auto* const ownership = new ConsoleOwnership;
    return *ownership;
  }

  bool IsOwner(const ConsoleClaim* claim) const {
    return !m_claims.empty() && m_claims.back() == claim;
  }
  bool MayGoOn(const ConsoleClaim* claim) const {
    return m_ended || (IsOwner(claim) && m_active == nullptr && m_loan == nullptr);
  }

  void Add(ConsoleClaim* claim, bool background) {
    claim->m_thread = std::this_thread::get_id();
    const auto own = std::find_if(m_claims.rbegin(), m_claims.rend(), [claim](ConsoleClaim* other) {
      return other->m_thread == claim->m_thread;
    });
    const auto place = own != m_claims.rend() ? own.base()
                       : background           ? m_claims.begin()
                                              : m_claims.end();
    m_claims.insert(place, claim);
    if (m_active != nullptr && !IsOwner(m_active)) Wake(m_active);
  }
  void Remove(ConsoleClaim* claim) {
    {
      std::lock_guard lock(m_mutex);
      std::erase(m_claims, claim);
      if (m_active == claim) m_active = nullptr;
      if (m_loan == claim) m_loan = nullptr;
      m_changed.notify_all();
      if (!m_claims.empty()) return;
    }
    m_releases.Call();
  }
  // At most one byte is in the pipe, so waking never blocks.
  static void Wake(ConsoleReader* reader) {
    if (!reader->m_woken) reader->m_waker.Wake();
    reader->m_woken = true;
  }
};

void EndConsoleInput() {
  ConsoleOwnership& ownership = ConsoleOwnership::Get();
  std::lock_guard lock(ownership.m_mutex);
  ownership.m_ended = true;
  if (ownership.m_active != nullptr) ConsoleOwnership::Wake(ownership.m_active);
  ownership.m_changed.notify_all();
}

bool IsConsoleRead() {
  ConsoleOwnership& ownership = ConsoleOwnership::Get();
  std::lock_guard lock(ownership.m_mutex);
  return ownership.m_active != nullptr;
}

bool IsConsoleClaimed() {
  ConsoleOwnership& ownership = ConsoleOwnership::Get();
  std::lock_guard lock(ownership.m_mutex);
  return ownership.m_ended || !ownership.m_claims.empty();
}

std::optional<ssize_t> ReadUnclaimedConsole(void* buffer, size_t size) {
  ConsoleOwnership& ownership = ConsoleOwnership::Get();
  std::lock_guard lock(ownership.m_mutex);
  if (ownership.m_ended || !ownership.m_claims.empty()) return std::nullopt;
  // What the caller's poll saw may have been taken meanwhile: by another caller, by a claim that
  // has gone again, or by the terminal, which drops its input at an interrupt.
  pollfd input = {STDIN_FILENO, POLLIN, 0};
  if (poll(&input, 1, 0) <= 0) return std::nullopt;
  return read(STDIN_FILENO, buffer, size);
}

ListenerList<>& ConsoleReleases() { return ConsoleOwnership::Get().m_releases; }

ConsoleHold::ConsoleHold() {
  ConsoleOwnership& ownership = ConsoleOwnership::Get();
  std::unique_lock lock(ownership.m_mutex);
  ownership.Add(this, false);
  ownership.m_changed.wait(lock, [&] { return ownership.MayGoOn(this); });
}

ConsoleHold::~ConsoleHold() {
  LATTIX_ASSERT(m_thread == std::this_thread::get_id());
  ConsoleOwnership::Get().Remove(this);
}

ConsoleLoan::ConsoleLoan() {
  ConsoleOwnership& ownership = ConsoleOwnership::Get();
  std::unique_lock lock(ownership.m_mutex);
  ownership.Add(this, true);
  ownership.m_changed.wait(lock, [&] { return ownership.MayGoOn(this); });
  ownership.m_loan = this;
}

ConsoleLoan::~ConsoleLoan() {
  LATTIX_ASSERT(m_thread == std::this_thread::get_id());
  ConsoleOwnership::Get().Remove(this);
}

bool ConsoleReader::WaitForTurn(std::unique_lock<std::mutex>& lock) {
  ConsoleOwnership& ownership = ConsoleOwnership::Get();
  ownership.m_changed.wait(lock, [&] { return ownership.MayGoOn(this); });
  if (!ownership.m_ended) ownership.m_active = this;
  return !ownership.m_ended;
}

void ConsoleReader::Begin(Place place) {
  m_attached = SignalDispatcher::Exists();
  if (m_attached) SignalDispatcher::GetInstance().Attach(SIGINT, this);
  ConsoleOwnership& ownership = ConsoleOwnership::Get();
  std::unique_lock lock(ownership.m_mutex);
  m_interrupted = false;
  ownership.Add(this, place == Place::kBackground);
  WaitForTurn(lock);
}

ConsoleReader::Event ConsoleReader::Wait() {
  ConsoleOwnership& ownership = ConsoleOwnership::Get();
  for (;;) {
    {
      std::lock_guard lock(ownership.m_mutex);
      if (std::exchange(m_woken, false)) m_waker.Acknowledge();
      if (ownership.m_ended) return Event::kEnded;
      if (std::exchange(m_interrupted, false)) return Event::kInterrupted;
      if (!ownership.IsOwner(this)) return Event::kSuspended;
    }
    pollfd fds[] = {{STDIN_FILENO, POLLIN, 0}, {m_waker.GetReadFd(), POLLIN, 0}};
    if (poll(fds, std::size(fds), -1) < 0) {
      LATTIX_ASSERT(errno == EINTR || errno == ENOMEM || errno == EAGAIN);
      continue;
    }
    if (fds[1].revents == 0) return Event::kInput;
  }
}

bool ConsoleReader::Suspend() {
  ConsoleOwnership& ownership = ConsoleOwnership::Get();
  std::unique_lock lock(ownership.m_mutex);
  ownership.m_active = nullptr;
  ownership.m_changed.notify_all();
  return WaitForTurn(lock);
}

void ConsoleReader::End() {
  ConsoleOwnership::Get().Remove(this);
  if (m_attached) SignalDispatcher::GetInstance().Detach(SIGINT, this);
}

void ConsoleReader::OnSignal(const siginfo_t&) {
  ConsoleOwnership& ownership = ConsoleOwnership::Get();
  std::lock_guard lock(ownership.m_mutex);
  if (ownership.m_active != this) return;
  m_interrupted = true;
  ConsoleOwnership::Wake(this);
}

}  // namespace lattix
