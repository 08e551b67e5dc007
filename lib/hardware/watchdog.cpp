// One thread looks at the clients and prods; it sleeps until the earliest of the client deadlines,
// the phase's deadline and the next prod. Everything is guarded by one mutex, which is held while
// clients are asked: that is what makes RemoveClient final.
#include "lib/hardware/watchdog.h"

#include <fcntl.h>
#include <linux/watchdog.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "lib/platform/assertion.h"
#include "lib/platform/condition_variable.h"
#include "lib/platform/device_file.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/log.h"
#include "lib/platform/monotonic_time.h"
#include "lib/platform/thread_name.h"
#include "lib/platform/unique_fd.h"

using lattix::ErrorText;
using lattix::Log;

namespace {

constexpr int kTimeoutSeconds = 20;
// With it the kernel reports, this long before the reset, that the reset is coming.
constexpr int kPretimeoutSeconds = 5;
constexpr int kExpiryTimeoutSeconds = 5;
// A client that wants to go on but leaves its deadline in the past must not make the thread spin.
constexpr int64_t kRecheckMs = 1000;

int64_t After(std::chrono::nanoseconds time) {
  return lattix::monotonic_time_after_ns(time.count());
}

void LogFile(const char* title, const char* device_path) {
  try {
    const std::string content = lattix::ReadDeviceFile(device_path);
    Log("----------------{}-----------------\n{}", title, content);
  } catch (const lattix::ErrnoException& e) {
    Log("----------------{}-----------------\n{}: {}\n", title, device_path, e.what());
  }
}

}  // namespace

struct MultiWatchdogImpl::Impl {
  const Timing m_timing;
  const lattix::UniqueFd m_device;
  std::mutex m_mutex;  // guards what follows, but not the thread
  lattix::condition_variable m_changed;
  bool m_quit = false;
  bool m_running = false;
  bool m_prodding = true;     // false for good once the reset is to come
  int64_t m_global_deadline;  // to enter the running phase, or to end after it
  int64_t m_next_look = 0;    // when the thread wakes by itself
  std::vector<Client*> m_clients;
  std::thread m_thread;

  explicit Impl(const Timing& timing)
      : m_timing(timing),
        m_device(lattix::OpenDevice("/dev/watchdog", O_WRONLY)),
        m_global_deadline(After(timing.startup)) {}

  bool Control(unsigned long request, int* value) const {
    return ioctl(m_device.Get(), request, value) == 0;
  }
  // Any byte but 'V', with which the kernel's driver would let the device be closed for good.
  bool Prod() const { return write(m_device.Get(), "p", 1) == 1; }

  void SetTimeout() const;
  bool HasFailed();
  void GiveUp();
  int64_t NextLook(int64_t now) const;
  void Run();
  template <typename Change>
  void ChangeAndWake(Change change) {
    {
      std::lock_guard lock(m_mutex);
      change();
    }
    m_changed.notify_all();
  }
};

void MultiWatchdogImpl::Impl::SetTimeout() const {
  int pretimeout = kPretimeoutSeconds;
  int timeout = kTimeoutSeconds;
  if (Control(WDIOC_SETPRETIMEOUT, &pretimeout)) timeout += kPretimeoutSeconds;
  if (!Control(WDIOC_SETTIMEOUT, &timeout)) {
    Log("Kernel watchdog timeout could not be set: {}\n", ErrorText(errno));
  }
}

// Asks the clients that are late, all of them: each one's name belongs into the log.
bool MultiWatchdogImpl::Impl::HasFailed() {
  const int64_t now = lattix::get_monotonic_time();
  if (!m_running) return m_global_deadline < now;
  bool failed = false;
  for (Client* client : m_clients) {
    Client::CheckValid(client);
    if (client->GetDeadline() >= now) continue;
    Log("Watchdog client '{}' failed to prod in a timely manner.\n", client->GetName());
    failed |= client->OnTimeout();
  }
  return failed;
}

void MultiWatchdogImpl::Impl::GiveUp() {
  m_prodding = false;
  Log("Giving up due to watchdog failure\n");
  LogFile("meminfo", "/proc/meminfo");
  LogFile("loadavg", "/proc/loadavg");
  LogFile("status", "/proc/self/status");
}

