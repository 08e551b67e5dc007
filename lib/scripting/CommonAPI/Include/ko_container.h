// Script containers made and read by native code.
//
// Makers throw std::bad_alloc when memory is refused. Readers throw std::runtime_error for an
// object of the wrong kind, null included; they call back without a lock. For the script's thread,
// or another one that holds the collector off.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "lib/scripting/CommonAPI/Include/ko_ref.h"
#include "lib/scripting/CommonAPI/Include/ko_value.h"

// --- Making -----------------------------------------------------------------------------------

// What the three creators below share: the container, and values of native types for it.
class KelvoContainerCreator {
 public:
  const KelvoObjectRef& Get() const { return m_container; }
  // For a method's result.
  KelvoObjectRef Take() { return std::move(m_container); }

 protected:
  KelvoContainerCreator(pscDomain* domain, pscInstance* container);

  pscDomain* m_domain;
  KelvoObjectRef m_container;
};

class KelvoArrayCreator : public KelvoContainerCreator {
 public:
  explicit KelvoArrayCreator(pscDomain* domain);
  template <class V>
  void Add(V&& value) {
    Push(KelvoTypedValue::From(m_domain, std::forward<V>(value)));
  }

 private:
  void Push(KelvoTypedValue value);
};

class KelvoListCreator : public KelvoContainerCreator {
 public:
  explicit KelvoListCreator(pscDomain* domain);
  template <class V>
  void Add(V&& value) {
    Push(KelvoTypedValue::From(m_domain, std::forward<V>(value)));
  }

 private:
  void Push(KelvoTypedValue value);
};

class KelvoAssocArrayCreator : public KelvoContainerCreator {
 public:
  explicit KelvoAssocArrayCreator(pscDomain* domain);
  // The key counts up to its first NUL. An entry with that key is replaced.
  template <class V>
  void Set(std::string_view key, V&& value) {
    Put(key, KelvoTypedValue::From(m_domain, std::forward<V>(value)));
  }

 private:
  void Put(std::string_view key, KelvoTypedValue value);
};

// A koList of the strings in a container of them.
template <class Container>
KelvoObjectRef KelvoListFromContainer(pscDomain* domain, const Container& container) {
  KelvoListCreator list(domain);
  for (const auto& text : container) list.Add(std::string_view(text));
  return list.Take();
}

KelvoObjectRef CreateByteArray(pscDomain* domain, const void* data, size_t size);

// --- Reading ----------------------------------------------------------------------------------

// Each value that the object's enumeration gives; this is the enumeration that FOR EACH uses, which
// starts over. A message port, whose enumeration waits for messages, does not count as enumerable.
void KelvoObjectEnumerator(pscInstance* instance,
                           const std::function<void(const KelvoTypedValue&)>& callback);
// Each entry, as the array was when the call began; its own enumeration stays where it is.
void KelvoAssocArrayEnumerator(
    pscInstance* instance,
    const std::function<void(const std::string& key, const KelvoTypedValue&)>& callback);
void KelvoAssocArrayStringValueEnumerator(
    pscInstance* instance,
    const std::function<void(const std::string& key, const std::string& value)>& callback);
// For anything with ifArray.
void KelvoArrayStringValueEnumerator(pscInstance* instance,
                                     const std::function<void(const std::string& value)>& callback);

// An entry that does not convert is logged and left out.
std::map<std::string, std::string> KelvoAssocArrayToStringMap(pscInstance* instance);
std::map<std::string, KelvoAny> KelvoAssocArrayToAnyMap(pscInstance* instance);
std::vector<std::string> KelvoArrayToStringVector(pscInstance* instance);

// The value under a key (compared as the array does); throws when there is none.
KelvoTypedValue KelvoAssocArrayLookup(pscInstance* instance, std::string_view key);
