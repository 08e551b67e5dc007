// Tests that wear a storage to find out whether it keeps what it is given. Both write a pattern in
// which every word depends on its place and on the file, so a block that was lost, swapped or taken
// from an older file shows. Both end with Ctrl-C, and remove what they have written however they
// end.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <new>
#include <random>
#include <string>

#include "apps/orvex/command_files.h"
#include "apps/orvex/command_numbers.h"
#include "apps/orvex/commands_mfg.h"
#include "apps/orvex/interruptible_output.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/unique_fd.h"
#include "lib/scripting/filename_mapper.h"

namespace commands {

namespace {

// Also what O_DIRECT wants everywhere: whole pages at page boundaries.
constexpr size_t kAlignment = 4096;
constexpr size_t kBlock = size_t{1} << 20;
constexpr uint32_t kDefaultMegabytes = 64;
constexpr uint32_t kMaxMegabytes = 65536;
constexpr size_t kDisturbFiles = 16;
constexpr size_t kDisturbMaxBlocks = 4;

class Block {
 public:
  Block() : m_bytes(static_cast<uint64_t*>(std::aligned_alloc(kAlignment, kBlock)), std::free) {
    if (m_bytes == nullptr) throw std::bad_alloc();
  }
  char* bytes() const { return reinterpret_cast<char*>(m_bytes.get()); }
  // The pattern of a file at a multiple of the block's size.
  void Fill(uint64_t seed, uint64_t number) const {
    constexpr size_t kWords = kBlock / sizeof(uint64_t);
    for (size_t i = 0; i < kWords; ++i) {
      // SplitMix64: every input gives another word.
      uint64_t x = seed + (number * kWords + i + 1) * 0x9E3779B97F4A7C15;
      x = (x ^ x >> 30) * 0xBF58476D1CE4E5B9;
      x = (x ^ x >> 27) * 0x94D049BB133111EB;
      m_bytes.get()[i] = x ^ x >> 31;
    }
  }

 private:
  std::unique_ptr<uint64_t, decltype(&std::free)> m_bytes;
};

// Writes so many blocks, in the sizes that the generator likes, and syncs.
void WriteFile(int fd, uint64_t seed, size_t blocks, const Block& block,
               const InterruptibleOutput& output) {
  for (size_t number = 0; number < blocks; ++number) {
    block.Fill(seed, number);
    for (size_t done = 0; done < kBlock;) {
      output.Check();
      const ssize_t n = write(fd, block.bytes() + done, kBlock - done);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) throw lattix::ErrnoException(errno);
      done += static_cast<size_t>(n);
    }
  }
  if (fsync(fd) != 0 && errno != EINVAL) throw lattix::ErrnoException(errno);
}

constexpr int64_t kGood = -1;

// Where the file differs from what was written; kGood when it does not. Read from the medium as far
// as the file system lets the cache be dropped.
int64_t VerifyFile(int fd, uint64_t seed, size_t blocks, const Block& wanted, const Block& found,
                   const InterruptibleOutput& output) {
  posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
  for (size_t number = 0; number < blocks; ++number) {
    wanted.Fill(seed, number);
    size_t size = 0;
    while (size < kBlock) {
      output.Check();
      const ssize_t n = read(fd, found.bytes() + size, kBlock - size);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) throw lattix::ErrnoException(errno);
      if (n == 0) break;
      size += static_cast<size_t>(n);
    }
    const char* const begin = wanted.bytes();
    const char* const differs = std::mismatch(begin, begin + size, found.bytes()).first;
    if (differs != begin + kBlock) {
      return static_cast<int64_t>(number * kBlock) + (differs - begin);
    }
  }
  return kGood;
}

bool ReadCount(std::string_view text, uint32_t max, uint32_t* number) {
  const auto given = ParseNumber(text, max, 10);
  *number = static_cast<uint32_t>(given.value_or(0));
  return *number > 0;
}

