// The boot loader tells its version in the device tree that it hands to the kernel; the rescue
// system's is in the tree that its own images lie in.
#include "lib/hardware/boot_versions.h"

#include <exception>

#include "lib/hardware/device_tree.h"
#include "lib/platform/log.h"

namespace {

constexpr char kRescuePartition[] = "/dev/disk/mmc0-partlabel/rescue";
constexpr char kNoVersion[] = "0.0.0";

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
    return device_tree::FlatRootString(kRescuePartition, "version");
  } catch (const std::exception& e) {
    lattix::Log("Unable to read rescue kernel version: {}\n", e.what());
  } catch (...) {
    lattix::Log("Unable to read rescue kernel version: Unknown exception\n");
  }
  return kNoVersion;
}
