// The service and its bus client where they differ from a plain store: start on demand, loss of the
// bus or the service, peers that misbehave, and the choice between the clients.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <optional>
#include <string>

#include "lib/platform/registry_bus/registry_bus_names.h"
#include "lib/platform/registry_bus/registry_client_impl.h"
#include "lib/platform/registry_store.h"
#include "tests/registry/registry_support.h"

namespace {

using Service = PrivateBus::Service;

TEST(RegistryBus, TheServiceAndADirectWriterShareTheStore) {
  const TemporaryRoot root;
  const PrivateBus bus(Service::kStartable);
  RegistryClientImpl client;
  RegistryStore store;
  client.Write("section", "bus", "1");
  EXPECT_EQ("1", store.Read("section", "bus"));
  store.Write("section", "direct", "2");
  EXPECT_EQ("2", client.Read("section", "direct"));
  client.Write("section", "bus", "3");
  EXPECT_EQ("2", store.Read("section", "direct"));
}

TEST(RegistryBus, AFailingStoreIsAFailureWithItsReason) {
  const TemporaryRoot root;
  const PrivateBus bus(Service::kStartable);
  RegistryClientImpl client;
  root.Write("/var/lib/orvex/registry.json.lock/occupied", "");
  try {
    client.Write("section", "key", "value");
    FAIL() << "wrote without a lock";
  } catch (const Registry::Error& e) {
    EXPECT_STREQ("Is a directory", e.what());
  }
}

TEST(RegistryBus, OutlivesTheServiceAndTheBus) {
  const TemporaryRoot root;
  PrivateBus bus(Service::kStartable);
  RegistryClientImpl client;
  client.Write("section", "key", "1");

  bus.Stop();
  EXPECT_THROW(client.Read("section", "key"), Registry::Error);
  EXPECT_THROW(client.SectionList(), Registry::Error);
  bus.Start();
  EXPECT_EQ("1", client.Read("section", "key"));
}

TEST(RegistryBus, WithoutABusThereIsNoClient) {
  const TemporaryRoot root;
  setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + root.path() + "/none").c_str(), 1);
  EXPECT_THROW(RegistryClientImpl(), Registry::Error);
  unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
}

// The service as a child of the test.
class ServiceProcess {
 public:
  ServiceProcess() { m_process.Execute(SpawnProcess::kPipeStderr); }
  // Waits for its first line; whether that says that it serves.
  bool Serves() {
    std::string line;
    for (char c; read(m_process.GetStderr(), &c, 1) == 1 && c != '\n';) line += c;
    return line == "Registry service: serving /var/lib/orvex/registry.json";
  }
  int Wait() { return m_process.Wait(); }
  int End(int signal) {
    m_process.Kill(signal);
    return m_process.Wait();
  }

 private:
  SpawnProcess m_process{REGISTRYD_PROGRAM};
};

TEST(RegistryService, EndsInOrderWhenAskedAndFailsWhenTheBusGoes) {
  const TemporaryRoot root;
  PrivateBus bus(Service::kNone);
  RegistryClientImpl client;
  for (const int signal : {SIGTERM, SIGINT}) {
    ServiceProcess service;
    ASSERT_TRUE(service.Serves());
    client.Flush();
    // Only one can serve the name.
    EXPECT_EQ(1, ServiceProcess().Wait());
    EXPECT_EQ(0, service.End(signal));
    EXPECT_THROW(client.Flush(), Registry::Error);
  }
  ServiceProcess service;
  ASSERT_TRUE(service.Serves());
  bus.Stop();
  EXPECT_EQ(1, service.Wait());
}

TEST(RegistryService, LeavesTheMachinesBusAloneInADeviceRoot) {
  const TemporaryRoot root;
  ASSERT_EQ(nullptr, getenv("DBUS_SYSTEM_BUS_ADDRESS"));
  EXPECT_EQ(1, ServiceProcess().Wait());
}

// Calls the service as a peer that keeps to no rule; the name of the error that it answers with.
template <typename... Arguments>
std::string Refusal(const char* method, const Arguments&... arguments) {
  const auto bus = sdbus::createSystemBusConnection();
  const auto proxy =
      sdbus::createProxy(*bus, registry_bus::kServiceName, registry_bus::kObjectPath);
  try {
    proxy->callMethod(method).onInterface("org.orvex.Registry1").withArguments(arguments...);
    return {};
  } catch (const sdbus::Error& e) {
    return e.getName();
  }
}

TEST(RegistryService, JudgesForItself) {
  const TemporaryRoot root;
  const PrivateBus bus(Service::kStartable);
  const std::string too_long((1u << 20) + 1, 'x');
  EXPECT_EQ(registry_bus::kInvalidName, Refusal("Read", std::string(), std::string("key")));
  EXPECT_EQ(registry_bus::kInvalidName, Refusal("DeleteSection", std::string(256, 's')));
  EXPECT_EQ(registry_bus::kInvalidJson, Refusal("WriteJson", std::string("{\"a")));
  EXPECT_EQ(registry_bus::kInvalidJson, Refusal("WriteJson", std::string("[]")));
  EXPECT_EQ(registry_bus::kInvalidEncoding,
            Refusal("WriteJson", std::string("{\"a\":{\"b\":\"\\u0000\"}}")));
  EXPECT_EQ(registry_bus::kFull, Refusal("Write", std::string("s"), std::string("k"), too_long));
  EXPECT_NE("", Refusal("Write", std::string("s"), uint32_t{1}));
  EXPECT_EQ("", Refusal("Write", std::string("s"), std::string("k"), std::string("v")));
}

