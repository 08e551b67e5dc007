// The fast exit runs beside everything else, so it takes no lock that another thread could hold
// while it is blocked: its message goes past stdio, whose lock belongs to a writer that a full pipe
// or a stopped terminal may hold up for ever.
#include "apps/orvex/pid_file_writer.h"

#include <fmt/format.h>
#include <poll.h>
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

namespace {

constexpr char kPidFile[] = "/var/run/orvex.pid";

// What does not get out now, is not said.
void SayUnlessBlocked(const std::string& text) {
  pollfd stream = {STDERR_FILENO, POLLOUT, 0};
  if (::poll(&stream, 1, 0) == 1 && (stream.revents & POLLOUT) != 0 &&
      ::write(STDERR_FILENO, text.data(), text.size()) < 0) {
    return;
  }
}

// The text for a pid file that stays, empty when it is gone.
std::string RemovePidFile() {
  if (::unlink(lattix::DevicePath(kPidFile).c_str()) == 0) return {};
  return fmt::format("Failed to remove {}: {}: {}\n", kPidFile, errno, lattix::ErrorText(errno));
}

}  // namespace

void PidFileWriter::EndAtOnce(int status) {
  try {
    MuteAudioLines();
  } catch (const std::exception& e) {
    SayUnlessBlocked(fmt::format("Failed to mute the audio output: {}\n", e.what()));
  }
  // Taken out and not destroyed: another thread may be calling it.
  if (HtmlRendererLauncher* launcher = HtmlRendererSlot::Take().release()) launcher->EndRenderer();
  SayUnlessBlocked(RemovePidFile());
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
  if (const std::string failure = RemovePidFile(); !failure.empty()) lattix::Log("{}", failure);
}

void PidFileWriter::OnSignal(const siginfo_t& info) {
  if (info.si_signo != SIGTERM) return;
  SayUnlessBlocked(
      fmt::format("Orvex application tarsk-{} fast exit\n", lattix::FirmwareVersionText()));
  EndAtOnce(kExitTerminated);
}
