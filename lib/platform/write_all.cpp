// One write(2) after the other, until nothing is left.
#include "lib/platform/write_all.h"

#include <unistd.h>

#include <cerrno>
#include <cstddef>

namespace lattix {

bool WriteAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0 && errno == EINTR) continue;
    if (n == 0) errno = EIO;  // a device that takes nothing would be asked for ever
    if (n <= 0) return false;
    bytes.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

}  // namespace lattix
