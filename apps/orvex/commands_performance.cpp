// How fast a storage reads and writes: the medium, not the memory in front of it. Reading drops the
// file from the page cache first, writing counts until the medium has everything. Ctrl-C ends a
// measurement.
#include "apps/orvex/commands_performance.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "apps/orvex/command_files.h"
#include "apps/orvex/command_numbers.h"
#include "apps/orvex/interruptible_output.h"
#include "lib/platform/condition_variable.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/monotonic_time.h"

namespace commands {

namespace {

// Large enough that the medium and not the system call is measured.
constexpr size_t kBlock = size_t{1} << 20;
constexpr int64_t kTestFile = int64_t{64} << 20;

// Keeps writing to a rate.
class Pace {
 public:
  explicit Pace(int64_t bytes_per_second) : m_rate(bytes_per_second) {}
  // Waits until so many bytes in all are due; no rate: never.
  void Wait(int64_t bytes) {
    if (m_rate <= 0) return;
    const double seconds = static_cast<double>(bytes) / static_cast<double>(m_rate);
    std::unique_lock lock(m_mutex);
    m_never.wait_until(lock, m_start + static_cast<int64_t>(seconds * 1e9), [] { return false; });
  }

 private:
  const int64_t m_rate;
  const int64_t m_start = lattix::get_monotonic_time();
  std::mutex m_mutex;
  lattix::condition_variable m_never;
};

// What was read or written, and how long it took.
struct Measurement {
  int64_t bytes = 0;
  int64_t nanoseconds = 0;
};

Measurement ReadAll(int fd, const InterruptibleOutput& output) {
  posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
  const auto block = std::make_unique_for_overwrite<char[]>(kBlock);
  const int64_t start = lattix::get_monotonic_time();
  Measurement result;
  for (;;) {
    output.Check();
    const ssize_t n = read(fd, block.get(), kBlock);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw lattix::ErrnoException(errno);
    if (n == 0) break;
    result.bytes += n;
  }
  result.nanoseconds = lattix::get_monotonic_time() - start;
  return result;
}

Measurement WriteTest(int fd, int64_t bytes, int64_t bytes_per_second,
                      const InterruptibleOutput& output) {
  const auto block = std::make_unique<char[]>(kBlock);
  // No medium or file system can store this in less room.
  uint64_t state = 88172645463325252;
  for (size_t i = 0; i + sizeof state <= kBlock; i += sizeof state) {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    std::copy_n(reinterpret_cast<const char*>(&state), sizeof state, block.get() + i);
  }
  const size_t piece =
      bytes_per_second > 0
          ? static_cast<size_t>(std::clamp<int64_t>(bytes_per_second / 10, 4096, kBlock))
          : kBlock;
  const int64_t start = lattix::get_monotonic_time();
  Pace pace(bytes_per_second);
  Measurement result;
  while (result.bytes < bytes) {
    output.Check();
    const size_t wanted = std::min(piece, static_cast<size_t>(bytes - result.bytes));
    const ssize_t n = write(fd, block.get(), wanted);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw lattix::ErrnoException(errno);
    result.bytes += n;
    pace.Wait(result.bytes);
  }
  if (fdatasync(fd) != 0 && errno != EINVAL) throw lattix::ErrnoException(errno);
  result.nanoseconds = lattix::get_monotonic_time() - start;
  return result;
}

// Prints the result, or why there is none.
int Report(const CommandLine& command, std::string_view verb, std::string_view name,
           const std::function<Measurement()>& measure) {
  try {
    const Measurement result = measure();
    command.Print("{} file '{}' at {}", verb, name, TransferRate(result.bytes, result.nanoseconds));
    return 0;
  } catch (const lattix::ErrnoException& e) {
    command.Print("{}: {}", name, e.what());
    return 1;
  }
}

}  // namespace

std::string TransferRate(int64_t bytes, int64_t nanoseconds) {
  const double per_second =
      static_cast<double>(bytes) * 1e9 / static_cast<double>(std::max<int64_t>(nanoseconds, 1));
  return per_second < 1e6 ? fmt::format("{:.1f} kB/s", per_second / 1e3)
                          : fmt::format("{:.1f} MB/s", per_second / 1e6);
}

int ReadPerf(const CommandLine& command) {
  if (command.argument_count() != 1) return command.Usage();
  const InterruptibleOutput output(command.shell);
  const std::string_view name = command.argument(1);
  const lattix::UniqueFd fd = OpenArgument(command, name, O_RDONLY);
  if (!fd) return 1;
  return Report(command, "Read", name, [&] { return ReadAll(fd.Get(), output); });
}

int WritePerf(const CommandLine& command) {
  if (command.argument_count() != 1) return command.Usage();
  const InterruptibleOutput output(command.shell);
  const std::string_view name = command.argument(1);
  const lattix::UniqueFd fd = OpenArgument(command, name, O_WRONLY | O_CREAT | O_TRUNC);
  if (!fd) return 1;
  return Report(command, "Wrote", name, [&] { return WriteTest(fd.Get(), kTestFile, 0, output); });
}

// As much is written as is read.
int ReadWritePerf(const CommandLine& command) {
  const size_t count = command.argument_count();
  const auto kilobytes =
      count == 3 ? ParseNumber(command.argument(3), UINT32_MAX, 10) : std::optional<uint64_t>(0);
  if (count < 2 || count > 3 || !kilobytes) return command.Usage();
  const InterruptibleOutput output(command.shell);
  const std::string_view from = command.argument(1);
  const std::string_view to = command.argument(2);
  const lattix::UniqueFd in = OpenArgument(command, from, O_RDONLY);
  if (!in) return 1;
  struct stat source = {};
  fstat(in.Get(), &source);
  const lattix::UniqueFd out = CreateBeside(command, to, in.Get());
  if (!out) return 1;

  // Ctrl-C ends both. However the writing ends, the future waits for the reading.
  std::future<int> reading = std::async(std::launch::async, [&] {
    return Report(command, "Read", from, [&] { return ReadAll(in.Get(), output); });
  });
  const int written = Report(command, "Wrote", to, [&] {
    return WriteTest(out.Get(), source.st_size, static_cast<int64_t>(*kilobytes) * 1000, output);
  });
  return reading.get() | written;
}

}  // namespace commands
