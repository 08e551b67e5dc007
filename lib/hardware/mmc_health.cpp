// The kernel shows the registers as hexadecimal texts, the two life times in one file.
#include "lib/hardware/mmc_health.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <iterator>
#include <string_view>

#include "lib/platform/firmware_version.h"

namespace {

std::string Attribute(const char* name) {
  return lattix::ReadSystemLine(std::string("/sys/block/mmcblk0/device/") + name);
}

// Takes "0x0a" off the text; 0 when there is none.
uint8_t TakeHex(std::string_view* text) {
  text->remove_prefix(std::min(text->find_first_not_of(' '), text->size()));
  if (text->starts_with("0x")) text->remove_prefix(2);
  uint8_t number = 0;
  const auto read = std::from_chars(text->data(), text->data() + text->size(), number, 16);
  text->remove_prefix(static_cast<size_t>(read.ptr - text->data()));
  return number;
}

std::string LifeTimeText(uint8_t tenths) {
  if (tenths == 0 || tenths > 11) return "not reported";
  if (tenths == 11) return "more than 100% used";
  return fmt::format("{}% to {}% used", 10 * (tenths - 1), 10 * tenths);
}

const char* ReserveText(uint8_t reserve) {
  constexpr const char* kTexts[] = {"not reported", "normal", "warning", "urgent"};
  return reserve < std::size(kTexts) ? kTexts[reserve] : kTexts[0];
}

}  // namespace

std::optional<MmcHealth> ReadMmcHealth() {
  const std::string life_times = Attribute("life_time");
  const std::string reserve = Attribute("pre_eol_info");
  if (life_times.empty() && reserve.empty()) return std::nullopt;
  MmcHealth health;
  health.name = Attribute("name");
  health.firmware = Attribute("fwrev");
  std::string_view rest = life_times;
  health.life_time_a = TakeHex(&rest);
  health.life_time_b = TakeHex(&rest);
  rest = reserve;
  health.reserve = TakeHex(&rest);
  return health;
}

std::string MmcHealthReport(const MmcHealth& health) {
  return fmt::format(
      "Name:        {}\nFirmware:    {}\nLife time A: {}\nLife time B: {}\nReserve:     {}\n",
      health.name, health.firmware, LifeTimeText(health.life_time_a),
      LifeTimeText(health.life_time_b), ReserveText(health.reserve));
}
