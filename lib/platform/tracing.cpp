// One buffer under one mutex, written when it is full and at the end. The array is closed at the
// end, but the format allows an open one: a trace of a killed process can be read as well.
#include "lib/platform/tracing.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <iterator>
#include <mutex>
#include <string>

#include "lib/platform/device_file.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/log.h"
#include "lib/platform/monotonic_time.h"
#include "lib/platform/registry_client.h"
#include "lib/platform/write_all.h"

namespace tracing {

namespace {

constexpr size_t kBlock = 64 * 1024;
constexpr size_t kLargestTrace = 256 * 1024 * 1024;

constexpr const char* kCategoryNames[] = {"startup", "script", "network", "media"};

std::mutex g_mutex;
// All guarded by g_mutex.
lattix::UniqueFd g_file;
std::string g_buffer;
size_t g_written = 0;

std::string TraceFile() {
  const char* given = std::getenv("ORVEX_TRACE");
  return given != nullptr && *given != '\0' ? given : Registry::Setting("tracing", "file");
}

// With the mutex held.
void WriteBuffer() {
  if (!lattix::WriteAll(g_file.Get(), g_buffer)) {
    lattix::Log("Tracing ends: {}\n", lattix::ErrorText(errno));
    g_enabled = false;
  }
  g_written += g_buffer.size();
  g_buffer.clear();
  if (g_written >= kLargestTrace) g_enabled = false;
}

void Add(Category category, const char* name, char phase, int64_t begin, int64_t duration) {
  const int64_t thread = ::syscall(SYS_gettid);
  std::lock_guard lock(g_mutex);
  if (!IsEnabled()) return;
  fmt::format_to(std::back_inserter(g_buffer),
                 "{}{{\"ph\":\"{}\",\"cat\":\"{}\",\"name\":\"{}\",\"pid\":{},\"tid\":{},"
                 "\"ts\":{}.{:03}",
                 g_buffer.empty() && g_written == 0 ? "[\n" : ",\n", phase,
                 kCategoryNames[static_cast<int>(category)], name, ::getpid(), thread, begin / 1000,
                 begin % 1000);
  if (phase == 'X') {
    fmt::format_to(std::back_inserter(g_buffer), ",\"dur\":{}.{:03}", duration / 1000,
                   duration % 1000);
  }
  g_buffer += '}';
  if (g_buffer.size() >= kBlock) WriteBuffer();
}

}  // namespace

void Start() {
  const std::string file = TraceFile();
  if (file.empty()) return;
  std::lock_guard lock(g_mutex);
  try {
    g_file = lattix::OpenDevice(file, O_WRONLY | O_CREAT | O_TRUNC);
    g_written = 0;
    g_enabled = true;
    lattix::Log("Tracing to {}\n", file);
  } catch (const lattix::ErrnoException& e) {
    lattix::Log("Cannot trace to {}: {}\n", file, e.what());
  }
}

void Stop() {
  std::lock_guard lock(g_mutex);
  if (!g_file) return;
  if (IsEnabled()) {
    g_buffer += g_buffer.empty() && g_written == 0 ? "[]\n" : "\n]\n";
    WriteBuffer();
  }
  g_enabled = false;
  g_file.Reset();
}

int64_t Now() { return lattix::get_monotonic_time(); }

void Instant(Category category, const char* name) {
  if (IsEnabled()) Add(category, name, 'i', Now(), 0);
}

void Complete(Category category, const char* name, int64_t begin) {
  if (IsEnabled()) Add(category, name, 'X', begin, Now() - begin);
}

}  // namespace tracing
