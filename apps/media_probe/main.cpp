// orvex-media-probe probe|analyze FILE: tells on standard output what a media file is.
//
// The player starts it for one file and reads its answer (media_probe.h there). It is a program of
// its own because what it reads comes from anywhere and is taken apart by a large library: a fault
// in there costs an answer instead of the presentation, the library's memory is not the player's,
// and the process gives up what it may do as soon as the file is open.
#include <fcntl.h>
#include <grp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string_view>

#include "apps/media_probe/media_file.h"

namespace {

constexpr int kUsage = 64;
constexpr unsigned kNobody = 65534;
// Far more than a container's tables need, far less than a device has.
constexpr rlim_t kMemory = rlim_t{1} << 30;

bool GiveUpPrivileges() {
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  const rlimit memory{kMemory, kMemory};
  if (::setrlimit(RLIMIT_AS, &memory) != 0) return false;
#endif
  if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return false;
  if (::geteuid() != 0) return true;
  return ::setgroups(0, nullptr) == 0 && ::setgid(kNobody) == 0 && ::setuid(kNobody) == 0;
}

int Answer(MediaReport::Outcome outcome, std::string_view text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
  return std::fflush(stdout) == 0 ? outcome : MediaReport::kFailed;
}

int Run(std::string_view job, const char* file) {
  const int fd = ::open(file, O_RDONLY | O_CLOEXEC);
  if (fd < 0 || !GiveUpPrivileges()) return Answer(MediaReport::kFailed, std::strerror(errno));
  const MediaReport report = job == "probe" ? ProbeMediaFile(fd) : AnalyzeMediaFile(fd);
  return Answer(report.outcome, report.text);
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view job = argc == 3 ? argv[1] : "";
  if (job != "probe" && job != "analyze") {
    std::fputs("usage: orvex-media-probe probe|analyze FILE\n", stderr);
    return kUsage;
  }
  try {
    return Run(job, argv[2]);
  } catch (const std::exception& e) {
    return Answer(MediaReport::kFailed, e.what());
  }
}
