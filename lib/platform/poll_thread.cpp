// The loop: build the descriptor array, poll without the lock, run the timers that are due,
// dispatch the events; all but the poll under one recursive mutex.
//
// 1. While the poll and its dispatch last, a client's index in the table is its index in the
//    descriptor array. So detaching nulls the slot, new clients go to the end, and only the loop
//    compacts the table, between two polls. Where a full table has to be compacted earlier, the
//    events of the poll in progress are dropped with it: polling is level-triggered, the next poll
//    reports them again.
// 2. A slot is read anew right before its client is called: what an earlier callback of the same
//    pass detached is not called any more.
// 3. A thread wakes the loop only while it polls, and only once a poll. Without that a callback, or
//    a busy thread, could fill the waker's pipe and wait for ever for the loop it is keeping busy.
#include "lib/platform/poll_thread.h"

#include <cxxabi.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <string>
#include <thread>
#include <typeinfo>
#include <vector>

#include "lib/platform/assertion.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/log.h"
#include "lib/platform/monotonic_time.h"
#include "lib/platform/thread_name.h"

using lattix::ErrorText;
using lattix::Log;

void Pollable::OnActivity() { LATTIX_ASSERT(false); }

void PollableWaker::OnEvents(short events) {
  if (events != POLLIN) {
    Log("PollableWaker::OnEvents called with unexpected events 0x{:x}\n",
        static_cast<unsigned short>(events));
  }
  LATTIX_ASSERT_TEXT(events == POLLIN, "events == 0x001");
  m_waker.Acknowledge();
  OnWoken();
}

// Waking is all that the poll thread's own waker is for; it only notes that the byte was taken.
class PollThread::NoOpPollableWaker final : public PollableWaker {
 public:
  void OnWoken() override { m_woken = false; }

  // Whether the caller has to Wake. Called with the poll thread's mutex held.
  bool Claim() { return !std::exchange(m_woken, true); }

 private:
  bool m_woken = false;  // a byte is, or is about to be, in the pipe
};

struct PollThread::Impl {
  struct Client {
    Pollable* pollable;  // null once detached
    short events;
  };

  std::atomic<bool> m_quit{false};
  std::recursive_mutex m_mutex;  // guards everything below; held while callbacks run
  NoOpPollableWaker m_waker;
  std::vector<Client> m_clients;  // in the order of their attachment
  unsigned m_compactions = 0;     // by how many compactions indices have changed
  bool m_polling = false;  // the loop is between building its array and taking the lock again
  TimerQueue m_timers;
  std::thread m_thread;

  Impl() { m_clients.reserve(MAX_CLIENTS); }

  // What the interface functions do with the lock held, and the waking after they let it go.
  template <typename Change>
  void ChangeAndWake(Change change) {
    bool wake;
    {
      std::lock_guard lock(m_mutex);
      wake = change() && m_polling && m_waker.Claim();
    }
    if (wake) m_waker.GetWaker().Wake();
  }

  std::vector<Client>::iterator Find(const Pollable* client) {
    return std::find_if(m_clients.begin(), m_clients.end(),
                        [client](const Client& c) { return c.pollable == client; });
  }

  void Compact() {
    if (std::erase_if(m_clients, [](const Client& c) { return !c.pollable; })) ++m_compactions;
  }

  bool HasRoom() {
    if (m_clients.size() + 1 >= MAX_CLIENTS) Compact();
    return m_clients.size() + 1 < MAX_CLIENTS;
  }

  void Attach(Pollable* client, short events);
  void RunTimers();
  void Dispatch(const pollfd* fds, size_t count);
  void PollOnce();
  void CheckNothingIsLeft();
  void Run();
};

namespace {

std::string TypeName(const Pollable& client) {
  const char* mangled = typeid(client).name();
  const std::unique_ptr<char, decltype(&std::free)> name(
      abi::__cxa_demangle(mangled, nullptr, nullptr, nullptr), &std::free);
  return name ? name.get() : mangled;
}

}  // namespace

