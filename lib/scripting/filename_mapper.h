// Drive-style file names and the device paths they stand for.
//
// A script names a file "SD:/media/clip.mp4": a drive, a colon, a path with forward slashes. A
// FilenameCracker takes such a name apart, the FilenameMapper turns it into a device path
// ("/storage/sd/media/clip.mp4") and opens what lies there without leaving the drive.
//
// Device paths are what messages print and what scripts see; the device root (device_path.h) is put
// in front of them only where the file system is touched. Mapping is purely textual apart from one
// question to the file system: whether the drive is there at all.
//
// The mapper may be used from any thread. Its current directory is meant to change between script
// runs only; a change during one is safe but decides names that are mapped later.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <mutex>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

#include "lib/platform/singleton.h"
#include "lib/platform/unique_fd.h"

// One drive name: where its files lie below the storage folder, and what it is.
struct Drive {
  std::string_view name;       // upper case, without the colon
  std::string_view directory;  // below "/storage/"
  bool medium;                 // a physical storage that can be formatted and ejected
};
// Every drive name there is.
std::span<const Drive> KnownDrives();
// The drive with that upper-case name, or null.
const Drive* FindDrive(std::string_view name);

// A name taken apart. The directory is empty, exactly "/", or does not end in '/'.
class FilenameCracker {
 public:
  FilenameCracker() = default;

  // Any text cracks: what comes before the first ':' is the drive (upper-cased), what follows the
  // last '/' is the filename, the rest the directory.
  static FilenameCracker Crack(std::string_view name);
  // The same for a name that means a directory, with or without a '/' at its end: no filename.
  static FilenameCracker CrackDirectory(std::string_view name);

  const std::string& GetDrive() const { return m_drive; }
  const std::string& GetDirectory() const;
  const std::string& GetFilename() const { return m_filename; }
  // The name rebuilt: drive, ':', directory, a '/' where one is needed, filename.
  std::string ToString() const;

 private:
  std::string m_drive;
  std::string m_directory;
  std::string m_filename;
};

// The longest device path that a name may map to; one byte less than the kernel's PATH_MAX with its
// NUL. A longer one does not map.
constexpr size_t kMaxDevicePath = 4095;

class FilenameMapper : public lattix::Singleton<FilenameMapper> {
 public:
  class BadDriveException : public std::runtime_error {
   public:
    BadDriveException() : std::runtime_error("Bad drive") {}
  };
  class NotFileSchemeException : public std::runtime_error {
   public:
    NotFileSchemeException() : std::runtime_error("Not file scheme") {}
  };
  class BadNameException : public std::runtime_error {
   public:
    BadNameException() : std::runtime_error("Bad file name") {}
  };

  // The current directory is "SYS:/".
  FilenameMapper();

  // The device path of a name or of a "file://" URL. "." and empty components go, ".." takes the
  // component before it along; the path has no '/' at its end. Throws BadDriveException for a drive
  // that does not exist or is not there, NotFileSchemeException for another scheme's URL, and
  // BadNameException for a name that climbs above its drive's root, holds a NUL or is too long.
  std::string Map(std::string_view name) const;
  // The same without exceptions; false when the name does not map.
  bool TryMap(std::string_view name, std::string* device_path) const;

  FilenameCracker GetCurrentDirectory() const;
  // Relative names are resolved against the current directory that was. Kept without "." and "..";
  // a name of no drive's, or one that climbs above its drive's root, changes nothing.
  void SetCurrentDirectory(std::string_view name);

  // The drive of the current directory with its colon ("SD:"). Setting it makes the root of the
  // drive the current directory; a name that is no drive's changes nothing.
  std::string GetDefaultDrive() const;
  void SetDefaultDrive(std::string_view drive);

 private:
  enum class Result { kMapped, kBadDrive, kNotFileScheme, kBadName };
  Result MapName(std::string_view name, std::string* device_path) const;

  mutable std::mutex m_lock;
  FilenameCracker m_current;  // guarded by m_lock
};

// --- Opening device paths below a drive -------------------------------------------------------
//
// These take device paths as Map gives them and resolve them beneath their drive's root: a symbolic
// link on the medium, or a component swapped for one between two steps, cannot lead off the drive
// (errno EXDEV or ELOOP). The drive's root itself may be a link; the device decides where its
// storages are. A device path that lies on no drive is ENOENT.

// A plain file as a descriptor, close-on-exec; invalid with errno set on failure. What else there
// may be on a medium is refused, for a FIFO or a device could hold up whoever opens, reads or
// writes it: a folder with EISDIR, unless flags hold O_DIRECTORY or O_PATH, the rest with ENXIO or
// EINVAL.
lattix::UniqueFd OpenBeneathDrive(const std::string& device_path, int flags, mode_t mode);

// The folder that holds the last component of a path, for the calls that name an entry.
struct DriveEntry {
  lattix::UniqueFd folder;  // O_PATH; invalid with errno set when the folder cannot be reached
  std::string name;         // empty: the path is a drive's root
};
DriveEntry OpenDriveEntry(const std::string& device_path);

// Makes the names in an entry's folder as durable as what they name; false with errno set. A file
// system that cannot sync folders counts as synced.
bool SyncFolder(const DriveEntry& entry);
