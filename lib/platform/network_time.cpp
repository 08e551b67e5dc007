// One socket per attempt, connected, so that the kernel drops what comes from elsewhere; the
// transmit timestamp of a request is random instead of the time, so that who cannot see it cannot
// answer it.
//
// A name is looked up on a thread of its own: the system's resolver cannot be interrupted, and the
// process must be able to end. That thread shares only what a counted pointer keeps.
#include "lib/platform/network_time.h"

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/random.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

#include "lib/platform/errno_exception.h"
#include "lib/platform/log.h"
#include "lib/platform/monotonic_time.h"
#include "lib/platform/registry_client.h"
#include "lib/platform/signal_mask.h"
#include "lib/platform/thread_name.h"
#include "lib/platform/unique_fd.h"

using lattix::ErrnoException;
using lattix::Log;
using std::chrono::milliseconds;

// --- The protocol -----------------------------------------------------------------------------

namespace sntp {

namespace {

constexpr int64_t kSecond = 1'000'000'000;
constexpr uint8_t kClientVersion4 = 4 << 3 | 3;
constexpr uint8_t kServerMode = 4;
constexpr uint8_t kUnsynchronised = 3;  // leap indicator
constexpr uint8_t kMaxStratum = 15;
constexpr int64_t kEpochOffset = 2'208'988'800;  // seconds from 1900 to 1970
constexpr int64_t kEra = int64_t{1} << 32;
// Root delay and dispersion beyond which a server is no source of time (RFC 5905, MAXDIST and
// MAXDISP), in units of 2^-16 s.
constexpr uint32_t kMaxRootDistance = 16 << 16;
// A server that tells an earlier time than that of this program's making is wrong.
constexpr int64_t kFirstPlausible = 1'577'836'800 * kSecond;  // 2020-01-01

enum Field : size_t {
  kStratum = 1,
  kRootDelay = 4,
  kRootDispersion = 8,
  kReference = 12,
  kOriginate = 24,
  kReceive = 32,
  kTransmit = 40,
};

uint64_t ReadBytes(std::span<const uint8_t> packet, size_t at, size_t n) {
  uint64_t value = 0;
  for (size_t i = 0; i < n; ++i) value = value << 8 | packet[at + i];
  return value;
}

// Seconds since 1900 and their fraction; the seconds started over in 2036.
int64_t TimeAt(std::span<const uint8_t> packet, Field field) {
  const uint64_t stamp = ReadBytes(packet, field, 8);
  int64_t seconds = static_cast<int64_t>(stamp >> 32);
  if (seconds < kEra / 2) seconds += kEra;
  const uint64_t fraction = stamp & 0xFFFFFFFF;
  return (seconds - kEpochOffset) * kSecond + static_cast<int64_t>(fraction * kSecond >> 32);
}

}  // namespace

void WriteRequest(uint64_t nonce, std::span<uint8_t, kPacketSize> packet) {
  std::ranges::fill(packet, uint8_t{0});
  packet[0] = kClientVersion4;
  for (size_t i = 0; i < 8; ++i)
    packet[kTransmit + i] = static_cast<uint8_t>(nonce >> (56 - 8 * i));
}

bool Answers(std::span<const uint8_t> packet, uint64_t nonce) {
  return packet.size() >= kPacketSize && ReadBytes(packet, kOriginate, 8) == nonce;
}

int64_t OffsetFrom(std::span<const uint8_t> packet, const Request& request) {
  if (packet.size() < kPacketSize) throw std::runtime_error("Reply is too short");
  if ((packet[0] & 7) != kServerMode) throw std::runtime_error("Reply is not a server's");
  const uint8_t version = packet[0] >> 3 & 7;
  if (version < 1 || version > 4) throw std::runtime_error("Reply has an unknown version");
  const uint8_t stratum = packet[kStratum];
  if (stratum == 0) {
    std::string code;
    for (size_t i = kReference; i < kReference + 4 && packet[i] >= ' ' && packet[i] < 127; ++i) {
      code += static_cast<char>(packet[i]);
    }
    throw std::runtime_error(fmt::format("Server refused: {}", code));
  }
  if (packet[0] >> 6 == kUnsynchronised || stratum > kMaxStratum ||
      ReadBytes(packet, kRootDelay, 4) >= kMaxRootDistance ||
      ReadBytes(packet, kRootDispersion, 4) >= kMaxRootDistance) {
    throw std::runtime_error("Server is not synchronised");
  }
  if (!Answers(packet, request.nonce)) throw std::runtime_error("Reply to another request");
  const int64_t receive = TimeAt(packet, kReceive);
  const int64_t transmit = TimeAt(packet, kTransmit);
  const int64_t round_trip = request.received - request.sent;
  if (receive < kFirstPlausible || transmit < receive || transmit - receive > round_trip) {
    throw std::runtime_error("Server's times are implausible");
  }
  // ((receive - sent) + (transmit - received)) / 2, in steps that fit.
  return (receive - request.sent) / 2 + (transmit - request.received) / 2;
}

}  // namespace sntp