void PollThread::Impl::Attach(Pollable* client, short events) {
  ChangeAndWake([&] {
    HasRoom();
    m_clients.push_back({client, events});
    if (m_clients.size() >= MAX_CLIENTS) {
      Log("PollThread exceeded maximum number of clients. Client dump:\n");
      for (const Client& c : m_clients) {
        if (c.pollable) {
          Log("  {}:{} ({})\n", static_cast<const void*>(c.pollable), c.pollable->GetFd(),
              TypeName(*c.pollable));
        } else {
          Log("  NULL\n");
        }
      }
      // The process is about to end; its last lines have to get through a slow console first.
      std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    LATTIX_ASSERT(m_clients.size() < MAX_CLIENTS);
    return true;
  });
}

void PollThread::Impl::RunTimers() {
  const int64_t now = lattix::get_monotonic_time();
  while (!m_timers.IsEmpty() && m_timers.NextDue() < now) m_timers.TakeFirst().Run();
}

void PollThread::Impl::Dispatch(const pollfd* fds, size_t count) {
  const unsigned compactions = m_compactions;
  for (size_t i = 0; i < count && m_compactions == compactions; ++i) {
    if (fds[i].revents && m_clients[i].pollable) m_clients[i].pollable->OnEvents(fds[i].revents);
  }
}

void PollThread::Impl::PollOnce() {
  pollfd fds[MAX_CLIENTS];
  size_t count = 0;
  timespec timeout{};
  bool timed;
  unsigned compactions;
  {
    std::lock_guard lock(m_mutex);
    Compact();
    for (const Client& client : m_clients) {
      fds[count++] = {client.pollable->GetFd(), client.events, 0};
    }
    timed = !m_timers.IsEmpty();
    if (timed) {
      constexpr int64_t kNanosecondsPerSecond = 1'000'000'000;
      const int64_t now = lattix::get_monotonic_time();
      const int64_t due = m_timers.NextDue();
      const int64_t left = due > now ? due - now : 0;
      timeout.tv_sec = left / kNanosecondsPerSecond;
      timeout.tv_nsec = left % kNanosecondsPerSecond;
    }
    compactions = m_compactions;
    m_polling = true;
  }
  const int ready = ppoll(fds, count, timed ? &timeout : nullptr, nullptr);
  if (ready < 0) Log("PollThread: poll error {}: {}\n", errno, ErrorText(errno));

  std::lock_guard lock(m_mutex);
  m_polling = false;
  if (timed) RunTimers();
  if (ready > 0 && m_compactions == compactions) Dispatch(fds, count);
}

void PollThread::Impl::CheckNothingIsLeft() {
  Compact();
  for (const Client& client : m_clients) {
    Log("PollThread client still attached: {}\n", TypeName(*client.pollable));
  }
  if (!m_clients.empty()) {
    Log("Poll thread exiting with {} clients still present:\n", m_clients.size());
    LATTIX_ASSERT(false);
  }
  if (!m_timers.IsEmpty()) {
    Log("Poll thread exiting with {} timer clients still present:\n", m_timers.Size());
    LATTIX_ASSERT(false);
  }
}

void PollThread::Impl::Run() {
  lattix::SetThreadName("pspoll");
  Attach(&m_waker, POLLIN);
  while (!m_quit) PollOnce();
  std::lock_guard lock(m_mutex);
  Find(&m_waker)->pollable = nullptr;
  CheckNothingIsLeft();
}

PollThread::PollThread() : m_impl(std::make_unique<Impl>()) {
  m_impl->m_thread = std::thread([impl = m_impl.get()] { impl->Run(); });
}

PollThread::~PollThread() {
  m_impl->m_quit = true;
  // Unconditionally: the loop may have looked at the flag already and be on its way into the poll.
  m_impl->m_waker.GetWaker().Wake();
  m_impl->m_thread.join();
}

void PollThread::Attach(Pollable* client, short events) { m_impl->Attach(client, events); }

bool PollThread::TryAttach(Pollable* client, short events) {
  bool attached;
  m_impl->ChangeAndWake([&] {
    attached = m_impl->HasRoom();
    if (attached) m_impl->m_clients.push_back({client, events});
    return attached;
  });
  return attached;
}

void PollThread::Detach(Pollable* client) {
  m_impl->ChangeAndWake([&] {
    const auto found = m_impl->Find(client);
    if (found == m_impl->m_clients.end()) return false;
    found->pollable = nullptr;
    return true;
  });
}

void PollThread::ChangeEvents(Pollable* client, short events) {
  m_impl->ChangeAndWake([&] {
    const auto found = m_impl->Find(client);
    if (found == m_impl->m_clients.end()) LATTIX_ASSERT(false);
    found->events = events;
    return true;
  });
}

void PollThread::AddTimerCall(const TimerCall& call, int64_t due) {
  m_impl->ChangeAndWake([&] {
    // A timer behind the first one changes nothing about the next wake-up.
    const bool first = m_impl->m_timers.IsEmpty() || due < m_impl->m_timers.NextDue();
    m_impl->m_timers.Add(call, due);
    return first;
  });
}

void PollThread::CancelTimerCall(const TimerCall& call) {
  std::lock_guard lock(m_impl->m_mutex);
  m_impl->m_timers.Cancel(call);
}
