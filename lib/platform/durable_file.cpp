// Syncing the new file before the rename makes its content durable before its name, syncing the
// folder after it makes the name durable before anybody is told.
#include "lib/platform/durable_file.h"

#include <fcntl.h>
#include <stdio.h>

#include <cerrno>

#include "lib/platform/device_path.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/write_all.h"

namespace lattix {

UniqueFd ReplaceDeviceFile(const std::string& device_path, std::string_view content, mode_t mode) {
  const std::string path = DevicePath(device_path);
  const std::string beside = path + ".new";
  // What an earlier writer left when it was killed may have other permissions, or be no file.
  ::unlink(beside.c_str());
  UniqueFd fd(::open(beside.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, mode));
  if (!fd) throw ErrnoException(errno, device_path);
  try {
    if (!WriteAll(fd.Get(), content) || ::fsync(fd.Get()) != 0 ||
        ::rename(beside.c_str(), path.c_str()) != 0) {
      throw ErrnoException(errno, device_path);
    }
  } catch (...) {
    ::unlink(beside.c_str());
    throw;
  }
  SyncFolderOf(device_path);
  return fd;
}

void SyncFolderOf(const std::string& device_path) {
  const std::string path = DevicePath(device_path);
  const std::string folder = path.substr(0, path.rfind('/') + 1);
  const UniqueFd fd(
      ::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd || (::fsync(fd.Get()) != 0 && errno != EINVAL)) {
    throw ErrnoException(errno, device_path);
  }
}

}  // namespace lattix
