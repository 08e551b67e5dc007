// The registry's file, and the client that opens it itself.
#pragma once

#include <sys/stat.h>

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "lib/platform/registry_client.h"
#include "lib/platform/registry_document.h"
#include "lib/platform/unique_fd.h"

// A device path. Beside it lie "….lock", "….new" and, when there was one, "….corrupt".
inline constexpr char kRegistryStorePath[] = "/var/lib/orvex/registry.json";

// The registry as a JSON file in the device root. Any number of processes, and of these objects in
// one process, may work on the same file at once: each sees what the others have written as soon as
// it is written, and no write is lost.
//
// A file that is no registry document is kept aside, a fresh one is started, and one line is
// logged. No file is an empty registry. Failures of the file system are lattix::ErrnoException with
// the device path. Changes wait, without limit, for the change that another process is making.
class RegistryStore : public RegistryClient {
 public:
  // Touches no file yet. The device root is the one at the time of each operation.
  explicit RegistryStore(std::string device_path = kRegistryStorePath);
  ~RegistryStore() override;
  RegistryStore(const RegistryStore&) = delete;
  RegistryStore& operator=(const RegistryStore&) = delete;

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
  class FileLock;
  enum class Growth { kNone, kPossible };

  // All with the mutex held.
  bool IsCurrent() const;
  void Load();
  void Refresh();
  void RefreshLocked(const FileLock& lock);
  void Remember(lattix::UniqueFd file);
  void Forget();
  const std::string* Find(std::string_view section, std::string_view key);
  bool Set(std::string_view section, std::string_view key, std::string_view value);
  void Save(std::string document);
  template <typename Change>
  void Apply(Growth growth, Change change);

  const std::string m_path;

  std::mutex m_mutex;  // guards what follows
  bool m_known = false;
  lattix::UniqueFd m_file;    // the file that was read; none when there is no file
  struct stat m_status = {};  // its status then
  Registry::Sections m_sections;
  bool m_corrupt = false;     // it is no registry document
  bool m_complained = false;  // and that has been logged
};

// The client for a process without a service to ask.
class RegistryUnprivilegedClientImpl final : public RegistryStore {};
