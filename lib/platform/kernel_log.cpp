// The device's log needs little: one descriptor, and the kernel keeps the place.
//
// The file of a device root is shared by readers and writers that know nothing of each other. Its
// rules:
// 1. Writers hold a lock on the file while they look at its end and append, one write a record.
// 2. A file that has grown too large is replaced by one with its newer half, so an open file only
//    ever grows, unless somebody else truncates it.
// 3. A reader keeps an offset into the file it has open. When that file is used up and is no longer
//    the one at the path, it goes on there, behind the sequence number it has read last.
// 4. Only lines that are complete are read.
#include "lib/platform/kernel_log.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/klog.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <utility>

#include "lib/platform/device_file.h"
#include "lib/platform/device_path.h"
#include "lib/platform/durable_file.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/monotonic_time.h"

namespace lattix {

namespace {

constexpr unsigned kUserFacility = 1 << 3;

void WriteOnce(int fd, std::string_view bytes) {
  ssize_t n;
  do {
    n = ::write(fd, bytes.data(), bytes.size());
  } while (n < 0 && errno == EINTR);
  if (n < 0) throw ErrnoException(errno, KernelLog::kPath);
  if (static_cast<size_t>(n) != bytes.size()) throw ErrnoException(EIO, KernelLog::kPath);
}

// --- The kernel's -----------------------------------------------------------------------------

class DeviceKernelLog final : public KernelLog {
 public:
  void Write(std::string_view text) override { WriteOnce(m_fd.Get(), text); }

  Next Read(std::string* record) override {
    pollfd waiting = {m_fd.Get(), POLLIN, 0};
    int ready;
    do {
      ready = ::poll(&waiting, 1, 0);
    } while (ready < 0 && errno == EINTR);
    if (ready < 0) throw ErrnoException(errno, kPath);
    if (ready == 0) return Next::kNone;
    record->resize(kMaxRecord);
    ssize_t n;
    do {
      n = ::read(m_fd.Get(), record->data(), record->size());
    } while (n < 0 && errno == EINTR);
    const int error = errno;
    record->resize(n > 0 ? static_cast<size_t>(n) : 0);
    if (n == 0) return Next::kNone;
    if (n > 0) return Next::kRecord;
    if (error == EPIPE) return Next::kLost;
    throw ErrnoException(error, kPath);
  }

  std::string ReadAll() override {
    constexpr int kReadAll = 3;
    std::string text(kMaxAll, '\0');
    const int n = ::klogctl(kReadAll, text.data(), static_cast<int>(text.size()));
    if (n < 0) throw ErrnoException(errno, kPath);
    text.resize(static_cast<size_t>(n));
    return text;
  }

