// The mapper gives the device path, the kernel opens it beneath its drive, and the C library
// buffers. Nothing here works with a native path, so no link on a medium leads anywhere.
#include "lib/scripting/osal_file.h"

#include <fcntl.h>

#include <cerrno>
#include <string>

#include "lib/platform/errno_exception.h"
#include "lib/platform/log.h"
#include "lib/scripting/filename_mapper.h"

namespace {

constexpr mode_t kFileMode = 0666;

int FlagsOf(std::string_view mode) {
  const bool both = mode.find('+') != std::string_view::npos;
  switch (mode.front()) {
    case 'w': return (both ? O_RDWR : O_WRONLY) | O_CREAT | O_TRUNC;
    case 'a': return (both ? O_RDWR : O_WRONLY) | O_CREAT | O_APPEND;
    default: return both ? O_RDWR : O_RDONLY;
  }
}

}  // namespace

FileStream osalFileOpen(std::string_view name, const char* mode) {
  std::string path;
  if (!FilenameMapper::GetInstance().TryMap(name, &path)) {
    lattix::Log("Failed to map filename\n");
    errno = ENOENT;
    return nullptr;
  }
  const int flags = FlagsOf(mode);
  lattix::UniqueFd fd = OpenBeneathDrive(path, flags, kFileMode);
  if (!fd) return nullptr;
  FileStream stream(::fdopen(fd.Get(), mode));
  if (stream == nullptr) return nullptr;
  static_cast<void>(fd.Release());  // the stream's
  if ((flags & O_ACCMODE) != O_RDONLY && !SyncFolder(OpenDriveEntry(path))) {
    lattix::Log("Failed to sync parent directory in osalFileOpen: {}\n", lattix::ErrorText(errno));
  }
  return stream;
}
