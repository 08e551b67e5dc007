#include <gtest/gtest.h>

#include <stdexcept>

#include "lib/hardware/gpio_sysfs.h"
#include "lib/platform/errno_exception.h"
#include "tests/platform/test_support.h"

namespace {

constexpr char kDirection[] = "/sys/class/gpio/gpio7/direction";
constexpr char kValue[] = "/sys/class/gpio/gpio7/value";

TEST(GpioSysfsTest, WritesTheDirectionOnlyWhenItChanges) {
  const TemporaryRoot root;
  root.Write(kDirection, "in\n");
  root.Write(kValue, "0\n");
  GpioSysfs pin(7);
  pin.SetHigh();
  EXPECT_EQ("out", root.Read(kDirection));
  EXPECT_EQ("1", root.Read(kValue));
  root.Write(kDirection, "untouched");
  pin.SetHigh();
  pin.SetLow();
  EXPECT_EQ("untouched", root.Read(kDirection));
  EXPECT_EQ("0", root.Read(kValue));
  pin.Initialize(GpioBase::kOutput, GpioBase::kReleased);
  EXPECT_EQ("in", root.Read(kDirection));
}

TEST(GpioSysfsTest, ReadsBothLevelsAndNothingElse) {
  const TemporaryRoot root;
  root.Write(kDirection, "in\n");
  root.Write(kValue, "1\n");
  GpioSysfs pin(7);
  EXPECT_TRUE(pin.Read());
  root.Write(kValue, "0\n");
  EXPECT_FALSE(pin.Read());
  root.Write(kValue, "2\n");
  EXPECT_THROW(pin.Read(), std::runtime_error);
  root.Write(kValue, "");
  try {
    pin.Read();
    FAIL();
  } catch (const GpioSysfs::BadReadException& e) {
    EXPECT_STREQ("GPIO 7: Failed read: Resource temporarily unavailable", e.what());
  }
}

TEST(GpioSysfsTest, ExportsAPinThatIsNotThere) {
  const TemporaryRoot root;
  root.Write("/sys/class/gpio/export", "");
  EXPECT_THROW(GpioSysfs(7), lattix::ErrnoException);  // no kernel makes the pin's files here
  EXPECT_EQ("7\n", root.Read("/sys/class/gpio/export"));
}

}  // namespace
