// Versions are texts first; the number is a view of one that old scripts compare with.
#include "lib/platform/firmware_version.h"

#include <algorithm>
#include <charconv>

#include "lib/platform/device_file.h"
#include "lib/platform/errno_exception.h"

namespace lattix {

namespace {

constexpr std::string_view kTrimmed("\0\t\n\v\r ", 6);

std::string_view Trim(std::string_view text) {
  const size_t first = text.find_first_not_of(kTrimmed);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kTrimmed) - first + 1);
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// Takes the digits that the text begins with off it; without the zeros in front.
std::string_view TakeNumber(std::string_view* text) {
  const auto end = std::find_if_not(text->begin(), text->end(), IsDigit);
  std::string_view digits = text->substr(0, static_cast<size_t>(end - text->begin()));
  text->remove_prefix(digits.size());
  digits.remove_prefix(std::min(digits.find_first_not_of('0'), digits.size()));
  return digits;
}

}  // namespace

std::string ReadSystemText(const std::string& device_path) {
  try {
    return std::string(Trim(ReadDeviceFile(device_path)));
  } catch (const ErrnoException&) {
    return {};
  }
}

std::string ReadSystemLine(const std::string& device_path) {
  const std::string text = ReadSystemText(device_path);
  return std::string(Trim(std::string_view(text).substr(0, text.find('\n'))));
}

int32_t VersionNumber(std::string_view version) {
  uint32_t fields[3] = {};
  for (uint32_t& field : fields) {
    std::from_chars(version.data(), version.data() + version.size(), field);
    version.remove_prefix(std::min(version.find('.'), version.size()));
    if (!version.empty()) version.remove_prefix(1);
  }
  return static_cast<int32_t>(fields[0] << 16 | fields[1] << 10 | fields[2]);
}

std::strong_ordering CompareVersions(std::string_view a, std::string_view b) {
  while (!a.empty()) {
    if (b.empty()) return std::strong_ordering::greater;
    const bool a_digit = IsDigit(a.front());
    if (a_digit != IsDigit(b.front())) {
      return a_digit ? std::strong_ordering::greater : std::strong_ordering::less;
    }
    if (a_digit) {
      const std::string_view a_number = TakeNumber(&a);
      const std::string_view b_number = TakeNumber(&b);
      if (const auto order = a_number.size() <=> b_number.size(); order != 0) return order;
      if (const auto order = a_number <=> b_number; order != 0) return order;
    } else {
      const auto order = static_cast<uint8_t>(a.front()) <=> static_cast<uint8_t>(b.front());
      if (order != 0) return order;
      a.remove_prefix(1);
      b.remove_prefix(1);
    }
  }
  return b.empty() ? std::strong_ordering::equal : std::strong_ordering::less;
}

}  // namespace lattix
