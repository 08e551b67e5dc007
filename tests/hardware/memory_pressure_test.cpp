#include <gtest/gtest.h>

#include "lib/hardware/memory_pressure_monitor.h"
#include "tests/platform/test_support.h"

namespace {

TEST(MemoryPressureTest, TheRegistryDisablesTheMonitor) {
  for (const auto& [setting, exists] : {std::pair("0", false), {"off", false}, {"1", true}}) {
    const TemporaryRoot root;
    root.Write("/var/lib/orvex/registry.json",
               std::string(R"({"html":{"mpm":")") + setting + "\"}}");
    testing::internal::CaptureStderr();
    EXPECT_EQ(exists, MemoryPressureMonitor::Create() != nullptr);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(exists, log.find("disabled via registry key html/mpm\n") == std::string::npos);
  }
}

TEST(MemoryPressureTest, LevelsFollowTheKernelsAverages) {
  constexpr char kRest[] = " avg60=99.00 avg300=99.00 total=1\n";
  struct Row {
    const char* some;
    const char* full;
    MemoryPressure level;
  };
  for (const Row& row :
       {Row{"9.99", "0.00", MemoryPressure::kNone}, Row{"10.00", "9.99", MemoryPressure::kModerate},
        Row{"50.00", "10.00", MemoryPressure::kCritical}}) {
    EXPECT_EQ(row.level, MemoryPressureOf(std::string("some avg10=") + row.some + kRest +
                                          "full avg10=" + row.full + kRest));
  }
  EXPECT_EQ(MemoryPressure::kNone, MemoryPressureOf("nonsense"));
}

}  // namespace