 private:
  UniqueFd m_fd = OpenDevice(kPath, O_RDWR);
};

// --- A device root's --------------------------------------------------------------------------

constexpr size_t kMaxFile = 1 << 20;
// The kernel's own limit of a line that is written to it.
constexpr size_t kMaxText = 992;
// Far beyond what a record takes; somebody else's file may have no newline at all.
constexpr size_t kMaxLine = 64 * 1024;

bool SameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

size_t SizeOf(int fd) {
  struct stat status;
  if (::fstat(fd, &status) != 0) throw ErrnoException(errno, KernelLog::kPath);
  return static_cast<size_t>(status.st_size);
}

// Up to so many bytes from there.
std::string ReadAt(int fd, size_t offset, size_t size) {
  std::string bytes(size, '\0');
  size_t got = 0;
  while (got < size) {
    const ssize_t n = ::pread(fd, bytes.data() + got, size - got, static_cast<off_t>(offset + got));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw ErrnoException(errno, KernelLog::kPath);
    if (n == 0) break;
    got += static_cast<size_t>(n);
  }
  bytes.resize(got);
  return bytes;
}

// The end of the file, from the start of a line on. A line that is longer than this counts from
// where the bytes begin.
std::string ReadTail(int fd, size_t size) {
  const size_t end = SizeOf(fd);
  std::string bytes = ReadAt(fd, end > size ? end - size : 0, size);
  // Without a newline this is npos + 1, which erases nothing.
  if (end > size) bytes.erase(0, bytes.find('\n') + 1);
  return bytes;
}

// Calls back with every complete line.
template <class Callback>
void ForEachLine(std::string_view text, Callback callback) {
  for (size_t end; (end = text.find('\n')) != text.npos; text.remove_prefix(end + 1)) {
    callback(KernelLogLine::Parse(text.substr(0, end)));
  }
}

uint64_t LastSequence(std::string_view text) {
  uint64_t last = 0;
  ForEachLine(text, [&](const KernelLogLine& line) {
    if (line.has_header) last = std::max(last, line.sequence);
  });
  return last;
}

// What the kernel makes of the bytes of a text for those who read records, and the way back.
std::string Escape(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    const auto byte = static_cast<uint8_t>(c);
    if (byte < ' ' || byte >= 127 || c == '\\') {
      fmt::format_to(std::back_inserter(escaped), "\\x{:02x}", byte);
    } else {
      escaped += c;
    }
  }
  return escaped;
}
std::string Unescape(std::string_view text) {
  std::string plain;
  while (!text.empty()) {
    uint8_t byte = 0;
    const bool escape =
        text.size() >= 4 && text.starts_with("\\x") &&
        std::from_chars(text.data() + 2, text.data() + 4, byte, 16).ptr == text.data() + 4;
    plain += escape ? static_cast<char>(byte) : text.front();
    text.remove_prefix(escape ? 4 : 1);
  }
  return plain;
}

// Takes "<N>" off the text.
unsigned TakePriority(std::string_view* text) {
  unsigned priority = KernelLogLine().priority;
  if (!text->starts_with('<')) return priority;
  const char* end = text->data() + text->size();
  const auto read = std::from_chars(text->data() + 1, end, priority);
  if (read.ec != std::errc() || read.ptr == end || *read.ptr != '>')
    return KernelLogLine().priority;
  text->remove_prefix(static_cast<size_t>(read.ptr + 1 - text->data()));
  // Only the kernel speaks as the kernel.
  return priority < kUserFacility ? priority | kUserFacility : priority;
}

class FileKernelLog final : public KernelLog {
 public:
  void Write(std::string_view text) override {
    if (text.size() > kMaxText) throw ErrnoException(EINVAL, kPath);
    const UniqueFd fd = OpenLocked();
    if (SizeOf(fd.Get()) <= kMaxFile) {
      WriteOnce(fd.Get(), RecordOf(text, ReadTail(fd.Get(), kMaxLine)));
    } else {
      const std::string kept = ReadTail(fd.Get(), kMaxFile / 2);
      ReplaceDeviceFile(kPath, kept + RecordOf(text, kept), 0644);
    }
  }

  Next Read(std::string* record) override;

  std::string ReadAll() override {
    const UniqueFd fd = OpenDevice(kPath, O_RDONLY);
    std::string all;
    ForEachLine(ReadTail(fd.Get(), kMaxAll), [&](const KernelLogLine& line) {
      fmt::format_to(std::back_inserter(all), "<{}>[{:5}.{:06}] {}\n", line.priority,
                     line.microseconds / 1'000'000, line.microseconds % 1'000'000,
                     line.has_header ? Unescape(line.text) : std::string(line.text));
    });
    // A line without a header has become longer.
    if (all.size() > kMaxAll) all.erase(0, all.find('\n', all.size() - kMaxAll - 1) + 1);
    return all;
  }

 private:
  // The file at the path, to append to, with nobody else doing so.
  static UniqueFd OpenLocked();
  // The text as the next record behind these lines.
  static std::string RecordOf(std::string_view text, std::string_view lines);
  bool FollowFile();
  void FindPlace();

