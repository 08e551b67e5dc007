// The dispatcher is shared by the guards, by its thread and by those who hold its connection. A
// thread that does not end keeps its share, so what it still uses stays until the process ends.
//
// A connection is never mended: its thread marks it lost and ends, and the next who asks for one
// gets another dispatcher.
#include "lib/platform/bus/dbus_dispatcher.h"

#include <sdbus-c++/sdbus-c++.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <thread>

#include "lib/platform/device_path.h"
#include "lib/platform/log.h"
#include "lib/platform/thread_name.h"

using lattix::Log;

namespace {

// A handler that takes longer is stuck.
constexpr std::chrono::seconds kExitTimeout{5};

struct Dispatcher {
  std::unique_ptr<sdbus::IConnection> connection;
  std::thread thread;
  std::promise<void> ended;
  std::atomic<bool> lost{false};
};

std::mutex g_mutex;  // guards what follows
std::shared_ptr<Dispatcher> g_dispatcher;
int g_guards = 0;
bool g_with_thread = false;

void Serve(const std::shared_ptr<Dispatcher>& dispatcher) {
  lattix::SetThreadName("DBusDispatcher");
  try {
    dispatcher->connection->enterEventLoop();
  } catch (const std::exception& e) {
    Log("The connection to the bus is lost: {}\n", e.what());
    dispatcher->lost = true;
  }
  dispatcher->ended.set_value();
}

// Makes the dispatcher what the guards ask for, as far as there is a bus. With the mutex held.
void Ensure() {
  if (g_dispatcher != nullptr && g_dispatcher->lost) {
    g_dispatcher->thread.detach();  // at its end, and with a share of its own
    g_dispatcher = nullptr;
  }
  if (g_dispatcher == nullptr && lattix::MayUseSystemBus()) {
    auto dispatcher = std::make_shared<Dispatcher>();
    try {
      dispatcher->connection = sdbus::createSystemBusConnection();
      g_dispatcher = std::move(dispatcher);
    } catch (const sdbus::Error& e) {
      Log("There is no bus: {}\n", e.getMessage());
    }
  }
  if (g_with_thread && g_dispatcher != nullptr && !g_dispatcher->thread.joinable()) {
    g_dispatcher->thread = std::thread(Serve, g_dispatcher);
  }
}

}  // namespace

EnsureDBusDispatcher::EnsureDBusDispatcher(bool with_thread) {
  const std::lock_guard guard(g_mutex);
  const bool is_first = g_guards++ == 0;
  const bool wants_thread = with_thread && !g_with_thread;
  g_with_thread = g_with_thread || with_thread;
  if (is_first || wants_thread) Ensure();
}

EnsureDBusDispatcher::~EnsureDBusDispatcher() {
  std::shared_ptr<Dispatcher> dispatcher;
  {
    const std::lock_guard guard(g_mutex);
    if (--g_guards != 0) return;
    g_with_thread = false;
    dispatcher = std::move(g_dispatcher);
  }
  if (dispatcher == nullptr || !dispatcher->thread.joinable()) return;
  dispatcher->connection->leaveEventLoop();
  if (dispatcher->ended.get_future().wait_for(kExitTimeout) == std::future_status::ready) {
    dispatcher->thread.join();
  } else {
    Log("~EnsureDBusDispatcher thread failed to exit in a timely manner.\n");
    dispatcher->thread.detach();
  }
}

std::shared_ptr<sdbus::IConnection> EnsureDBusDispatcher::Connection() {
  const std::lock_guard guard(g_mutex);
  if (g_guards != 0) Ensure();
  if (g_dispatcher == nullptr) return nullptr;
  return {g_dispatcher, g_dispatcher->connection.get()};
}
