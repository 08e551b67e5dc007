// The choice between the two clients.
//
// The service on the bus comes first: it is the one owner of the settings on a device. Where it is
// not to be had, the store works as well, because several processes on one store keep out of each
// other's way. In a device root, whose bus has to be named on purpose, the store is the rule.
//
// The bus client is reached through a pointer that the program sets, since the bus library would
// cost programs that never talk to a bus a good part of their start.
#include "lib/platform/registry_client.h"

#include "lib/platform/device_path.h"
#include "lib/platform/log.h"
#include "lib/platform/registry_store.h"

namespace {

RegistryClient* (*g_find_on_bus)(std::string* why_not) = nullptr;

RegistryClient& Choose() {
  if (g_find_on_bus == nullptr) return GetRegistryUnprivilegedClient();
  std::string why_not = "in a device root";
  if (lattix::MayUseSystemBus()) {
    if (RegistryClient* client = g_find_on_bus(&why_not)) {
      lattix::Log("Registry: the service on the bus\n");
      return *client;
    }
  }
  lattix::Log("Registry: the file {} ({})\n", kRegistryStorePath, why_not);
  return GetRegistryUnprivilegedClient();
}

}  // namespace

namespace Registry {

std::string Setting(std::string_view section, std::string_view key) {
  try {
    return GetRegistryClient().Read(section, key);
  } catch (const std::exception& e) {
    lattix::Log("Unable to read registry key {}/{}: {}\n", section, key, e.what());
    return {};
  }
}

}  // namespace Registry

// Neither client is ever destroyed: threads that outlive main() may still read a setting.
RegistryClient& GetRegistryClient() {
  static RegistryClient& client = Choose();
  return client;
}

RegistryClient& GetRegistryUnprivilegedClient() {
  static auto& client = *new RegistryUnprivilegedClientImpl;
  return client;
}

void SetRegistryBus(RegistryClient* (*find)(std::string* why_not)) { g_find_on_bus = find; }
