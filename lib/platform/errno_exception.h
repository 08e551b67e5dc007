// The exception of a failed system call.
#pragma once

#include <stdexcept>
#include <string>

namespace lattix {

// The system's text for an error number, as strerror(3) gives it. Callable from any thread.
std::string ErrorText(int error);

// Carries the error number and what it concerns: a path (a device path without the device root's
// prefix, an address) or the name of the call that failed. what() is the system's error text alone,
// which is what messages and failure reasons show.
class ErrnoException : public std::runtime_error {
 public:
  explicit ErrnoException(int error, std::string context = {});

  int error() const { return m_error; }
  // Empty when nothing was given.
  const std::string& context() const { return m_context; }

 private:
  int m_error;
  std::string m_context;
};

}  // namespace lattix
