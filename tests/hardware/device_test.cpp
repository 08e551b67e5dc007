// What the unit says about itself, read from device roots made for each case.
#include <fmt/format.h>

#include <initializer_list>
#include <stdexcept>
#include <string>
#include <utility>

#include "lib/hardware/boot_versions.h"
#include "lib/hardware/device_data.h"
#include "lib/hardware/device_secrets.h"
#include "lib/hardware/hardware_config.h"
#include "lib/hardware/load_statistics.h"
#include "lib/hardware/mmc_health.h"
#include "lib/hardware/temperature.h"
#include "lib/hardware/usb_topology.h"
#include "tests/platform/test_support.h"

namespace {

// --- Device data ------------------------------------------------------------------------------

TEST(DeviceData, ReadsPairsAndSkipsEverythingElse) {
  const DeviceData data = DeviceData::Parse(
      "PS_FORMAT=1\r\n# a comment\n\nlower=no\nPS_SERIAL=A=B\nPS_SERIAL=C\nPS_BAD=\x01\n"
      "PS_LAST=x" +
      std::string("\0PS_AFTER=y\n", 11));
  EXPECT_TRUE(data.IsValid());
  EXPECT_EQ(data.Text(), "PS_FORMAT=1\nPS_SERIAL=C\nPS_LAST=x\n");
  EXPECT_EQ(data.Get("PS_AFTER"), "");
}

TEST(DeviceData, KeepsItsLimits) {
  EXPECT_THROW(DeviceData::Parse(std::string(DeviceData::kMaxText + 1, '\n')), std::runtime_error);
  DeviceData data;
  EXPECT_THROW(data.Set("", "x"), std::invalid_argument);
  EXPECT_THROW(data.Set(std::string(DeviceData::kMaxKey + 1, 'K'), "x"), std::invalid_argument);
  EXPECT_THROW(data.Set("K", "line\nline"), std::invalid_argument);
  EXPECT_THROW(data.Set("K", std::string(DeviceData::kMaxValue + 1, 'x')), std::invalid_argument);
  for (size_t i = 0; i < DeviceData::kMaxEntries; i++) data.Set("K" + std::to_string(i), "x");
  EXPECT_THROW(data.Set("ONE_MORE", "x"), std::invalid_argument);
  data.Set("K0", "changed");
  EXPECT_EQ(data.Get("K0"), "changed");
}

TEST(DeviceData, WritesWhatItReadsAgain) {
  const TemporaryRoot root;
  root.Write("/var/lib/orvex/device-data", "PS_FORMAT=1\nPS_SERIAL=1\n");
  DeviceData data = DeviceData::Read();
  data.Set("PS_SERIAL", "2");
  data.Set("PS_SIGNATURE", "00");
  data.Set("PS_ETH0_HWADDR", "02:00:00:00:00:01");
  data.Write();
  EXPECT_EQ(root.Read("/var/lib/orvex/device-data"),
            "PS_FORMAT=1\nPS_SERIAL=2\nPS_SIGNATURE=00\nPS_ETH0_HWADDR=02:00:00:00:00:01\n");
  EXPECT_EQ(DeviceData::Read().SignedText(),
            "PS_ETH0_HWADDR=02:00:00:00:00:01\nPS_FORMAT=1\nPS_SERIAL=2\n");
  DeviceData::Erase();
  DeviceData::Erase();
  EXPECT_ANY_THROW(DeviceData::Read());
}

// --- The unit ---------------------------------------------------------------------------------

class Unit : public testing::Test {
 protected:
  // Flags in hexadecimal.
  void SetFlags(const std::string& flags) {
    root.Write(DeviceData::kPath, "PS_FORMAT=1\nPS_HWFLAGS=" + flags + "\n");
  }
  const TemporaryRoot root;
};

TEST_F(Unit, SaysWhatItsDeviceDataLacks) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(HardwareConfig().GetFlags(), 0u);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "/var/lib/orvex/device-data: No such file or directory\n"
            "SRB not valid. Please run manufacturing test.\n"
            "Hardware configuration bitfield is zero. Please reprogram SRB\n"
            "/proc/boardid: No such file or directory\n");
}

