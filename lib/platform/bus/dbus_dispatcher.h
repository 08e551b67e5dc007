// The process's connection to the system bus, and the thread that serves it.
#pragma once

#include <memory>

namespace sdbus {
class IConnection;
}

// A guard: while one exists, the process has its bus connection, the default one for everything
// that is offered on the bus or listens there. The first guard makes it, the last one closes it;
// the thread "DBusDispatcher" is started once a connection, by the first guard that asks for it,
// and calls all handlers.
//
// A process does without a bus when there is none, and when its thread finds that the bus has gone;
// both are logged, and Connection then looks for one each time it is asked. In a device root the
// machine's own bus lies outside: unless DBUS_SYSTEM_BUS_ADDRESS names a bus, none is looked for.
//
// Guards are made and destroyed on one thread (main() does), and by nobody while a handler runs.
class EnsureDBusDispatcher {
 public:
  explicit EnsureDBusDispatcher(bool with_thread);
  // Of the last guard: ends the thread. One that does not end within seconds is left to itself,
  // with the connection, and that is logged.
  ~EnsureDBusDispatcher();
  EnsureDBusDispatcher(const EnsureDBusDispatcher&) = delete;
  EnsureDBusDispatcher& operator=(const EnsureDBusDispatcher&) = delete;

  // Null when there is no bus, or no guard. From any thread, handlers included. It stays valid for
  // whoever holds it, though the bus may go: what was offered on it then, or listened there, is
  // over and has to be made anew on the next one.
  static std::shared_ptr<sdbus::IConnection> Connection();
};
