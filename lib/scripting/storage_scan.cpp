// The mount table tells of media on a device, the folders themselves in a device root. Both are
// watched through one epoll descriptor, so that a loop has a single one to poll.
//
// Polling the mount table consumes its event, and a nested poll does so before the reader's own
// epoll_wait: that the epoll descriptor is readable is the only message that can be relied upon.
#include "lib/scripting/storage_scan.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <string_view>

#include "lib/platform/device_file.h"
#include "lib/platform/device_path.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/log.h"

using lattix::DevicePath;
using lattix::ErrorText;
using lattix::InDeviceRoot;
using lattix::Log;

namespace {

constexpr char kStates[] = "/var/run/storage";

std::string FolderOf(const StorageEntry& entry) {
  return fmt::format("/storage/{}", entry.directory);
}

std::string Content(const std::string& device_path) {
  try {
    return lattix::ReadDeviceFile(device_path);
  } catch (const lattix::ErrnoException&) {
    return {};
  }
}

bool IsFolder(const std::string& device_path) {
  struct stat status;
  return ::stat(DevicePath(device_path).c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// Whether the mount table has that mount point: the second field of a line. Our folders' names hold
// nothing that the table would escape.
bool IsMountPoint(const std::string& device_path) {
  const std::string table = Content("/proc/mounts");
  const std::string field = " " + device_path + " ";
  for (size_t line = 0; line < table.size();) {
    const size_t end = std::min(table.find('\n', line), table.size());
    const size_t first = table.find(' ', line);
    if (first < end && table.compare(first, field.size(), field) == 0) return true;
    line = end + 1;
  }
  return false;
}

bool IsMounted(const StorageEntry& entry) {
  const std::string folder = FolderOf(entry);
  // The system's own folders are part of the firmware.
  const bool system = entry.Has(kStorageNotPhysical) && !entry.Has(kStorageAutorun);
  return InDeviceRoot() || system ? IsFolder(folder) : IsMountPoint(folder);
}

bool IsScriptName(std::string_view name) {
  for (const std::string_view start :
       {"autorun.", "default-autorun.", "diagnostic.", "autotest."}) {
    if (name.starts_with(start)) return true;
  }
  return false;
}

// The folder of a storage, or the file that tells of its check.
bool IsStorageName(std::string_view name) {
  return std::ranges::any_of(StorageTable(),
                             [name](const StorageEntry& entry) { return entry.directory == name; });
}

}  // namespace

StorageState GetStorageState(const StorageEntry& entry) {
  StorageState state;
  state.mounted = IsMounted(entry);
  const std::string told = Content(fmt::format("{}/{}", kStates, entry.directory));
  state.checking = told.starts_with("checking");
  state.corrupt = told.starts_with("corrupt");
  state.present = state.mounted || state.checking || state.corrupt;
  return state;
}

std::string FirstUsableStorage(bool has_flash) {
  for (const StorageEntry& entry : StorageTable()) {
    if (!entry.Has(kStorageMedium) || (entry.Has(kStorageNeedsFlash) && !has_flash)) continue;
    if (GetStorageState(entry).IsUsable()) return std::string(entry.prefix);
  }
  return {};
}

// --- StorageWatch -----------------------------------------------------------------------------

StorageWatch::StorageWatch()
    : m_epoll(::epoll_create1(EPOLL_CLOEXEC)),
      m_inotify(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
  epoll_event event = {};
  event.events = EPOLLIN;
  if (!m_inotify || ::epoll_ctl(m_epoll.Get(), EPOLL_CTL_ADD, m_inotify.Get(), &event) != 0) {
    Log("Failed to watch the storage folders: {}\n", ErrorText(errno));
  }
  if (!InDeviceRoot()) {
    event.events = EPOLLPRI | EPOLLERR;
    m_mounts.Reset(::open("/proc/mounts", O_RDONLY | O_CLOEXEC));
    if (!m_mounts || ::epoll_ctl(m_epoll.Get(), EPOLL_CTL_ADD, m_mounts.Get(), &event) != 0) {
      Log("Failed to watch the mount table: {}\n", ErrorText(errno));
    }
  }
  // Whoever checks the media may come later than we do, and a folder that is not there cannot be
  // watched.
  ::mkdir(DevicePath(kStates).c_str(), 0755);
  WatchFolders();
}

void StorageWatch::WatchFolder(const std::string& device_path, uint32_t events) {
  // A folder that is not there is noticed by its parent's watch when it comes.
  ::inotify_add_watch(m_inotify.Get(), DevicePath(device_path).c_str(), events | IN_ONLYDIR);
}

void StorageWatch::WatchFolders() {
  constexpr uint32_t kNames = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;
  WatchFolder(kStates, IN_CLOSE_WRITE | IN_DELETE | IN_MOVED_TO);
  if (!InDeviceRoot()) return;
  WatchFolder("/storage", kNames);
  for (const StorageEntry& entry : StorageTable()) {
    WatchFolder(FolderOf(entry), kNames | IN_CLOSE_WRITE);
  }
}

bool StorageWatch::Acknowledge() {
  epoll_event ready[2];
  ::epoll_wait(m_epoll.Get(), ready, 2, 0);
  // The table's event has been consumed: on a device every wake-up may be it.
  bool interesting = !InDeviceRoot();
  alignas(inotify_event) char buffer[4096];
  ssize_t n;
  while ((n = ::read(m_inotify.Get(), buffer, sizeof(buffer))) > 0) {
    for (ssize_t at = 0; at < n;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      const std::string_view name = event->len > 0 ? event->name : "";
      interesting |=
          IsStorageName(name) || IsScriptName(name) || (event->mask & IN_Q_OVERFLOW) != 0;
    }
  }
  WatchFolders();
  return interesting;
}
