// The video inputs of the device: HDMI in, and capture devices that are plugged in.
#pragma once

#include <string>
#include <vector>

#include "lib/platform/singleton.h"

// Asks the kernel at every call, as inputs come and go. Callable from any thread.
class VideoInput : public lattix::Singleton<VideoInput> {
 public:
  struct Source {
    std::string device;  // device path, "/dev/video0"
    std::string name;    // as its driver calls it
  };

  // By the number of the device. Empty on a device without inputs.
  std::vector<Source> GetSources() const;
};