TEST_F(Unit, IsIdentified) {
  root.Write(DeviceData::kPath,
             "PS_FORMAT=1\nPS_HWFLAGS=0xC000000000000001\nPS_OEM_MODEL=M1\nPS_SERIAL=S1\n"
             "PS_HWREV=5\nPS_SECURE_ID=by data\nPS_RESTRICTED=1\n");
  root.Write("/proc/boardid", "abcdefghijklmnopqrstuvwxyz name\n");
  root.Write("/proc/device-tree/compatible",
             std::string("rockchip,rk3588-evb\0rockchip,rk3588\0", 36));
  root.Write("/proc/device-tree/orvex/rtc-i2c-dev", std::string("\0\0\1\2", 4));
  {
    const HardwareConfig unit;
    EXPECT_EQ(unit.GetFlags(), 0xC000000000000001u);
    EXPECT_EQ(unit.GetModel(), "M1");
    EXPECT_EQ(unit.GetSerial(), "S1");
    EXPECT_EQ(unit.GetHardwareRevision(), 5);
    EXPECT_EQ(unit.GetSecureId(), "by data");
    EXPECT_TRUE(unit.IsRestricted());
    EXPECT_EQ(unit.GetBoardId(), "abcdefghijklmnopqrst");
    EXPECT_EQ(unit.GetBoardName(), "uvwxyz");
    EXPECT_EQ(unit.GetSystemOnChip(), "rk3588");
    EXPECT_EQ(unit.GetRtcI2cBus(), 0x102u);
  }
  root.Write("/proc/boardid", "");
  root.Write("/dev/disk/mmc0-partlabel/devid", "SECURE_ID=by partition\n");
  const HardwareConfig unit;
  EXPECT_EQ(unit.GetSecureId(), "by partition");
  EXPECT_EQ(unit.GetBoardName(), "rk3588");
}

// Knows one signature, if it has a key at all.
class Secrets final : public DeviceSecrets {
 public:
  explicit Secrets(bool has_key) : m_has_key(has_key) {}
  std::string DecipherSource(std::string_view) const override { return {}; }
  std::string Reveal(std::string_view) const override { return {}; }
  bool IsUnlockCode(std::string_view) const override { return false; }
  bool IsDeviceDataGenuine(std::string_view data, std::string_view signature) const override {
    if (!m_has_key) throw Error("no key");
    return data == "PS_FORMAT=1\nPS_HWFLAGS=1\n" && signature == "\x01\xff";
  }

 private:
  const bool m_has_key;
};

TEST_F(Unit, IsRestrictedWhenItsDataIsForged) {
  using enum HardwareConfig::Authenticity;
  struct Row {
    const char* data;
    HardwareConfig::Authenticity authenticity;
  };
  constexpr Row kRows[] = {
      {"PS_SIGNATURE=01Ff\nPS_HWFLAGS=1\nPS_FORMAT=1\n", kGenuine},
      {"PS_SIGNATURE=01ff\nPS_HWFLAGS=3\nPS_FORMAT=1\n", kForged},
      {"PS_SIGNATURE=01ff0\nPS_HWFLAGS=1\nPS_FORMAT=1\n", kForged},
      {"PS_HWFLAGS=1\nPS_FORMAT=1\n", kForged},
  };
  for (const Row& row : kRows) {
    root.Write(DeviceData::kPath, row.data);
    const HardwareConfig unit;
    EXPECT_EQ(unit.CheckDeviceData(), kUnchecked);
    for (const bool has_key : {false, true}) {
      const Secrets secrets(has_key);
      EXPECT_EQ(unit.CheckDeviceData(), has_key ? row.authenticity : kUnchecked) << row.data;
      EXPECT_EQ(unit.IsRestricted(), has_key && row.authenticity == kForged) << row.data;
    }
  }
}

