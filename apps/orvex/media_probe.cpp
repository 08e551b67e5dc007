// The program opens the file anew through the player's descriptor, so that it reads the very file
// that was found beneath its drive. It is in a process group of its own: Ctrl-C comes to the
// player, which ends it.
#include "apps/orvex/media_probe.h"

#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>

#include "apps/orvex/interrupt_wait.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/spawn_process.h"

namespace {

constexpr char kProgram[] = "orvex-media-probe";
// A report is a few lines a stream; what a hostile file makes of it is cut off here.
constexpr size_t kMaxReport = 1 << 20;
// A medium that is failing holds even a killed program for as long as its driver tries again. One
// that is still there after this long is an assertion.
constexpr std::chrono::seconds kPatience{60};

// Everything the program writes; false when that is more than the limit.
bool ReadAll(int fd, const InterruptWait& wait, std::string* text) {
  char buffer[4096];
  for (;;) {
    pollfd readable = {fd, POLLIN, 0};
    wait.Poll({&readable, 1}, INT64_MAX);
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw lattix::ErrnoException(errno);
    if (n == 0) return true;
    text->append(buffer, static_cast<size_t>(n));
    if (text->size() > kMaxReport) return false;
  }
}

MediaProbe Ask(const char* job, int fd) {
  MediaProbe probe;
  const InterruptWait wait;
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe");
  SpawnProcess program(self.parent_path() / kProgram,
                       {job, fmt::format("/proc/{}/fd/{}", ::getpid(), fd)});
  program.Execute(SpawnProcess::kPipeStdout | SpawnProcess::kNullStdin | SpawnProcess::kNullStderr |
                  SpawnProcess::kNewProcessGroup | SpawnProcess::kEndWithParent);
  try {
    if (!ReadAll(program.GetStdout(), wait, &probe.text)) {
      program.KillAndWait(SIGTERM, kPatience);
      probe.text = "The report is too long";
      return probe;
    }
  } catch (...) {
    program.KillAndWait(SIGTERM, kPatience);
    throw;
  }
  try {
    switch (program.Wait()) {
      case 0: probe.outcome = MediaProbe::Outcome::kRecognised; break;
      case 1: probe.outcome = MediaProbe::Outcome::kUnknown; break;
      default: break;
    }
  } catch (const SpawnProcess::ChildWasKilledBySignal& e) {
    probe.text = e.what();
  }
  return probe;
}

}  // namespace

MediaProbe ProbeMedia(int fd) { return Ask("probe", fd); }

MediaProbe AnalyzeMedia(int fd) { return Ask("analyze", fd); }
