// The zip layer refuses what is hostile; here is only what makes an archive a presentation.
#include "lib/scripting/autorun_archive.h"

#include <fcntl.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>

#include "lib/hardware/device_secrets.h"
#include "lib/platform/device_file.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/log.h"
#include "lib/platform/registry_client.h"
#include "lib/platform/zip_archive/zip_archive.h"

using lattix::Log;
using lattix::UniqueFd;

namespace {

constexpr char kTarget[] = "/storage/tmp";
// Of the target's free space, what a presentation may not take: the device's own temporary files
// live there, and where it is memory, so does everything.
constexpr uint64_t kReservedPart = 8;

uint64_t RoomIn(int folder) {
  struct statvfs status;
  if (::fstatvfs(folder, &status) != 0) throw lattix::ErrnoException(errno, kTarget);
  const uint64_t free = uint64_t{status.f_bavail} * status.f_frsize;
  return free - free / kReservedPart;
}

std::string Passphrase() {
  const std::string obfuscated = Registry::Setting("security", "autozipkey");
  if (obfuscated.empty())
    throw ZipArchive::Error("it is encrypted and the device has no key for it");
  if (!DeviceSecrets::Exists()) throw DeviceSecrets::Error("this program has no device keys");
  return DeviceSecrets::GetInstance().Reveal(obfuscated);
}

std::string Extract(const FilenameMapper& mapper, const std::string& name,
                    const std::stop_token& stop) {
  UniqueFd file = OpenBeneathDrive(mapper.Map(name), O_RDONLY, 0);
  if (!file) throw lattix::ErrnoException(errno, name);
  ZipArchive archive(std::move(file));
  if (archive.IsEncrypted()) archive.SetPassphrase(Passphrase());

  const UniqueFd target = lattix::OpenDevice(kTarget, O_RDONLY | O_DIRECTORY);
  const std::vector<std::string> files =
      archive.Extract(target.Get(), ZipArchive::Limits{.max_total = RoomIn(target.Get())}, stop);

  Log("Looking for autozip.plm within zip file\n");
  for (const char* script : {"autozip.plm", "autozip.bas"}) {
    if (std::find(files.begin(), files.end(), script) == files.end()) continue;
    Log("Found {} inside autorun.zip\n", script);
    return std::string("tmp:/") + script;
  }
  throw ZipArchive::Error("there is neither autozip.plm nor autozip.bas at its top");
}

}  // namespace

AutorunArchive ExtractAutorunArchive(const FilenameMapper& mapper, const std::string& name,
                                     std::stop_token stop) {
  AutorunArchive result;
  Log("Extracting autorun.zip.\n");
  try {
    result.script = Extract(mapper, name, stop);
  } catch (const std::exception& error) {
    result.error = "Failed to extract '" + name + "': " + error.what();
  }
  return result;
}