TEST_F(Unit, HasTheFeaturesThatItsFlagsGive) {
  struct Row {
    const char* feature;
    const char* flags;  // of which any one gives the feature; the others together do not
  };
  constexpr Row kRows[] = {
      {"AUDIO1", "8008"},
      {"audio2", "8000"},
      {"audio3", "8000"},
      {"sd", "4000"},
      {"sd2", "2000"},
      {"gpio12 button", "200"},
      {"ETHERNET", "8000000000010"},
      {"Ethernet 1", "8000000000000"},
      {"wifi", "20000"},
      {"HDMI", "1"},
      {"enable dws", "20000000000000"},
  };
  for (const Row& row : kRows) {
    const uint64_t giving = std::stoull(row.flags, nullptr, 16);
    for (uint64_t rest = giving; rest != 0; rest &= rest - 1) {
      SetFlags(fmt::format("{:x}", rest & -rest));
      EXPECT_TRUE(HardwareConfig().HasFeature(row.feature)) << row.feature;
    }
    SetFlags(fmt::format("{:x}", ~giving));
    EXPECT_FALSE(HardwareConfig().HasFeature(row.feature)) << row.feature;
  }
  EXPECT_EQ(HardwareFlagNames().size(), 54u);
  EXPECT_EQ(HardwareFlagText(52), "EU-RED");
  EXPECT_EQ(HardwareFlagText(54), "Unknown bit 54");
}

TEST_F(Unit, HasTheFeaturesThatItsFilesGive) {
  SetFlags("1");
  HardwareConfig unit;
  const auto has = [&unit](const char* feature, bool expected) {
    EXPECT_EQ(unit.HasFeature(feature), expected) << feature;
  };
  for (const char* always : {"FindMemberFunction", "plumscript2", "ac3_decode", "registry",
                             "networking", "hevc_decode", "video_transpose", "mosaic_video"}) {
    has(always, true);
  }
  for (const char* absent : {"eac3_decode", "power_over_ethernet", "earc"}) has(absent, false);
  root.Write("/var/volatile/eac3/librkdolby_aes.so", "");
  root.Write("/proc/device-tree/orvex/poe_fitted", std::string("\0\0\0\1", 4));
  root.Write("/proc/device-tree/orvex/disable-video-transpose", "");
  root.Write("/proc/device-tree/orvex/disable-mosaic-mode", "");
  unit.SetEarcCapable(true);
  for (const char* present : {"eac3_decode", "power_over_ethernet", "earc"}) has(present, true);
  for (const char* disabled : {"video_transpose", "mosaic_video"}) has(disabled, false);
  root.Write("/proc/device-tree/orvex/poe_fitted", std::string(4, '\0'));
  has("power_over_ethernet", false);

  testing::internal::CaptureStderr();
  has("teleport", false);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Unknown feature\n");
}

// --- Versions, temperature, load ----------------------------------------------------------------

TEST_F(Unit, ReadsItsVersions) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(ReadBootVersion(), "0.0.0");
  EXPECT_EQ(ReadRescueVersion(), "0.0.0");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Empty boot version from boot loader. Bad.\n"
            "Unable to read rescue kernel version: No such file or directory\n");
  for (const size_t size : {size_t{0}, size_t{1} << 20}) {
    root.Write("/proc/device-tree/orvex/boot-version", std::string(size, '1'));
    EXPECT_EQ(ReadBootVersion(), "0.0.0");
  }
  root.Write("/proc/device-tree/orvex/boot-version", std::string("8.1.2\0", 6));
  EXPECT_EQ(ReadBootVersion(), "8.1.2");

  const auto words = [](std::initializer_list<uint32_t> list) {
    std::string bytes;
    for (const uint32_t word : list) {
      for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(word >> shift);
    }
    return bytes;
  };
  const std::string header = words({0xd00dfeed, 0, 40, 12, 0, 17, 16, 0, 0, 0});
  // The strings lie in the header's unused words: "version" cannot, so it follows the structure.
  std::string tree = header + words({1, 0, 4, 3, 3, 0x1000}) + std::string("no\0\0", 4) +
                     words({3, 6, 0}) + std::string("8.0.9\0\0\0", 8) + words({2, 9});
  const auto strings = static_cast<uint32_t>(tree.size());
  tree.replace(12, 4, words({strings}));
  tree += std::string("version\0", 8);
  root.Write("/dev/disk/mmc0-partlabel/rescue", tree);
  EXPECT_EQ(ReadRescueVersion(), "8.0.9");
  // However it is cut, it ends in the fallback.
  testing::internal::CaptureStderr();
  for (size_t size = 0; size < strings; size++) {
    root.Write("/dev/disk/mmc0-partlabel/rescue", tree.substr(0, size));
    EXPECT_EQ(ReadRescueVersion(), "0.0.0") << size;
  }
  testing::internal::GetCapturedStderr();
}

