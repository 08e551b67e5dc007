// The registry: the device's persistent settings, sections of key/value strings.
//
// A process reaches it through a client, the same interface whether a service on the bus holds the
// settings (RegistryClientImpl, lib/platform/registry_bus/) or the process opens their file itself
// (RegistryUnprivilegedClientImpl, lib/platform/registry_store.h). Which of the two it is, is
// decided once a process, by GetRegistryClient.
//
// Names of sections and keys are case-sensitive UTF-8 of 1 to 255 bytes without control characters.
// A section exists as long as it has keys. Values are UTF-8 without NUL; a key that is not there
// reads as "", which native readers take as "not set". Limits: lib/platform/registry_document.h.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace Registry {

// What a client throws. The texts are what scripts see as a failure reason. The base class itself
// stands for a service that cannot be reached or answers out of turn; a store that cannot be read
// or written throws lattix::ErrnoException.
class Error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A name of a section or key that is empty, too long or has a control character.
class InvalidName : public Error {
 public:
  InvalidName() : Error("InvalidName") {}
};

// The value, or the registry with it, would be larger than allowed; nothing was changed.
class Full : public Error {
 public:
  Full() : Error("Registry full") {}
};

class InvalidJson : public Error {
 public:
  // A document of another shape than an object of sections, each an object of key and string.
  InvalidJson() : Error("Invalid JSON") {}
  // A text that is no JSON.
  explicit InvalidJson(const std::string& parser_message)
      : Error("Invalid JSON format:" + parser_message) {}
};

class InvalidEncoding : public Error {
 public:
  InvalidEncoding() : Error("Input data not valid UTF-8") {}
};

// Sections for native code only: scripts can neither open nor list them.
inline bool IsInternalSection(std::string_view section) { return section.starts_with('.'); }

// The value of a setting for native readers, which have nobody to report a failure to: one that
// cannot be read is logged and counts as not set (""). Callable from any thread.
std::string Setting(std::string_view section, std::string_view key);

}  // namespace Registry

// All operations may be called from any thread, wait for their result, and throw what is said
// above; names are checked by every operation that takes them. A change is on persistent storage
// when its call returns.
class RegistryClient {
 public:
  virtual ~RegistryClient() = default;

  // All sections, the internal ones included, as one JSON document: an object of sections, each an
  // object of key and string.
  virtual std::string ReadAllJson() = 0;
  // Writes all keys of such a document, or none of them; keys that it does not name stay.
  virtual void WriteJson(std::string_view document) = 0;
  virtual std::string Read(std::string_view section, std::string_view key) = 0;
  virtual void Write(std::string_view section, std::string_view key, std::string_view value) = 0;
  virtual bool KeyExists(std::string_view section, std::string_view key) = 0;
  virtual bool SectionExists(std::string_view section) = 0;
  // To delete what is not there is no failure.
  virtual void DeleteKey(std::string_view section, std::string_view key) = 0;
  virtual void DeleteSection(std::string_view section) = 0;
  virtual void DeleteAll() = 0;
  // In the order of their bytes; the internal sections are among them.
  virtual std::vector<std::string> SectionList() = 0;
  // Empty when the section does not exist.
  virtual std::vector<std::string> KeyList(std::string_view section) = 0;
  // Everything that was written before has reached the storage when this returns.
  virtual void Flush() = 0;
};

// The client that this process uses, for the life of the process. Chosen at the first call, which
// may ask the bus and takes a few seconds at most; a program that can choose calls it at its start.
// The choice, where there is one, is logged in one line. Callable from any thread.
RegistryClient& GetRegistryClient();

// The client that opens the store itself, for the life of the process. Callable from any thread.
RegistryClient& GetRegistryUnprivilegedClient();

// How a program that links the bus client makes it a candidate, before the first GetRegistryClient
// and while no other thread runs: `find` returns the bus client if the bus offers the service or
// can start it, else null with the reason in `why_not`. It throws nothing.
void SetRegistryBus(RegistryClient* (*find)(std::string* why_not));
