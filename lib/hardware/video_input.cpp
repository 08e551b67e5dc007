// The kernel lists every capture device below "/sys/class/video4linux/", a folder a device with its
// driver's name for it.
#include "lib/hardware/video_input.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <utility>

#include "lib/platform/device_file.h"
#include "lib/platform/device_path.h"
#include "lib/platform/errno_exception.h"

std::vector<VideoInput::Source> VideoInput::GetSources() const {
  constexpr char kClass[] = "/sys/class/video4linux/";
  constexpr std::string_view kPrefix = "video";
  std::vector<std::pair<int, Source>> found;
  std::error_code error;
  std::filesystem::directory_iterator entry(lattix::DevicePath(kClass), error);
  for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
    const std::string node = entry->path().filename();
    int number = 0;
    if (!node.starts_with(kPrefix) ||
        std::from_chars(node.data() + kPrefix.size(), node.data() + node.size(), number).ec !=
            std::errc()) {
      continue;
    }
    try {
      std::string name = lattix::ReadDeviceFile(kClass + node + "/name");
      if (name.ends_with('\n')) name.pop_back();
      found.emplace_back(number, Source{"/dev/" + node, std::move(name)});
    } catch (const lattix::ErrnoException&) {
      // Unplugged meanwhile.
    }
  }
  std::sort(found.begin(), found.end(),
            [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<Source> sources;
  for (auto& [number, source] : found) sources.push_back(std::move(source));
  return sources;
}
