// The parts of the object framework that need no template: references, and what is said about
// objects that could not be created and methods that failed.
#include "lib/scripting/CommonAPI/Include/kocpp.h"

#include <fmt/format.h>

#include "lib/platform/log.h"

// --- References -------------------------------------------------------------------------------

GarbageCollectorLockedKelvoObjectRef::GarbageCollectorLockedKelvoObjectRef(pscDomain* domain,
                                                                           const char* class_name) {
  pscClass* cl = pscFindClassByName(class_name);
  LATTIX_ASSERT_TEXT(cl != nullptr, "m_ref");
  const CollectorLock lock(domain);
  pscInstance* instance = pscNewComponentByClass(domain, cl);
  if (instance == nullptr) throw std::bad_alloc();
  KelvoObjectRef::operator=(KelvoObjectRef::Adopt(instance));
}

KelvoObjectRef GuardedObjectRef::Get() const {
  const std::lock_guard lock(m_mutex);
  return m_ref;
}

void GuardedObjectRef::Set(KelvoObjectRef ref) {
  const std::lock_guard lock(m_mutex);
  std::swap(m_ref, ref);
}

void GuardedObjectRef::EnumReferences(const KelvoReferenceVisitor& visit) const {
  const std::lock_guard lock(m_mutex);
  visit(m_ref);
}

// --- Failures ---------------------------------------------------------------------------------
// Both happen on the script's thread, so they go where the runtime's own messages go.

void ko_class::PrintCreationFailure(pscInstance* instance) {
  pscPrint(fmt::format("Plumscript creation of {} failed:\n  {}\n", instance->psc_class->ln_Name,
                       lattix::CurrentExceptionText()));
}

std::string ko_method::FailureText() { return lattix::CurrentExceptionText(); }

void ko_method::PrintFailure(pscInstance* instance) {
  pscPrint(fmt::format("{}: {}\n", instance->psc_class->ln_Name, lattix::CurrentExceptionText()));
}

std::vector<KelvoTypedValue> ko_method::TakeArguments(psTypedValue* args, int argc) {
  std::vector<KelvoTypedValue> taken;
  try {
    taken.reserve(static_cast<size_t>(argc));
  } catch (...) {
    for (int i = 0; i < argc; i++) ReleaseValue(&args[i]);
    throw;
  }
  for (int i = 0; i < argc; i++) taken.emplace_back(args[i]);
  return taken;
}
