// The kernel shows each property as a file with its bytes.
//
// A flattened tree (DTB, version 17) is big-endian words: a header that says where the structure
// and the strings begin, then, in the structure, a token, a node's name and its properties. It may
// have whole images as properties of its nodes, so it is read piece by piece, and no further than
// the root's own properties, which come first.
#include "lib/hardware/device_tree.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

#include "lib/platform/device_file.h"
#include "lib/platform/device_path.h"
#include "lib/platform/errno_exception.h"

namespace device_tree {

namespace {

// A property is a few words or names. One beyond this is none: as names, zeros alone would take
// many times their size of memory.
constexpr size_t kMaxProperty = 64 * 1024;

std::string PathOf(const std::string& property) { return "/proc/device-tree/" + property; }

std::optional<std::string> Bytes(const std::string& property) {
  try {
    std::string bytes = lattix::ReadDeviceFile(PathOf(property));
    if (bytes.size() > kMaxProperty) return std::nullopt;
    return bytes;
  } catch (const lattix::ErrnoException&) {
    return std::nullopt;
  }
}

class FlatTree {
 public:
  explicit FlatTree(const std::string& device_path)
      : m_path(device_path), m_fd(lattix::OpenDevice(device_path, O_RDONLY)) {}

  std::string RootProperty(std::string_view name) const {
    if (Word(0) != kMagic) throw std::runtime_error("No device tree");
    uint64_t at = Word(8);
    const uint64_t strings = Word(12);
    if (Word(at) != kBeginNode) throw std::runtime_error("No root node");
    at += 8;  // the token, and the root's name, which is empty
    for (int i = 0; i < kMaxProperties; i++) {
      const uint32_t token = Word(at);
      if (token == kNop) {
        at += 4;
        continue;
      }
      if (token != kProperty) break;
      const uint32_t size = Word(at + 4);
      if (Text(strings + Word(at + 8), name.size() + 1) == name) {
        return Text(at + 12, std::min(size, kMaxString));
      }
      at += 12 + (uint64_t{size} + 3) / 4 * 4;
    }
    throw std::runtime_error(fmt::format("No {} in the root node", name));
  }

 private:
  static constexpr uint32_t kMagic = 0xd00dfeed;
  static constexpr uint32_t kBeginNode = 1;
  static constexpr uint32_t kProperty = 3;
  static constexpr uint32_t kNop = 4;
  static constexpr int kMaxProperties = 256;
  static constexpr uint32_t kMaxString = 256;

  std::string Bytes(uint64_t at, size_t size) const {
    std::string bytes(size, '\0');
    ssize_t n;
    do {
      n = ::pread(m_fd.Get(), bytes.data(), size, static_cast<off_t>(at));
    } while (n < 0 && errno == EINTR);
    if (n < 0) throw lattix::ErrnoException(errno, m_path);
    bytes.resize(static_cast<size_t>(n));
    return bytes;
  }
  uint32_t Word(uint64_t at) const {
    const std::string bytes = Bytes(at, 4);
    if (bytes.size() != 4) throw std::runtime_error("Unexpected end");
    uint32_t word = 0;
    for (const char byte : bytes) word = word << 8 | static_cast<uint8_t>(byte);
    return word;
  }
  // Up to a NUL.
  std::string Text(uint64_t at, size_t size) const {
    std::string bytes = Bytes(at, size);
    return bytes.substr(0, bytes.find('\0'));
  }

  const std::string m_path;
  lattix::UniqueFd m_fd;
};

}  // namespace

std::vector<std::string> Strings(const std::string& property) {
  const std::string bytes = Bytes(property).value_or(std::string());
  std::vector<std::string> strings;
  for (size_t at = 0; at < bytes.size();) {
    const size_t end = std::min(bytes.find('\0', at), bytes.size());
    strings.push_back(bytes.substr(at, end - at));
    at = end + 1;
  }
  return strings;
}

std::string String(const std::string& property) {
  std::vector<std::string> strings = Strings(property);
  return strings.empty() ? std::string() : std::move(strings.front());
}

std::optional<uint32_t> Cell(const std::string& property) {
  const std::optional<std::string> bytes = Bytes(property);
  if (!bytes || bytes->size() != 4) return std::nullopt;
  uint32_t value = 0;
  for (const char byte : *bytes) value = value << 8 | static_cast<uint8_t>(byte);
  return value;
}

uint32_t RequireCell(const std::string& property) {
  const std::optional<uint32_t> value = Cell(property);
  if (!value) throw std::runtime_error("device tree property not found");
  return *value;
}

bool Flag(const std::string& property) {
  return ::access(lattix::DevicePath(PathOf(property)).c_str(), F_OK) == 0;
}

std::string FlatRootString(const std::string& device_path, std::string_view property) {
  return FlatTree(device_path).RootProperty(property);
}

}  // namespace device_tree
