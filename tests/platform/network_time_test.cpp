// The client against a server on the loopback interface, whose replies each test makes.
#include "lib/platform/network_time.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <thread>

#include "lib/platform/registry_client.h"
#include "lib/platform/unique_fd.h"
#include "tests/platform/test_support.h"

namespace {

using Packet = std::array<uint8_t, sntp::kPacketSize>;

constexpr int64_t kSecond = 1'000'000'000;
constexpr int64_t k2030 = 1'893'456'000 * kSecond;

void Put(Packet* packet, size_t at, uint64_t value, size_t bytes) {
  for (size_t i = 0; i < bytes; ++i) {
    (*packet)[at + i] = static_cast<uint8_t>(value >> 8 * (bytes - 1 - i));
  }
}

uint64_t Stamp(int64_t time) {
  const auto seconds = static_cast<uint64_t>(time / kSecond + 2'208'988'800);
  return seconds << 32 | (static_cast<uint64_t>(time % kSecond) << 32) / kSecond;
}

// What a good server says at this time to this request.
Packet Reply(uint64_t nonce, int64_t time) {
  Packet packet = {4 << 3 | 4, 2};
  Put(&packet, 24, nonce, 8);
  Put(&packet, 32, Stamp(time), 8);
  Put(&packet, 40, Stamp(time), 8);
  return packet;
}

TEST(Sntp, RepliesAreChecked) {
  const sntp::Request request = {0x0123456789ABCDEF, k2030, k2030 + kSecond / 10};
  const Packet good = Reply(request.nonce, k2030 + 5 * kSecond);
  const auto failure = [&](auto change) -> std::string {
    Packet packet = good;
    change(&packet);
    try {
      sntp::OffsetFrom(packet, request);
      return "";
    } catch (const std::runtime_error& e) {
      return e.what();
    }
  };
  // Half the way there and back is the server's 5 seconds less 50 ms.
  EXPECT_NEAR(static_cast<double>(sntp::OffsetFrom(good, request)), 4.95e9, 100);
  // The seconds of the format start over in 2036.
  const int64_t k2040 = 2'208'988'800 * kSecond;
  EXPECT_NEAR(static_cast<double>(sntp::OffsetFrom(Reply(request.nonce, k2040), request)),
              static_cast<double>(k2040 - k2030 - kSecond / 20), 1000);

  EXPECT_EQ(failure([](Packet* p) { (*p)[0] = 4 << 3 | 3; }), "Reply is not a server's");
  EXPECT_EQ(failure([](Packet* p) { (*p)[0] = 7 << 3 | 4; }), "Reply has an unknown version");
  EXPECT_EQ(failure([](Packet* p) { (*p)[0] |= 0xC0; }), "Server is not synchronised");
  EXPECT_EQ(failure([](Packet* p) { (*p)[1] = 16; }), "Server is not synchronised");
  EXPECT_EQ(failure([](Packet* p) { Put(p, 8, 16 << 16, 4); }), "Server is not synchronised");
  EXPECT_EQ(failure([](Packet* p) {
              (*p)[1] = 0;
              Put(p, 12, 0x52415445, 4);
            }),
            "Server refused: RATE");
  EXPECT_EQ(failure([](Packet* p) { Put(p, 24, 1, 8); }), "Reply to another request");
  EXPECT_EQ(failure([](Packet* p) { Put(p, 40, 0, 8); }), "Server's times are implausible");
  EXPECT_EQ(failure([](Packet* p) { Put(p, 40, Stamp(k2030 + 6 * kSecond), 8); }),
            "Server's times are implausible");
  EXPECT_EQ(failure([](Packet* p) {
              Put(p, 32, Stamp(kSecond), 8);
              Put(p, 40, Stamp(kSecond), 8);
            }),
            "Server's times are implausible");
  EXPECT_THROW(sntp::OffsetFrom(std::span(good).first(47), request), std::runtime_error);
}

class Server {
 public:
  Server() : m_socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    m_address.sin_family = AF_INET;
    m_address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(m_address);
    EXPECT_EQ(::bind(m_socket.Get(), reinterpret_cast<sockaddr*>(&m_address), size), 0);
    EXPECT_EQ(::getsockname(m_socket.Get(), reinterpret_cast<sockaddr*>(&m_address), &size), 0);
  }
  std::string Name() const { return "127.0.0.1:" + std::to_string(ntohs(m_address.sin_port)); }

  // Waits for a request; its nonce.
  uint64_t TakeRequest() {
    Packet packet = {};
    socklen_t size = sizeof(m_client);
    pollfd wait = {m_socket.Get(), POLLIN, 0};
    if (::poll(&wait, 1, 30'000) != 1) return 0;
    EXPECT_EQ(::recvfrom(m_socket.Get(), packet.data(), packet.size(), 0,
                         reinterpret_cast<sockaddr*>(&m_client), &size),
              48);
    EXPECT_EQ(packet[0], 0x23);
    uint64_t nonce = 0;
    for (size_t i = 40; i < 48; ++i) nonce = nonce << 8 | packet[i];
    return nonce;
  }
  void Send(const Packet& packet) {
    ::sendto(m_socket.Get(), packet.data(), packet.size(), 0,
             reinterpret_cast<const sockaddr*>(&m_client), sizeof(m_client));
  }

 private:
  lattix::UniqueFd m_socket;
  sockaddr_in m_address = {};
  sockaddr_in m_client = {};
};

class NetworkTime : public testing::Test {
 protected:
  NetworkTime() {
    root.Write("/var/lib/orvex/other", "");
    CascadeLibrary_InitializeCascadeTime();
    pacing.reply = std::chrono::seconds(20);
    pacing.first_retry = std::chrono::milliseconds(1);
  }
  static void SetServer(const std::string& name) {
    GetRegistryClient().Write("networking", "time_server", name);
  }

  TemporaryRoot root;
  NetworkTimeThread::Pacing pacing;
};

TEST_F(NetworkTime, TheClockIsSetAfterRetries) {
  Server server;
  SetServer(server.Name());
  SimpleEvent attempted;
  std::mutex mutex;
  std::vector<std::string> reasons;
  std::atomic<int> clock_changes{0};
  NetworkTimeThread thread([&] { ++clock_changes; }, pacing);
  const uint64_t listener = thread.Attempts().Add([&](std::string reason) {
    const std::lock_guard lock(mutex);
    reasons.push_back(std::move(reason));
    attempted.Set();
  });
  Packet refusal = Reply(server.TakeRequest(), k2030);
  refusal[1] = 0;
  server.Send(refusal);
  ASSERT_TRUE(Happens(&attempted));
  EXPECT_FALSE(thread.GetLastResult().success);
  EXPECT_EQ(thread.GetLastResult().failure_reason, "Server refused: ");

  const uint64_t nonce = server.TakeRequest();
  server.Send(Reply(nonce + 1, 2 * k2030));  // somebody else's answer is passed over
  server.Send(Reply(nonce, k2030));
  ASSERT_TRUE(Happens(&attempted));
  EXPECT_EQ(clock_changes, 1);
  EXPECT_EQ(CascadeTime::ToUtc(CascadeTime::ReadPresentTimeBase()).year, 2030);
  const auto result = thread.GetLastResult();
  EXPECT_EQ(result.failure_reason, "");
  ASSERT_TRUE(result.success && result.attempt);
  EXPECT_GE(*result.success, CascadeTime::TimeBase{k2030});
  thread.Attempts().Remove(listener);
  EXPECT_EQ(reasons, (std::vector<std::string>{"Server refused: ", ""}));
}

TEST_F(NetworkTime, WithoutAServerNothingHappensUntilOneIsNamed) {
  Server server;
  NetworkTimeThread thread({}, pacing);
  EXPECT_FALSE(thread.GetLastResult().attempt);
  SetServer(server.Name());
  thread.CheckNow();
  EXPECT_NE(server.TakeRequest(), 0u);
  // The attempt under way is given up by the thread's end.
}

TEST_F(NetworkTime, WhatIsNoServerIsAReason) {
  for (const auto& [name, reason] :
       {std::pair{"127.0.0.1:0", "'127.0.0.1:0' is not a server's address"},
        {":123", "':123' is not a server's address"},
        {"[::1]:x", "'[::1]:x' is not a server's address"}}) {
    SetServer(name);
    SimpleEvent attempted;
    pacing.first_retry = std::chrono::hours(1);
    NetworkTimeThread thread({}, pacing);
    const uint64_t listener = thread.Attempts().Add([&](const std::string&) { attempted.Set(); });
    thread.CheckNow();  // the first attempt may be over
    EXPECT_TRUE(Happens(&attempted));
    EXPECT_EQ(thread.GetLastResult().failure_reason, reason);
    thread.Attempts().Remove(listener);
  }
}

}  // namespace
