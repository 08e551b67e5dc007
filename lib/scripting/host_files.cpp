// Each operation opens the folder that holds the entry, beneath its drive's root, and then works
// with the entry's plain name in it; no path is ever resolved twice, so nothing can be swapped in
// between.
#include "lib/scripting/host_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <memory>

#include "lib/platform/device_path.h"
#include "lib/platform/log.h"
#include "lib/platform/write_all.h"

namespace host_files {
namespace {

using lattix::UniqueFd;

constexpr mode_t kFileMode = 0666;
constexpr mode_t kFolderMode = 0777;
// Folders inside one another that formatting follows; one descriptor each.
constexpr int kMaxFolderDepth = 256;
constexpr std::string_view kEjectedFolder = "/var/lib/orvex/ejected";
constexpr std::string_view kFileSystems[] = {"vfat", "fat32", "exfat", "ntfs", "ext3", "ext4"};

// The entry a name stands for; invalid when it does not map or is a drive's root.
DriveEntry FindEntry(const FilenameMapper& mapper, std::string_view name) {
  std::string path;
  if (!mapper.TryMap(name, &path)) return {};
  DriveEntry entry = OpenDriveEntry(path);
  if (entry.name.empty()) entry.folder.Reset();
  return entry;
}

// What lies at an entry itself, links not followed; 0 when there is nothing.
mode_t EntryType(const DriveEntry& entry) {
  struct stat status;
  if (::fstatat(entry.folder.Get(), entry.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
    return 0;
  return status.st_mode & S_IFMT;
}

bool CopyContent(int from, int to) {
  // The kernel copies without our seeing the bytes; where two file systems cannot, we do.
  bool copied_some = false;
  for (;;) {
    const ssize_t n = ::copy_file_range(from, nullptr, to, nullptr, size_t{1} << 30, 0);
    if (n > 0) {
      copied_some = true;
      continue;
    }
    if (n == 0 && copied_some) return true;
    if (n < 0 && errno == EINTR) continue;
    break;  // refused, or a file whose size reads 0 although it has content
  }
  constexpr size_t kBlock = 256 * 1024;
  const auto block = std::make_unique_for_overwrite<char[]>(kBlock);
  for (;;) {
    const ssize_t n = ::read(from, block.get(), kBlock);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) return true;
    if (!lattix::WriteAll(to, {block.get(), static_cast<size_t>(n)})) return false;
  }
}

enum class Durable { kNo, kYes };

bool CopyBetween(const std::string& from_path, const DriveEntry& to, Durable durable) {
  if (EntryType(to) == S_IFDIR) return false;
  const UniqueFd from = OpenBeneathDrive(from_path, O_RDONLY, 0);
  if (!from) return false;

  static std::atomic<unsigned> counter{0};
  const std::string beside = ".copy-" + std::to_string(::getpid()) + "-" +
                             std::to_string(counter.fetch_add(1, std::memory_order_relaxed));
  // Process ids come again: what one left when the power was cut must not stop the next.
  ::unlinkat(to.folder.Get(), beside.c_str(), 0);
  UniqueFd copy(::openat(to.folder.Get(), beside.c_str(),
                         O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kFileMode));
  if (!copy) return false;
  bool done = CopyContent(from.Get(), copy.Get());
  done = done && (durable == Durable::kNo || ::fsync(copy.Get()) == 0);
  done = ::close(copy.Release()) == 0 && done;
  done = done && ::renameat(to.folder.Get(), beside.c_str(), to.folder.Get(), to.name.c_str()) == 0;
  if (!done) ::unlinkat(to.folder.Get(), beside.c_str(), 0);
  return done && (durable == Durable::kNo || SyncFolder(to));
}

struct CloseFolder {
  void operator()(DIR* folder) const { ::closedir(folder); }
};

// Removes everything in a folder; links are removed, not followed.
bool EmptyFolder(UniqueFd fd, int depth) {
  if (!fd || depth > kMaxFolderDepth) return false;
  const std::unique_ptr<DIR, CloseFolder> folder(::fdopendir(fd.Get()));
  if (folder == nullptr) return false;
  const int at = fd.Release();  // the stream's from now on
  bool done = true;
  while (const dirent* entry = ::readdir(folder.get())) {
    const std::string_view name = entry->d_name;
    if (name == "." || name == "..") continue;
    if (::unlinkat(at, entry->d_name, 0) == 0) continue;
    UniqueFd below(::openat(at, entry->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    done = EmptyFolder(std::move(below), depth + 1) &&
           ::unlinkat(at, entry->d_name, AT_REMOVEDIR) == 0 && done;
  }
  return done;
}

// The native folder of a medium that is there, in a device root; empty otherwise. *own tells that
// it is a folder of the root and no link to somewhere else.
std::string MediumFolder(std::string_view name, bool* own) {
  if (!lattix::InDeviceRoot()) return {};
  const size_t colon = std::min(name.find(':'), name.size());
  const std::string_view rest = name.substr(colon);
  // Whoever names a file does not mean to lose the whole drive.
  if (rest.size() > 1 && rest != ":/") return {};
  const FilenameCracker cracked = FilenameCracker::Crack(std::string(name.substr(0, colon)) + ":");
  const Drive* drive = FindDrive(cracked.GetDrive());
  if (drive == nullptr || !drive->medium) return {};
  std::string folder = lattix::DevicePath("/storage/");
  folder += drive->directory;
  struct stat status;
  if (::lstat(folder.c_str(), &status) != 0) return {};
  *own = S_ISDIR(status.st_mode);
  return folder;
}

}  // namespace

bool DeleteFile(const FilenameMapper& mapper, std::string_view name) {
  const DriveEntry entry = FindEntry(mapper, name);
  return entry.folder && ::unlinkat(entry.folder.Get(), entry.name.c_str(), 0) == 0;
}

bool DeleteDirectory(const FilenameMapper& mapper, std::string_view name) {
  const DriveEntry entry = FindEntry(mapper, name);
  return entry.folder && ::unlinkat(entry.folder.Get(), entry.name.c_str(), AT_REMOVEDIR) == 0;
}

bool CreateDirectory(const FilenameMapper& mapper, std::string_view name) {
  const DriveEntry entry = FindEntry(mapper, name);
  return entry.folder && ::mkdirat(entry.folder.Get(), entry.name.c_str(), kFolderMode) == 0;
}

bool CopyFile(const FilenameMapper& mapper, std::string_view from, std::string_view to) {
  std::string from_path;
  if (!mapper.TryMap(from, &from_path)) return false;
  const DriveEntry entry = FindEntry(mapper, to);
  return entry.folder && CopyBetween(from_path, entry, Durable::kNo);
}

bool MoveFile(const FilenameMapper& mapper, std::string_view from, std::string_view to) {
  std::string from_path;
  if (!mapper.TryMap(from, &from_path)) return false;
  const DriveEntry source = FindEntry(mapper, from);
  const DriveEntry target = FindEntry(mapper, to);
  if (!source.folder || !target.folder) return false;
  const mode_t type = EntryType(source);
  if (type == 0 || type == S_IFDIR || EntryType(target) == S_IFDIR) return false;
  if (::renameat(source.folder.Get(), source.name.c_str(), target.folder.Get(),
                 target.name.c_str()) == 0) {
    return true;
  }
  return errno == EXDEV && CopyBetween(from_path, target, Durable::kYes) &&
         ::unlinkat(source.folder.Get(), source.name.c_str(), 0) == 0;
}

bool FormatDrive(std::string_view drive, std::string_view file_system) {
  bool own = false;
  const std::string folder = MediumFolder(drive, &own);
  if (folder.empty() || std::find(std::begin(kFileSystems), std::end(kFileSystems), file_system) ==
                            std::end(kFileSystems)) {
    return false;
  }
  if (!own) {
    lattix::Log("Format of {} refused: its files lie outside the device root\n", drive);
    return false;
  }
  lattix::Log("Format of {} requested by script\n", drive);
  return EmptyFolder(
      UniqueFd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)), 0);
}

bool EjectDrive(std::string_view drive) {
  bool own = false;
  const std::string folder = MediumFolder(drive, &own);
  if (folder.empty()) return false;
  std::string ejected = lattix::DeviceRoot();
  for (std::string_view rest = kEjectedFolder; !rest.empty();) {
    const size_t slash = std::min(rest.find('/', 1), rest.size());
    ejected += rest.substr(0, slash);
    rest.remove_prefix(slash);
    if (::mkdir(ejected.c_str(), kFolderMode) != 0 && errno != EEXIST) return false;
  }
  ejected += folder.substr(folder.rfind('/'));
  // A medium ejected before, and a new one in its slot: keep both.
  std::string place = ejected;
  struct stat status;
  for (int n = 2; ::lstat(place.c_str(), &status) == 0; ++n) {
    place = ejected + "-" + std::to_string(n);
  }
  lattix::Log("Eject of {} requested by script\n", drive);
  return ::rename(folder.c_str(), place.c_str()) == 0;
}

}  // namespace host_files
