// The wear of the built-in flash memory (eMMC).
#pragma once

#include <cstdint>
#include <optional>
#include <string>

// What the device's extended registers tell (JEDEC JESD84-B51, "Device health report").
struct MmcHealth {
  std::string name;      // the maker's product name
  std::string firmware;  // its revision
  // Share of the life time used, in tenths rounded up, of the two kinds of memory: 1 is up to 10 %,
  // 11 more than the estimated life time; 0 for what the device does not tell.
  uint8_t life_time_a = 0;
  uint8_t life_time_b = 0;
  // Reserve blocks: 1 normal, 2 warning (80 % used), 3 urgent (90 % used); 0 for not told.
  uint8_t reserve = 0;
};

// None without a built-in memory, or one too old to report. Reads a few small files below
// "/sys/block/mmcblk0/device"; any thread.
std::optional<MmcHealth> ReadMmcHealth();

// The report in lines for people, each ended by a newline.
std::string MmcHealthReport(const MmcHealth& health);
