#include "apps/orvex/audio_lines.h"

#include "lib/hardware/device_tree.h"
#include "lib/hardware/gpio_sysfs.h"

void DriveBoardLine(const std::string& device_tree_property, bool level) {
  GpioSysfs line(device_tree::RequireCell(device_tree_property));
  line.Initialize(GpioBase::kOutput, level ? GpioBase::kHigh : GpioBase::kLow);
}
