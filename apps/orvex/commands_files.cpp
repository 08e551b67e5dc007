// Files and storages, by the drive-style names that scripts use. Nothing is reached that does not
// lie beneath the drive of its name, whatever links a medium holds.
#include "apps/orvex/commands_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string>

#include "apps/orvex/command_files.h"
#include "apps/orvex/interruptible_output.h"
#include "lib/platform/errno_exception.h"
#include "lib/scripting/filename_mapper.h"
#include "lib/scripting/host_files.h"

namespace commands {

namespace {

// How much of a listing is written at once.
constexpr size_t kListingPiece = 4096;
// Of nested folders, each of which holds a descriptor while it is emptied.
constexpr int kMaxDepth = 256;

constexpr const char* kBootFiles[] = {"boot.png", "boot.bmp", "autorun.plm"};

struct CloseFolder {
  void operator()(DIR* folder) const { closedir(folder); }
};
using Folder = std::unique_ptr<DIR, CloseFolder>;

bool IsDotName(const char* name) {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

// Removes what the folder has by that name, with all that is in it; links are removed, not
// followed. Throws lattix::ErrnoException.
void RemoveTree(int parent, const char* name, const InterruptibleOutput& output, int depth) {
  output.Check();
  if (unlinkat(parent, name, 0) == 0) return;
  if (errno != EISDIR) throw lattix::ErrnoException(errno, name);
  if (depth > kMaxDepth) throw lattix::ErrnoException(ELOOP, name);
  const int fd = openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) throw lattix::ErrnoException(errno, name);
  Folder folder(fdopendir(fd));
  if (folder == nullptr) {
    close(fd);
    throw lattix::ErrnoException(ENOMEM, name);
  }
  errno = 0;
  while (const dirent* entry = readdir(folder.get())) {
    if (!IsDotName(entry->d_name)) RemoveTree(fd, entry->d_name, output, depth + 1);
    errno = 0;
  }
  if (errno != 0) throw lattix::ErrnoException(errno, name);
  folder.reset();
  if (unlinkat(parent, name, AT_REMOVEDIR) != 0) throw lattix::ErrnoException(errno, name);
}

bool IsBootFile(std::string_view name) {
  return std::find(std::begin(kBootFiles), std::end(kBootFiles), name) != std::end(kBootFiles);
}

std::string BootFileList() {
  std::string list;
  for (const char* name : kBootFiles) list += std::string("\n  ") + name;
  return list;
}

int Tell(const CommandLine& command, bool success, const char* good, const char* bad) {
  command.Print("{}", success ? good : bad);
  return success ? 0 : 1;
}

}  // namespace

// In the order of the folder, as it is read: a folder of any size begins to show at once.
int Dir(const CommandLine& command) {
  if (command.argument_count() != 1) return command.Usage();
  const InterruptibleOutput output(command.shell);
  const std::string_view name = command.argument(1);
  lattix::UniqueFd fd = OpenArgument(command, name, O_RDONLY | O_DIRECTORY);
  if (!fd) return 1;
  const Folder folder(fdopendir(fd.Get()));
  if (folder == nullptr) {
    PrintFileError(command, name, errno);
    return 1;
  }
  fd.Release();  // the stream has it
  std::string lines;
  errno = 0;
  while (const dirent* entry = readdir(folder.get())) {
    if (!IsDotName(entry->d_name)) {
      lines += Printable(entry->d_name);
      lines += entry->d_type == DT_DIR ? "/\n" : "\n";
    }
    if (lines.size() >= kListingPiece) {
      output.Check();
      command.shell.Write(lines.data(), lines.size());
      lines.clear();
    }
    errno = 0;
  }
  const int error = errno;
  command.shell.Write(lines.data(), lines.size());
  if (error != 0) PrintFileError(command, name, error);
  return error != 0;
}

int ChangeDirectory(const CommandLine& command) {
  FilenameMapper& mapper = FilenameMapper::GetInstance();
  if (command.argument_count() == 0) {
    command.Print("{}", mapper.GetCurrentDirectory().ToString());
    return 0;
  }
  if (command.argument_count() > 1) {
    command.Print("Usage: {} [<path or directory>]", command.name());
    return 1;
  }
  const std::string folder = std::string(command.argument(1)) + "/";
  std::string path;
  if (!mapper.TryMap(folder, &path) || !OpenBeneathDrive(path, O_PATH | O_DIRECTORY, 0)) {
    command.Print("{}: no such directory", command.argument(1));
    return 1;
  }
  mapper.SetCurrentDirectory(folder);
  return 0;
}

int Delete(const CommandLine& command) {
  if (command.argument_count() == 0) return command.Usage();
  const InterruptibleOutput output(command.shell);
  int result = 0;
  for (size_t i = 1; i <= command.argument_count(); ++i) {
    const std::string_view name = command.argument(i);
    std::string path;
    if (!MapArgument(command, name, &path)) {
      result = 1;
      continue;
    }
    const DriveEntry entry = OpenDriveEntry(path);
    try {
      if (!entry.folder) throw lattix::ErrnoException(errno, path);
      if (entry.name.empty()) throw lattix::ErrnoException(EBUSY, path);  // a drive's root
      RemoveTree(entry.folder.Get(), entry.name.c_str(), output, 0);
    } catch (const lattix::ErrnoException& e) {
      command.Print("{}: {}", name, e.what());
      result = 1;
    }
  }
  return result;
}

int WriteBootFile(const CommandLine& command) {
  if (command.argument_count() != 2) {
    command.Print("Usage: {} <source-filename> <destination-filename>", command.name());
    return 1;
  }
  const std::string_view destination = command.argument(2);
  if (!IsBootFile(destination)) {
    command.Print("Supported destination filenames are:{}", BootFileList());
    return 1;
  }
  const bool written = host_files::CopyFile(FilenameMapper::GetInstance(), command.argument(1),
                                            "BOOT:/" + std::string(destination));
  if (!written) command.Print("{}: cannot be written", destination);
  return written ? 0 : 1;
}

int EraseBootFile(const CommandLine& command) {
  if (command.argument_count() != 1) {
    command.Print("Usage: {} <filename>", command.name());
    return 1;
  }
  const std::string_view name = command.argument(1);
  if (!IsBootFile(name)) {
    command.Print("Supported filenames are:{}", BootFileList());
    return 1;
  }
  const bool erased =
      host_files::DeleteFile(FilenameMapper::GetInstance(), "BOOT:/" + std::string(name));
  if (!erased) command.Print("{}: cannot be erased", name);
  return erased ? 0 : 1;
}

int Format(const CommandLine& command) {
  const size_t count = command.argument_count();
  const std::string_view file_system = count == 2 ? command.argument(2) : "vfat";
  if (count < 1 || count > 2 ||
      (file_system != "vfat" && file_system != "ext3" && file_system != "ext4")) {
    return command.Usage();
  }
  const std::string_view drive = command.argument(1);
  if (drive.find(':') == std::string_view::npos) {
    command.Print("Drive name '{}' must contain colon (e.g., 'ssd:')", drive);
    return 1;
  }
  return Tell(command, host_files::FormatDrive(drive, file_system), "Format successful",
              "Format failed");
}

int Eject(const CommandLine& command) {
  if (command.argument_count() != 1) return command.Usage();
  return Tell(command, host_files::EjectDrive(command.argument(1)), "Ejected", "Eject failed");
}

}  // namespace commands