// A folder of our own in a folder of the storage, with files that are numbered.
class TestFolder {
 public:
  explicit TestFolder(int parent) : m_parent(parent), m_name(fmt::format("disturb-{}", getpid())) {
    if (mkdirat(m_parent, m_name.c_str(), 0700) != 0) throw lattix::ErrnoException(errno);
    m_fd.Reset(openat(m_parent, m_name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!m_fd) {
      const int error = errno;
      unlinkat(m_parent, m_name.c_str(), AT_REMOVEDIR);
      throw lattix::ErrnoException(error);
    }
  }
  ~TestFolder() {
    for (size_t i = 0; i < kDisturbFiles; ++i) {
      unlinkat(m_fd.Get(), Name(i).c_str(), 0);
      unlinkat(m_fd.Get(), NewName(i).c_str(), 0);
    }
    unlinkat(m_parent, m_name.c_str(), AT_REMOVEDIR);
  }
  TestFolder(const TestFolder&) = delete;
  TestFolder& operator=(const TestFolder&) = delete;

  static std::string Name(size_t i) { return fmt::format("{}", i); }
  static std::string NewName(size_t i) { return fmt::format("{}.new", i); }

  // Writes a file beside its place and puts it there, over what was.
  void Replace(size_t i, uint64_t seed, size_t blocks, const Block& block,
               const InterruptibleOutput& output) const {
    {
      const lattix::UniqueFd fd(openat(m_fd.Get(), NewName(i).c_str(),
                                       O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC,
                                       0600));
      if (!fd) throw lattix::ErrnoException(errno);
      WriteFile(fd.Get(), seed, blocks, block, output);
    }
    if (renameat(m_fd.Get(), NewName(i).c_str(), m_fd.Get(), Name(i).c_str()) != 0) {
      throw lattix::ErrnoException(errno);
    }
  }
  lattix::UniqueFd Open(size_t i) const {
    lattix::UniqueFd fd(openat(m_fd.Get(), Name(i).c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd) throw lattix::ErrnoException(errno);
    return fd;
  }
  void Remove(size_t i) const { unlinkat(m_fd.Get(), Name(i).c_str(), 0); }

 private:
  const int m_parent;
  const std::string m_name;
  lattix::UniqueFd m_fd;
};

// Takes a new file away again.
struct RemoveAtEnd {
  const DriveEntry& entry;
  ~RemoveAtEnd() { unlinkat(entry.folder.Get(), entry.name.c_str(), 0); }
};

struct TestFile {
  uint64_t seed = 0;
  size_t blocks = 0;  // 0: not there
};

int DisturbFolder(const CommandLine& command, int parent, uint32_t passes,
                  const InterruptibleOutput& output) {
  std::mt19937_64 random(std::random_device{}());
  const Block wanted, found;
  const TestFolder folder(parent);
  std::array<TestFile, kDisturbFiles> files;
  for (uint32_t pass = 1; passes == 0 || pass <= passes; ++pass) {
    size_t written = 0, verified = 0;
    // Half of the files change, so that those which stay lie among what is written and freed.
    for (size_t i = 0; i < kDisturbFiles; ++i) {
      if (files[i].blocks > 0 && random() % 2 == 0) continue;
      if (files[i].blocks > 0 && random() % 4 == 0) {
        folder.Remove(i);
        files[i] = {};
        continue;
      }
      files[i] = {random(), 1 + random() % kDisturbMaxBlocks};
      folder.Replace(i, files[i].seed, files[i].blocks, wanted, output);
      written += files[i].blocks;
    }
    for (size_t i = 0; i < kDisturbFiles; ++i) {
      if (files[i].blocks == 0) continue;
      const lattix::UniqueFd fd = folder.Open(i);
      const int64_t at =
          VerifyFile(fd.Get(), files[i].seed, files[i].blocks, wanted, found, output);
      if (at != kGood) {
        command.Print("Pass {}: file {} differs at offset {}", pass, i, at);
        return 1;
      }
      verified += files[i].blocks;
    }
    command.Print("Pass {}: {} MiB written, {} MiB verified", pass, written, verified);
    command.shell.Flush();
  }
  return 0;
}

// Whether the file is good.
bool TellVerified(const CommandLine& command, uint32_t loop, bool direct, uint32_t megabytes,
                  int64_t differs_at) {
  const char* const way = direct ? "O_DIRECT" : "non-O_DIRECT";
  if (differs_at == kGood) {
    command.Print("Loop {}: {} read of {} MiB is good", loop, way, megabytes);
  } else {
    command.Print("Loop {}: {} read differs at offset {}", loop, way, differs_at);
  }
  return differs_at == kGood;
}

}  // namespace

int Disturb(const CommandLine& command) {
  const size_t count = command.argument_count();
  uint32_t passes = 0;  // until Ctrl-C
  if (count < 1 || count > 2 ||
      (count == 2 && !ReadCount(command.argument(2), UINT32_MAX, &passes))) {
    command.Print("Usage: {} directory [loop_count]", command.name());
    return 1;
  }
  const InterruptibleOutput output(command.shell);
  const lattix::UniqueFd parent =
      OpenArgument(command, command.argument(1), O_RDONLY | O_DIRECTORY);
  if (!parent) return 1;
  try {
    return DisturbFolder(command, parent.Get(), passes, output);
  } catch (const lattix::ErrnoException& e) {
    PrintFileError(command, command.argument(1), e.error());
    return 1;
  }
}

int FileVerify(const CommandLine& command) {
  const size_t count = command.argument_count();
  const std::string_view name = command.argument(1);
  uint32_t megabytes = kDefaultMegabytes;
  uint32_t loops = 1;
  if (count < 1 || count > 3 ||
      (count > 1 && !ReadCount(command.argument(2), kMaxMegabytes, &megabytes)) ||
      (count > 2 && !ReadCount(command.argument(3), UINT32_MAX, &loops))) {
    command.Print("Usage: {} test_filename [read_size in MBytes] [loop_count]", command.name());
    return 1;
  }
  const InterruptibleOutput output(command.shell);
  std::string path;
  if (!MapArgument(command, name, &path)) return 1;
  const DriveEntry entry = OpenDriveEntry(path);
  // Never over a file that is there.
  lattix::UniqueFd file = OpenBeneathDrive(path, O_WRONLY | O_CREAT | O_EXCL, 0600);
  if (!file) {
    PrintFileError(command, name, errno);
    return 1;
  }
  const RemoveAtEnd remove{entry};
  try {
    const uint64_t seed = std::mt19937_64(std::random_device{}())();
    const Block wanted, found;
    WriteFile(file.Get(), seed, megabytes, wanted, output);
    file.Reset();
    for (uint32_t loop = 1; loop <= loops; ++loop) {
      for (const bool direct : {true, false}) {
        const lattix::UniqueFd fd = OpenBeneathDrive(path, O_RDONLY | (direct ? O_DIRECT : 0), 0);
        if (!fd && direct && errno == EINVAL) {
          command.Print("Loop {}: O_DIRECT is not supported here", loop);
          continue;
        }
        if (!fd) throw lattix::ErrnoException(errno);
        const int64_t at = VerifyFile(fd.Get(), seed, megabytes, wanted, found, output);
        if (!TellVerified(command, loop, direct, megabytes, at)) return 1;
      }
      command.shell.Flush();
    }
  } catch (const lattix::ErrnoException& e) {
    PrintFileError(command, name, e.error());
    return 1;
  }
  return 0;
}

}  // namespace commands
