// A flattened device tree (Devicetree Specification, chapter 5) is big-endian words: a header that
// says where the structure and the strings begin, then, in the structure, a token, its name and its
// properties. The images in a rescue partition are properties of its nodes, so it is read piece by
// piece, and no further than the root's own properties, which come first.
#include "lib/hardware/boot_versions.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <stdexcept>

#include "lib/hardware/device_tree.h"
#include "lib/platform/device_file.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/log.h"

namespace {

constexpr char kRescuePartition[] = "/dev/disk/mmc0-partlabel/rescue";
constexpr char kNoVersion[] = "0.0.0";

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
        return Text(at + 12, std::min(size, kMaxVersion));
      }
      at += 12 + (uint64_t{size} + 3) / 4 * 4;
    }
    throw std::runtime_error("No version");
  }

 private:
  static constexpr uint32_t kMagic = 0xd00dfeed;
  static constexpr uint32_t kBeginNode = 1;
  static constexpr uint32_t kProperty = 3;
  static constexpr uint32_t kNop = 4;
  static constexpr int kMaxProperties = 256;
  static constexpr uint32_t kMaxVersion = 256;

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

  std::string m_path;
  lattix::UniqueFd m_fd;
};

}  // namespace

std::string ReadBootVersion() {
  std::string version = device_tree::String("orvex/boot-version");
  if (!version.empty()) return version;
  lattix::Log("Empty boot version from boot loader. Bad.\n");
  return kNoVersion;
}

std::string ReadBootExtraVersion() { return device_tree::String("orvex/boot-extra-version"); }

std::string ReadRescueVersion() {
  try {
    return FlatTree(kRescuePartition).RootProperty("version");
  } catch (const std::exception& e) {
    lattix::Log("Unable to read rescue kernel version: {}\n", e.what());
  } catch (...) {
    lattix::Log("Unable to read rescue kernel version: Unknown exception\n");
  }
  return kNoVersion;
}
