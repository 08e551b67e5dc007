// The device root is one string, fixed at first use: a later change of the current directory or of
// the environment must not move a running player to another set of files.
#include "lib/platform/device_path.h"

#include <cstdlib>
#include <filesystem>
#include <mutex>

namespace lattix {

namespace {

constexpr char kVariable[] = "ORVEX_ROOT";

std::string Normalise(const char* root) {
  if (root == nullptr || *root == '\0') return {};
  std::string path = std::filesystem::absolute(root).lexically_normal().string();
  while (!path.empty() && path.back() == '/') path.pop_back();
  return path;
}

std::string (*g_make)() = nullptr;

std::string FirstRoot() {
  const char* given = std::getenv(kVariable);
  const bool none = given == nullptr || *given == '\0';
  if (!none || g_make == nullptr) return Normalise(given);
  std::string path = Normalise(g_make().c_str());
  if (!path.empty()) ::setenv(kVariable, path.c_str(), 1);
  return path;
}

struct Root {
  std::mutex mutex;
  std::string path = FirstRoot();
};

Root& TheRoot() {
  static Root root;
  return root;
}

}  // namespace

std::string DeviceRoot() {
  Root& root = TheRoot();
  std::lock_guard lock(root.mutex);
  return root.path;
}

bool InDeviceRoot() { return !DeviceRoot().empty(); }

bool MayUseSystemBus() {
  const char* named = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
  return !InDeviceRoot() || (named != nullptr && *named != '\0');
}

std::string DevicePath(std::string_view device_path) {
  if (device_path.empty() || device_path.front() != '/') return std::string(device_path);
  return DeviceRoot().append(device_path);
}

void SetDeviceRootMaker(std::string (*make)()) { g_make = make; }

void SetDeviceRoot(const std::string& root) {
  Root& current = TheRoot();
  std::lock_guard lock(current.mutex);
  current.path = Normalise(root.c_str());
  if (current.path.empty()) {
    ::unsetenv(kVariable);
  } else {
    ::setenv(kVariable, current.path.c_str(), 1);
  }
}

}  // namespace lattix
