#include <gtest/gtest.h>

#include "lib/platform/bus/dbus_dispatcher.h"
#include "tests/registry/registry_support.h"

namespace {

TEST(DBusDispatcherTest, TheConnectionLastsFromTheFirstGuardToTheLast) {
  PrivateBus bus(PrivateBus::Service::kNone);
  {
    const EnsureDBusDispatcher first(true);
    sdbus::IConnection* const connection = EnsureDBusDispatcher::Connection();
    EXPECT_NE(nullptr, connection);
    const EnsureDBusDispatcher second(true);
    EXPECT_EQ(connection, EnsureDBusDispatcher::Connection());
  }
  EXPECT_EQ(nullptr, EnsureDBusDispatcher::Connection());
}

TEST(DBusDispatcherTest, ABusThatGoesAwayDoesNotTakeTheProcessAlong) {
  PrivateBus bus(PrivateBus::Service::kNone);
  const EnsureDBusDispatcher guard(true);
  ASSERT_NE(nullptr, EnsureDBusDispatcher::Connection());
  bus.Stop();
}

TEST(DBusDispatcherTest, ADeviceRootHasNoBusUnlessOneIsNamed) {
  const TemporaryRoot root;
  unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
  const EnsureDBusDispatcher guard(true);
  EXPECT_EQ(nullptr, EnsureDBusDispatcher::Connection());
}

}  // namespace
