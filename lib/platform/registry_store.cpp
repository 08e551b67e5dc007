// The file is never changed, only replaced: written beside, synced, renamed. So whoever reads sees
// one whole state, without a lock, and a process that is killed or a power cut leaves the state
// before a change or the one after it.
//
// A change holds an exclusive lock on a file of its own (the registry's file will not do, as it is
// another one after each change), re-reads the registry when it is not the one last read, and
// replaces it. That is what keeps processes from undoing each other's writes.
//
// What was read last is kept in memory, and holds as long as the path leads to the same, untouched
// file. The file is kept open meanwhile, or its inode number might come back as another one's.
//
// Rules of this file:
//  1. m_sections is what m_file holds, whenever m_known is set. A change that fails half-way must
//     call Forget.
//  2. The mutex is taken before the file lock, the file lock before reading what is to be changed.
//  3. The file lock is taken once an operation: a second descriptor would wait for the first.
#include "lib/platform/registry_store.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>

#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>

#include "lib/platform/device_path.h"
#include "lib/platform/durable_file.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/log.h"

using lattix::DevicePath;
using lattix::ErrnoException;
using lattix::Log;
using lattix::UniqueFd;
using Registry::CheckName;
using Registry::CheckValue;
using Registry::Sections;

namespace {

// Settings hold passwords.
constexpr mode_t kPermissions = 0600;

bool SameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// The same, and not written to in place, as an editor might do.
bool SameContent(const struct stat& a, const struct stat& b) {
  return SameFile(a, b) && a.st_size == b.st_size && a.st_mtim.tv_sec == b.st_mtim.tv_sec &&
         a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

struct stat StatusOf(int fd, const std::string& device_path) {
  struct stat status;
  if (::fstat(fd, &status) != 0) throw ErrnoException(errno, device_path);
  return status;
}

// The whole file, or as much as shows that it is too long for a document.
std::string ReadAll(int fd, const std::string& device_path) {
  std::string content;
  char buffer[65536];
  while (content.size() <= Registry::kMaxDocumentSize) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n == 0) break;
    if (n < 0) {
      if (errno == EINTR) continue;
      throw ErrnoException(errno, device_path);
    }
    content.append(buffer, static_cast<size_t>(n));
  }
  return content;
}

template <typename Map>
std::vector<std::string> NamesOf(const Map& map) {
  std::vector<std::string> names;
  names.reserve(map.size());
  for (const auto& entry : map) names.push_back(entry.first);
  return names;
}

}  // namespace

// The right to change the registry, among all processes, while the object lasts.
class RegistryStore::FileLock {
 public:
  explicit FileLock(const std::string& device_path) {
    const std::string lock_path = device_path + ".lock";
    const std::string native = DevicePath(lock_path);
    do {
      m_fd.Reset(Open(native));
      if (!m_fd) throw ErrnoException(errno, lock_path);
      while (::flock(m_fd.Get(), LOCK_EX) != 0) {
        if (errno != EINTR) throw ErrnoException(errno, lock_path);
      }
    } while (!IsAt(native));
  }

 private:
  static int Open(const std::string& native) {
    constexpr int kFlags = O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW;
    const int fd = ::open(native.c_str(), kFlags, kPermissions);
    if (fd >= 0 || errno != ENOENT) return fd;
    // A new device has no folder for it yet.
    std::error_code ignored;  // the second attempt tells
    std::filesystem::create_directories(std::filesystem::path(native).parent_path(), ignored);
    return ::open(native.c_str(), kFlags, kPermissions);
  }
  // Whether others that come now will meet this lock: the file may have been removed meanwhile.
  bool IsAt(const std::string& native) const {
    struct stat here;
    struct stat there;
    return ::fstat(m_fd.Get(), &here) == 0 && ::stat(native.c_str(), &there) == 0 &&
           SameFile(here, there);
  }

  UniqueFd m_fd;
};

RegistryStore::RegistryStore(std::string device_path) : m_path(std::move(device_path)) {}

RegistryStore::~RegistryStore() = default;

// Reading.

bool RegistryStore::IsCurrent() const {
  if (!m_known) return false;
  struct stat now;
  if (::stat(DevicePath(m_path).c_str(), &now) != 0) return errno == ENOENT && !m_file;
  return m_file && SameContent(now, m_status);
}

void RegistryStore::Forget() {
  m_known = false;
  m_corrupt = false;
  m_complained = false;
  m_file.Reset();
  m_sections.clear();
}

void RegistryStore::Remember(UniqueFd file) {
  if (file) m_status = StatusOf(file.Get(), m_path);
  m_file = std::move(file);
  m_known = true;
}