namespace {

// A smaller error is left: setting the clock would make more noise than it cures.
constexpr int64_t kNegligible = 20'000'000;  // nanoseconds

struct Address {
  sockaddr_storage storage = {};
  socklen_t size = 0;
};

// "host", "host:port", "[v6]:port" or a bare IPv6 address. Throws for a port that is none.
std::pair<std::string, std::string> SplitServer(std::string_view server) {
  const std::string standard = std::to_string(sntp::kPort);
  const size_t colon = server.rfind(':');
  std::string_view host = server, port = standard;
  if (server.starts_with('[')) {
    const size_t end = server.find(']');
    host = server.substr(1, end == server.npos ? end : end - 1);
    if (end != server.npos && end + 1 == colon) port = server.substr(colon + 1);
  } else if (colon != server.npos && server.find(':') == colon) {
    host = server.substr(0, colon);
    port = server.substr(colon + 1);
  }
  uint16_t number = 0;
  const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), number);
  if (error != std::errc() || end != port.data() + port.size() || number == 0 || host.empty()) {
    throw std::runtime_error(fmt::format("'{}' is not a server's address", server));
  }
  return {std::string(host), std::string(port)};
}

// The result of getaddrinfo; its first address.
int Resolve(const std::string& host, const std::string& port, int flags, Address* address) {
  addrinfo hints = {};
  hints.ai_socktype = SOCK_DGRAM;
  hints.ai_flags = flags | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  const int error = ::getaddrinfo(host.c_str(), port.c_str(), &hints, &found);
  if (error != 0) return error;
  std::memcpy(&address->storage, found->ai_addr, found->ai_addrlen);
  address->size = found->ai_addrlen;
  ::freeaddrinfo(found);
  return 0;
}

// A look-up that may outlive whoever asked for it.
struct Lookup {
  std::string host;
  std::string port;
  lattix::UniqueFd done_read;
  lattix::UniqueFd done_write;
  Address address;
  int error = 0;
};

// Leaves the attempt: the process ends.
struct Ended {};

uint64_t RandomNumber() {
  uint64_t number = 0;
  if (::getrandom(&number, sizeof(number), 0) != sizeof(number)) {
    throw ErrnoException(errno, "getrandom");
  }
  return number;
}

}  // namespace

// --- The thread -------------------------------------------------------------------------------

NetworkTimeThread::NetworkTimeThread(std::function<void()> on_clock_changed)
    : NetworkTimeThread(std::move(on_clock_changed), Pacing{}) {}

NetworkTimeThread::NetworkTimeThread(std::function<void()> on_clock_changed, const Pacing& pacing)
    : m_on_clock_changed(std::move(on_clock_changed)),
      m_pacing(pacing),
      m_next_retry(pacing.first_retry) {
  const lattix::AllSignalsBlocked blocked;
  m_thread = std::thread([this] { Run(); });
}

NetworkTimeThread::~NetworkTimeThread() {
  {
    const std::lock_guard lock(m_mutex);
    m_quit = true;
    if (!std::exchange(m_woken, true)) m_waker.Wake();
  }
  m_thread.join();
}

NetworkTimeThread::Result NetworkTimeThread::GetLastResult() const {
  const std::lock_guard lock(m_mutex);
  return m_result;
}

void NetworkTimeThread::CheckNow() {
  const std::lock_guard lock(m_mutex);
  m_check_now = true;
  if (!std::exchange(m_woken, true)) m_waker.Wake();
}

void NetworkTimeThread::Run() {
  lattix::SetThreadName("NetworkTime");
  try {
    for (;;) {
      milliseconds pause = m_pacing.unconfigured;
      const std::string server = Registry::Setting("networking", "time_server");
      if (!server.empty() && Registry::Setting("networking", "ptp_domain").empty()) {
        pause = Attempt(server);
      }
      const int64_t deadline = lattix::monotonic_time_after_ms(pause.count());
      Wait(-1, deadline);
      const std::lock_guard lock(m_mutex);
      m_check_now = false;
    }
  } catch (const Ended&) {
  }
}

bool NetworkTimeThread::Wait(int fd, int64_t deadline) {
  for (;;) {
    {
      const std::lock_guard lock(m_mutex);
      if (m_quit) throw Ended();
      if (fd < 0 && m_check_now) return true;
    }
    const int64_t left = deadline - lattix::get_monotonic_time();
    if (left <= 0) return false;
    const timespec timeout = {left / 1'000'000'000, left % 1'000'000'000};
    pollfd events[] = {{m_waker.GetReadFd(), POLLIN, 0}, {fd, POLLIN, 0}};
    if (::ppoll(events, 2, &timeout, nullptr) < 0 && errno != EINTR) {
      throw ErrnoException(errno, "ppoll");
    }
    if (events[0].revents != 0) {
      const std::lock_guard lock(m_mutex);
      m_waker.Acknowledge();
      m_woken = false;
    }
    if (events[1].revents != 0) return true;
  }
}

