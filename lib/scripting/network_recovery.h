// Fetching recovery scripts from the recovery server, in the background.
//
// While a presentation runs the thread asks the server from time to time whether it has a recovery
// script for this device; the invoker sets how eagerly by the mode, and can wait for an answer. A
// script that comes is in "tmp:/recovery1.plm" when its result is told: written beside and renamed,
// so whoever opens the name finds a whole one.
//
// The server's address is the setting "recovery_url" of "networking"; without one there is no
// recovery over the network.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <stop_token>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "lib/platform/condition_variable.h"
#include "lib/platform/poll_waker.h"
#include "lib/platform/url_fetcher.h"

enum class RecoveryMode : int {
  kDisabled = 0,    // nothing is fetched
  kOverride = 1,    // the invoker waits for the answer before it runs the presentation
  kPeriodic = 2,    // a presentation runs
  kLastResort = 3,  // there is nothing else to run
  kExit = 4,        // the thread ends
};

// "disabled", "override", "periodic", "last-resort", "exit"; "unknown" for any other value.
const char* GetRecoveryModeText(RecoveryMode mode);

// Where a fetched script lies.
constexpr std::string_view kRecoveryScript = "tmp:/recovery1.plm";

// The address of the recovery server; empty when the device has none.
std::string RecoveryUrl();

// Where a recovery request comes from: what the server needs to choose a script. A script's own
// request for a recovery file sends the same headers.
struct DeviceIdentity {
  std::string model;
  std::string serial;
  std::string version;  // of the firmware
};
// "DeviceID", "DeviceModel", "DeviceFWVersion" (those that are not empty), "RecoveryMode" with the
// mode's text and "DestinationScriptFile" with kRecoveryScript.
std::vector<UrlFetcher::Header> RecoveryRequestHeaders(const DeviceIdentity& device,
                                                       std::string_view mode_text);

// Whether a status is an answer rather than a failure: 200 with a script, 204 and 404 without one.
// Prints "IsValidServerResponse {}\n" with the status.
bool IsValidServerResponse(int status);
// Why what a server sent with a 200 cannot be a script; null when it can. A script is not empty,
// has no NUL and begins as the script reader wants it; enciphered ones pass as they are. A web page
// (what a captive portal or a misdirected proxy answers every request with) is none.
const char* WhyNoScript(const UrlFetcher::Response& response);

// How long after a result the next request is due. `answered` is whether it was an answer (and,
// with a 200, a script that could be stored); `retry_after` is what the server asked for, 0 for
// nothing; `count` counts the results, this one included.
std::chrono::seconds DelayToNextCheck(RecoveryMode mode, bool answered, int64_t retry_after,
                                      unsigned count);

// What came of the last request.
struct RecoveryResult {
  unsigned count = 0;  // results since Start; 0: none yet
  int status = 0;      // as UrlFetcher::Response::result
  bool valid = false;  // IsValidServerResponse of it
  // The status is 200 and a script lies in kRecoveryScript.
  bool has_script = false;
  RecoveryMode mode = RecoveryMode::kDisabled;  // in which the request was made
};

// Owned by the invoker, for one run of its own: Start, then whatever, then Stop. Public operations
// may be called from any thread, except that Start and Stop belong to the owner.
class NetworkRecovery {
 public:
  struct Options {
    std::string url;  // empty: every mode is as good as kDisabled
    std::string user_agent;
    DeviceIdentity device;
    bool trace = false;  // print the trace lines
    // Called on the recovery thread after every result, with no lock held. Must not block for long,
    // nor call Stop.
    std::function<void(const RecoveryResult&)> on_result;
  };

  // The fetcher outlives this object.
  NetworkRecovery(UrlFetcher& fetcher, Options options);
  // Stops.
  ~NetworkRecovery();
  NetworkRecovery(const NetworkRecovery&) = delete;
  NetworkRecovery& operator=(const NetworkRecovery&) = delete;

  // Starts the thread. What an earlier run has left in kRecoveryScript is removed first.
  void Start(RecoveryMode mode);
  // Sets kExit, cancels a transfer that is under way and joins the thread. Again is no error.
  void Stop();

  // Whether there is a server to ask.
  bool IsPossible() const { return !m_options.url.empty(); }

  RecoveryMode GetMode() const;
  // Takes effect at once: the thread looks at the next check time anew. After kExit, nothing.
  void SetMode(RecoveryMode mode);
  // The next request is made now instead of at its time (once a mode allows one).
  void RequestNow();

  // From now on the next result writes one byte to the waker, once; null takes the wish back. The
  // waker must live until then or until Stop. A result that came before does not count: ask
  // GetResult for it.
  void NotifyResult(PollWaker* waker);
  RecoveryResult GetResult() const;

 private:
  void Run(std::stop_token stop);
  // The mode to make the next request in, when its time has come; kExit to end.
  RecoveryMode WaitForRequest();
  void Request(RecoveryMode mode, const std::stop_token& stop);

  UrlFetcher& m_fetcher;
  const Options m_options;

  mutable std::mutex m_lock;
  lattix::condition_variable m_changed;
  // Guarded by m_lock.
  RecoveryMode m_mode = RecoveryMode::kDisabled;
  bool m_request_now = false;
  int64_t m_next_check = 0;  // monotonic
  PollWaker* m_waker = nullptr;
  RecoveryResult m_result;

  std::jthread m_thread;
};
