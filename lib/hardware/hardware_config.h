// What the unit is that the player runs on: its device data, board, and the features it has.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "lib/hardware/device_data.h"
#include "lib/platform/singleton.h"

// The names of the hardware flags, by bit number. Bits beyond the table have no name.
std::span<const char* const> HardwareFlagNames();
// A bit's name, or "Unknown bit {}".
std::string HardwareFlagText(unsigned bit);

// Created early by whoever starts the process, and read by everybody from then on, on any thread:
// apart from the eARC flag nothing changes afterwards, so device data that is written takes effect
// at the next start. A program that runs scripts alone leaves the creation to the first object that
// asks (KelvoObjectGlobals::GetHardwareConfig).
class HardwareConfig : public lattix::Singleton<HardwareConfig> {
 public:
  // Reads everything. Missing or invalid device data is logged, and counts as empty.
  HardwareConfig();

  // The device data as it was at the start.
  const DeviceData& GetDeviceData() const { return m_device_data; }

  uint64_t GetFlags() const { return m_flags; }
  // Bit numbers beyond 63 are clear.
  bool HasFlag(unsigned bit) const { return bit < 64 && (m_flags >> bit & 1) != 0; }

  const std::string& GetOemId() const { return m_device_data.Get("PS_OEM_ID"); }
  const std::string& GetModel() const { return m_device_data.Get("PS_OEM_MODEL"); }
  const std::string& GetSerial() const { return m_device_data.Get("PS_SERIAL"); }
  // "PS_HWREV", a decimal number of 16 bits; 0 when there is none.
  uint16_t GetHardwareRevision() const;
  // "SECURE_ID" of the device id partition ("/dev/disk/mmc0-partlabel/devid", the same text as the
  // device data's); where that holds none, "PS_SECURE_ID" of the device data.
  const std::string& GetSecureId() const { return m_secure_id; }

  // The first two words of "/proc/boardid". "PS_ALT_BOARD_ID" of the device data takes the place of
  // the id; a board without a name is named by its id. Without the file, both are the name of the
  // system on chip.
  const std::string& GetBoardId() const { return m_board_id; }
  const std::string& GetBoardName() const { return m_board_name; }
  // The system on chip, from the device tree's "compatible": "rk3399", "rk3568", "rk3576",
  // "rk3588"; empty when it names none from this maker.
  const std::string& GetSystemOnChip() const { return m_system_on_chip; }
  static constexpr const char* GetFamily() { return "tarsk"; }
  // The I2C bus of the real-time clock.
  std::optional<uint32_t> GetRtcI2cBus() const { return m_rtc_i2c_bus; }

  // What the device data's signature ("PS_SIGNATURE", in hexadecimal) says. With a key on the unit
  // and no signature, the data counts as forged: otherwise taking the signature out would do.
  enum class Authenticity { kUnchecked /* no key to tell */, kGenuine, kForged };
  Authenticity CheckDeviceData() const;

  // A unit that has left manufacture for good ("PS_RESTRICTED" is "1" in the device data), or whose
  // device data is forged: the shell withholds its low-level commands, and ends with status 41
  // instead of 42.
  bool IsRestricted() const;

  // Whether the HDMI service has found an audio return channel.
  bool IsEarcCapable() const { return m_earc_capable.load(std::memory_order_relaxed); }
  void SetEarcCapable(bool capable) { m_earc_capable.store(capable, std::memory_order_relaxed); }

  // Whether the unit has a feature: one of the feature table's (docs/objects.md), or a hardware
  // flag's name; ASCII letters of either case. A name that is neither is logged, and no feature.
  bool HasFeature(std::string_view name) const;

 private:
  void ReadDeviceData();
  void IdentifyBoard();

  DeviceData m_device_data;
  uint64_t m_flags = 0;
  std::string m_secure_id;
  std::atomic<bool> m_earc_capable{false};
  std::string m_board_id;
  std::string m_board_name;
  std::string m_system_on_chip;
  std::optional<uint32_t> m_rtc_i2c_bus;
};
