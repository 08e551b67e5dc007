// Making goes through the core's own functions for new containers. Reading copies what it hands out
// first, so that a callback may change the container it is about.
#include "lib/scripting/CommonAPI/Include/ko_container.h"

#include <fmt/format.h>

#include <new>
#include <stdexcept>

#include "lib/platform/log.h"
#include "lib/scripting/Plumscript/Source/containers.h"

// --- Making -----------------------------------------------------------------------------------

KelvoContainerCreator::KelvoContainerCreator(pscDomain* domain, pscInstance* container)
    : m_domain(domain), m_container(KelvoObjectRef::Adopt(container)) {
  if (container == nullptr) throw std::bad_alloc();
}

KelvoArrayCreator::KelvoArrayCreator(pscDomain* domain)
    : KelvoContainerCreator(domain, pscCreateArray(domain, 0, true)) {}

void KelvoArrayCreator::Push(KelvoTypedValue value) {
  auto* array = pscData<psArray>(m_container.Get());
  const int32_t tail = array->tail;
  psArrayPush(array, value.Release());
  if (array->tail == tail) throw std::bad_alloc();
}

KelvoListCreator::KelvoListCreator(pscDomain* domain)
    : KelvoContainerCreator(domain, psNewList(domain)) {}

void KelvoListCreator::Push(KelvoTypedValue value) {
  if (!psListTryAddTail(m_container.Get(), value.Get())) throw std::bad_alloc();
  (void)value.Release();
}

KelvoAssocArrayCreator::KelvoAssocArrayCreator(pscDomain* domain)
    : KelvoContainerCreator(domain, psNewAssociativeArray(domain)) {}

void KelvoAssocArrayCreator::Put(std::string_view key, KelvoTypedValue value) {
  key = key.substr(0, key.find('\0'));
  auto* array = pscData<psAssocArray>(m_container.Get());
  const uint32_t hash = psKeyHash(key);
  psAssocAddReplace(array, key, hash, value.Release());
  if (psAssocFind(array, key, hash, array->case_sensitive) == nullptr) throw std::bad_alloc();
}

KelvoObjectRef CreateByteArray(pscDomain* domain, const void* data, size_t size) {
  pscInstance* bytes = psNewByteArray(domain, data, size);
  if (bytes == nullptr) throw std::bad_alloc();
  return KelvoObjectRef::Adopt(bytes);
}

// --- Reading ----------------------------------------------------------------------------------

namespace {

psAssocArray* AssocArrayOf(pscInstance* instance, const char* failure) {
  if (instance == nullptr || instance->psc_class != &clAssociativeArray) {
    throw std::runtime_error(failure);
  }
  return pscData<psAssocArray>(instance);
}

const std::string& RequireString(const KelvoTypedValue& value, std::string* text) {
  if (!value.IsString()) throw std::runtime_error("Value is not a string");
  return *text = value.ToString();
}

// Entries that Convert accepts, under their keys.
template <class V, class Convert>
std::map<std::string, V> EntriesOf(pscInstance* instance, Convert convert) {
  std::map<std::string, V> entries;
  KelvoAssocArrayEnumerator(instance, [&](const std::string& key, const KelvoTypedValue& value) {
    try {
      entries.insert_or_assign(key, convert(value));
    } catch (const std::runtime_error& e) {
      lattix::Log("Bad any_cast exception caught: {}", e.what());
    }
  });
  return entries;
}

}  // namespace

void KelvoObjectEnumerator(pscInstance* instance,
                           const std::function<void(const KelvoTypedValue&)>& callback) {
  const psIfEnum* each = instance != nullptr ? instance->psc_class->if_enum : nullptr;
  if (each == nullptr || instance->psc_class == &clMessagePort) {
    throw std::runtime_error("Object does not implement ifEnum");
  }
  each->Reset(instance);
  while (each->IsNext(instance)) callback(KelvoTypedValue(each->Next(instance)));
}

void KelvoAssocArrayEnumerator(
    pscInstance* instance,
    const std::function<void(const std::string& key, const KelvoTypedValue&)>& callback) {
  psAssocArray* array = AssocArrayOf(instance, "Object does not implement ifAssociativeArray");
  std::vector<std::pair<std::string, KelvoTypedValue>> entries;
  {
    const psGuard guard(array->lock);
    entries.reserve(array->count);
    for (const psAssocEntry* bucket : array->buckets) {
      for (const psAssocEntry* entry = bucket; entry != nullptr; entry = entry->next) {
        entries.emplace_back(std::string(entry->key, entry->key_length),
                             KelvoTypedValue::Copy(entry->value));
      }
    }
  }
  for (const auto& [key, value] : entries) callback(key, value);
}

void KelvoAssocArrayStringValueEnumerator(
    pscInstance* instance,
    const std::function<void(const std::string& key, const std::string& value)>& callback) {
  std::string text;
  KelvoAssocArrayEnumerator(instance, [&](const std::string& key, const KelvoTypedValue& value) {
    callback(key, RequireString(value, &text));
  });
}

void KelvoArrayStringValueEnumerator(
    pscInstance* instance, const std::function<void(const std::string& value)>& callback) {
  if (instance == nullptr || instance->psc_class->if_array == nullptr) {
    throw std::runtime_error("Object is not an array");
  }
  std::string text;
  KelvoObjectEnumerator(
      instance, [&](const KelvoTypedValue& value) { callback(RequireString(value, &text)); });
}

std::map<std::string, std::string> KelvoAssocArrayToStringMap(pscInstance* instance) {
  return EntriesOf<std::string>(instance, [](const KelvoTypedValue& v) { return v.ToString(); });
}

std::map<std::string, KelvoAny> KelvoAssocArrayToAnyMap(pscInstance* instance) {
  return EntriesOf<KelvoAny>(instance, [](const KelvoTypedValue& v) { return v.ToAny(); });
}

std::vector<std::string> KelvoArrayToStringVector(pscInstance* instance) {
  std::vector<std::string> texts;
  KelvoArrayStringValueEnumerator(instance,
                                  [&](const std::string& value) { texts.push_back(value); });
  return texts;
}

KelvoTypedValue KelvoAssocArrayLookup(pscInstance* instance, std::string_view key) {
  psAssocArray* array = AssocArrayOf(instance, "Array doesn't implement ifAssociativeArray");
  const psGuard guard(array->lock);
  const psAssocEntry* entry = psAssocFind(array, key, psKeyHash(key), array->case_sensitive);
  if (entry == nullptr) throw std::runtime_error(fmt::format("Key not found: {}", key));
  return KelvoTypedValue::Copy(entry->value);
}
