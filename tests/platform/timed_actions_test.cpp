// Actions against the clock of a device root, which stands in for the machine's.
#include "lib/platform/timed_actions.h"

#include <atomic>
#include <ctime>
#include <thread>

#include "lib/platform/monotonic_time.h"
#include "lib/platform/system_clock.h"
#include "tests/platform/test_support.h"

namespace {

using Cookie = TimedActionQueue::Cookie;

class TimedActions : public testing::Test {
 protected:
  TimedActions() {
    root.Write("/var/lib/orvex/other", "");
    CascadeLibrary_InitializeCascadeTime();
    CascadeTime::SetTimeZone("GMT");
  }

  static CascadeTime::DateStruct Date(const char* iso) { return CascadeTime::ParseIsoString(iso); }
  static void SetClock(const char* iso) {
    ASSERT_TRUE(CascadeTime::SetSystemClock(*CascadeTime::FromUtc(Date(iso))));
  }
  static bool Fails(TimedActionQueue* queue, Cookie cookie) {
    try {
      queue->Remove(cookie);
      return false;
    } catch (const std::runtime_error& e) {
      EXPECT_STREQ(e.what(), "Cookie not found in remove");
      return true;
    }
  }

  TemporaryRoot root;
};

TEST_F(TimedActions, ManyPendingAreAddedAndRemovedQuickly) {
  constexpr int kMany = 100'000;
  TimedActionQueue queue;
  std::vector<Cookie> cookies;
  const int64_t later = lattix::monotonic_time_after_ms(3'600'000);
  const int64_t start = lattix::get_monotonic_time();
  for (int i = 0; i < kMany; ++i) {
    cookies.push_back(queue.AddAtMonotonicTime(later + i * 7919 % kMany, [] { FAIL(); }));
  }
  for (int i = 0; i < kMany; i += 2) queue.Remove(cookies[i]);
  EXPECT_LT(lattix::get_monotonic_time() - start, 20'000'000'000);  // linear cost takes far longer
  EXPECT_TRUE(Fails(&queue, cookies[0]));
  EXPECT_TRUE(Fails(&queue, 0));
}

TEST_F(TimedActions, ALocalTimeFollowsTheZone) {
  TimedActionQueue queue;
  SimpleEvent ran;
  SetClock("20300101T120000");
  const Cookie cookie = queue.AddAtLocalTime(Date("20300101T200000"), [&] { ran.Set(); });
  EXPECT_NE(cookie, 0u);
  EXPECT_FALSE(ran.Wait(20));
  CascadeTime::SetTimeZone("JST");  // where it is 21:00
  EXPECT_TRUE(Happens(&ran));
  EXPECT_TRUE(Fails(&queue, cookie));
  auto wrong = Date("20300101T200000");
  wrong.month = 13;
  EXPECT_EQ(queue.AddAtLocalTime(wrong, [] {}), 0u);
}

TEST_F(TimedActions, RecurringOnesRunWhenTheirMinuteBegins) {
  TimedActionQueue queue;
  std::atomic<int> first{0};
  SimpleEvent second;
  SetClock("20300101T105959,900");
  queue.AddRecurring({.minute = 59}, [&] { ++first; });  // that minute has begun
  const Cookie hourly = queue.AddRecurring({.minute = 0}, [&] { ++first; });
  queue.AddRecurring({.day_of_week = 2, .hour = 11}, [&] { second.Set(); });
  queue.AddRecurring({.year = 2031, .minute = 0}, [&] { ++first; });
  EXPECT_TRUE(Happens(&second));
  EXPECT_EQ(first, 1);
  queue.Remove(hourly);
  SetClock("20300101T105959,900");  // once more
  EXPECT_TRUE(Happens(&second));
  EXPECT_EQ(first, 1);

  // The network's time corrects the clock right at the end of a minute.
  TimedActionQueue other;
  SetClock("20300101T115930");
  other.AddRecurring({.hour = 12, .minute = 0}, [&] { second.Set(); });
  SetClock("20300101T120000,020");
  EXPECT_TRUE(Happens(&second));
}

TEST_F(TimedActions, RemovalWaitsForTheRunningAction) {
  TimedActionQueue queue;
  SimpleEvent runs;
  std::atomic<bool> removing{false}, over{false};
  const Cookie cookie = queue.AddAtMonotonicTime(0, [&] {
    runs.Set();
    while (!removing) std::this_thread::yield();
    std::this_thread::yield();
    over = true;
  });
  ASSERT_TRUE(Happens(&runs));
  removing = true;
  EXPECT_TRUE(Fails(&queue, cookie));
  EXPECT_TRUE(over);

  // One that removes itself goes on.
  SimpleEvent done;
  std::atomic<Cookie> own{0};
  SetClock("20300101T105959,900");
  own = queue.AddRecurring({}, [&] {
    queue.Remove(own);
    done.Set();
  });
  EXPECT_TRUE(Happens(&done));
}

// What an idle player costs: no wake-ups while nothing is due soon.
TEST_F(TimedActions, TheThreadSleepsUntilSomethingIsDue) {
  TimedActionQueue queue;
  SimpleEvent ran;
  queue.AddAtMonotonicTime(0, [&] { ran.Set(); });
  ASSERT_TRUE(Happens(&ran));
  queue.AddAtMonotonicTime(lattix::monotonic_time_after_ms(3'600'000), [] {});
  queue.AddAtLocalTime(Date("20990101T000000"), [] {});
  const auto cpu = [] {
    timespec used;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return used.tv_sec * 1'000'000'000 + used.tv_nsec;
  };
  const int64_t before = cpu();
  EXPECT_FALSE(ran.Wait(200));
  EXPECT_LT(cpu() - before, 100'000'000);
}

}  // namespace
