// The registry as an object on the bus.
#pragma once

#include <sdbus-c++/sdbus-c++.h>

#include <string>
#include <vector>

#include "lib/platform/registry_client.h"
#include "registry1_adaptor.h"

// Serves a registry (the store) on a connection, as the object and interface that the interface
// file describes, from construction to destruction. Peers are answered on the thread that processes
// the connection's messages; both references must outlive the object.
class RegistryService final : public sdbus::AdaptorInterfaces<org::orvex::Registry1_adaptor> {
 public:
  RegistryService(sdbus::IConnection& connection, RegistryClient& store);
  ~RegistryService();

 private:
  std::string ReadAllJson() override;
  void WriteJson(const std::string& document) override;
  std::string Read(const std::string& section, const std::string& key) override;
  void Write(const std::string& section, const std::string& key, const std::string& value) override;
  bool KeyExists(const std::string& section, const std::string& key) override;
  bool SectionExists(const std::string& section) override;
  void DeleteKey(const std::string& section, const std::string& key) override;
  void DeleteSection(const std::string& section) override;
  void DeleteAll() override;
  std::vector<std::string> SectionList() override;
  std::vector<std::string> KeyList(const std::string& section) override;
  void Flush() override;

  RegistryClient& m_store;
};
