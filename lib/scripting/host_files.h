// The file and drive services behind the global functions of scripts (DeleteFile, CopyFile,
// FormatDrive, ...).
//
// Every name is a script's own and goes through the mapper; nothing is touched that does not lie
// beneath the drive the name says. All functions tell success and leave a half-done operation
// undone where that is possible. They may be called from any thread.
#pragma once

#include <string_view>

#include "lib/scripting/filename_mapper.h"

namespace host_files {

// Removes a file (or a link, not what it points to); a folder is refused.
bool DeleteFile(const FilenameMapper& mapper, std::string_view name);
// Removes an empty folder; a drive's root is refused.
bool DeleteDirectory(const FilenameMapper& mapper, std::string_view name);
// Creates one folder whose parent exists; false when there is something of that name already.
bool CreateDirectory(const FilenameMapper& mapper, std::string_view name);

// Copies a regular file, over an existing one if there is one. The copy is written beside its place
// and renamed, so that what was there stays until the new content is complete.
bool CopyFile(const FilenameMapper& mapper, std::string_view from, std::string_view to);
// Renames a file, over an existing one if there is one; between drives it copies, and deletes once
// the copy is on the medium. Folders are refused.
bool MoveFile(const FilenameMapper& mapper, std::string_view from, std::string_view to);

// Inside a device root only; a device's own storage is the storage service's. The drive is named
// without a path ("USB1", "USB1:" or "USB1:/"), and must be a medium that is there.
//
// Formatting empties the drive's folder; the file system's name is only checked for being one of
// "vfat", "fat32", "exfat", "ntfs", "ext3" and "ext4". A drive that is a link to a folder outside
// the root is refused: what it holds is not ours. Ejecting moves the drive's folder to
// "/var/lib/orvex/ejected" in the root, so that putting it back is inserting the medium.
bool FormatDrive(std::string_view drive, std::string_view file_system);
bool EjectDrive(std::string_view drive);

}  // namespace host_files
