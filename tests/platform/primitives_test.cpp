// The small building blocks: guards, singletons, events, the log and device paths.
#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <mutex>
#include <new>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

#include "lib/platform/always_magic.h"
#include "lib/platform/condition_variable.h"
#include "lib/platform/device_file.h"
#include "lib/platform/device_path.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/log.h"
#include "lib/platform/monotonic_time.h"
#include "lib/platform/only_one.h"
#include "lib/platform/simple_event.h"
#include "lib/platform/singleton.h"
#include "tests/platform/test_support.h"

namespace {

struct Unprintable {};
struct Baffling {};

}  // namespace

template <>
struct fmt::formatter<Unprintable> : fmt::formatter<int> {
  template <typename Context>
  auto format(const Unprintable&, Context&) const -> typename Context::iterator {
    throw std::runtime_error("out of ink");
  }
};
template <>
struct fmt::formatter<Baffling> : fmt::formatter<int> {
  template <typename Context>
  auto format(const Baffling&, Context&) const -> typename Context::iterator {
    throw 3;
  }
};

namespace {

TEST(LogTest, ExceptionFromFormattingTakesTheMessagesPlace) {
  testing::internal::CaptureStderr();
  lattix::Log("a {} b\n", 1);
  lattix::Log("ink: {}", Unprintable());
  lattix::Log("what: {}\n", Baffling());
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "a 1 b\n"
            "Message 'ink: {}' threw 'out of ink'\n"
            "Message 'what: {}\n' threw 'unknown exception'\n");
}

struct Service : lattix::Singleton<Service> {
  int m_value = 5;
};
struct Unique : OnlyOne<Unique> {
  Unique() : OnlyOne("Only one Unique may exist at a time") {}
};
struct Guarded : lattix::AlwaysMagic<77> {};

TEST(SingletonTest, MayBeCreatedAgainAfterDestruction) {
  for (int i = 0; i < 2; ++i) {
    EXPECT_FALSE(Service::Exists());
    Service service;
    EXPECT_EQ(Service::GetInstance().m_value, 5);
  }
}

TEST(OnlyOneTest, SecondObjectIsAnErrorThatLeavesTheFirst) {
  std::optional<Unique> first(std::in_place);
  try {
    Unique second;
    FAIL();
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "Only one Unique may exist at a time");
  }
  EXPECT_THROW(Unique(), std::runtime_error);
  first.reset();
  Unique again;
}

class PrimitivesDeathTest : public ThreadedDeathTest {};

TEST_F(PrimitivesDeathTest, SecondSingletonEndsTheProcess) {
  EXPECT_DEATH(
      {
        Service first;
        Service second;
      },
      "singleton.h\\([0-9]+\\): Singleton: assertion 'sm_instance == __null' failed\n");
}

TEST_F(PrimitivesDeathTest, AccessWithoutASingletonEndsTheProcess) {
  EXPECT_DEATH(Service::GetInstance(), "Pointer=\\(nil\\)\n.*'Invalid pointer' failed\n");
}

TEST_F(PrimitivesDeathTest, PointersThatCannotBeObjectsAreRefused) {
  for (uintptr_t bad : {uintptr_t{8}, uintptr_t{4088}, uintptr_t{4097}, uintptr_t{0x10004}}) {
    EXPECT_DEATH(lattix::CheckPointer(reinterpret_cast<void*>(bad)), "Pointer=0x.*Invalid pointer")
        << bad;
  }
  lattix::CheckPointer(reinterpret_cast<void*>(uintptr_t{4096}));
}

TEST_F(PrimitivesDeathTest, GuardOfADestroyedObjectFails) {
  alignas(Guarded) char memory[sizeof(Guarded)];
  auto* guarded = new (memory) Guarded;
  Guarded::CheckMagic(guarded);
  guarded->~Guarded();
  EXPECT_DEATH(Guarded::CheckMagic(guarded), "Pointer=0x.*\n.*'Invalid pointer' failed\n");
}

