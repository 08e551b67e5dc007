// A server on the loopback address that answers what a test says, byte by byte, broken answers too.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "lib/platform/simple_event.h"
#include "lib/platform/unique_fd.h"

// "HTTP/1.1 200 OK" with a body and its length.
inline std::string Answer(const std::string& status, const std::string& body,
                          const std::string& headers = "") {
  return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\nConnection: close\r\n" + headers + "\r\n" + body;
}

class HttpTestServer {
 public:
  // Gets a request (head and body), gives the bytes to answer. Empty: never answers, until the
  // client goes or the server ends. Called on the server's thread, one request at a time.
  using Handler = std::function<std::string(const std::string& request)>;

  explicit HttpTestServer(Handler handler) : m_handler(std::move(handler)) {
    m_listener.Reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    EXPECT_EQ(::bind(m_listener.Get(), reinterpret_cast<sockaddr*>(&address), size), 0);
    EXPECT_EQ(::listen(m_listener.Get(), 8), 0);
    ::getsockname(m_listener.Get(), reinterpret_cast<sockaddr*>(&address), &size);
    m_port = ntohs(address.sin_port);
    m_thread = std::thread([this] { Serve(); });
  }
  ~HttpTestServer() {
    ::shutdown(m_listener.Get(), SHUT_RDWR);
    {
      const std::lock_guard lock(m_lock);
      m_ending = true;
      if (m_client) ::shutdown(m_client.Get(), SHUT_RDWR);
    }
    m_thread.join();
  }

  std::string Url(const std::string& path = "/", const std::string& credentials = "") const {
    return "http://" + credentials + "127.0.0.1:" + std::to_string(m_port) + path;
  }
  std::vector<std::string> Requests() const {
    const std::lock_guard lock(m_lock);
    return m_requests;
  }
  // Raised when a request has arrived.
  SimpleEvent arrived;

 private:
  void Serve() {
    for (;;) {
      const int client = ::accept4(m_listener.Get(), nullptr, nullptr, SOCK_CLOEXEC);
      if (client < 0) return;
      {
        const std::lock_guard lock(m_lock);
        m_client.Reset(client);
        if (m_ending) return;
      }
      const std::string request = ReadRequest(client);
      if (request.empty()) continue;
      {
        const std::lock_guard lock(m_lock);
        m_requests.push_back(request);
      }
      arrived.Set();
      const std::string answer = m_handler(request);
      char byte;
      if (answer.empty()) {
        while (::recv(client, &byte, 1, 0) > 0) {
        }
      }
      for (size_t sent = 0; sent < answer.size();) {
        const ssize_t n = ::send(client, answer.data() + sent, answer.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) break;
        sent += static_cast<size_t>(n);
      }
      ::shutdown(client, SHUT_RDWR);
    }
  }

  static std::string ReadRequest(int client) {
    std::string request;
    size_t end = std::string::npos;
    size_t body = 0;
    char block[4096];
    while (end == std::string::npos || request.size() < end + body) {
      const ssize_t n = ::recv(client, block, sizeof block, 0);
      if (n <= 0) return {};
      request.append(block, static_cast<size_t>(n));
      if (end != std::string::npos) continue;
      const size_t blank = request.find("\r\n\r\n");
      if (blank == std::string::npos) continue;
      end = blank + 4;
      const size_t length = request.find("Content-Length: ");
      if (length < blank) body = std::stoul(request.substr(length + 16));
    }
    return request;
  }

  const Handler m_handler;
  lattix::UniqueFd m_listener;
  int m_port = 0;
  mutable std::mutex m_lock;
  lattix::UniqueFd m_client;
  bool m_ending = false;
  std::vector<std::string> m_requests;
  std::thread m_thread;
};
