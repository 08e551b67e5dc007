// Opening, reading and writing the device's small system files by their device paths.
//
// All functions go through DevicePath, block, may be called from any thread, and report a failure
// as ErrnoException with the device path as its context.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "lib/platform/unique_fd.h"

namespace lattix {

// open(2) with O_CLOEXEC added.
UniqueFd OpenDevice(const std::string& device_path, int flags, mode_t mode = 0666);

// The whole content, at most 16 MiB (EFBIG beyond: a system file of that size is a mistake, and
// must not take the player's memory).
std::string ReadDeviceFile(const std::string& device_path);

// Creates or truncates the file (permission 0666, less the umask), writes everything and syncs it.
// What cannot be synced (EINVAL: a device or kernel file; EROFS) counts as written.
void WriteDeviceFile(const std::string& device_path, std::string_view content);

}  // namespace lattix
