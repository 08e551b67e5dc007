// The dispatcher is shared by the guards and by its thread. A thread that does not end keeps its
// share, so what it still uses stays until the process ends.
#include "lib/platform/bus/dbus_dispatcher.h"

#include <sdbus-c++/sdbus-c++.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <memory>
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
};

std::shared_ptr<Dispatcher> g_dispatcher;
int g_guards = 0;

bool MayHaveBus() {
  const char* address = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
  return !lattix::InDeviceRoot() || (address != nullptr && *address != '\0');
}

void Serve(const std::shared_ptr<Dispatcher>& dispatcher) {
  lattix::SetThreadName("DBusDispatcher");
  try {
    dispatcher->connection->enterEventLoop();
  } catch (const std::exception& e) {
    Log("The connection to the bus is lost: {}\n", e.what());
  }
  dispatcher->ended.set_value();
}

}  // namespace

EnsureDBusDispatcher::EnsureDBusDispatcher(bool with_thread) {
  if (g_guards++ == 0 && MayHaveBus()) {
    auto dispatcher = std::make_shared<Dispatcher>();
    try {
      dispatcher->connection = sdbus::createSystemBusConnection();
      g_dispatcher = std::move(dispatcher);
    } catch (const sdbus::Error& e) {
      Log("There is no bus: {}\n", e.getMessage());
    }
  }
  if (with_thread && g_dispatcher != nullptr && !g_dispatcher->thread.joinable()) {
    g_dispatcher->thread = std::thread(Serve, g_dispatcher);
  }
}

EnsureDBusDispatcher::~EnsureDBusDispatcher() {
  if (--g_guards != 0 || g_dispatcher == nullptr) return;
  const std::shared_ptr<Dispatcher> dispatcher = std::move(g_dispatcher);
  if (!dispatcher->thread.joinable()) return;
  dispatcher->connection->leaveEventLoop();
  if (dispatcher->ended.get_future().wait_for(kExitTimeout) == std::future_status::ready) {
    dispatcher->thread.join();
  } else {
    Log("~EnsureDBusDispatcher thread failed to exit in a timely manner.\n");
    dispatcher->thread.detach();
  }
}

sdbus::IConnection* EnsureDBusDispatcher::Connection() {
  return g_dispatcher == nullptr ? nullptr : g_dispatcher->connection.get();
}
