#include "apps/orvex/command_files.h"

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
