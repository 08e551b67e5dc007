// Zones are numbered without gaps from 0, so the first that is missing ends the list.
#include "lib/hardware/temperature.h"

#include <fmt/format.h>

#include <charconv>
#include <string>

#include "lib/platform/firmware_version.h"

namespace {

constexpr int kMaxZones = 64;

}  // namespace

std::optional<double> ReadBoardTemperature() {
  std::optional<int> found;
  int found_rank = 0;
  for (int zone = 0; zone < kMaxZones; zone++) {
    const std::string type =
        lattix::ReadSystemText(fmt::format("/sys/class/thermal/thermal_zone{}/type", zone));
    if (type.empty()) break;
    const int rank = type == "soc-thermal" ? 3 : type == "cpu-thermal" ? 2 : 1;
    if (rank > found_rank) {
      found = zone;
      found_rank = rank;
    }
  }
  if (!found) return std::nullopt;
  const std::string text =
      lattix::ReadSystemText(fmt::format("/sys/class/thermal/thermal_zone{}/temp", *found));
  int millidegrees;
  const auto read = std::from_chars(text.data(), text.data() + text.size(), millidegrees);
  if (read.ec != std::errc()) return std::nullopt;
  return millidegrees / 1000.0;
}