  UniqueFd m_fd = OpenDevice(kPath, O_RDWR);
  size_t m_offset = 0;
  uint64_t m_last = 0;  // the sequence number read last; 0: none
  bool m_lost = false;  // still to be told
};

UniqueFd FileKernelLog::OpenLocked() {
  for (;;) {
    UniqueFd fd = OpenDevice(kPath, O_RDWR | O_APPEND);
    int locked;
    do {
      locked = ::flock(fd.Get(), LOCK_EX);
    } while (locked != 0 && errno == EINTR);
    if (locked != 0) throw ErrnoException(errno, kPath);
    struct stat mine, current;
    if (::fstat(fd.Get(), &mine) != 0) throw ErrnoException(errno, kPath);
    if (::stat(DevicePath(kPath).c_str(), &current) == 0 && SameFile(mine, current)) return fd;
  }
}

std::string FileKernelLog::RecordOf(std::string_view text, std::string_view lines) {
  if (text.ends_with('\n')) text.remove_suffix(1);
  // Somebody's last line may lack its end.
  const char* separator = lines.empty() || lines.ends_with('\n') ? "" : "\n";
  const unsigned priority = TakePriority(&text);
  return fmt::format("{}{},{},{},-;{}\n", separator, priority, LastSequence(lines) + 1,
                     get_monotonic_time() / 1000, Escape(text));
}

// Whether there is another file, or a truncated one, to go on with.
bool FileKernelLog::FollowFile() {
  struct stat mine, current;
  if (::fstat(m_fd.Get(), &mine) != 0) throw ErrnoException(errno, kPath);
  if (::stat(DevicePath(kPath).c_str(), &current) == 0 && !SameFile(mine, current)) {
    m_fd = OpenDevice(kPath, O_RDWR);
    FindPlace();
    return true;
  }
  if (static_cast<size_t>(mine.st_size) >= m_offset) return false;
  m_offset = 0;
  m_last = 0;
  return true;
}

// Goes behind the record read last. In a file that lacks it, to the start: records have been lost
// if the file goes on with later ones, otherwise it is another log.
void FileKernelLog::FindPlace() {
  const std::string content = ReadAt(m_fd.Get(), 0, 2 * kMaxFile);
  uint64_t first = 0;
  m_offset = 0;
  ForEachLine(content, [&](const KernelLogLine& line) {
    if (!line.has_header) return;
    if (first == 0) first = line.sequence;
    if (line.sequence == m_last) {
      m_offset = static_cast<size_t>(line.text.data() + line.text.size() - content.data()) + 1;
    }
  });
  if (m_offset != 0) return;
  m_lost = m_last != 0 && first > m_last + 1;
  m_last = 0;
}

KernelLog::Next FileKernelLog::Read(std::string* record) {
  for (;;) {
    if (std::exchange(m_lost, false)) return Next::kLost;
    std::string bytes = ReadAt(m_fd.Get(), m_offset, kMaxRecord);
    if (bytes.find('\n') == bytes.npos) bytes = ReadAt(m_fd.Get(), m_offset, kMaxLine);
    const size_t end = bytes.find('\n');
    if (end == bytes.npos) {
      if (bytes.size() == kMaxLine) {
        m_offset += kMaxLine;
      } else if (!FollowFile()) {
        return Next::kNone;
      }
      continue;
    }
    m_offset += end + 1;
    const auto line = KernelLogLine::Parse(std::string_view(bytes).substr(0, end));
    if (line.has_header) m_last = line.sequence;
    *record = fmt::format("{},{},{},-;{}\n", line.priority, line.sequence, line.microseconds,
                          line.has_header ? std::string(line.text) : Escape(line.text));
    if (record->size() > kMaxRecord) record->replace(kMaxRecord - 1, record->npos, "\n");
    return Next::kRecord;
  }
}

// Reads a number and the character behind it off the text.
template <class Number>
bool TakeField(std::string_view* text, char delimiter, Number* number) {
  const char* end = text->data() + text->size();
  const auto read = std::from_chars(text->data(), end, *number);
  if (read.ec != std::errc() || read.ptr == end || *read.ptr != delimiter) return false;
  text->remove_prefix(static_cast<size_t>(read.ptr + 1 - text->data()));
  return true;
}

}  // namespace

KernelLogLine KernelLogLine::Parse(std::string_view line) {
  KernelLogLine parsed;
  std::string_view rest = line;
  unsigned priority;
  // Flags, and fields that later kernels add, stand between the time and the semicolon.
  if (TakeField(&rest, ',', &priority) && TakeField(&rest, ',', &parsed.sequence) &&
      TakeField(&rest, ',', &parsed.microseconds) && rest.find(';') != rest.npos) {
    parsed.priority = priority;
    parsed.text = rest.substr(rest.find(';') + 1);
    parsed.has_header = true;
    return parsed;
  }
  parsed = {};
  parsed.text = line;
  return parsed;
}

std::unique_ptr<KernelLog> KernelLog::Open() {
  if (InDeviceRoot()) return std::make_unique<FileKernelLog>();
  return std::make_unique<DeviceKernelLog>();
}

}  // namespace lattix