milliseconds NetworkTimeThread::Attempt(const std::string& server) {
  {
    const std::lock_guard lock(m_mutex);
    m_result.attempt = CascadeTime::ReadPresentTimeBase();
  }
  std::string failure;
  bool changed = false;
  try {
    const int64_t error = Ask(server).count();
    if (std::abs(error) >= kNegligible || !CascadeTime::IsClockValid()) {
      CascadeTime::TimeBase time = CascadeTime::ReadPresentTimeBase();
      if (__builtin_add_overflow(time.nanoseconds, error, &time.nanoseconds) ||
          !CascadeTime::SetSystemClock(time)) {
        throw std::runtime_error("Unable to set the clock");
      }
      changed = true;
      Log("Network time: clock set by {}, it was {:.3f} s off\n", server,
          static_cast<double>(error) / 1e9);
    }
  } catch (const std::exception& e) {
    failure = e.what();
    if (failure.empty()) failure = "Unknown failure";
  }
  {
    const std::lock_guard lock(m_mutex);
    // The same failure over and over is one line in the log.
    if (!failure.empty() && failure != m_result.failure_reason) {
      Log("Network time: {}: {}\n", server, failure);
    }
    m_result.failure_reason = failure;
    if (failure.empty()) m_result.success = CascadeTime::ReadPresentTimeBase();
  }
  if (changed && m_on_clock_changed) m_on_clock_changed();
  m_attempts.Call(failure);
  if (failure.empty()) {
    m_next_retry = m_pacing.first_retry;
    return m_pacing.after_success;
  }
  return std::exchange(m_next_retry, std::min(m_next_retry * 2, m_pacing.longest_retry));
}

std::chrono::nanoseconds NetworkTimeThread::Ask(const std::string& server) {
  const auto [host, port] = SplitServer(server);
  Address address;
  int error = Resolve(host, port, AI_NUMERICHOST, &address);
  if (error == EAI_NONAME) {
    int done[2];
    if (::pipe2(done, O_CLOEXEC) != 0) throw ErrnoException(errno, "pipe2");
    const auto lookup = std::make_shared<Lookup>();
    lookup->host = host;
    lookup->port = port;
    lookup->done_read.Reset(done[0]);
    lookup->done_write.Reset(done[1]);
    std::thread([lookup] {
      lattix::SetThreadName("NetTimeLookup");
      lookup->error = Resolve(lookup->host, lookup->port, 0, &lookup->address);
      lookup->done_write.Reset();  // the reader sees the end
    }).detach();
    if (!Wait(done[0], lattix::monotonic_time_after_ms(m_pacing.lookup.count()))) {
      throw std::runtime_error("Host name look-up timed out");
    }
    error = lookup->error;
    address = lookup->address;
  }
  if (error != 0) throw std::runtime_error(::gai_strerror(error));

  const lattix::UniqueFd socket(
      ::socket(address.storage.ss_family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket) throw ErrnoException(errno, "socket");
  if (::connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address.storage), address.size) !=
      0) {
    throw ErrnoException(errno, server);
  }
  sntp::Request request = {};
  request.nonce = RandomNumber();
  std::array<uint8_t, sntp::kPacketSize> packet;
  sntp::WriteRequest(request.nonce, packet);
  request.sent = CascadeTime::ReadPresentTimeBase().nanoseconds;
  const int64_t sent = lattix::get_monotonic_time();
  if (::send(socket.Get(), packet.data(), packet.size(), MSG_NOSIGNAL) < 0) {
    throw ErrnoException(errno, server);
  }
  const int64_t deadline = lattix::monotonic_time_after_ms(m_pacing.reply.count());
  std::array<uint8_t, 512> reply;  // extensions may follow; they are not read
  while (Wait(socket.Get(), deadline)) {
    const ssize_t n = ::recv(socket.Get(), reply.data(), reply.size(), 0);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    if (n < 0) throw ErrnoException(errno, server);
    const int64_t now = lattix::get_monotonic_time();
    const std::span<const uint8_t> received(reply.data(), static_cast<size_t>(n));
    if (!sntp::Answers(received, request.nonce)) continue;
    request.received = request.sent + (now - sent);
    // The clock may have been set meanwhile: the error is that of the clock as it runs now.
    const int64_t drift = CascadeTime::ReadPresentTimeBase().nanoseconds - request.received -
                          (lattix::get_monotonic_time() - now);
    return std::chrono::nanoseconds(sntp::OffsetFrom(received, request) - drift);
  }
  throw std::runtime_error("No reply from the server");
}
