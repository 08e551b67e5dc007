// The registry client that asks the service on the system bus.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "lib/platform/registry_client.h"

// Has a connection to the bus of its own, so that no other traffic delays an answer. Calls of
// several threads are made one after the other. Neither a bus nor a service that was restarted
// shows: a lost connection is made anew, the bus starts a service that is gone, if it can, and the
// call in which that comes out is made again.
//
// What cannot be carried over the bus, or would be refused there, is refused here already. Failures
// of bus and service are Registry::Error with the bus's text; a service that takes longer than the
// bus library's 25 seconds is such a failure.
class RegistryClientImpl final : public RegistryClient {
 public:
  // Connects to the system bus, where the environment variable DBUS_SYSTEM_BUS_ADDRESS says or at
  // its usual place. Throws Registry::Error.
  RegistryClientImpl();
  ~RegistryClientImpl() override;

  // Has the bus start the service unless it runs. Throws Registry::Error when it cannot, or has not
  // done so after some seconds.
  void StartService();

  std::string ReadAllJson() override;
  void WriteJson(std::string_view document) override;
  std::string Read(std::string_view section, std::string_view key) override;
  void Write(std::string_view section, std::string_view key, std::string_view value) override;
  bool KeyExists(std::string_view section, std::string_view key) override;
  bool SectionExists(std::string_view section) override;
  void DeleteKey(std::string_view section, std::string_view key) override;
  void DeleteSection(std::string_view section) override;
  void DeleteAll() override;
  std::vector<std::string> SectionList() override;
  std::vector<std::string> KeyList(std::string_view section) override;
  void Flush() override;

 private:
  class Link;

  template <typename Operation>
  auto Call(Operation operation);

  std::mutex m_mutex;
  std::unique_ptr<Link> m_link;  // guarded by m_mutex; null after the connection was lost
};

// The bus client that the process shares, made at the first call. Throws Registry::Error when the
// bus cannot be reached. Callable from any thread.
RegistryClientImpl& GetRegistryBusClient();

// Makes the bus client a candidate for GetRegistryClient. Called by programs that link it, first
// thing, while no other thread runs.
void UseRegistryBus();
