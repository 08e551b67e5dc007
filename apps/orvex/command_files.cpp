#include "apps/orvex/command_files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <exception>

#include "lib/platform/errno_exception.h"
#include "lib/scripting/filename_mapper.h"

namespace {

// The length of the UTF-8 character (RFC 3629) that the text begins with; 0 when it begins with
// something else, or with a control character: those above 0x7F control terminals too.
size_t VisibleCharacter(std::string_view text) {
  const auto first = static_cast<unsigned char>(text.front());
  if (first < 0x80) return first >= ' ' && first != 0x7F ? 1 : 0;
  const size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first < 0xC2 || first > 0xF4 || text.size() < length) return 0;
  uint32_t character = first & (0x7Fu >> length);
  for (const char c : text.substr(1, length - 1)) {
    if ((static_cast<unsigned char>(c) & 0xC0) != 0x80) return 0;
    character = character << 6 | (static_cast<unsigned char>(c) & 0x3F);
  }
  constexpr uint32_t kLeast[] = {0, 0, 0xA0, 0x800, 0x10000};
  const bool valid = character >= kLeast[length] && character <= 0x10FFFF &&
                     (character < 0xD800 || character > 0xDFFF);
  return valid ? length : 0;
}

}  // namespace

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
  std::string text;
  while (!name.empty()) {
    const size_t length = VisibleCharacter(name);
    text += length > 0 ? name.substr(0, length) : "?";
    name.remove_prefix(std::max<size_t>(length, 1));
  }
  return text;
}
