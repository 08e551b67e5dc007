#include "apps/orvex/command_files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <exception>

#include "lib/platform/errno_exception.h"
#include "lib/scripting/filename_mapper.h"

bool MapArgument(const CommandLine& command, std::string_view name, std::string* device_path) {
  try {
    *device_path = FilenameMapper::GetInstance().Map(name);
    return true;
  } catch (const FilenameMapper::BadDriveException&) {
    command.Print("{}: Invalid drive specifier.", name);
  } catch (const std::runtime_error& e) {
    command.Print("{}: {}", name, e.what());
  }
  return false;
}

lattix::UniqueFd OpenArgument(const CommandLine& command, std::string_view name, int flags,
                              mode_t mode) {
  std::string path;
  if (!MapArgument(command, name, &path)) return {};
  lattix::UniqueFd fd = OpenBeneathDrive(path, flags, mode);
  if (!fd) PrintFileError(command, name, errno);
  return fd;
}

// Two names may be one file: by a link, or by letter case. So it is emptied only when it is known.
lattix::UniqueFd CreateBeside(const CommandLine& command, std::string_view name, int source) {
  lattix::UniqueFd fd = OpenArgument(command, name, O_WRONLY | O_CREAT);
  if (!fd) return fd;
  struct stat from = {};
  struct stat to = {};
  if (fstat(source, &from) == 0 && fstat(fd.Get(), &to) == 0 && from.st_dev == to.st_dev &&
      from.st_ino == to.st_ino) {
    command.Print("{}: the same file", name);
    return {};
  }
  if (S_ISREG(to.st_mode) && ftruncate(fd.Get(), 0) != 0) {
    PrintFileError(command, name, errno);
    return {};
  }
  return fd;
}

void WriteAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = write(fd, bytes.data(), bytes.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw lattix::ErrnoException(errno);
    bytes.remove_prefix(static_cast<size_t>(n));
  }
}

void PrintFileError(const CommandLine& command, std::string_view name, int error) {
  command.Print("{}: {}", name, lattix::ErrorText(error));
}

std::string Printable(std::string_view name) {
  std::string text(name);
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < ' ' || c == 0x7F) c = '?';
  }
  return text;
}
