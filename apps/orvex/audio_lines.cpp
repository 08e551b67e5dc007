// In the order of the functions the amplifier is muted before the digital output changes.
#include "apps/orvex/audio_lines.h"

#include <exception>
#include <string>

#include "lib/hardware/device_tree.h"
#include "lib/hardware/gpio_sysfs.h"
#include "lib/platform/log.h"

namespace {

constexpr char kAudioMute[] = "orvex/audio-mute-gpio";
constexpr char kSpdifEnable[] = "orvex/spdif-enable-gpio";

void Drive(const std::string& property, bool level) {
  GpioSysfs line(device_tree::RequireCell(property));
  line.Initialize(GpioBase::kOutput, level ? GpioBase::kHigh : GpioBase::kLow);
}

void DriveIfPossible(const char* property, bool level) noexcept {
  try {
    Drive(property, level);
  } catch (const std::exception& e) {
    lattix::LogUnlessBlocked("Failed to drive {}: {}\n", property, e.what());
  }
}

}  // namespace

void OpenAudioLines() {
  Drive(kAudioMute, true);
  Drive(kSpdifEnable, false);
}

void MuteAudioLines() noexcept {
  DriveIfPossible(kAudioMute, false);
  DriveIfPossible(kSpdifEnable, true);
}
