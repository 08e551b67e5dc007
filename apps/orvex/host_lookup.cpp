// c-ares does the asking, on the caller's thread: the system's own resolver cannot be told to stop
// while a name server is silent.
#include "apps/orvex/host_lookup.h"

#include <ares.h>
#include <netdb.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "lib/platform/errno_exception.h"
#include "lib/platform/monotonic_time.h"

namespace {

constexpr int kServerMilliseconds = 2000;
constexpr int kTries = 2;
constexpr int64_t kWholeMilliseconds = 10'000;

struct Answer {
  bool done = false;
  int status = ARES_SUCCESS;
  ares_addrinfo* addresses = nullptr;  // owned

  Answer() = default;
  Answer(const Answer&) = delete;
  Answer& operator=(const Answer&) = delete;
  ~Answer() {
    if (addresses != nullptr) ::ares_freeaddrinfo(addresses);
  }
};

void OnAnswer(void* user, int status, int, ares_addrinfo* addresses) {
  auto& answer = *static_cast<Answer*>(user);
  answer.done = true;
  answer.status = status;
  answer.addresses = addresses;
}

// Destroying it ends what is under way, through OnAnswer.
class Channel {
 public:
  Channel() {
    ares_options options = {};
    options.timeout = kServerMilliseconds;
    options.tries = kTries;
    const int status =
        ::ares_init_options(&m_channel, &options, ARES_OPT_TIMEOUTMS | ARES_OPT_TRIES);
    if (status != ARES_SUCCESS) throw std::runtime_error(::ares_strerror(status));
  }
  ~Channel() { ::ares_destroy(m_channel); }
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  // Waits for what comes next on its sockets, or the time at which it wants to try again.
  void Process(const InterruptWait& wait, int64_t deadline) {
    ares_socket_t sockets[ARES_GETSOCK_MAXNUM];
    const int wanted = ::ares_getsock(m_channel, sockets, ARES_GETSOCK_MAXNUM);
    std::vector<pollfd> descriptors;
    for (int i = 0; i < ARES_GETSOCK_MAXNUM; ++i) {
      short events = 0;
      if (ARES_GETSOCK_READABLE(wanted, i)) events |= POLLIN;
      if (ARES_GETSOCK_WRITABLE(wanted, i)) events |= POLLOUT;
      if (events != 0) descriptors.push_back({sockets[i], events, 0});
    }
    timeval limit = {kServerMilliseconds / 1000, 0};
    timeval next = {};
    ::ares_timeout(m_channel, &limit, &next);
    const int64_t pause = int64_t{next.tv_sec} * 1'000'000'000 + int64_t{next.tv_usec} * 1000;
    wait.Poll(descriptors, std::min(deadline, lattix::get_monotonic_time() + pause));
    bool any = false;
    for (const pollfd& descriptor : descriptors) {
      if (descriptor.revents == 0) continue;
      any = true;
      ::ares_process_fd(m_channel,
                        (descriptor.revents & ~POLLOUT) != 0 ? descriptor.fd : ARES_SOCKET_BAD,
                        (descriptor.revents & POLLOUT) != 0 ? descriptor.fd : ARES_SOCKET_BAD);
    }
    if (!any) ::ares_process_fd(m_channel, ARES_SOCKET_BAD, ARES_SOCKET_BAD);
  }

  ares_channel get() const { return m_channel; }

 private:
  ares_channel m_channel = nullptr;
};

HostAddress Address(const sockaddr* address, size_t length) {
  HostAddress result;
  result.length = static_cast<socklen_t>(std::min(length, sizeof result.address));
  std::memcpy(&result.address, address, result.length);
  return result;
}

}  // namespace

std::string HostAddress::Text() const {
  char text[NI_MAXHOST];
  return ::getnameinfo(get(), length, text, sizeof text, nullptr, 0, NI_NUMERICHOST) == 0 ? text
                                                                                          : "";
}

std::vector<HostAddress> LookUpHost(const std::string& name, int family, const InterruptWait& wait,
                                    std::string* why_not) {
  std::vector<HostAddress> result;
  addrinfo numeric = {};
  numeric.ai_flags = AI_NUMERICHOST;
  numeric.ai_socktype = SOCK_DGRAM;
  addrinfo* literal = nullptr;
  if (::getaddrinfo(name.c_str(), nullptr, &numeric, &literal) == 0) {
    if (family == AF_UNSPEC || family == literal->ai_family) {
      result.push_back(Address(literal->ai_addr, literal->ai_addrlen));
    } else {
      *why_not = "an address of the other family";
    }
    ::freeaddrinfo(literal);
    return result;
  }

  const int64_t deadline = lattix::monotonic_time_after_ms(kWholeMilliseconds);
  Answer answer;
  Channel channel;
  ares_addrinfo_hints hints = {};
  hints.ai_family = family;
  hints.ai_socktype = SOCK_DGRAM;
  ::ares_getaddrinfo(channel.get(), name.c_str(), nullptr, &hints, &OnAnswer, &answer);
  while (!answer.done) {
    if (lattix::get_monotonic_time() >= deadline) {
      *why_not = ::ares_strerror(ARES_ETIMEOUT);
      return result;
    }
    channel.Process(wait, deadline);
  }
  if (answer.status != ARES_SUCCESS) {
    *why_not = ::ares_strerror(answer.status);
    return result;
  }
  for (const ares_addrinfo_node* node = answer.addresses->nodes; node != nullptr;
       node = node->ai_next) {
    result.push_back(Address(node->ai_addr, node->ai_addrlen));
  }
  if (result.empty()) *why_not = ::ares_strerror(ARES_ENODATA);
  return result;
}
