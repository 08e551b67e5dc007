// A unit has a dozen keys, so a list that keeps the store's order does for finding them as well.
#include "lib/hardware/device_data.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

#include "lib/platform/device_file.h"
#include "lib/platform/device_path.h"
#include "lib/platform/durable_file.h"
#include "lib/platform/errno_exception.h"

namespace {

bool IsKey(std::string_view key) {
  return !key.empty() && key.size() <= DeviceData::kMaxKey && std::ranges::all_of(key, [](char c) {
    return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
  });
}

bool IsValue(std::string_view value) {
  return value.size() <= DeviceData::kMaxValue && std::ranges::all_of(value, [](char c) {
           return static_cast<uint8_t>(c) >= ' ' && c != '\x7f';
         });
}

void Append(std::string* text, const DeviceData::Entry& entry) {
  text->append(entry.first).append("=").append(entry.second).append("\n");
}

}  // namespace

DeviceData DeviceData::Parse(std::string_view text) {
  if (text.size() > kMaxText) throw std::runtime_error("Device data is too large");
  text = text.substr(0, text.find('\0'));
  DeviceData data;
  while (!text.empty()) {
    std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    if (line.ends_with('\r')) line.remove_suffix(1);
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos) continue;
    const std::string_view key = line.substr(0, equals);
    const std::string_view value = line.substr(equals + 1);
    if (IsKey(key) && IsValue(value)) data.Set(key, value);
  }
  return data;
}

DeviceData DeviceData::ReadFrom(const std::string& device_path) {
  const lattix::UniqueFd fd = lattix::OpenDevice(device_path, O_RDONLY);
  std::string text(kMaxText, '\0');
  size_t size = 0;
  while (size < kMaxText) {
    const ssize_t n = ::read(fd.Get(), text.data() + size, kMaxText - size);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw lattix::ErrnoException(errno, device_path);
    if (n == 0) break;
    size += static_cast<size_t>(n);
  }
  text.resize(size);
  return Parse(text);
}

DeviceData DeviceData::Read() { return Parse(lattix::ReadDeviceFile(kPath)); }

void DeviceData::Write() const { lattix::ReplaceDeviceFile(kPath, Text(), 0644); }

void DeviceData::Erase() {
  if (::unlink(lattix::DevicePath(kPath).c_str()) != 0) {
    if (errno == ENOENT) return;
    throw lattix::ErrnoException(errno, kPath);
  }
  lattix::SyncFolderOf(kPath);
}

const std::string& DeviceData::Get(std::string_view key) const {
  static const std::string none;
  const auto found = std::ranges::find(m_entries, key, &Entry::first);
  return found != m_entries.end() ? found->second : none;
}

void DeviceData::Set(std::string_view key, std::string_view value) {
  if (!IsKey(key)) throw std::invalid_argument(fmt::format("Invalid device data key '{}'", key));
  if (!IsValue(value)) {
    throw std::invalid_argument(fmt::format("Invalid device data value '{}'", value));
  }
  const auto found = std::ranges::find(m_entries, key, &Entry::first);
  if (found == m_entries.end() && m_entries.size() == kMaxEntries) {
    throw std::invalid_argument("Device data is full");
  }
  size_t size = key.size() + value.size() + 2;
  for (const Entry& entry : m_entries) {
    if (entry.first != key) size += entry.first.size() + entry.second.size() + 2;
  }
  if (size > kMaxText) throw std::invalid_argument("Device data is full");
  if (found != m_entries.end()) {
    found->second = value;
  } else {
    m_entries.emplace_back(key, value);
  }
}

std::string DeviceData::Text() const {
  std::string text;
  for (const Entry& entry : m_entries) Append(&text, entry);
  return text;
}

std::string DeviceData::SignedText() const {
  std::vector<Entry> sorted = m_entries;
  std::ranges::sort(sorted);
  std::string text;
  for (const Entry& entry : sorted) {
    if (entry.first != "PS_SIGNATURE") Append(&text, entry);
  }
  return text;
}
