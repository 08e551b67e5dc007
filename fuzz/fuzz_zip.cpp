// Zip archives: whatever the bytes, extracting ends in files below the target or in the archive's
// own exception, and in the latter case nothing is left there.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "lib/platform/unique_fd.h"
#include "lib/platform/zip_archive/zip_archive.h"

namespace {

namespace fs = std::filesystem;

// A folder of this process's own, in memory where the machine has such a place, and gone with it.
struct Target {
  Target() {
    std::string folder =
        (fs::is_directory("/dev/shm") ? fs::path("/dev/shm") : fs::temp_directory_path()) /
        "orvex-fuzz-zip-XXXXXX";
    if (!::mkdtemp(folder.data())) std::abort();
    path = folder;
    fs::create_directory(path / "in");
  }
  ~Target() { fs::remove_all(path); }
  fs::path path;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const Target target;
  lattix::UniqueFd file(::memfd_create("archive", MFD_CLOEXEC));
  if (!file || ::write(file.Get(), data, size) != static_cast<ssize_t>(size)) std::abort();
  const fs::path in = target.path / "in";
  const lattix::UniqueFd folder(::open(in.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  try {
    ZipArchive archive(std::move(file));
    if (archive.IsEncrypted()) archive.SetPassphrase("fuzz");
    archive.Extract(folder.Get(),
                    {.max_total = 1 << 20, .max_entries = 64, .ratio_matters = 1 << 16}, {});
    for (const fs::directory_entry& entry : fs::directory_iterator(in)) fs::remove_all(entry);
  } catch (const ZipArchive::Error&) {
    if (!fs::is_empty(in)) std::abort();
  }
  for (const fs::directory_entry& entry : fs::directory_iterator(target.path)) {
    if (entry.path() != in) std::abort();
  }
  return 0;
}
