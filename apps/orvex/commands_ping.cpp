// Echo requests over ICMP (RFC 792) and ICMPv6 (RFC 4443): a few, one after the other, each with a
// second for its reply. A reply is known by its number and by a token that no other run has; the
// kernel gives datagram sockets an identifier of its own, so that is not looked at.
#include <netinet/icmp6.h>
#include <netinet/ip_icmp.h>
#include <sys/random.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <span>
#include <string>

#include "apps/orvex/commands_network.h"
#include "apps/orvex/host_lookup.h"
#include "apps/orvex/interrupt_wait.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/monotonic_time.h"
#include "lib/platform/unique_fd.h"

namespace commands {

namespace {

constexpr int kRequests = 4;
constexpr int64_t kReplyMilliseconds = 1000;
// Between a reply and the next request.
constexpr int64_t kPauseMilliseconds = 250;
constexpr size_t kIpv4HeaderUnit = 4;

// The header is the same for both protocols, apart from the type.
struct Echo {
  uint8_t type = 0;
  uint8_t code = 0;
  uint16_t checksum = 0;
  uint16_t identifier = 0;
  uint16_t sequence = 0;
  std::array<char, 16> token = {};
};

// RFC 1071, over the bytes as they lie in memory.
uint16_t Checksum(const Echo& echo) {
  std::array<uint16_t, sizeof(Echo) / 2> words;
  std::memcpy(words.data(), &echo, sizeof echo);
  uint32_t sum = 0;
  for (const uint16_t word : words) sum += word;
  while (sum > 0xFFFF) sum = (sum & 0xFFFF) + (sum >> 16);
  return static_cast<uint16_t>(~sum);
}

class EchoSocket {
 public:
  // Throws lattix::ErrnoException.
  explicit EchoSocket(const HostAddress& host) : m_ipv6(host.family() == AF_INET6) {
    const int protocol = m_ipv6 ? static_cast<int>(IPPROTO_ICMPV6) : IPPROTO_ICMP;
    constexpr int kFlags = SOCK_CLOEXEC | SOCK_NONBLOCK;
    m_fd.Reset(::socket(host.family(), SOCK_DGRAM | kFlags, protocol));
    if (!m_fd) {
      m_fd.Reset(::socket(host.family(), SOCK_RAW | kFlags, protocol));
      m_has_ip_header = !m_ipv6;
    }
    if (!m_fd) throw lattix::ErrnoException(errno, "socket");
    if (::connect(m_fd.Get(), host.get(), host.length) != 0) {
      throw lattix::ErrnoException(errno, host.Text());
    }
    if (::getrandom(m_token.data(), m_token.size(), 0) < 0) {
      throw lattix::ErrnoException(errno, "getrandom");
    }
  }

  // Whether a reply came in time.
  bool Ask(uint16_t sequence, const InterruptWait& wait) {
    Echo request;
    request.type = m_ipv6 ? ICMP6_ECHO_REQUEST : ICMP_ECHO;
    std::memcpy(&request.identifier, m_token.data(), sizeof request.identifier);
    request.sequence = htons(sequence);
    request.token = m_token;
    request.checksum = m_ipv6 ? 0 : Checksum(request);  // the kernel's work for ICMPv6
    if (::send(m_fd.Get(), &request, sizeof request, 0) < 0) return false;
    const int64_t deadline = lattix::monotonic_time_after_ms(kReplyMilliseconds);
    for (;;) {
      pollfd readable = {m_fd.Get(), POLLIN, 0};
      if (!wait.Poll({&readable, 1}, deadline)) return false;
      char packet[1500];
      const ssize_t n = ::recv(m_fd.Get(), packet, sizeof packet, 0);
      if (n < 0 && errno != EAGAIN && errno != EINTR) return false;  // unreachable, refused ...
      if (n > 0 && IsReply({packet, static_cast<size_t>(n)}, request)) return true;
      // Foreign packets must not keep the wait alive.
      if (lattix::get_monotonic_time() >= deadline) return false;
    }
  }

 private:
  bool IsReply(std::span<const char> packet, const Echo& request) const {
    if (m_has_ip_header) {
      if (packet.empty()) return false;
      const size_t header = (static_cast<uint8_t>(packet[0]) & 0xF) * kIpv4HeaderUnit;
      if (header > packet.size()) return false;
      packet = packet.subspan(header);
    }
    Echo reply;
    if (packet.size() < sizeof reply) return false;
    std::memcpy(&reply, packet.data(), sizeof reply);
    return reply.type == (m_ipv6 ? ICMP6_ECHO_REPLY : ICMP_ECHOREPLY) &&
           reply.sequence == request.sequence && reply.token == request.token;
  }

  const bool m_ipv6;
  bool m_has_ip_header = false;
  lattix::UniqueFd m_fd;
  std::array<char, 16> m_token = {};
};

// A socket for the first of the addresses to which there is a way: a host may have one of a
// protocol that this network does not carry. Throws what the last one did when there is none.
EchoSocket OpenFirst(std::span<const HostAddress> addresses, std::string* text) {
  for (;; addresses = addresses.subspan(1)) {
    *text = addresses.front().Text();
    try {
      return EchoSocket(addresses.front());
    } catch (const lattix::ErrnoException&) {
      if (addresses.size() == 1) throw;
    }
  }
}

}  // namespace

int Ping(const CommandLine& command) {
  int family = AF_UNSPEC;
  size_t first = 1;
  if (command.argument(1) == "-4") family = AF_INET;
  if (command.argument(1) == "-6") family = AF_INET6;
  if (family != AF_UNSPEC) ++first;
  const std::string host(command.argument(first));
  if (command.argument_count() != first || host.empty() || host.starts_with('-')) {
    return command.Usage();
  }
  const InterruptWait wait;
  command.Print("Looking up host...");
  std::string why_not;
  const std::vector<HostAddress> addresses = LookUpHost(host, family, wait, &why_not);
  if (addresses.empty()) {
    command.Print("No addresses found to ping");
    return 1;
  }
  command.Print("Pinging {}...", host);
  std::string address;
  EchoSocket socket = OpenFirst(addresses, &address);
  int replies = 0;
  for (int i = 1; i <= kRequests; ++i) {
    if (i > 1) wait.Poll({}, lattix::monotonic_time_after_ms(kPauseMilliseconds));
    const bool replied = socket.Ask(static_cast<uint16_t>(i), wait);
    command.Print(" {} {}", address, replied ? "success" : "failure");
    replies += replied ? 1 : 0;
  }
  return replies > 0 ? 0 : 1;
}

}  // namespace commands
