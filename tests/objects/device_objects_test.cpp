// koDeviceInfo and koSystemLog in a device root of their own.
#include "lib/scripting/CommonAPI/Include/device_objects.h"
#include "lib/scripting/CommonAPI/Include/ko_container.h"
#include "lib/scripting/CommonAPI/Include/object_globals.h"
#include "tests/objects/object_test.h"
#include "tests/platform/test_support.h"

namespace {

using object_test::Arg;
using object_test::describe;
using object_test::Objects;
using object_test::Value;

class DeviceObjects : public Objects {
 protected:
  DeviceObjects() {
    root.Write("/var/lib/orvex/device-data",
               "PS_FORMAT=1\nPS_HWFLAGS=10\nPS_OEM_MODEL=M1\nPS_SERIAL=S1\nPS_HWREV=65535\n");
    root.Write("/proc/boardid", "b board\n");
    root.Write("/etc/orvex-version", "8.10.2\n");
    root.Write("/proc/device-tree/orvex/boot-version", "8.9");
    root.Write("/dev/kmsg", "");
  }

  // Calls a method with an associative array of these entries.
  template <class... Entries>
  std::string callWithEntries(const Value& object, const char* method, const Entries&... entries) {
    KelvoAssocArrayCreator array(domain());
    (array.Set(entries.first, entries.second), ...);
    return describe(callWith(object, method, {psObjectValue(array.Take().Release())}));
  }