TEST_F(Unit, MeasuresTheChipRatherThanAnotherZone) {
  EXPECT_EQ(ReadBoardTemperature(), std::nullopt);
  const char* const zones[][2] = {
      {"gpu-thermal", "40000"}, {"cpu-thermal", "-1500"}, {"soc-thermal", "42500"}};
  const double expected[] = {40, -1.5, 42.5};
  for (int i = 0; i < 3; i++) {
    const std::string zone = fmt::format("/sys/class/thermal/thermal_zone{}/", i);
    root.Write(zone + "type", std::string(zones[i][0]) + "\n");
    root.Write(zone + "temp", std::string(zones[i][1]) + "\n");
    EXPECT_EQ(ReadBoardTemperature(), expected[i]);
  }
  root.Write("/sys/class/thermal/thermal_zone2/temp", "");
  EXPECT_EQ(ReadBoardTemperature(), std::nullopt);
}

TEST_F(Unit, ReportsTheWearOfItsMemory) {
  EXPECT_FALSE(ReadMmcHealth());
  root.Write("/sys/block/mmcblk0/device/name", "DG4016\n");
  root.Write("/sys/block/mmcblk0/device/fwrev", "0x42\n");
  root.Write("/sys/block/mmcblk0/device/life_time", "0x01 0x0b\n");
  root.Write("/sys/block/mmcblk0/device/pre_eol_info", "0x02\n");
  EXPECT_EQ(MmcHealthReport(ReadMmcHealth().value()),
            "Name:        DG4016\nFirmware:    0x42\nLife time A: 0% to 10% used\n"
            "Life time B: more than 100% used\nReserve:     warning\n");
  root.Write("/sys/block/mmcblk0/device/life_time", "0x1ff\n");
  EXPECT_EQ(ReadMmcHealth()->life_time_a, 0);
}

TEST_F(Unit, CountsItsLoad) {
  EXPECT_TRUE(ReadLoadStatistics().empty());
  root.Write("/proc/loadavg", "0.20 0.15 0.10 3/150 1234\n");
  root.Write("/proc/meminfo", "MemTotal:  2000 kB\nBuffers: 7 kB\nCached: x\n");
  root.Write("/proc/stat", "cpu  100 2 50 700\ncpu0 1 2 3 4\nctxt 99\n");
  EXPECT_EQ(ReadLoadStatistic("load5"), 0.15);
  EXPECT_EQ(ReadLoadStatistic("tasks_running"), 3);
  EXPECT_EQ(ReadLoadStatistic("tasks"), 150);
  EXPECT_EQ(ReadLoadStatistic("mem_total"), 2000);
  EXPECT_EQ(ReadLoadStatistic("mem_cached"), std::nullopt);
  EXPECT_EQ(ReadLoadStatistic("cpu_system"), 0.5);
  EXPECT_EQ(ReadLoadStatistic("cpu_iowait"), std::nullopt);
  EXPECT_EQ(ReadLoadStatistic("nothing"), std::nullopt);
  EXPECT_EQ(ReadLoadStatistics().size(), 12u);
}

// --- USB ----------------------------------------------------------------------------------------

class Usb : public Unit {
 protected:
  void Plug(const std::string& name, const std::string& device_class, const std::string& vid,
            const std::string& pid, const std::string& interface_class = {}) {
    const std::string folder = "/sys/bus/usb/devices/" + name;
    root.Write(folder + "/bDeviceClass", device_class + "\n");
    root.Write(folder + "/idVendor", vid + "\n");
    root.Write(folder + "/idProduct", pid + "\n");
    if (interface_class.empty()) return;
    root.Write(folder + ":1.1/bInterfaceClass", "01\n");
    root.Write(folder + ":1.0/bInterfaceClass", interface_class + "\n");
  }
};

