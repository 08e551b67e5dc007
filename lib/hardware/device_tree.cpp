// The kernel shows each property as a file with its bytes.
#include "lib/hardware/device_tree.h"

#include <unistd.h>

#include <algorithm>
#include <stdexcept>

#include "lib/platform/device_file.h"
#include "lib/platform/device_path.h"
#include "lib/platform/errno_exception.h"

namespace device_tree {

namespace {

std::string PathOf(const std::string& property) { return "/proc/device-tree/" + property; }

std::optional<std::string> Bytes(const std::string& property) {
  try {
    return lattix::ReadDeviceFile(PathOf(property));
  } catch (const lattix::ErrnoException&) {
    return std::nullopt;
  }
}

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

}  // namespace device_tree