  const TemporaryRoot root;
  KelvoObjectGlobals globals;
};

TEST_F(DeviceObjects, DescribeTheUnit) {
  const Value info = create("koDeviceInfo");
  struct Row {
    const char* method;
    std::vector<Arg> args;
    const char* result;
  };
  const Row rows[] = {
      {"GetModel", {}, "\"M1\""},
      {"GetDeviceUniqueId", {}, "\"S1\""},
      {"GetSecureId", {}, "\"\""},
      {"GetBoardName", {}, "\"board\""},
      {"GetFamily", {}, "\"tarsk\""},
      {"GetHardwareRevision", {}, "65535"},
      {"GetVersion", {}, "\"8.10.2\""},
      {"GetVersionNumber", {}, "534530"},
      {"GetBootVersion", {}, "\"8.9\""},
      {"GetBootVersionNumber", {}, "533504"},
      {"GetBootExtraVersion", {}, "\"\""},
      {"GetRescueVersion", {}, "\"0.0.0\""},
      {"GetDeviceLifetime", {}, "0"},
      {"GetDeviceBootCount", {}, "0"},
      {"GetHeapsUsage", {}, "invalid"},
      {"GetTemperature", {}, "invalid"},
      {"HasFeature", {"ETHERNET"}, "true"},
      {"HasFeature", {"WiFi"}, "false"},
      {"FirmwareIsAtLeast", {"8.10.0"}, "true"},
      {"FirmwareIsAtLeast", {"8.11"}, "false"},
      {"BootFirmwareIsAtLeast", {"8.10.0"}, "false"},
      {"BootFirmwareIsAtLeast", {"8.9"}, "true"},
  };
  for (const Row& row : rows) EXPECT_EQ(call(info, row.method, row.args), row.result) << row.method;
}

TEST_F(DeviceObjects, GiveTheUsbTreeInTheFormAskedFor) {
  const auto plug = [this](const std::string& name) {
    root.Write("/sys/bus/usb/devices/" + name + "/idProduct", "000a\n");
  };
  plug("usb1");
  plug("1-1");
  const Value info = create("koDeviceInfo");
  const auto topology = [&](const auto&... entries) {
    return callWithEntries(info, "GetUSBTopology", entries...);
  };
  using Text = std::pair<const char*, const char*>;
  using Switch = std::pair<const char*, bool>;
  const std::string xml = topology();
  const std::string flat = "\"\\usb1,HUB,0000,000a|/|1-1,OTHER,0000,000a|\"";
  EXPECT_TRUE(xml.starts_with("\"<topology><devices raw=\"usb1\""));
  EXPECT_EQ(topology(Text("format", "xml")), xml);
  EXPECT_EQ(topology(Switch("array", false)), xml);
  EXPECT_EQ(topology(Text("format", "xml"), Switch("array", false)), xml);
  EXPECT_EQ(topology(Text("format", "flat")), flat);
  EXPECT_TRUE(topology(Text("format", "json")).starts_with("\"[{\"category\":\"HUB\""));
  EXPECT_EQ(topology(Switch("array", true)),
            "[{\"category\":\"HUB\",\"containers\":[],\"devices\":[{\"category\":\"OTHER\","
            "\"ident\":\"1-1:0000:000a\",\"pid\":\"000a\",\"type\":\"device\"}],"
            "\"pid\":\"000a\",\"type\":\"roothub\"}]");
  plug("usb2");
  EXPECT_EQ(topology(Text("format", "flat"), Switch("rebuild", false)), flat);
  EXPECT_NE(topology(Text("format", "flat")), flat);
  EXPECT_EQ(core.takePrinted(), "");

  EXPECT_EQ(topology(Text("speed", "1")), "invalid");
  EXPECT_EQ(topology(Text("format", "yaml")), "invalid");
  EXPECT_EQ(topology(Text("format", "json"), Switch("array", true)), "invalid");
  EXPECT_EQ(topology(Text("format", "json"), Switch("array", false)), "invalid");
  EXPECT_EQ(core.takePrinted(),
            "koDeviceInfo: Unknown GetUSBTopology parameter 'speed'\n"
            "koDeviceInfo: Unknown GetUSBTopology format 'yaml'\n"
            "koDeviceInfo: Can not set format with array when previously set with format "
            "parameter\n"
            "koDeviceInfo: Can not set format with xml when previously set with format "
            "parameter\n");
}

TEST_F(DeviceObjects, MeasureTheUnit) {
  root.Write("/proc/loadavg", "0.25 0.15 0.10 1/150 1234\n");
  root.Write("/sys/class/thermal/thermal_zone0/type", "soc-thermal\n");
  root.Write("/sys/class/thermal/thermal_zone0/temp", "42500\n");
  const Value info = create("koDeviceInfo");
  const auto load = [&](const auto&... entries) {
    return callWithEntries(info, "GetLoadStatistics", entries...);
  };
  EXPECT_EQ(call(info, "GetTemperature"), "42.5d");
  EXPECT_EQ(load(std::pair("item", "load1")), "0.25d");
  EXPECT_EQ(load(std::pair("item", "load2")), "invalid");
  EXPECT_EQ(load(std::pair("item", 1)), "invalid");
  EXPECT_EQ(load(), "invalid");
}

// What the log's file holds, without sequence numbers and times.
TEST_F(DeviceObjects, WriteTheLogLineByLine) {
  const Value log = create("koSystemLog");
  const auto written = [this] {
    std::string texts;
    const std::string file = root.Read("/dev/kmsg");
    for (size_t at = 0; (at = file.find(';', at)) != file.npos;) {
      const size_t end = file.find('\n', at);
      texts += file.substr(at + 1, end - at);
      at = end;
    }
    root.Write("/dev/kmsg", "");
    return texts;
  };
  call(log, "Flush");
  EXPECT_EQ(written(), "");
  call(log, "SendLine", {"a\tb\x01"});
  EXPECT_EQ(written(), "+ ab\n");
  call(log, "SetSendEol", {";"});
  call(log, "SendByte", {65 + 256});
  EXPECT_EQ(written(), "");
  call(log, "Flush");
  EXPECT_EQ(written(), "+ A\n");
  call(log, "SendBlock", {"one\r\ntwo"});
  EXPECT_EQ(written(), "+ one\n");
  call(log, "SendLine", {""});
  EXPECT_EQ(written(), "+ two\n");
  EXPECT_EQ(call(log, "GetFailureReason"), "\"\"");
  call(log, "SendLine", {std::string(2000, 'x').c_str()});
  EXPECT_EQ(call(log, "GetFailureReason"), "\"Invalid argument\"");
  call(log, "SendLine", {"next"});
  EXPECT_EQ(written(), "+ next\n");
}

TEST_F(DeviceObjects, ReadTheLog) {
  const Value log = create("koSystemLog");
  EXPECT_EQ(call(log, "ReadNextLine"), "invalid");
  EXPECT_EQ(call(log, "ReadLog"), "[]");
  root.Write("/dev/kmsg", "6,1,1500000,-;kernel; text\n12,2,2000000,-;+ script\n");
  EXPECT_EQ(call(log, "ReadNextLine"), "\"kernel; text\"");
  EXPECT_EQ(call(log, "ReadNextLine"), "\"+ script\"");
  EXPECT_EQ(call(log, "ReadNextLine"), "invalid");
  EXPECT_EQ(call(log, "ReadLog"),
            "[\"[    1.500000] kernel; text\",\"<12>[    2.000000] + script\"]");
}

TEST_F(DeviceObjects, NeedALogToWrite) {
  std::filesystem::remove(root.path() + "/dev/kmsg");
  EXPECT_EQ(describe(create("koSystemLog")), "invalid");
  EXPECT_EQ(core.takePrinted(),
            "Plumscript creation of koSystemLog failed:\n  No such file or directory\n");
}

}  // namespace
