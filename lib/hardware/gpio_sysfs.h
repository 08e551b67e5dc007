// One general-purpose pin, driven through the kernel's GPIO sysfs interface.
#pragma once

#include <exception>
#include <string>

#include "lib/platform/unique_fd.h"

class GpioBase {
 public:
  enum GPIO_MODE { kInput = 0, kOutput = 1, kBidirectional = 2 };
  enum GPIO_STATE { kLow = 0, kHigh = 1, kReleased = 2 };

  // The text names the pin, the operation and the system's error.
  class Exception : public std::exception {
   public:
    Exception(unsigned pin, const char* operation, int error);
    const char* what() const noexcept override { return m_text.c_str(); }

   private:
    const std::string m_text;
  };
};

// The pin stays exported and keeps its state when the object goes. For one thread at a time.
class GpioSysfs : public GpioBase {
 public:
  class BadReadException : public Exception {
    using Exception::Exception;
  };
  class BadWriteException : public Exception {
    using Exception::Exception;
  };

  // Exports the pin unless it is. Throws lattix::ErrnoException when its files cannot be opened.
  explicit GpioSysfs(unsigned pin);

  // kInput, or kOutput with a state; an output that is released is an input. Another mode is a
  // broken invariant.
  void Initialize(GPIO_MODE mode, GPIO_STATE state);

  // Throw BadWriteException. The direction is written only when it changes.
  void SetInput();
  void SetLow() { SetOutput('0'); }
  void SetHigh() { SetOutput('1'); }

  // Throws BadReadException, and std::runtime_error for what is neither level.
  bool Read();

 private:
  void SetOutput(char level);
  void Write(const lattix::UniqueFd& file, const char* text, size_t length);

  const unsigned m_pin;
  lattix::UniqueFd m_value;
  lattix::UniqueFd m_direction;
  bool m_is_output = false;
};
