#include "lib/platform/firmware_version.h"

#include "tests/platform/test_support.h"

namespace {

TEST(FirmwareVersion, IsTrimmed) {
  const TemporaryRoot root;
  EXPECT_EQ(lattix::FirmwareVersionText(), "");
  struct Row {
    std::string content, text, line;
  };
  const Row rows[] = {
      {"  8.5.1\r\n", "8.5.1", "8.5.1"},
      {std::string("\0\t\v8.5.1\f\n", 10), "8.5.1\f", "8.5.1\f"},
      {"\n8.5.1 \nsecond\n", "8.5.1 \nsecond", "8.5.1"},
      {" \n", "", ""},
  };
  for (const Row& row : rows) {
    root.Write("/etc/orvex-version", row.content);
    EXPECT_EQ(lattix::FirmwareVersionText(), row.text);
    EXPECT_EQ(lattix::FirmwareVersion(), row.line);
  }
}

TEST(FirmwareVersion, BecomesANumber) {
  const std::pair<const char*, int32_t> rows[] = {
      {"8.5.33", 529441},        {"8.5", 8 << 16 | 5 << 10}, {"", 0},
      {"9.0.0.7-beta", 9 << 16}, {"1.64.0", 1 << 16},        {"1.0.33rc1", 1 << 16 | 33},
      {"x.1.2", 1 << 10 | 2},    {"4294967296.0.1", 1},      {"..3", 3},
  };
  for (const auto& [text, number] : rows) EXPECT_EQ(lattix::VersionNumber(text), number) << text;
}

TEST(FirmwareVersion, Compares) {
  const char* const greater_than[][2] = {
      {"8.10.2", "8.10.0"},
      {"8.10.0", "8.9.99"},
      {"8.10.0.1", "8.10.0"},
      {"1", ""},
      {"8.1", "8.a"},
      {"8.b", "8.a"},
      {"8\xff", "8a"},
      {"99999999999999999999999", "99999999999999999999998"},
      {"10000000000000000000000", "9"},
  };
  for (const auto& [a, b] : greater_than) {
    EXPECT_TRUE(lattix::CompareVersions(a, b) > 0) << a << " " << b;
    EXPECT_TRUE(lattix::CompareVersions(b, a) < 0) << a << " " << b;
    EXPECT_TRUE(lattix::CompareVersions(a, a) == 0) << a;
  }
  EXPECT_TRUE(lattix::CompareVersions("8.005.1", "8.5.01") == 0);
}

}  // namespace
