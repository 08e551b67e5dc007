// What a unit's partitions and logs may hold: device data, a flattened device tree, a line of the
// kernel's log, a version. The first byte chooses.
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include "lib/hardware/device_data.h"
#include "lib/hardware/device_tree.h"
#include "lib/platform/device_path.h"
#include "lib/platform/firmware_version.h"
#include "lib/platform/kernel_log.h"

namespace {

// A device root that goes with the process.
class Root {
 public:
  Root() {
    std::string path = "/tmp/fuzz-device-XXXXXX";
    m_path = ::mkdtemp(path.data());
    lattix::SetDeviceRoot(m_path);
  }
  ~Root() { std::filesystem::remove_all(m_path); }
  void Write(const char* name, std::string_view content) const {
    std::ofstream(m_path + name, std::ios::binary) << content;
  }

 private:
  std::string m_path;
};

void Check(bool holds) {
  if (!holds) std::abort();
}

void ReadDeviceData(std::string_view text) {
  const DeviceData data = DeviceData::Parse(text);
  Check(DeviceData::Parse(data.Text()).Entries() == data.Entries());
}

void ReadTree(std::string_view bytes) {
  static const Root root;
  root.Write("/tree", bytes);
  Check(device_tree::FlatRootString("/tree", "version").size() <= 256);
}

void CompareVersions(std::string_view text) {
  const std::string_view a = text.substr(0, text.find('\n'));
  const std::string_view b = text.substr(std::min(a.size() + 1, text.size()));
  Check(lattix::CompareVersions(a, a) == 0);
  Check((lattix::CompareVersions(a, b) > 0) == (lattix::CompareVersions(b, a) < 0));
  lattix::VersionNumber(a);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  try {
    switch (data[0] % 4) {
      case 0: ReadDeviceData(bytes); break;
      case 1: ReadTree(bytes); break;
      case 2: Check(lattix::KernelLogLine::Parse(bytes).text.size() <= bytes.size()); break;
      case 3: CompareVersions(bytes); break;
    }
  } catch (const std::exception&) {
    // Refused.
  }
  return 0;
}
