// The device data ("SRB"): what manufacture writes into a unit, as keys and values.
//
// It lies in "/var/lib/orvex/device-data", a text of KEY=VALUE lines. docs/device-data.md lists the
// keys. A key is made of capital letters, digits and underscores; a value is any text without
// control characters. Lines that are no such pair are skipped, a NUL ends the text, and of two
// values of one key the later one counts.
//
// An object is a copy of the data, for one thread at a time; several may be read and written at
// once, as the file is replaced whole.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

class DeviceData {
 public:
  using Entry = std::pair<std::string, std::string>;

  static constexpr char kPath[] = "/var/lib/orvex/device-data";
  // Far above what a unit needs: what exceeds them is no device data.
  static constexpr size_t kMaxKey = 64;
  static constexpr size_t kMaxValue = 1024;
  static constexpr size_t kMaxEntries = 256;
  static constexpr size_t kMaxText = 64 * 1024;

  // No data.
  DeviceData() = default;

  // Reads what a text holds. Throws std::runtime_error for one that is too large, and what Set
  // throws for more keys than there may be.
  static DeviceData Parse(std::string_view text);
  // The unit's own. Throws lattix::ErrnoException when the store cannot be read, and what Parse
  // throws.
  static DeviceData Read();
  // The same kind of text at the beginning of another file or partition (device path), of which no
  // more than kMaxText bytes are read. The same failures.
  static DeviceData ReadFrom(const std::string& device_path);
  // Makes this the unit's data, durably. Throws lattix::ErrnoException. The signature is kept as it
  // is: whoever changes signed data signs it anew.
  void Write() const;
  // Removes the unit's data; none is no failure.
  static void Erase();

  // The value of a key; empty when there is none.
  const std::string& Get(std::string_view key) const;
  // Throws std::invalid_argument "Invalid device data key '{}'", "Invalid device data value '{}'"
  // or "Device data is full".
  void Set(std::string_view key, std::string_view value);

  // All pairs, in the order of the store.
  const std::vector<Entry>& Entries() const { return m_entries; }
  // Whether manufacture has written it: "PS_FORMAT" is "1".
  bool IsValid() const { return Get("PS_FORMAT") == "1"; }
  // The text that Parse reads.
  std::string Text() const;
  // What "PS_SIGNATURE" signs: the text of all other entries, sorted by key.
  std::string SignedText() const;

 private:
  std::vector<Entry> m_entries;
};
