// The kernel's log: records written to it, read one by one, and read all at once.
//
// On a device it is "/dev/kmsg" and the kernel's ring buffer. In a device root "/dev/kmsg" is a
// plain file, and this class makes it behave as the kernel's: it holds one record a line,
//
//   pri,seq,timestamp,-;text
//
// (priority and facility as syslog counts them, a number that grows by one, microseconds of the
// monotonic clock, the text with its control characters and backslashes as \xNN). A line of another
// form is a record of that text without a header of its own: whoever writes plainly into the file
// is heard. At 1 MiB the older half goes, and readers that had not got to it are told.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace lattix {

// A place in the log to read from, and the way to write. For one thread at a time; any number of
// objects and processes share the log.
class KernelLog {
 public:
  static constexpr char kPath[] = "/dev/kmsg";
  // What ReadAll gives at most.
  static constexpr size_t kMaxAll = 131071;
  // Longer records are cut by the reader.
  static constexpr size_t kMaxRecord = 4096;

  enum class Next {
    kRecord,
    kNone,  // nothing new: this never waits
    kLost,  // records were overwritten before they were read; the next is the oldest there is
  };

  // Opens the log, to be read from the oldest record. Throws ErrnoException with kPath.
  static std::unique_ptr<KernelLog> Open();
  virtual ~KernelLog() = default;

  // Adds a record of this text, to which a newline at its end does not belong; "<N>" at its start
  // gives its priority. Throws ErrnoException; EINVAL for a text that is too long (the kernel takes
  // a little under 1 KiB).
  virtual void Write(std::string_view text) = 0;
  // The next record as "/dev/kmsg" gives it: the header, a semicolon, the text, a newline, and
  // perhaps lines of properties. Throws ErrnoException.
  virtual Next Read(std::string* record) = 0;
  // The newest lines as the kernel's log operation gives them: "<pri>[ssssss.uuuuuu] text", each
  // ended by a newline. Throws ErrnoException.
  virtual std::string ReadAll() = 0;
};

// One record of the file that is the log in a device root. Exposed for tests.
struct KernelLogLine {
  unsigned priority = 12;  // user, warning: what the kernel gives lines that name none
  uint64_t sequence = 0;
  uint64_t microseconds = 0;
  std::string_view text;
  bool has_header = false;

  // Never fails: what is no header belongs to the text. The line has no newline.
  static KernelLogLine Parse(std::string_view line);
};

}  // namespace lattix