TEST_F(Usb, IsRenderedAsATree) {
  root.Write("/proc/device-tree/orvex/usb-connectors", std::string("<A>=1-1\0bad\0=1-2\0", 17));
  Plug("usb1", "09", "1d6b", "2");
  Plug("1-1", "09", "05e3", "0608");
  Plug("1-1.2", "00", "046d", "c31c", "03");
  root.Write("/sys/bus/usb/devices/1-1.2/bNumInterfaces", " 2\n");
  root.Write("/sys/bus/usb/devices/1-1.2/product", "Key\tboard\n");
  Plug("1-1.10", "ff", "0403", "6001");
  Plug("1-2", "ef", "zzzz", "", "0e");
  Plug("usb10", "09", "1d6b", "0003");
  Plug("10-1x", "00", "1", "1");
  const std::vector<UsbNode> roots = ReadUsbTopology();
  EXPECT_EQ(UsbTopologyXml(roots),
            "<topology>"
            "<devices raw=\"usb1\" category=\"HUB\" vid=\"1d6b\" pid=\"0002\" type=\"roothub\">"
            "<devices raw=\"1-1\" fid=\"&lt;A&gt;\" category=\"HUB\" vid=\"05e3\" pid=\"0608\" "
            "type=\"hub\">"
            "<device><raw>1-1.2</raw><fid>&lt;A&gt;/2</fid><category>HID</category>"
            "<vid>046d</vid><pid>c31c</pid><type>composite</type></device>"
            "<device><raw>1-1.10</raw><fid>&lt;A&gt;/10</fid><category>VENDOR</category>"
            "<vid>0403</vid><pid>6001</pid><type>device</type></device>"
            "</devices>"
            "<device><raw>1-2</raw><fid></fid><category>VIDEO</category>"
            "<vid>0000</vid><pid>0000</pid><type>device</type></device>"
            "</devices>"
            "<devices raw=\"usb10\" category=\"HUB\" vid=\"1d6b\" pid=\"0003\" type=\"roothub\">"
            "</devices></topology>");
  EXPECT_EQ(UsbTopologyFlat(roots),
            "\\usb1,HUB,1d6b,0002|/\\1-1,HUB,05e3,0608|/|1-1.2,HID,046d,c31c|"
            "|1-1.10,VENDOR,0403,6001||1-2,VIDEO,0000,0000|\\usb10,HUB,1d6b,0003|");
  EXPECT_EQ(UsbTopologyJson(roots),
            R"([{"category":"HUB","pid":"0002","type":"roothub","devices":[)"
            R"({"category":"VIDEO","pid":"0000","type":"device","ident":"1-2:0000:0000"}],)"
            R"("containers":[{"category":"HUB","pid":"0608","type":"hub","devices":[)"
            R"({"category":"HID","pid":"c31c","type":"composite","ident":"1-1.2:046d:c31c"},)"
            R"({"category":"VENDOR","pid":"6001","type":"device","ident":"1-1.10:0403:6001"}],)"
            R"("containers":[]}]},)"
            R"({"category":"HUB","pid":"0003","type":"roothub","devices":[],"containers":[]}])");
  EXPECT_EQ(UsbTopologyListing(roots),
            "usb1 1d6b:0002 HUB\n"
            "  1-1 05e3:0608 HUB (<A>)\n"
            "    1-1.2 046d:c31c HID Key board (<A>/2)\n"
            "    1-1.10 0403:6001 VENDOR (<A>/10)\n"
            "  1-2 0000:0000 VIDEO\n"
            "usb10 1d6b:0003 HUB\n");
}

TEST_F(Usb, IsEmptyWithoutABus) {
  EXPECT_EQ(UsbTopologyXml(ReadUsbTopology()), "<topology></topology>");
  EXPECT_EQ(UsbTopologyJson(ReadUsbTopology()), "[]");
  EXPECT_EQ(UsbTopologyFlat(ReadUsbTopology()), "");
}

}  // namespace
