// The monotonic clock.
#pragma once

#include <cstdint>

namespace lattix {

// Nanoseconds of CLOCK_MONOTONIC, the clock of std::chrono::steady_clock and of every deadline in
// the process. Never goes back, does not follow changes of the wall clock.
int64_t get_monotonic_time();

// The reading that lies the given time after now; as late as the clock can tell when the sum would
// overflow, now when the time is negative.
int64_t monotonic_time_after_ns(int64_t nanoseconds);
int64_t monotonic_time_after_ms(int64_t milliseconds);

}  // namespace lattix