TEST_F(PrimitivesDeathTest, UncaughtExceptionIsTold) {
  EXPECT_DEATH(
      {
        std::set_terminate(lattix::TerminateHandler);
        std::thread([] { throw std::runtime_error("lost"); }).join();
      },
      "Unhandled exception: lost\n");
}

TEST(SimpleEventTest, OneSetReleasesOneWait) {
  SimpleEvent event;
  event.Set();
  event.Set();
  EXPECT_TRUE(event.Wait(0));
  const int64_t before = lattix::get_monotonic_time();
  EXPECT_FALSE(event.Wait(20));
  EXPECT_GE(lattix::get_monotonic_time() - before, 20'000'000);
}

TEST(SimpleEventTest, SetReleasesAWaitWithoutLimit) {
  SimpleEvent request;
  SimpleEvent answer;
  std::thread other([&] {
    request.Wait(-1);
    answer.Set();
  });
  request.Set();
  EXPECT_TRUE(answer.Wait(0));
  other.join();
}

TEST(ConditionVariableTest, DeadlineLongPastIsATimeoutAndUnreachableOneIsNot) {
  std::mutex mutex;
  lattix::condition_variable variable;
  std::unique_lock lock(mutex);
  EXPECT_EQ(variable.wait_until(lock, -1), std::cv_status::timeout);
  EXPECT_FALSE(variable.wait_until(lock, 0, [] { return false; }));
  EXPECT_TRUE(lock.owns_lock());
  bool ready = false;
  std::thread notifier([&] {
    std::lock_guard guard(mutex);
    ready = true;
    variable.notify_one();
  });
  EXPECT_TRUE(
      variable.wait_until(lock, lattix::monotonic_time_after_ms(INT64_MAX), [&] { return ready; }));
  lock.unlock();
  notifier.join();
}

TEST(DevicePathTest, AbsolutePathsGetTheRootInFront) {
  const std::string before = lattix::DeviceRoot();
  lattix::SetDeviceRoot("/tmp/./some//root/");
  EXPECT_EQ(lattix::DevicePath("/etc/orvex-version"), "/tmp/some/root/etc/orvex-version");
  EXPECT_EQ(lattix::DevicePath("relative"), "relative");
  EXPECT_STREQ(getenv("ORVEX_ROOT"), "/tmp/some/root");
  lattix::SetDeviceRoot("/");
  EXPECT_FALSE(lattix::InDeviceRoot());
  EXPECT_EQ(lattix::DevicePath("/etc/orvex-version"), "/etc/orvex-version");
  EXPECT_EQ(getenv("ORVEX_ROOT"), nullptr);
  lattix::SetDeviceRoot(before);
}

TEST(DeviceFileTest, WritingReplacesTheContentAndErrorsNameTheDevicePath) {
  TemporaryRoot root;
  root.Write("/sys/status", "a longer content");
  lattix::WriteDeviceFile("/sys/status", "p");
  EXPECT_EQ(lattix::ReadDeviceFile("/sys/status"), "p");
  try {
    lattix::WriteDeviceFile("/sys/missing/status", "p");
    FAIL();
  } catch (const lattix::ErrnoException& e) {
    EXPECT_EQ(e.error(), ENOENT);
    EXPECT_EQ(e.context(), "/sys/missing/status");
    EXPECT_STREQ(e.what(), "No such file or directory");
  }
}

// A fifo cannot be synced (EINVAL), like the kernel's own files.
TEST(DeviceFileTest, WhatCannotBeSyncedIsWritten) {
  TemporaryRoot root;
  ASSERT_EQ(mkfifo((root.path() + "/trigger").c_str(), 0600), 0);
  std::string read;
  std::thread reader([&] { read = lattix::ReadDeviceFile("/trigger"); });
  lattix::WriteDeviceFile("/trigger", "4");
  reader.join();
  EXPECT_EQ(read, "4");
}

}  // namespace
