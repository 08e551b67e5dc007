// A file descriptor with one owner.
#pragma once

#include <unistd.h>

#include <utility>

namespace lattix {

// Closes its descriptor when it goes; -1 is "none". Not for use by several threads at once.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : m_fd(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : m_fd(other.Release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    Reset(other.Release());
    return *this;
  }
  ~UniqueFd() { Reset(); }

  int Get() const { return m_fd; }
  explicit operator bool() const { return m_fd >= 0; }
  // Gives the descriptor up; the caller closes it.
  int Release() { return std::exchange(m_fd, -1); }
  void Reset(int fd = -1) {
    const int old = std::exchange(m_fd, fd);
    if (old >= 0) ::close(old);
  }

 private:
  int m_fd = -1;
};

}  // namespace lattix
