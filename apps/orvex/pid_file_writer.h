// The pid file, and the end of the process by SIGTERM.
#pragma once

#include "lib/platform/async_signals.h"

// Lives for the whole of main(). The pid file "/var/run/orvex.pid" is there as long as it does;
// one that cannot be written is done without.
//
// SIGTERM ends the process at once, with status 43, in the fast exit: whatever the script, the
// shell or a tear-down is doing, the amplifier is muted, the renderer is ended, the pid file is
// removed, and nothing else is waited for or cleaned up. It runs on the signal dispatcher's thread.
class PidFileWriter final : public lattix::SignalObserver {
 public:
  // The signal dispatcher exists.
  PidFileWriter();
  // Removes the pid file; logged when that fails.
  ~PidFileWriter();
  PidFileWriter(const PidFileWriter&) = delete;
  PidFileWriter& operator=(const PidFileWriter&) = delete;

  void OnSignal(const siginfo_t& info) override;

  // Ends the process as the fast exit does, with this status: for whoever finds that it cannot end
  // in order. From any thread.
  [[noreturn]] static void EndAtOnce(int status);
};
