// Readings and deadlines are plain 64-bit nanoseconds: they are compared, stored atomically and
// handed to the kernel far more often than they are computed with.
#include "lib/platform/monotonic_time.h"

#include <time.h>

#include <algorithm>
#include <limits>

#include "lib/platform/assertion.h"

namespace lattix {

namespace {

constexpr int64_t kForever = std::numeric_limits<int64_t>::max();
constexpr int64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr int64_t kNanosecondsPerMillisecond = 1'000'000;

}  // namespace

int64_t get_monotonic_time() {
  timespec ts;
  LATTIX_ASSERT_TEXT(!clock_gettime(CLOCK_MONOTONIC, &ts), "!clock_gettime(1, &ts)");
  return ts.tv_sec * kNanosecondsPerSecond + ts.tv_nsec;
}

int64_t monotonic_time_after_ns(int64_t nanoseconds) {
  const int64_t now = get_monotonic_time();
  return now + std::clamp<int64_t>(nanoseconds, 0, kForever - now);
}

int64_t monotonic_time_after_ms(int64_t milliseconds) {
  return monotonic_time_after_ns(
      std::clamp<int64_t>(milliseconds, 0, kForever / kNanosecondsPerMillisecond) *
      kNanosecondsPerMillisecond);
}

}  // namespace lattix
