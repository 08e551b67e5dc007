// The clock, set from the network.
//
// An SNTP client (RFC 4330; packet format and checks of RFC 5905) asks the server that the registry
// names ("networking"/"time_server": a host name or address, with ":port" if it is not 123) and
// sets the clock through CascadeTime. It does nothing while the registry names none, or says that a
// PTP master rules the clock ("networking"/"ptp_domain").
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <thread>

#include "lib/platform/cascade_time.h"
#include "lib/platform/listener_list.h"
#include "lib/platform/poll_waker.h"
#include "lib/platform/singleton.h"

// Attempts are made at once after the start, an hour after a success, and after a failure with
// pauses that double from ten seconds to half an hour. Each attempt waits at most five seconds for
// a reply.
class NetworkTimeThread : public lattix::Singleton<NetworkTimeThread> {
 public:
  struct Pacing {
    std::chrono::milliseconds reply = std::chrono::seconds(5);
    std::chrono::milliseconds lookup = std::chrono::seconds(30);
    std::chrono::milliseconds after_success = std::chrono::hours(1);
    std::chrono::milliseconds first_retry = std::chrono::seconds(10);
    std::chrono::milliseconds longest_retry = std::chrono::minutes(30);
    // How soon a server is noticed that was put into the registry without CheckNow.
    std::chrono::milliseconds unconfigured = std::chrono::minutes(5);
  };

  // What became of the attempts so far.
  struct Result {
    std::optional<CascadeTime::TimeBase> success;  // when the last successful one ended
    std::optional<CascadeTime::TimeBase> attempt;  // when the last one began
    std::string failure_reason;                    // of the last one; empty after a success
  };

  // Starts the thread ("NetworkTime"), with all signals blocked. `on_clock_changed` is called on it
  // after the clock was set, before the listeners; it may be empty.
  explicit NetworkTimeThread(std::function<void()> on_clock_changed);
  NetworkTimeThread(std::function<void()> on_clock_changed, const Pacing& pacing);
  // Ends the thread; an attempt under way is given up.
  ~NetworkTimeThread();

  Result GetLastResult() const;
  // The next attempt is made now: the settings have changed, or the network has come.
  void CheckNow();
  // Called on the thread at the end of each attempt with the failure reason, empty on success.
  lattix::ListenerList<std::string>& Attempts() { return m_attempts; }

 private:
  void Run();
  // The time until the next attempt.
  std::chrono::milliseconds Attempt(const std::string& server);
  // The clock's error; throws std::exception with the failure reason.
  std::chrono::nanoseconds Ask(const std::string& server);
  // Waits for the descriptor to be readable, or, when it is -1, for CheckNow. False when the time
  // is up. Leaves the thread's loop with an exception when the thread is to end.
  bool Wait(int fd, int64_t deadline);

  const std::function<void()> m_on_clock_changed;
  const Pacing m_pacing;
  std::chrono::milliseconds m_next_retry;  // the thread's
  lattix::ListenerList<std::string> m_attempts;

  mutable std::mutex m_mutex;  // guards what follows
  Result m_result;
  bool m_quit = false;
  bool m_check_now = false;
  bool m_woken = false;  // a byte is in the waker

  PollWaker m_waker;
  std::thread m_thread;
};

// The reply of a server, checked. Pure; for the thread and for tests.
namespace sntp {

inline constexpr size_t kPacketSize = 48;
inline constexpr uint16_t kPort = 123;

struct Request {
  uint64_t nonce;    // sent as the transmit timestamp, which the server sends back
  int64_t sent;      // wall clock, nanoseconds since 1970
  int64_t received;  // the same clock when the reply came, by the monotonic clock's count
};

// Fills the packet of a request.
void WriteRequest(uint64_t nonce, std::span<uint8_t, kPacketSize> packet);

// Whether the packet answers this request. What does not is not the server's, or late.
bool Answers(std::span<const uint8_t> packet, uint64_t nonce);

// What to add to the clock, in nanoseconds. Throws std::runtime_error for a reply that a client
// must not use: another mode than a server's, a server that is not synchronised, a refusal ("kiss
// of death"), times that cannot be.
int64_t OffsetFrom(std::span<const uint8_t> packet, const Request& request);

}  // namespace sntp
