// Replacing files that matter: a power cut leaves the old content or the new, never half of one.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "lib/platform/unique_fd.h"

namespace lattix {

// Gives the file of this device path the content: written beside it, under the path with ".new" at
// its end, synced, renamed over it, and the folder synced. The new file gets the permissions `mode`
// less the umask; the result is a descriptor of it. Two writers of one file must exclude each
// other.
//
// Blocks; callable from any thread. Throws ErrnoException with the device path; the file is then
// the old one, or, when syncing the folder failed, the new one.
UniqueFd ReplaceDeviceFile(const std::string& device_path, std::string_view content, mode_t mode);

// Makes the names in the folder of this device path as durable as what they name. The same
// failures. A file system that cannot sync folders (EINVAL) counts as synced.
void SyncFolderOf(const std::string& device_path);

}  // namespace lattix
