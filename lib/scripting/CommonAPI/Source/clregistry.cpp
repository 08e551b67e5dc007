// koRegistry and koRegistrySection. The client is asked anew by every call; what it throws is the
// thunks' to keep as the failure reason.
#include "lib/platform/registry_client.h"
#include "lib/platform/registry_document.h"
#include "lib/scripting/CommonAPI/Include/ko_container.h"
#include "lib/scripting/CommonAPI/Include/registry_objects.h"

namespace {

// To a script an internal section is none.
void CheckSection(std::string_view section) {
  if (Registry::IsInternalSection(section)) throw Registry::InvalidName();
  Registry::CheckName(section);
}

// A script counts the entries of a list without asking whether there is one.
template <class T, class Names>
KelvoObjectRef ListOf(T& object, Names names) {
  std::vector<std::string> list;
  try {
    list = names();
  } catch (const std::exception& e) {
    object.SetFailureReason(e.what());
  }
  return KelvoListFromContainer(object.GetDomain(), list);
}

}  // namespace

// --- koRegistry -------------------------------------------------------------------------------

KelvoObjectRef RegistryInstance::GetSectionList() {
  return ListOf(*this, [] {
    std::vector<std::string> sections = GetRegistryClient().SectionList();
    std::erase_if(sections, [](const auto& name) { return Registry::IsInternalSection(name); });
    return sections;
  });
}

bool RegistryInstance::Delete(psText section) {
  CheckSection(section);
  GetRegistryClient().DeleteSection(section);
  return true;
}

bool RegistryInstance::Flush() {
  GetRegistryClient().Flush();
  return true;
}

namespace {

constexpr fundes kRegistryFunctions[] = {
    koMethod<&RegistryInstance::GetSectionList>("GetSectionList"),
    koMethod<&RegistryInstance::Delete>("Delete"),
    koMethod<&RegistryInstance::Flush>("Flush"),
    {},
};
constexpr psInterface kRegistryInterfaces[] = {
    FailureReasonMixin::kInterface<RegistryInstance>,
    {"ifRegistry", kRegistryFunctions},
};

}  // namespace

constinit pscClass RegistryInstance::sm_class =
    KelvoClass<RegistryInstance>("koRegistry", kRegistryInterfaces);

// --- koRegistrySection ------------------------------------------------------------------------

bool RegistrySectionInstance::Init(psText section) {
  CheckSection(section);
  m_section = section;
  return true;
}

KelvoObjectRef RegistrySectionInstance::GetKeyList() {
  return ListOf(*this, [this] { return GetRegistryClient().KeyList(m_section); });
}

std::string RegistrySectionInstance::Read(psText key) {
  return GetRegistryClient().Read(m_section, key);
}

bool RegistrySectionInstance::Write(psText key, psText value) {
  GetRegistryClient().Write(m_section, key, value);
  return true;
}

bool RegistrySectionInstance::Delete(psText key) {
  GetRegistryClient().DeleteKey(m_section, key);
  return true;
}

bool RegistrySectionInstance::Exists(psText key) {
  return GetRegistryClient().KeyExists(m_section, key);
}

bool RegistrySectionInstance::Flush() {
  GetRegistryClient().Flush();
  return true;
}

namespace {

constexpr fundes kSectionFunctions[] = {
    koMethod<&RegistrySectionInstance::GetKeyList>("GetKeyList"),
    koMethod<&RegistrySectionInstance::Read>("Read"),
    koMethod<&RegistrySectionInstance::Write>("Write"),
    koMethod<&RegistrySectionInstance::Delete>("Delete"),
    koMethod<&RegistrySectionInstance::Exists>("Exists"),
    koMethod<&RegistrySectionInstance::Flush>("Flush"),
    {},
};
constexpr psInterface kSectionInterfaces[] = {
    FailureReasonMixin::kInterface<RegistrySectionInstance>,
    {"ifRegistrySection", kSectionFunctions},
};

}  // namespace

constinit pscClass RegistrySectionInstance::sm_class =
    KelvoClass<RegistrySectionInstance>("koRegistrySection", kSectionInterfaces);
