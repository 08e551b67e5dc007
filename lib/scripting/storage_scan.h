// Which storages are there, and when that changes.
#pragma once

#include <string>

#include "lib/platform/unique_fd.h"
#include "lib/scripting/storage_table.h"

struct StorageState {
  bool present = false;   // the medium is inserted
  bool mounted = false;   // its files can be reached below "/storage/"
  bool corrupt = false;   // the check of its file system has failed
  bool checking = false;  // that check is running

  bool IsUsable() const { return mounted && !corrupt && !checking; }
};

// The state of a storage at this moment. On a device a medium is mounted when "/proc/mounts" has
// its folder; in a device root, and for what is no medium, when the folder is there. A medium's
// check is told by the service that mounts it: a file "/var/run/storage/usb1" (the storage's
// folder) that holds "checking", or "corrupt". Callable from any thread.
StorageState GetStorageState(const StorageEntry& entry);

// The folder, "USB1:/", of the first medium in the table's order that is usable; empty when there
// is none. has_flash: the hardware has the storage FLASH. Callable from any thread.
std::string FirstUsableStorage(bool has_flash);

// A descriptor that becomes readable when a storage may have come or gone, or its check ended. In a
// device root also when a script of a presentation is put on a storage, as whole folders are copied
// there. For one thread. When the kernel refuses a part of it, that is logged and not watched.
class StorageWatch {
 public:
  StorageWatch();

  int GetFd() const { return m_epoll.Get(); }
  // Takes what has made the descriptor readable, and watches what is there now: whoever looks at
  // the storages after it misses nothing. False when nothing of interest has happened.
  bool Acknowledge();

 private:
  void WatchFolders();
  void WatchFolder(const std::string& device_path, uint32_t events);

  lattix::UniqueFd m_epoll;
  lattix::UniqueFd m_mounts;   // a device's mount table
  lattix::UniqueFd m_inotify;  // folders
};