// Reads the file. One that is no registry document counts as empty, and as corrupt.
void RegistryStore::Load() {
  Forget();
  // Non-blocking, for a pipe in the file's place.
  UniqueFd file(::open(DevicePath(m_path).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file && errno != ENOENT) throw ErrnoException(errno, m_path);
  // The status is taken before the content, so that what is written meanwhile shows the next time.
  Remember(std::move(file));
  if (!m_file) return;
  try {
    m_corrupt = !S_ISREG(m_status.st_mode);
    if (!m_corrupt) m_sections = Registry::ParseDocument(ReadAll(m_file.Get(), m_path));
  } catch (const Registry::Error&) {
    m_corrupt = true;
  } catch (...) {
    Forget();
    throw;
  }
}

// Makes m_sections what the file holds now.
void RegistryStore::Refresh() {
  if (!IsCurrent()) Load();
  if (!m_corrupt || m_complained) return;
  try {
    RefreshLocked(FileLock(m_path));
  } catch (const ErrnoException& e) {
    // Who may only read has an empty registry until somebody else repairs the file.
    Load();
    if (!m_corrupt) return;
    m_complained = true;
    Log("Registry file {} is corrupt and cannot be kept aside: {}\n", m_path, e.what());
  }
}

void RegistryStore::RefreshLocked(const FileLock&) {
  if (!IsCurrent()) Load();
  if (!m_corrupt) return;
  const std::string aside = m_path + ".corrupt";
  if (::rename(DevicePath(m_path).c_str(), DevicePath(aside).c_str()) != 0) {
    throw ErrnoException(errno, m_path);
  }
  // The parser's message stays unsaid: it would quote settings, which may be secret.
  Log("Registry file {} is corrupt: kept as {}, a fresh one is started\n", m_path, aside);
  Forget();
  Save(Registry::FormatDocument({}));
}

std::string RegistryStore::ReadAllJson() {
  std::lock_guard guard(m_mutex);
  Refresh();
  return Registry::FormatDocument(m_sections);
}

std::string RegistryStore::Read(std::string_view section, std::string_view key) {
  CheckName(section);
  CheckName(key);
  std::lock_guard guard(m_mutex);
  const std::string* value = Find(section, key);
  return value != nullptr ? *value : std::string();
}

bool RegistryStore::KeyExists(std::string_view section, std::string_view key) {
  CheckName(section);
  CheckName(key);
  std::lock_guard guard(m_mutex);
  return Find(section, key) != nullptr;
}

bool RegistryStore::SectionExists(std::string_view section) {
  CheckName(section);
  std::lock_guard guard(m_mutex);
  Refresh();
  return m_sections.contains(section);
}

std::vector<std::string> RegistryStore::SectionList() {
  std::lock_guard guard(m_mutex);
  Refresh();
  return NamesOf(m_sections);
}

std::vector<std::string> RegistryStore::KeyList(std::string_view section) {
  CheckName(section);
  std::lock_guard guard(m_mutex);
  Refresh();
  const auto found = m_sections.find(section);
  if (found == m_sections.end()) return {};
  return NamesOf(found->second);
}

// The value in the file as it is now; null when there is none.
const std::string* RegistryStore::Find(std::string_view section, std::string_view key) {
  Refresh();
  const auto found = m_sections.find(section);
  if (found == m_sections.end()) return nullptr;
  const auto value = found->second.find(key);
  return value != found->second.end() ? &value->second : nullptr;
}

// Changing.

void RegistryStore::Save(std::string document) {
  document += '\n';
  Remember(lattix::ReplaceDeviceFile(m_path, document, kPermissions));
}

// Applies the change, which tells whether it changed anything, to what the file holds now. Only a
// growing change can be one too many: a registry that is too large for us can always be emptied.
template <typename Change>
void RegistryStore::Apply(Growth growth, Change change) {
  std::lock_guard guard(m_mutex);
  const FileLock lock(m_path);
  RefreshLocked(lock);
  try {
    if (!change()) return;
    std::string document = Registry::FormatDocument(m_sections);
    if (growth == Growth::kPossible && document.size() > Registry::kMaxStoreSize) {
      throw Registry::Full();
    }
    Save(std::move(document));
  } catch (...) {
    Forget();
    throw;
  }
}

bool RegistryStore::Set(std::string_view section, std::string_view key, std::string_view value) {
  Registry::Section& keys = m_sections[std::string(section)];
  const auto [found, added] = keys.try_emplace(std::string(key), value);
  if (added) return true;
  if (found->second == value) return false;
  found->second = value;
  return true;
}

void RegistryStore::Write(std::string_view section, std::string_view key, std::string_view value) {
  CheckName(section);
  CheckName(key);
  CheckValue(value);
  Apply(Growth::kPossible, [&] { return Set(section, key, value); });
}

void RegistryStore::WriteJson(std::string_view document) {
  const Sections sections = Registry::ParseDocument(document);
  Apply(Growth::kPossible, [&] {
    bool changed = false;
    for (const auto& [section, keys] : sections) {
      for (const auto& [key, value] : keys) changed |= Set(section, key, value);
    }
    return changed;
  });
}

void RegistryStore::DeleteKey(std::string_view section, std::string_view key) {
  CheckName(section);
  CheckName(key);
  Apply(Growth::kNone, [&] {
    const auto found = m_sections.find(section);
    if (found == m_sections.end()) return false;
    const auto value = found->second.find(key);
    if (value == found->second.end()) return false;
    found->second.erase(value);
    if (found->second.empty()) m_sections.erase(found);
    return true;
  });
}

void RegistryStore::DeleteSection(std::string_view section) {
  CheckName(section);
  Apply(Growth::kNone, [&] {
    const auto found = m_sections.find(section);
    if (found == m_sections.end()) return false;
    m_sections.erase(found);
    return true;
  });
}

void RegistryStore::DeleteAll() {
  Apply(Growth::kNone, [&] { return !std::exchange(m_sections, {}).empty(); });
}

// Changes are synced one by one. What is left is a file that somebody edited by hand, or a folder
// that could not be synced when a change failed for that.
void RegistryStore::Flush() {
  std::lock_guard guard(m_mutex);
  Refresh();
  if (!m_file) return;
  if (::fsync(m_file.Get()) != 0) throw ErrnoException(errno, m_path);
  lattix::SyncFolderOf(m_path);
}
