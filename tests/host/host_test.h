// What the tests of the script host share: a device root with storages, a console that keeps what
// is printed on it, and a server that is none.
#pragma once

#include <gtest/gtest.h>

#include <condition_variable>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "lib/platform/url_fetcher.h"
#include "lib/scripting/CommonAPI/Include/object_globals.h"
#include "lib/scripting/Plumscript/Source/psiocon.h"
#include "tests/platform/test_support.h"

// Waits for a condition that other threads bring about with Change.
class Changes {
 public:
  template <typename Function>
  void Change(Function change) {
    const std::lock_guard lock(m_lock);
    change();
    m_changed.notify_all();
  }
  template <typename Condition>
  bool Await(Condition condition) {
    std::unique_lock lock(m_lock);
    return m_changed.wait_until(lock, std::chrono::system_clock::now() + std::chrono::seconds(30),
                                condition);
  }

 private:
  std::mutex m_lock;
  std::condition_variable m_changed;
};

// Lines are read from a list; at its end the console is closed. Without a list it cannot be read.
class TestConsole {
 public:
  TestConsole() {
    m_io.host = this;
    m_io.putc = [](psIo* io, unsigned char ch) { Of(io)->Add(std::string(1, char(ch))); };
  }
  explicit TestConsole(std::deque<std::string> input) : TestConsole() {
    m_input = std::move(input);
    m_io.read_line = [](psIo* io, char* buffer, size_t size, const char*) {
      auto& input = Of(io)->m_input;
      if (input.empty()) return -1;
      const int n = std::snprintf(buffer, size, "%s", input.front().c_str());
      input.pop_front();
      return n;
    };
  }

  psIo* io() { return &m_io; }
  std::string text() {
    std::string text;
    m_changes.Change([&] { text = m_text; });
    return text;
  }
  bool AwaitText(const std::string& part) {
    return m_changes.Await([&] { return m_text.find(part) != std::string::npos; });
  }

 private:
  static TestConsole* Of(psIo* io) { return static_cast<TestConsole*>(io->host); }
  void Add(const std::string& text) {
    m_changes.Change([&] { m_text += text; });
  }

  psIo m_io;
  std::deque<std::string> m_input;
  Changes m_changes;
  std::string m_text;
};

// Answers from a function instead of a network; keeps the requests.
class TestFetcher final : public UrlFetcher {
 public:
  using Answer = std::function<Response(const Request&)>;
  explicit TestFetcher(Answer answer) : m_answer(std::move(answer)) {}

  Response Fetch(const Request& request, std::stop_token) override {
    m_changes.Change([&] { m_requests.push_back(request); });
    return m_answer(request);
  }
  std::vector<Request> requests() {
    std::vector<Request> requests;
    m_changes.Change([&] { requests = m_requests; });
    return requests;
  }

  static Response Status(int status, std::string body = "") {
    Response response;
    response.result = status;
    response.body = std::move(body);
    return response;
  }

 private:
  const Answer m_answer;
  Changes m_changes;
  std::vector<Request> m_requests;
};

class HostTest : public testing::Test {
 protected:
  HostTest() {
    for (const char* folder : {"sys", "tmp"}) Insert(folder);
  }

  // Makes a storage's folder.
  void Insert(const std::string& storage) {
    std::filesystem::create_directories(root.path() + "/storage/" + storage);
  }
  void Remove(const std::string& storage) {
    std::filesystem::remove_all(root.path() + "/storage/" + storage);
  }
  // The file is named below "/storage/".
  void Script(const std::string& file, const std::string& text) {
    root.Write("/storage/" + file, text);
  }
  void Settings(const std::string& json) { root.Write("/var/lib/orvex/registry.json", json); }

  TemporaryRoot root;
  KelvoObjectGlobals globals;
};
