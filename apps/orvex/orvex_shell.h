// The operator's shell of the player, and what the process does while it runs.
#pragma once

#include <atomic>
#include <string>

#include "lib/platform/poll_waker.h"
#include "lib/platform/singleton.h"

// Created by main() when every service is there; its start routine holds the main thread until the
// player is to end.
class OrvexShell : public lattix::Singleton<OrvexShell> {
 public:
  OrvexShell();
  ~OrvexShell();

  // Plays the device's presentation and serves the console. Returns the process's exit status, for
  // the init scripts. Called once.
  int Start();

  // What the shell ends with: 1 until somebody says otherwise. From any thread.
  int GetExitStatus() const { return m_exit_status; }
  void SetExitStatus(int status) { m_exit_status = status; }

  // Ends the console's loop with this exit status. From any thread, at any time.
  void RequestExit(int status);

 private:
  // Reads and runs commands until `exit`, the end of the input, or RequestExit.
  void RunConsole(const std::string& prompt);

  std::atomic<int> m_exit_status{1};
  std::atomic<bool> m_exit_requested{false};
  PollWaker m_exit_waker;
};
