// The autorun invoker: finds the presentation's script on the storages, runs it, and falls back to
// recovery scripts when it fails or is not there.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include "lib/scripting/network_recovery.h"
#include "lib/scripting/script_interpreter.h"

// What the display shows while no presentation runs.
class AutorunSplash {
 public:
  // The lines to show from now on; progress is 0 to 1, or below 0 for none. Called on the invoker's
  // thread, up to four times a second, also with what is shown already.
  virtual void Show(std::span<const std::string> lines, double progress) = 0;
  // A script begins to run: the screen is its own.
  virtual void Hide() = 0;

 protected:
  ~AutorunSplash() = default;
};

struct AutoScriptInvokerOptions {
  // Where scripts print and where the debugger reads. Null: standard output, no debugger.
  psIo* console = nullptr;
  // Null: the lines go to the log when they change.
  AutorunSplash* splash = nullptr;
  // Null: no network, so no recovery over it and no reports. Console, splash and fetcher outlive
  // the invoker.
  UrlFetcher* fetcher = nullptr;
  std::string user_agent;
  DeviceIdentity device;
  // Bit 31 of the hardware flags: the device has the storage FLASH.
  bool has_flash_storage = false;
  // The medium that operators are asked to insert is a microSD card.
  bool has_card_slot = false;
  // The invoker ends with the result of the first script that does not ask to be restarted: nothing
  // is marked, reported or recovered.
  bool first_run_only = false;

  // How long things are waited for.
  std::chrono::milliseconds default_autorun_wait = std::chrono::seconds(5);
  std::chrono::milliseconds override_wait = std::chrono::seconds(30);
  std::chrono::milliseconds debug_choice = std::chrono::seconds(10);
};

// At most one exists at a time. The registry's settings are read when it is created; there must be
// KelvoObjectGlobals then, and as long as it lives.
class AutoScriptInvoker {
 public:
  using ScriptResult = ScriptInterpreter::ScriptResult;

  // Stops; waits for as long as it takes.
  virtual ~AutoScriptInvoker() = default;

  // The whole discovery, on the calling thread: looks for an autorun until there is one, runs it,
  // recovers. What the process is to do: 0 nothing (a script has ended, or the invoker was told to
  // stop), 1 to 3 nothing, a failure that has been reported, 5 restart the application, 6 reboot,
  // 7 shut down. Throws nothing but std::bad_alloc.
  virtual ScriptResult Invoke() = 0;

  // Calls Invoke on a thread of its own, and then on_end on that thread, which may do anything but
  // Stop or destroy the invoker. Not while an earlier Start is still running.
  virtual void Start(std::function<void(ScriptResult)> on_end) = 0;
  // Ends the running script and Invoke, and joins the thread; from any thread but that. False when
  // the script is in a native call that does not return within ten seconds (a debugger that reads
  // does when the console's input ends): then the thread is still there, and a process that wants
  // to end has to leave without destroying anything.
  virtual bool Stop() = 0;
  // From Start until Invoke has returned and on_end with it.
  virtual bool IsRunning() const = 0;

  // The operator's interrupt, by the SVC button or the console: a script that may be interrupted
  // breaks, a wait for storages ends. SIGINT does the same by itself. Any thread.
  virtual void Interrupt() = 0;
  // The storages have got new content, says the web server: they are looked at again. Any thread.
  virtual void Poke() = 0;
};

// Throws std::runtime_error "Only one AutoScriptInvoker may exist at a time".
std::unique_ptr<AutoScriptInvoker> CreateAutoScriptInvoker(AutoScriptInvokerOptions options);
