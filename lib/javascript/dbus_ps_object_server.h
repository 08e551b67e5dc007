// What the JavaScript bridge offers on the bus.
#pragma once

#include "lib/platform/bus/dbus_dispatcher.h"

// Makes the objects through which pages reach the device's services. It holds the bus connection
// open for them; it offers none until the renderer that would ask for them is there.
class DbusPsObjectServerFactory {
 public:
  DbusPsObjectServerFactory() : m_dispatcher(false) {}

 private:
  const EnsureDBusDispatcher m_dispatcher;
};
