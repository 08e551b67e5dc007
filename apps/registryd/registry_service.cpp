// Each method is the store's operation; what that throws becomes an error reply, whatever it is: an
// exception of another type would go up through the bus library's C code.
#include "apps/registryd/registry_service.h"

#include "lib/platform/log.h"
#include "lib/platform/registry_bus/registry_bus_names.h"

namespace {

template <typename Operation>
auto Answer(Operation operation) {
  try {
    return operation();
  } catch (const Registry::InvalidName& e) {
    throw sdbus::Error(registry_bus::kInvalidName, e.what());
  } catch (const Registry::Full& e) {
    throw sdbus::Error(registry_bus::kFull, e.what());
  } catch (const Registry::InvalidJson&) {
    // The parser's message may quote bytes that a reply cannot carry.
    throw sdbus::Error(registry_bus::kInvalidJson, Registry::InvalidJson().what());
  } catch (const Registry::InvalidEncoding& e) {
    throw sdbus::Error(registry_bus::kInvalidEncoding, e.what());
  } catch (...) {
    const std::string reason = lattix::CurrentExceptionText();
    lattix::Log("Registry service: {}\n", reason);
    throw sdbus::Error(registry_bus::kFailed, reason);
  }
}

}  // namespace

RegistryService::RegistryService(sdbus::IConnection& connection, RegistryClient& store)
    : AdaptorInterfaces(connection, registry_bus::kObjectPath), m_store(store) {
  registerAdaptor();
}

RegistryService::~RegistryService() { unregisterAdaptor(); }

std::string RegistryService::ReadAllJson() {
  return Answer([&] { return m_store.ReadAllJson(); });
}

void RegistryService::WriteJson(const std::string& document) {
  Answer([&] { m_store.WriteJson(document); });
}

std::string RegistryService::Read(const std::string& section, const std::string& key) {
  return Answer([&] { return m_store.Read(section, key); });
}

void RegistryService::Write(const std::string& section, const std::string& key,
                            const std::string& value) {
  Answer([&] { m_store.Write(section, key, value); });
}

bool RegistryService::KeyExists(const std::string& section, const std::string& key) {
  return Answer([&] { return m_store.KeyExists(section, key); });
}

bool RegistryService::SectionExists(const std::string& section) {
  return Answer([&] { return m_store.SectionExists(section); });
}

void RegistryService::DeleteKey(const std::string& section, const std::string& key) {
  Answer([&] { m_store.DeleteKey(section, key); });
}

void RegistryService::DeleteSection(const std::string& section) {
  Answer([&] { m_store.DeleteSection(section); });
}

void RegistryService::DeleteAll() {
  Answer([&] { m_store.DeleteAll(); });
}

std::vector<std::string> RegistryService::SectionList() {
  return Answer([&] { return m_store.SectionList(); });
}

std::vector<std::string> RegistryService::KeyList(const std::string& section) {
  return Answer([&] { return m_store.KeyList(section); });
}

void RegistryService::Flush() {
  Answer([&] { m_store.Flush(); });
}
