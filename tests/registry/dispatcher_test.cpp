#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>

#include <chrono>
#include <thread>

#include "lib/platform/bus/dbus_dispatcher.h"
#include "tests/registry/registry_support.h"

namespace {

TEST(DBusDispatcherTest, TheConnectionLastsFromTheFirstGuardToTheLast) {
  PrivateBus bus(PrivateBus::Service::kNone);
  {
    const EnsureDBusDispatcher first(true);
    const auto connection = EnsureDBusDispatcher::Connection();
    EXPECT_NE(nullptr, connection);
    const EnsureDBusDispatcher second(true);
    EXPECT_EQ(connection, EnsureDBusDispatcher::Connection());
  }
  EXPECT_EQ(nullptr, EnsureDBusDispatcher::Connection());
}

TEST(DBusDispatcherTest, OutlivesTheBus) {
  PrivateBus bus(PrivateBus::Service::kNone);
  const EnsureDBusDispatcher guard(true);
  const auto lost = EnsureDBusDispatcher::Connection();
  ASSERT_NE(nullptr, lost);
  bus.Stop();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (EnsureDBusDispatcher::Connection() != nullptr) {
    ASSERT_LT(std::chrono::steady_clock::now(), deadline);
    std::this_thread::yield();
  }
  bus.Start();
  const auto connection = EnsureDBusDispatcher::Connection();
  ASSERT_NE(nullptr, connection);
  connection->requestName("org.orvex.Test");
  EXPECT_THROW(lost->requestName("org.orvex.Test"), sdbus::Error);
}

TEST(DBusDispatcherTest, ADeviceRootHasNoBusUnlessOneIsNamed) {
  const TemporaryRoot root;
  unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
  const EnsureDBusDispatcher guard(true);
  EXPECT_EQ(nullptr, EnsureDBusDispatcher::Connection());
}

}  // namespace
