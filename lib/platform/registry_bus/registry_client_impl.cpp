// One connection, one proxy, no thread: nothing comes from the service but replies, so the caller's
// thread sends, waits and reads by itself, with the mutex held.
//
// An operation that met a lost connection is repeated once on a new one, and one that the service
// has not lived to answer is repeated once with the service that the bus then starts. That is right
// for all of them: to write or delete twice is to do it once.
#include "lib/platform/registry_bus/registry_client_impl.h"

#include <sdbus-c++/sdbus-c++.h>

#include <chrono>
#include <cstdint>

#include "lib/platform/registry_bus/registry_bus_names.h"
#include "lib/platform/registry_document.h"
#include "registry1_proxy.h"

using Registry::CheckName;
using Registry::CheckValue;

namespace {

// The name that the bus library gives to a reply of another type than the interface's.
constexpr char kOtherType[] = "System.Error.ENXIO";

constexpr std::chrono::seconds kStartTimeout{10};

bool IsLostConnection(const sdbus::Error& error) {
  for (const char* name : {"org.freedesktop.DBus.Error.Disconnected", "System.Error.ENOTCONN",
                           "System.Error.ECONNRESET", "System.Error.EPIPE"}) {
    if (error.getName() == name) return true;
  }
  return false;
}

// What the bus answers in place of a service that went before it did.
bool IsLostService(const sdbus::Error& error) {
  return error.getName() == "org.freedesktop.DBus.Error.NoReply";
}

[[noreturn]] void Rethrow(const sdbus::Error& error) {
  const std::string& name = error.getName();
  if (name == registry_bus::kInvalidName) throw Registry::InvalidName();
  if (name == registry_bus::kFull) throw Registry::Full();
  if (name == registry_bus::kInvalidJson) throw Registry::InvalidJson();
  if (name == registry_bus::kInvalidEncoding) throw Registry::InvalidEncoding();
  throw Registry::Error(error.getMessage().empty() ? name : error.getMessage());
}

}  // namespace

class RegistryClientImpl::Link {
 public:
  class Proxy final : public sdbus::ProxyInterfaces<org::orvex::Registry1_proxy> {
   public:
    explicit Proxy(sdbus::IConnection& connection)
        : ProxyInterfaces(connection, registry_bus::kServiceName, registry_bus::kObjectPath) {
      registerProxy();
    }
    ~Proxy() { unregisterProxy(); }
  };

  Link() : m_connection(sdbus::createSystemBusConnection()), m_proxy(*m_connection) {}

  Proxy* operator->() { return &m_proxy; }
  sdbus::IConnection& connection() { return *m_connection; }

 private:
  const std::unique_ptr<sdbus::IConnection> m_connection;
  Proxy m_proxy;
};

template <typename Operation>
auto RegistryClientImpl::Call(Operation operation) {
  std::lock_guard guard(m_mutex);
  for (bool repeated = false;; repeated = true) {
    try {
      if (m_link == nullptr) m_link = std::make_unique<Link>();
      return operation(*m_link);
    } catch (const sdbus::Error& e) {
      const bool lost_connection = IsLostConnection(e);
      if (lost_connection) m_link.reset();
      if (repeated || !(lost_connection || IsLostService(e))) Rethrow(e);
    }
  }
}

namespace {

// The list that an operation of the proxy returns.
template <typename Operation>
std::vector<std::string> ExpectArray(Operation operation) {
  try {
    return operation();
  } catch (const sdbus::Error& e) {
    if (e.getName() == kOtherType) throw Registry::Error("array expected");
    throw;
  }
}

}  // namespace

RegistryClientImpl::RegistryClientImpl() {
  Call([](Link&) {});
}

RegistryClientImpl::~RegistryClientImpl() = default;

void RegistryClientImpl::StartService() {
  Call([](Link& link) {
    const auto bus =
        sdbus::createProxy(link.connection(), "org.freedesktop.DBus", "/org/freedesktop/DBus");
    uint32_t how = 0;
    bus->callMethod("StartServiceByName")
        .onInterface("org.freedesktop.DBus")
        .withTimeout(kStartTimeout)
        .withArguments(std::string(registry_bus::kServiceName), uint32_t{0})
        .storeResultsTo(how);
  });
}

std::string RegistryClientImpl::ReadAllJson() {
  return Call([](Link& link) { return link->ReadAllJson(); });
}

void RegistryClientImpl::WriteJson(std::string_view document) {
  Registry::ParseDocument(document);
  Call([&](Link& link) { link->WriteJson(std::string(document)); });
}

std::string RegistryClientImpl::Read(std::string_view section, std::string_view key) {
  CheckName(section);
  CheckName(key);
  return Call([&](Link& link) { return link->Read(std::string(section), std::string(key)); });
}

void RegistryClientImpl::Write(std::string_view section, std::string_view key,
                               std::string_view value) {
  CheckName(section);
  CheckName(key);
  CheckValue(value);
  Call(
      [&](Link& link) { link->Write(std::string(section), std::string(key), std::string(value)); });
}

bool RegistryClientImpl::KeyExists(std::string_view section, std::string_view key) {
  CheckName(section);
  CheckName(key);
  return Call([&](Link& link) { return link->KeyExists(std::string(section), std::string(key)); });
}

bool RegistryClientImpl::SectionExists(std::string_view section) {
  CheckName(section);
  return Call([&](Link& link) { return link->SectionExists(std::string(section)); });
}

void RegistryClientImpl::DeleteKey(std::string_view section, std::string_view key) {
  CheckName(section);
  CheckName(key);
  Call([&](Link& link) { link->DeleteKey(std::string(section), std::string(key)); });
}

void RegistryClientImpl::DeleteSection(std::string_view section) {
  CheckName(section);
  Call([&](Link& link) { link->DeleteSection(std::string(section)); });
}

void RegistryClientImpl::DeleteAll() {
  Call([](Link& link) { link->DeleteAll(); });
}

std::vector<std::string> RegistryClientImpl::SectionList() {
  return Call([](Link& link) { return ExpectArray([&] { return link->SectionList(); }); });
}

std::vector<std::string> RegistryClientImpl::KeyList(std::string_view section) {
  CheckName(section);
  return Call(
      [&](Link& link) { return ExpectArray([&] { return link->KeyList(std::string(section)); }); });
}

void RegistryClientImpl::Flush() {
  Call([](Link& link) { link->Flush(); });
}

// Never destroyed: threads that outlive main() may still read a setting.
RegistryClientImpl& GetRegistryBusClient() {
  static auto& client = *new RegistryClientImpl;
  return client;
}

namespace {

RegistryClient* FindOnBus(std::string* why_not) {
  try {
    RegistryClientImpl& client = GetRegistryBusClient();
    client.StartService();
    return &client;
  } catch (const std::exception& e) {
    *why_not = e.what();
    return nullptr;
  }
}

}  // namespace

void UseRegistryBus() { SetRegistryBus(&FindOnBus); }
