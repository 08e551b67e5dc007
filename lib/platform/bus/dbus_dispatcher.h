// The process's connection to the system bus, and the thread that serves it.
#pragma once

namespace sdbus {
class IConnection;
}

// A guard: while one exists, the process has its bus connection, the default one for everything
// that is offered on the bus or listens there. The first guard makes it, the last one closes it;
// the thread "DBusDispatcher" is started once, by the first guard that asks for it, and calls all
// handlers.
//
// A process does without a bus when there is none: that is logged, and Connection is null. In a
// device root the machine's own bus lies outside: unless DBUS_SYSTEM_BUS_ADDRESS names a bus, none
// is looked for.
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

  // Null when there is no bus. Valid while a guard exists; from any thread.
  static sdbus::IConnection* Connection();
};