// A service that answers with the errors and types that it is told to.
class OddService {
 public:
  OddService() {
    int ready[2];
    if (pipe(ready) != 0) std::abort();
    m_child = fork();
    if (m_child == 0) Serve(ready[1]);
    close(ready[1]);
    char byte;
    EXPECT_EQ(1, read(ready[0], &byte, 1));
    close(ready[0]);
  }
  ~OddService() {
    kill(m_child, SIGKILL);
    waitpid(m_child, nullptr, 0);
  }

 private:
  [[noreturn]] static void Serve(int ready) {
    const auto bus = sdbus::createSystemBusConnection();
    const auto object = sdbus::createObject(*bus, registry_bus::kObjectPath);
    const auto serve = [&](const char* method, auto answer) {
      object->registerMethod(method).onInterface("org.orvex.Registry1").implementedAs(answer);
    };
    serve("SectionList", [] { return std::string("[]"); });
    serve("KeyList", [](const std::string&) { return std::vector<int>{1}; });
    serve("Read", [](const std::string& error, const std::string&) -> std::string {
      throw sdbus::Error("org.orvex.Registry1.Error." + error, "the service's text");
    });
    serve("KeyExists", [](const std::string&, const std::string&) -> bool { _exit(1); });
    object->finishRegistration();
    bus->requestName(registry_bus::kServiceName);
    if (write(ready, "", 1) != 1) _exit(1);
    bus->enterEventLoop();
    _exit(0);
  }

  pid_t m_child;
};

TEST(RegistryBus, TranslatesWhatTheServiceAnswers) {
  const TemporaryRoot root;
  const PrivateBus bus(Service::kNone);
  const OddService service;
  RegistryClientImpl client;
  const auto failure = [](const auto& call) -> std::string {
    try {
      call();
      return "none";
    } catch (const Registry::Error& e) {
      return e.what();
    }
  };
  EXPECT_EQ("array expected", failure([&] { client.SectionList(); }));
  EXPECT_EQ("array expected", failure([&] { client.KeyList("section"); }));
  EXPECT_THROW(client.Read("InvalidName", "key"), Registry::InvalidName);
  EXPECT_THROW(client.Read("Full", "key"), Registry::Full);
  EXPECT_THROW(client.Read("InvalidJson", "key"), Registry::InvalidJson);
  EXPECT_THROW(client.Read("InvalidEncoding", "key"), Registry::InvalidEncoding);
  EXPECT_EQ("Registry full", failure([&] { client.Read("Full", "key"); }));
  EXPECT_EQ("the service's text", failure([&] { client.Read("Failed", "key"); }));
  EXPECT_THAT(failure([&] { client.Flush(); }), testing::HasSubstr("Flush"));
}

TEST(RegistryBus, MakesACallAgainThatTheServiceDidNotSurvive) {
  const TemporaryRoot root;
  RegistryStore().Write("section", "key", "value");
  const PrivateBus bus(Service::kStartable);
  const OddService service;
  RegistryClientImpl client;
  EXPECT_TRUE(client.KeyExists("section", "key"));
}

// The choice is made once a process, so each case gets a process of its own, which ends well when
// the choice is the one that the store does not share.
void ExpectChoice(bool bus, const std::string& log_line) {
  EXPECT_EXIT(
      {
        UseRegistryBus();
        RegistryClient& client = GetRegistryClient();
        client.Write("section", "key", "value");
        const bool direct = &client == &GetRegistryUnprivilegedClient();
        const bool good = direct != bus && Registry::Setting("section", "key") == "value" &&
                          Registry::Setting("", "key").empty();
        _exit(good ? 0 : 1);
      },
      testing::ExitedWithCode(0), "^" + log_line);
}

TEST(RegistryChoice, TheBusWhereItOffersTheService) {
  const TemporaryRoot root;
  const PrivateBus bus(Service::kStartable);
  ExpectChoice(true, "Registry: the service on the bus\n");
}

TEST(RegistryChoice, TheStoreWhereTheBusDoesNot) {
  const TemporaryRoot root;
  {
    const PrivateBus bus(Service::kNone);
    ExpectChoice(false, "Registry: the file /var/lib/orvex/registry.json \\(.*not provided");
  }
  const PrivateBus bus(Service::kBroken);
  ExpectChoice(false, "Registry: the file /var/lib/orvex/registry.json \\(.*exited");
}

TEST(RegistryChoice, TheStoreInADeviceRootWhoseBusNobodyNames) {
  const TemporaryRoot root;
  ASSERT_EQ(nullptr, getenv("DBUS_SYSTEM_BUS_ADDRESS"));
  ExpectChoice(false, "Registry: the file /var/lib/orvex/registry.json \\(in a device root\\)\n");
}

}  // namespace
