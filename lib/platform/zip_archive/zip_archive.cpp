// The directory is checked as a whole (Plan) before anything is written (Extract): most hostile
// archives never touch the target. What is written goes through descriptors of the target's folders
// that no link was followed to, so that neither the archive nor something that lies in the target
// already can lead out of it.
#include "lib/platform/zip_archive/zip_archive.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zip.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <string_view>

#include "lib/platform/errno_exception.h"
#include "lib/platform/write_all.h"

namespace {

using lattix::UniqueFd;

constexpr mode_t kFileMode = 0666;
constexpr mode_t kFolderMode = 0777;
constexpr size_t kBlock = size_t{128} << 10;
constexpr size_t kMaxComponent = 255;  // of the file systems
constexpr size_t kMaxName = 1024;
constexpr int kMaxFolders = 64;  // inside one another

struct CloseFile {
  void operator()(zip_file_t* file) const { zip_fclose(file); }
};

using Path = std::vector<std::string>;

struct Entry {
  zip_uint64_t index;
  Path path;  // the components
  bool folder;
  uint64_t size;
};

std::string Joined(const Path& path) {
  std::string text;
  for (const std::string& component : path) text += text.empty() ? component : "/" + component;
  return text;
}

// An entry's name for a message: what a terminal would act on is left out.
std::string Shown(std::string_view name) {
  std::string text;
  for (const char c : name.substr(0, kMaxName)) {
    text += static_cast<unsigned char>(c) < 0x20 || c == 0x7f ? '?' : c;
  }
  return text;
}

[[noreturn]] void Refuse(std::string_view name, std::string_view why) {
  throw ZipArchive::Error(fmt::format("'{}' {}", Shown(name), why));
}

// The components of an entry's name; refuses what is not a name beneath the target.
Path CheckedPath(std::string_view name) {
  if (name.empty() || name.size() > kMaxName) Refuse(name, "has a name of a wrong length");
  if (name.front() == '/') Refuse(name, "has an absolute name");
  Path path;
  for (size_t start = 0; start <= name.size();) {
    const size_t end = std::min(name.find('/', start), name.size());
    const std::string_view component = name.substr(start, end - start);
    start = end + 1;
    if (component.empty() || component == ".") continue;
    if (component == "..") Refuse(name, "leads out of the archive");
    if (component.size() > kMaxComponent) Refuse(name, "has a name of a wrong length");
    for (const char c : component) {
      // A backslash is a separator, and a colon follows a drive, for those who made such an
      // archive.
      if (c == '\\' || c == ':' || static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
        Refuse(name, "has a character in its name that is not allowed");
      }
    }
    path.emplace_back(component);
  }
  if (path.size() > kMaxFolders) Refuse(name, "lies too deep");
  return path;
}

bool IsFileOrFolder(zip_t* zip, zip_uint64_t index) {
  zip_uint8_t system;
  zip_uint32_t attributes;
  if (zip_file_get_external_attributes(zip, index, 0, &system, &attributes) != 0) return true;
  if (system != ZIP_OPSYS_UNIX && system != ZIP_OPSYS_OS_X) return true;
  const mode_t type = (attributes >> 16) & S_IFMT;
  return type == 0 || type == S_IFREG || type == S_IFDIR;
}

// Opens a folder beneath the target, one component after the other. With `made` the missing ones
// are made, and noted there.
UniqueFd OpenFolder(int target, const Path& path, size_t depth, std::vector<Path>* made) {
  UniqueFd folder(::fcntl(target, F_DUPFD_CLOEXEC, 0));
  for (size_t i = 0; i < depth && folder; ++i) {
    const char* name = path[i].c_str();
    if (!made) {
      // Only what is there.
    } else if (::mkdirat(folder.Get(), name, kFolderMode) == 0) {
      made->emplace_back(path.begin(), path.begin() + static_cast<ptrdiff_t>(i) + 1);
    } else if (errno != EEXIST) {
      folder.Reset();
      break;
    }
    folder.Reset(::openat(folder.Get(), name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  }
  if (!folder) throw lattix::ErrnoException(errno, Joined(path));
  return folder;
}

}  // namespace

struct ZipArchive::Impl {
  zip_t* zip = nullptr;
  uint64_t packed_size = 0;

  ~Impl() {
    if (zip) zip_discard(zip);
  }
  std::vector<Entry> Plan(const Limits& limits) const;
  void ExtractFile(const Entry& entry, int fd, const std::stop_token& stop) const;
};

ZipArchive::ZipArchive(UniqueFd file) : m_impl(std::make_unique<Impl>()) {
  struct stat status;
  if (::fstat(file.Get(), &status) != 0) throw Error(lattix::ErrorText(errno));
  if (!S_ISREG(status.st_mode)) throw Error("no regular file");
  m_impl->packed_size = static_cast<uint64_t>(status.st_size);
  int code = 0;
  m_impl->zip = zip_fdopen(file.Get(), 0, &code);
  if (!m_impl->zip) {
    zip_error_t error;
    zip_error_init_with_code(&error, code);
    const std::string text = zip_error_strerror(&error);
    zip_error_fini(&error);
    throw Error(text);
  }
  (void)file.Release();  // the library's
}

ZipArchive::~ZipArchive() = default;

bool ZipArchive::IsEncrypted() const {
  const zip_int64_t count = zip_get_num_entries(m_impl->zip, 0);
  for (zip_int64_t i = 0; i < count; ++i) {
    zip_stat_t status;
    if (zip_stat_index(m_impl->zip, static_cast<zip_uint64_t>(i), 0, &status) == 0 &&
        (status.valid & ZIP_STAT_ENCRYPTION_METHOD) && status.encryption_method != ZIP_EM_NONE) {
      return true;
    }
  }
  return false;
}

void ZipArchive::SetPassphrase(const std::string& passphrase) {
  if (zip_set_default_password(m_impl->zip, passphrase.c_str()) != 0) {
    throw Error(zip_strerror(m_impl->zip));
  }
}

std::vector<Entry> ZipArchive::Impl::Plan(const Limits& limits) const {
  const auto count = static_cast<uint64_t>(zip_get_num_entries(zip, 0));
  if (count > limits.max_entries)
    throw Error(fmt::format("more than {} entries", limits.max_entries));
  std::vector<Entry> plan;
  std::set<Path> names;
  uint64_t total = 0;
  for (zip_uint64_t i = 0; i < count; ++i) {
    zip_stat_t status;
    if (zip_stat_index(zip, i, 0, &status) != 0) throw Error(zip_strerror(zip));
    constexpr zip_uint64_t kNeeded = ZIP_STAT_NAME | ZIP_STAT_SIZE | ZIP_STAT_ENCRYPTION_METHOD;
    if ((status.valid & kNeeded) != kNeeded) throw Error("an entry without name or size");
    const std::string_view name = status.name;
    Entry entry{i, CheckedPath(name), name.ends_with('/'), status.size};
    if (entry.path.empty()) continue;  // "./"
    if (!IsFileOrFolder(zip, i)) Refuse(name, "is neither a file nor a folder");
    if (!names.insert(entry.path).second) Refuse(name, "is there twice");
    switch (status.encryption_method) {
      case ZIP_EM_NONE:
      case ZIP_EM_AES_128:
      case ZIP_EM_AES_192:
      case ZIP_EM_AES_256: break;
      default: Refuse(name, "is not encrypted with AES");
    }
    if (!entry.folder) {
      if (entry.size > limits.max_total - total) throw Error("more than there is room for");
      total += entry.size;
    }
    plan.push_back(std::move(entry));
  }
  if (total > limits.ratio_matters && total / limits.max_ratio > packed_size) {
    throw Error("expands to a suspicious size");
  }
  return plan;
}

void ZipArchive::Impl::ExtractFile(const Entry& entry, int fd, const std::stop_token& stop) const {
  const std::unique_ptr<zip_file_t, CloseFile> file(zip_fopen_index(zip, entry.index, 0));
  if (!file) Refuse(Joined(entry.path), fmt::format("cannot be read: {}", zip_strerror(zip)));
  const auto block = std::make_unique_for_overwrite<char[]>(kBlock);
  uint64_t left = entry.size;
  for (;;) {
    if (stop.stop_requested()) throw Error("Cancelled");
    const zip_int64_t n = zip_fread(file.get(), block.get(), kBlock);
    if (n < 0) {
      Refuse(Joined(entry.path), fmt::format("cannot be read: {}", zip_file_strerror(file.get())));
    }
    if (n == 0) break;
    if (static_cast<uint64_t>(n) > left) Refuse(Joined(entry.path), "is larger than it says");
    left -= static_cast<uint64_t>(n);
    if (!lattix::WriteAll(fd, {block.get(), static_cast<size_t>(n)})) {
      throw lattix::ErrnoException(errno);
    }
  }
  if (left > 0) Refuse(Joined(entry.path), "is smaller than it says");
}

std::vector<std::string> ZipArchive::Extract(int folder, const Limits& limits,
                                             const std::stop_token& stop) {
  const std::vector<Entry> plan = m_impl->Plan(limits);
  std::vector<Path> made_folders;
  std::vector<Path> made_files;
  const auto remove = [folder](const Path& path, int flags) {
    try {
      const UniqueFd parent = OpenFolder(folder, path, path.size() - 1, nullptr);
      ::unlinkat(parent.Get(), path.back().c_str(), flags);
    } catch (const lattix::ErrnoException&) {
      // Somebody else has taken it away.
    }
  };
  try {
    std::vector<std::string> extracted;
    for (const Entry& entry : plan) {
      try {
        if (entry.folder) {
          OpenFolder(folder, entry.path, entry.path.size(), &made_folders);
          continue;
        }
        const UniqueFd parent =
            OpenFolder(folder, entry.path, entry.path.size() - 1, &made_folders);
        const char* name = entry.path.back().c_str();
        if (::unlinkat(parent.Get(), name, 0) != 0 && errno != ENOENT) {
          throw lattix::ErrnoException(errno);
        }
        const UniqueFd file(::openat(
            parent.Get(), name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kFileMode));
        if (!file) throw lattix::ErrnoException(errno);
        made_files.push_back(entry.path);
        m_impl->ExtractFile(entry, file.Get(), stop);
        extracted.push_back(Joined(entry.path));
      } catch (const lattix::ErrnoException& error) {
        Refuse(Joined(entry.path), fmt::format("cannot be written: {}", error.what()));
      }
    }
    return extracted;
  } catch (...) {
    for (const Path& path : made_files) remove(path, 0);
    for (auto path = made_folders.rbegin(); path != made_folders.rend(); ++path) {
      remove(*path, AT_REMOVEDIR);
    }
    throw;
  }
}
