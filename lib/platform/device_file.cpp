// Small files, whole: kernel files tell no size in advance, so reading goes on until the end.
#include "lib/platform/device_file.h"

#include <fcntl.h>

#include <cerrno>

#include "lib/platform/device_path.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/write_all.h"

namespace lattix {

namespace {

constexpr size_t kMaxFileSize = 16u << 20;

}  // namespace

UniqueFd OpenDevice(const std::string& device_path, int flags, mode_t mode) {
  UniqueFd fd(::open(DevicePath(device_path).c_str(), flags | O_CLOEXEC, mode));
  if (!fd) throw ErrnoException(errno, device_path);
  return fd;
}

std::string ReadDeviceFile(const std::string& device_path) {
  const UniqueFd fd = OpenDevice(device_path, O_RDONLY);
  std::string content;
  char buffer[4096];
  for (;;) {
    const ssize_t n = ::read(fd.Get(), buffer, sizeof buffer);
    if (n == 0) return content;
    if (n < 0) {
      if (errno == EINTR) continue;
      throw ErrnoException(errno, device_path);
    }
    if (content.size() + static_cast<size_t>(n) > kMaxFileSize) {
      throw ErrnoException(EFBIG, device_path);
    }
    content.append(buffer, static_cast<size_t>(n));
  }
}

void WriteDeviceFile(const std::string& device_path, std::string_view content) {
  UniqueFd fd = OpenDevice(device_path, O_WRONLY | O_CREAT | O_TRUNC);
  if (!WriteAll(fd.Get(), content)) throw ErrnoException(errno, device_path);
  if (::fsync(fd.Get()) != 0 && errno != EINVAL && errno != EROFS) {
    throw ErrnoException(errno, device_path);
  }
  // Some file systems report a failed write only now.
  if (::close(fd.Release()) != 0) throw ErrnoException(errno, device_path);
}

}  // namespace lattix
