// The fast exit runs beside everything else, so it takes no lock that another thread could hold
// while it is blocked. That goes for its messages too.
#include "apps/orvex/pid_file_writer.h"

#include <fmt/format.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "apps/orvex/audio_lines.h"
#include "apps/orvex/exit_status.h"
#include "lib/javascript/html_renderer_launcher.h"
#include "lib/platform/device_path.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/firmware_version.h"
#include "lib/platform/log.h"
#include "lib/scripting/script_bootstrap.h"

using lattix::Log;
using lattix::LogUnlessBlocked;

namespace {

constexpr char kPidFile[] = "/var/run/orvex.pid";

// The text for a pid file that stays, empty when it is gone.
std::string RemovePidFile() {
  if (::unlink(lattix::DevicePath(kPidFile).c_str()) == 0) return {};
  return fmt::format("Failed to remove {}: {}: {}\n", kPidFile, errno, lattix::ErrorText(errno));
}

}  // namespace

void PidFileWriter::EndAtOnce(int status) {
  MuteAudioLines();
  // Taken out and not destroyed: another thread may be calling it.
  if (HtmlRendererLauncher* launcher = HtmlRendererSlot::Take().release()) launcher->EndRenderer();
  LogUnlessBlocked("{}", RemovePidFile());
  // The kernel ends the supervisor with this process, but not what the supervisor has started.
  Bootstrap::KillAtOnce();
  ::_exit(status);
}

PidFileWriter::PidFileWriter() {
  if (FILE* file = std::fopen(lattix::DevicePath(kPidFile).c_str(), "we")) {
    std::fprintf(file, "%lu\n", static_cast<unsigned long>(::getpid()));
    std::fclose(file);
  }
  lattix::SignalDispatcher::GetInstance().Attach(SIGTERM, this);
}

PidFileWriter::~PidFileWriter() {
  lattix::SignalDispatcher::GetInstance().Detach(SIGTERM, this);
  if (const std::string failure = RemovePidFile(); !failure.empty()) Log("{}", failure);
}

void PidFileWriter::OnSignal(const siginfo_t& info) {
  if (info.si_signo != SIGTERM) return;
  LogUnlessBlocked("Orvex application tarsk-{} fast exit\n", lattix::FirmwareVersionText());
  EndAtOnce(kExitTerminated);
}
