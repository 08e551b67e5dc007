#include "lib/platform/timer_queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

namespace {

struct Client : TimerClient {
  void First(void*) {}
  void Second(void*) {}
};

// Against a list that is searched from the front: few calls and few due times, so that every kind
// of tie comes up.
TEST(TimerQueueTest, BehavesAsAListInDueOrder) {
  Client clients[2];
  char arguments[3];
  const auto first = static_cast<TimerCall::Method>(&Client::First);
  const auto second = static_cast<TimerCall::Method>(&Client::Second);
  std::mt19937 random(1);
  const auto pick = [&](int n) { return std::uniform_int_distribution(0, n - 1)(random); };

  TimerQueue queue;
  std::vector<std::pair<int64_t, TimerCall>> expected;
  for (int step = 0; step < 20'000; ++step) {
    const TimerCall call = {&clients[pick(2)], pick(2) ? first : second, &arguments[pick(3)]};
    // Phases of growth and of shrinking.
    const int action = pick(10) < (step / 1000 % 2 ? 3 : 6) ? 0 : 1 + pick(2);
    if (action == 0) {
      const int64_t due = pick(50);
      queue.Add(call, due);
      expected.insert(
          std::upper_bound(expected.begin(), expected.end(), due,
                           [](int64_t d, const auto& timer) { return d < timer.first; }),
          {due, call});
    } else if (action == 1) {
      queue.Cancel(call);
      const auto found = std::find_if(expected.begin(), expected.end(),
                                      [&](const auto& timer) { return timer.second == call; });
      if (found != expected.end()) expected.erase(found);
    } else if (!expected.empty()) {
      ASSERT_EQ(queue.NextDue(), expected.front().first);
      ASSERT_EQ(queue.TakeFirst(), expected.front().second);
      expected.erase(expected.begin());
    }
    ASSERT_EQ(queue.Size(), expected.size());
  }
}

}  // namespace
