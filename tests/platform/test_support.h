// What the platform's tests share: deadlines instead of sleeps, and device roots of their own.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "lib/platform/async_signals.h"
#include "lib/platform/device_path.h"
#include "lib/platform/simple_event.h"

// Waits for what must happen; generously, for slow machines and sanitizers. Unlike a promise, the
// event may be destroyed as soon as the wait is over.
inline bool Happens(SimpleEvent* event) { return event->Wait(30'000); }

// A device root that lasts as long as the object.
class TemporaryRoot {
 public:
  TemporaryRoot() : m_before(lattix::DeviceRoot()) {
    std::string path = testing::TempDir() + "orvex-root-XXXXXX";
    m_path = mkdtemp(path.data());
    lattix::SetDeviceRoot(m_path);
  }
  ~TemporaryRoot() {
    lattix::SetDeviceRoot(m_before);
    std::filesystem::remove_all(m_path);
  }

  const std::string& path() const { return m_path; }
  void Write(const std::string& device_path, const std::string& content) const {
    std::filesystem::create_directories(std::filesystem::path(m_path + device_path).parent_path());
    std::ofstream(m_path + device_path) << content;
  }
  std::string Read(const std::string& device_path) const {
    std::ifstream file(m_path + device_path);
    return {std::istreambuf_iterator<char>(file), {}};
  }

 private:
  const std::string m_before;
  std::string m_path;
};

// Blocks the dispatched signals in this thread as long as the object lasts.
class BlockedSignals {
 public:
  BlockedSignals() {
    pthread_sigmask(SIG_SETMASK, nullptr, &m_before);
    lattix::ConfigureSignals(lattix::kBlockSignals);
  }
  ~BlockedSignals() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }

 private:
  sigset_t m_before;
};

// Death tests start the program anew: it has threads, which a fork would not copy.
class ThreadedDeathTest : public testing::Test {
 protected:
  ThreadedDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};