int64_t MultiWatchdogImpl::Impl::NextLook(int64_t now) const {
  int64_t next = now + m_timing.prod_interval.count();
  const auto consider = [&](int64_t deadline) {
    // The deadline has to have passed to count, so look right after it.
    if (deadline < next) {
      next = deadline < now ? std::min(next, now + kRecheckMs * 1'000'000) : deadline + 1;
    }
  };
  if (!m_running) {
    consider(m_global_deadline);
  } else {
    for (const Client* client : m_clients) consider(client->GetDeadline());
  }
  return next;
}

void MultiWatchdogImpl::Impl::Run() {
  lattix::SetThreadName("WatchDog");
  SetTimeout();
  std::unique_lock lock(m_mutex);
  while (!m_quit) {
    if (!m_prodding) {
      m_changed.wait(lock);
      continue;
    }
    if (HasFailed()) {
      GiveUp();
      continue;
    }
    if (!Prod()) Log("Failed to prod kernel watchdog\n");
    m_next_look = NextLook(lattix::get_monotonic_time());
    m_changed.wait_until(lock, m_next_look);
  }
}

MultiWatchdogImpl::MultiWatchdogImpl(const Timing& timing)
    : m_impl(std::make_unique<Impl>(timing)) {
  m_impl->m_thread = std::thread([impl = m_impl.get()] { impl->Run(); });
}

MultiWatchdogImpl::~MultiWatchdogImpl() {
  m_impl->ChangeAndWake([this] { m_impl->m_quit = true; });
  m_impl->m_thread.join();
  if (!m_impl->Prod()) Log("Failed to do final prod of watchdog\n");
}

void MultiWatchdogImpl::ExpireNow() {
  std::unique_lock lock(m_impl->m_mutex);
  int seconds = kExpiryTimeoutSeconds;
  m_impl->Control(WDIOC_SETTIMEOUT, &seconds);
  if (!m_impl->Control(WDIOC_GETTIMELEFT, &seconds) &&
      !m_impl->Control(WDIOC_GETTIMEOUT, &seconds)) {
    Log("Unable to read watchdog time left or timeout: {}\n", ErrorText(errno));
    seconds = kExpiryTimeoutSeconds;
  }
  Log("Watchdog will expire in under {} second{}...\n", seconds, seconds == 1 ? "" : "s");
  m_impl->m_prodding = false;
  const int64_t deadline = After(std::chrono::seconds(seconds) + m_impl->m_timing.expiry_margin);
  m_impl->m_changed.wait_until(lock, deadline, [this] { return m_impl->m_quit; });
  Log("Watchdog did not expire as expected\n");
}

void MultiWatchdogImpl::SetRunning(bool running) {
  m_impl->ChangeAndWake([&] {
    m_impl->m_running = running;
    if (!running) m_impl->m_global_deadline = After(m_impl->m_timing.shutdown);
  });
}

void MultiWatchdogImpl::Reevaluate() {
  m_impl->ChangeAndWake([] {});
}

void MultiWatchdogImpl::AddClient(Client* client) {
  Client::CheckValid(client);
  bool wake;
  {
    std::lock_guard lock(m_impl->m_mutex);
    m_impl->m_clients.push_back(client);
    // A script that waits for events adds and removes its client at every one of them, with a
    // deadline far away; that must not run the thread each time.
    wake = client->GetDeadline() < m_impl->m_next_look;
  }
  if (wake) m_impl->m_changed.notify_all();
}

void MultiWatchdogImpl::RemoveClient(Client* client) {
  std::lock_guard lock(m_impl->m_mutex);
  std::erase(m_impl->m_clients, client);
}

void MultiWatchdogImpl::CheckClientNotRegistered(Client* client) {
  std::lock_guard lock(m_impl->m_mutex);
  const auto& clients = m_impl->m_clients;
  if (std::find(clients.begin(), clients.end(), client) == clients.end()) return;
  Log("Watchdog client still unexpectedly registered '{}'\n", client->GetName());
  LATTIX_ASSERT(false);
}
