// Names become device paths by text alone: crack, resolve against the current directory, normalise
// component by component, prefix the drive's directory. A path so made never holds "..", so what
// remains to guard when it is opened are symbolic links; the kernel does that where it can
// (openat2), and a walk that follows no link at all does it elsewhere.
#include "lib/scripting/filename_mapper.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <algorithm>
#include <atomic>
#include <cerrno>

#include "lib/platform/assertion.h"
#include "lib/platform/device_path.h"

namespace {

using lattix::UniqueFd;

constexpr std::string_view kStorage = "/storage/";
constexpr std::string_view kFileScheme = "file";

constexpr Drive kDrives[] = {
    {"SD", "sd", true},      {"USB1", "usb1", true},  {"SSD", "ssd", true},
    {"SYS", "sys", false},   {"TMP", "tmp", false},   {"FLASH", "flash", true},
    {"SD2", "sd2", true},    {"BOOT", "boot", false}, {"FIRST", "first", false},
    {"LAST", "last", false},
};

bool IsLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

std::string UpperCase(std::string_view text) {
  std::string upper(text);
  for (char& c : upper) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return upper;
}

std::string LowerCase(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return lower;
}

bool IsScheme(std::string_view text) {
  return !text.empty() && IsLetter(text[0]) && std::all_of(text.begin(), text.end(), [](char c) {
    return IsLetter(c) || (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.';
  });
}

// Appends the components of a path to one that starts as the root of a drive; false when the path
// climbs above that root.
bool AppendNormalised(std::string_view path, size_t root, std::string* to) {
  while (!path.empty()) {
    const size_t slash = std::min(path.find('/'), path.size());
    const std::string_view component = path.substr(0, slash);
    path.remove_prefix(std::min(slash + 1, path.size()));
    if (component.empty() || component == ".") continue;
    if (component == "..") {
      if (to->size() <= root) return false;
      to->resize(to->rfind('/'));
      continue;
    }
    *to += '/';
    *to += component;
  }
  return true;
}

}  // namespace

std::span<const Drive> KnownDrives() { return kDrives; }

const Drive* FindDrive(std::string_view name) {
  for (const Drive& drive : kDrives) {
    if (drive.name == name) return &drive;
  }
  return nullptr;
}

// --- FilenameCracker --------------------------------------------------------------------------

FilenameCracker FilenameCracker::Crack(std::string_view name) {
  FilenameCracker cracked;
  if (const size_t colon = name.find(':'); colon != std::string_view::npos) {
    cracked.m_drive = UpperCase(name.substr(0, colon));
    name.remove_prefix(colon + 1);
  }
  if (const size_t slash = name.rfind('/'); slash != std::string_view::npos) {
    std::string_view directory = name.substr(0, slash + 1);
    while (directory.size() > 1 && directory.back() == '/') directory.remove_suffix(1);
    cracked.m_directory = directory;
    name.remove_prefix(slash + 1);
  }
  cracked.m_filename = name;
  return cracked;
}

FilenameCracker FilenameCracker::CrackDirectory(std::string_view name) {
  std::string directory(name);
  // "USB1:" is the root of the drive; an empty name is no directory at all.
  if (!directory.empty()) directory += '/';
  return Crack(directory);
}

const std::string& FilenameCracker::GetDirectory() const {
  LATTIX_ASSERT(m_directory.empty() || m_directory == "/" || *m_directory.rbegin() != '/');
  return m_directory;
}

std::string FilenameCracker::ToString() const {
  std::string text = m_drive;
  if (!m_drive.empty()) text += ':';
  text += GetDirectory();
  if (!m_directory.empty() && m_directory != "/") text += '/';
  text += m_filename;
  return text;
}

// --- FilenameMapper ---------------------------------------------------------------------------

FilenameMapper::FilenameMapper() : m_current(FilenameCracker::Crack("SYS:/")) {}

FilenameMapper::Result FilenameMapper::MapName(std::string_view name,
                                               std::string* device_path) const {
  // A URL is told from a drive by the two slashes, unless the drive exists ("sd://x" is a file).
  if (const size_t colon = name.find("://");
      colon != std::string_view::npos && IsScheme(name.substr(0, colon)) &&
      FindDrive(UpperCase(name.substr(0, colon))) == nullptr) {
    if (LowerCase(name.substr(0, colon)) != kFileScheme) return Result::kNotFileScheme;
    name.remove_prefix(colon + 3);
    // "file:///SD:/x": the host part is empty, the name follows the third slash.
    if (name.starts_with('/') && name.find(':') != std::string_view::npos) name.remove_prefix(1);
  }
  if (name.find('\0') != std::string_view::npos) return Result::kBadName;

  FilenameCracker cracked = FilenameCracker::Crack(name);
  std::string drive = cracked.GetDrive();
  std::string base;
  if (drive.empty() && name.find(':') == std::string_view::npos) {
    const FilenameCracker current = GetCurrentDirectory();
    drive = current.GetDrive();
    if (!cracked.GetDirectory().starts_with('/')) base = current.GetDirectory();
  }

  const Drive* known = FindDrive(drive);
  if (known == nullptr) return Result::kBadDrive;
  std::string path(kStorage);
  path += known->directory;
  struct stat status;
  if (::stat(lattix::DevicePath(path).c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
    return Result::kBadDrive;
  }

  const size_t root = path.size();
  if (!AppendNormalised(base, root, &path) ||
      !AppendNormalised(cracked.GetDirectory(), root, &path) ||
      !AppendNormalised(cracked.GetFilename(), root, &path) || path.size() > kMaxDevicePath) {
    return Result::kBadName;
  }
  *device_path = std::move(path);
  return Result::kMapped;
}

std::string FilenameMapper::Map(std::string_view name) const {
  std::string path;
  switch (MapName(name, &path)) {
    case Result::kMapped: break;
    case Result::kBadDrive: throw BadDriveException();
    case Result::kNotFileScheme: throw NotFileSchemeException();
    case Result::kBadName: throw BadNameException();
  }
  return path;
}

bool FilenameMapper::TryMap(std::string_view name, std::string* device_path) const {
  return MapName(name, device_path) == Result::kMapped;
}

FilenameCracker FilenameMapper::GetCurrentDirectory() const {
  std::lock_guard guard(m_lock);
  return m_current;
}

void FilenameMapper::SetCurrentDirectory(std::string_view name) {
  const FilenameCracker next = FilenameCracker::CrackDirectory(name);
  std::string drive = next.GetDrive();
  std::string directory;
  std::lock_guard guard(m_lock);
  if (drive.empty()) {
    drive = m_current.GetDrive();
    if (!next.GetDirectory().starts_with('/')) {
      AppendNormalised(m_current.GetDirectory(), 0, &directory);
    }
  }
  if (FindDrive(drive) == nullptr || !AppendNormalised(next.GetDirectory(), 0, &directory)) return;
  m_current = FilenameCracker::CrackDirectory(drive + ":" + directory);
}

std::string FilenameMapper::GetDefaultDrive() const {
  std::lock_guard guard(m_lock);
  return m_current.GetDrive() + ":";
}

void FilenameMapper::SetDefaultDrive(std::string_view drive) {
  std::string name = UpperCase(drive.substr(0, drive.find(':')));
  if (FindDrive(name) == nullptr) return;
  std::lock_guard guard(m_lock);
  m_current = FilenameCracker::Crack(name + ":/");
}

// --- Opening ----------------------------------------------------------------------------------

namespace {

// Splits "/storage/sd/a/b" into the drive's directory and "a/b" (empty for the root itself).
bool SplitDevicePath(const std::string& path, std::string* drive, std::string* below) {
  if (!path.starts_with(kStorage)) return false;
  const size_t slash = path.find('/', kStorage.size());
  const std::string directory = path.substr(kStorage.size(), slash - kStorage.size());
  if (std::none_of(std::begin(kDrives), std::end(kDrives),
                   [&](const Drive& known) { return known.directory == directory; })) {
    return false;
  }
  *drive = path.substr(0, slash);
  *below = slash == std::string::npos ? "" : path.substr(slash + 1);
  return true;
}

UniqueFd OpenDriveRoot(const std::string& drive) {
  return UniqueFd(::open(lattix::DevicePath(drive).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
}

// Follows no symbolic link, wherever it leads: without the kernel's help there is no telling.
UniqueFd WalkBeneath(int root, std::string_view below, int flags, mode_t mode) {
  UniqueFd folder(::fcntl(root, F_DUPFD_CLOEXEC, 0));
  while (folder) {
    while (below.starts_with('/')) below.remove_prefix(1);
    const size_t slash = below.find('/');
    const std::string component(below.empty() ? "." : below.substr(0, slash));
    if (component == "..") {
      errno = EXDEV;
      return UniqueFd();
    }
    if (slash == std::string_view::npos) {
      return UniqueFd(
          ::openat(folder.Get(), component.c_str(), flags | O_NOFOLLOW | O_CLOEXEC, mode));
    }
    folder = UniqueFd(
        ::openat(folder.Get(), component.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    below.remove_prefix(slash + 1);
  }
  return folder;
}

UniqueFd OpenBeneath(int root, const std::string& below, int flags, mode_t mode) {
  static std::atomic<bool> kernel_resolves{true};
  if (kernel_resolves.load(std::memory_order_relaxed)) {
    struct open_how how = {};
    how.flags = static_cast<unsigned>(flags | O_CLOEXEC);
    how.mode = (flags & O_CREAT) != 0 ? mode & 07777 : 0;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    // The kernel gives up with EAGAIN when something is renamed under a ".." of a link's target.
    for (int attempt = 0; attempt < 16; ++attempt) {
      const long fd =
          ::syscall(SYS_openat2, root, below.empty() ? "." : below.c_str(), &how, sizeof(how));
      if (fd >= 0) return UniqueFd(static_cast<int>(fd));
      if (errno != EAGAIN && errno != EINTR) break;
    }
    if (errno != ENOSYS) return UniqueFd();
    kernel_resolves.store(false, std::memory_order_relaxed);
  }
  return WalkBeneath(root, below, flags, mode);
}

}  // namespace

lattix::UniqueFd OpenBeneathDrive(const std::string& device_path, int flags, mode_t mode) {
  std::string drive, below;
  if (!SplitDevicePath(device_path, &drive, &below)) {
    errno = ENOENT;
    return UniqueFd();
  }
  const UniqueFd root = OpenDriveRoot(drive);
  if (!root) return UniqueFd();
  if ((flags & (O_DIRECTORY | O_PATH)) != 0) return OpenBeneath(root.Get(), below, flags, mode);
  UniqueFd fd = OpenBeneath(root.Get(), below, flags | O_NONBLOCK | O_NOCTTY, mode);
  if (!fd) return fd;
  struct stat status;
  if (::fstat(fd.Get(), &status) != 0) return UniqueFd();
  if (!S_ISREG(status.st_mode)) {
    errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    return UniqueFd();
  }
  if ((flags & O_NONBLOCK) == 0) ::fcntl(fd.Get(), F_SETFL, flags & ~O_NONBLOCK);
  return fd;
}

DriveEntry OpenDriveEntry(const std::string& device_path) {
  DriveEntry entry;
  std::string drive, below;
  if (!SplitDevicePath(device_path, &drive, &below)) {
    errno = ENOENT;
    return entry;
  }
  const UniqueFd root = OpenDriveRoot(drive);
  if (!root) return entry;
  const size_t slash = below.rfind('/');
  const std::string folder = slash == std::string::npos ? "" : below.substr(0, slash);
  entry.name = slash == std::string::npos ? below : below.substr(slash + 1);
  entry.folder = OpenBeneath(root.Get(), folder, O_PATH | O_DIRECTORY, 0);
  return entry;
}

bool SyncFolder(const DriveEntry& entry) {
  const UniqueFd folder(
      entry.folder ? ::openat(entry.folder.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1);
  return folder && (::fsync(folder.Get()) == 0 || errno == EINVAL);
}
