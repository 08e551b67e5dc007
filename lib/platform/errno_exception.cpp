// The exception of a failed system call. The text comes from the reentrant strerror: failures
// happen on several threads at once.
#include "lib/platform/errno_exception.h"

#include <cstring>
#include <utility>

namespace lattix {

std::string ErrorText(int error) {
  char buffer[128];
  return strerror_r(error, buffer, sizeof buffer);
}

ErrnoException::ErrnoException(int error, std::string context)
    : std::runtime_error(ErrorText(error)), m_error(error), m_context(std::move(context)) {}

}  // namespace lattix
