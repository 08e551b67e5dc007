// Each operation is one write of a word or of a character, which the kernel takes as a whole.
#include "lib/hardware/gpio_sysfs.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

#include "lib/platform/assertion.h"
#include "lib/platform/device_file.h"
#include "lib/platform/device_path.h"
#include "lib/platform/errno_exception.h"

using lattix::ErrnoException;

GpioBase::Exception::Exception(unsigned pin, const char* operation, int error)
    : m_text(fmt::format("GPIO {}: {}: {}", pin, operation, lattix::ErrorText(error))) {}

GpioSysfs::GpioSysfs(unsigned pin) : m_pin(pin) {
  const std::string folder = fmt::format("/sys/class/gpio/gpio{}", pin);
  if (::access(lattix::DevicePath(folder).c_str(), F_OK) != 0) {
    const std::string number = fmt::format("{}\n", pin);
    Write(lattix::OpenDevice("/sys/class/gpio/export", O_WRONLY), number.data(), number.size());
  }
  m_value = lattix::OpenDevice(folder + "/value", O_RDWR);
  m_direction = lattix::OpenDevice(folder + "/direction", O_RDWR);
}

void GpioSysfs::Initialize(GPIO_MODE mode, GPIO_STATE state) {
  LATTIX_ASSERT(mode == kInput || mode == kOutput);
  if (mode == kInput) return SetInput();
  switch (state) {
    case kLow: return SetLow();
    case kHigh: return SetHigh();
    case kReleased: return SetInput();
  }
  LATTIX_ASSERT_TEXT(false, "false");
}

void GpioSysfs::SetInput() {
  if (!m_is_output) return;
  Write(m_direction, "in", 2);
  m_is_output = false;
}

void GpioSysfs::SetOutput(char level) {
  if (!m_is_output) {
    Write(m_direction, "out", 3);
    m_is_output = true;
  }
  Write(m_value, &level, 1);
}

bool GpioSysfs::Read() {
  if (::lseek(m_value.Get(), 0, SEEK_SET) < 0) throw ErrnoException(errno, "gpio seek");
  char level;
  const ssize_t n = ::read(m_value.Get(), &level, 1);
  if (n != 1) throw BadReadException(m_pin, "Failed read", n < 0 ? errno : EAGAIN);
  if (level != '0' && level != '1') {
    throw std::runtime_error("Unexpected value when reading GPIO");
  }
  return level == '1';
}

void GpioSysfs::Write(const lattix::UniqueFd& file, const char* text, size_t length) {
  // The kernel's files have neither position nor length; a plain file in their place has.
  const ssize_t n = ::pwrite(file.Get(), text, length, 0);
  if (n != static_cast<ssize_t>(length)) {
    throw BadWriteException(m_pin, "Failed write", n < 0 ? errno : EIO);
  }
  if (::ftruncate(file.Get(), n) != 0) return;
}
