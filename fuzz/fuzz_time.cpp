// ISO 8601 texts, zone rules and the replies of time servers. A rule that is accepted must answer
// for any moment, and agree with itself on the way back.
#include <cstdlib>
#include <span>
#include <stdexcept>

#include "lib/platform/cascade_time.h"
#include "lib/platform/network_time.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  try {
    const CascadeTime::IsoText read = CascadeTime::ReadIsoString(text);
    if (!CascadeTime::IsValidDate(read.date)) std::abort();
  } catch (const std::runtime_error&) {
  }
  if (const auto zone = lattix::PosixTimeZone::Compile(text)) {
    for (int64_t utc = -62'000'000'000; utc < 250'000'000'000; utc += 777'777'777) {
      const int64_t local = utc + zone->OffsetAt(utc);
      const int64_t back = zone->ToUtc(local);
      if (back > utc || back + zone->OffsetAt(back) != local) std::abort();
    }
  }
  try {
    sntp::OffsetFrom(std::span(data, size), {.nonce = 0, .sent = 0, .received = INT64_MAX});
  } catch (const std::runtime_error&) {
  }
  return 0;
}
