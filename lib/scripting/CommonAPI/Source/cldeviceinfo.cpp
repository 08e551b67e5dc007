// koDeviceInfo: what the unit is, asked of the hardware layer at each call. The USB tree alone is
// kept, for scripts that want it in several forms.
#include <fmt/format.h>

#include <stdexcept>

#include "lib/hardware/boot_versions.h"
#include "lib/hardware/load_statistics.h"
#include "lib/hardware/temperature.h"
#include "lib/platform/firmware_version.h"
#include "lib/platform/monotonic_time.h"
#include "lib/scripting/CommonAPI/Include/device_objects.h"
#include "lib/scripting/CommonAPI/Include/ko_container.h"
#include "lib/scripting/CommonAPI/Include/object_globals.h"
#include "lib/scripting/Plumscript/Source/clwrappers.h"

namespace {

HardwareConfig& Hardware() { return KelvoObjectGlobals::GetInstance().GetHardwareConfig(); }

bool IsNone(pscInstance* object) { return object == nullptr || object->psc_class == &clInvalid; }

KelvoObjectRef NewNumber(pscDomain* domain, double number) {
  return KelvoTypedValue::From(domain, number).CoerceToObject(domain);
}

}  // namespace

// --- The unit and its versions ----------------------------------------------------------------

std::string DeviceInfoInstance::GetModel() { return Hardware().GetModel(); }
std::string DeviceInfoInstance::GetDeviceUniqueId() { return Hardware().GetSerial(); }
std::string DeviceInfoInstance::GetSecureId() { return Hardware().GetSecureId(); }
std::string DeviceInfoInstance::GetBoardName() { return Hardware().GetBoardName(); }
std::string DeviceInfoInstance::GetFamily() { return HardwareConfig::GetFamily(); }
int32_t DeviceInfoInstance::GetHardwareRevision() { return Hardware().GetHardwareRevision(); }
bool DeviceInfoInstance::HasFeature(psText name) { return Hardware().HasFeature(name); }

int32_t DeviceInfoInstance::GetDeviceUptime() {
  return static_cast<int32_t>(lattix::get_monotonic_time() / 1'000'000'000);
}

std::string DeviceInfoInstance::GetVersion() { return lattix::FirmwareVersion(); }
int32_t DeviceInfoInstance::GetVersionNumber() {
  return lattix::VersionNumber(lattix::FirmwareVersion());
}
bool DeviceInfoInstance::FirmwareIsAtLeast(psText version) {
  return lattix::CompareVersions(lattix::FirmwareVersion(), version) >= 0;
}

std::string DeviceInfoInstance::GetBootVersion() { return ReadBootVersion(); }
int32_t DeviceInfoInstance::GetBootVersionNumber() {
  return lattix::VersionNumber(ReadBootVersion());
}
bool DeviceInfoInstance::BootFirmwareIsAtLeast(psText version) {
  return lattix::CompareVersions(ReadBootVersion(), version) >= 0;
}
std::string DeviceInfoInstance::GetBootExtraVersion() { return ReadBootExtraVersion(); }
std::string DeviceInfoInstance::GetRescueVersion() { return ReadRescueVersion(); }

// --- USB --------------------------------------------------------------------------------------

namespace {

enum class UsbFormat { kXml, kFlat, kArray, kJson };

struct UsbFormatName {
  const char* name;
  UsbFormat format;
};
constexpr UsbFormatName kUsbFormats[] = {
    {"xml", UsbFormat::kXml},
    {"flat", UsbFormat::kFlat},
    {"array", UsbFormat::kArray},
    {"json", UsbFormat::kJson},
};

struct UsbParameters {
  UsbFormat format = UsbFormat::kXml;
  bool rebuild = true;
};

UsbParameters ReadUsbParameters(pscInstance* parameters) {
  std::optional<UsbFormat> format;
  std::optional<bool> array;
  UsbParameters result;
  if (IsNone(parameters)) return result;
  KelvoAssocArrayEnumerator(parameters, [&](const std::string& key, const KelvoTypedValue& value) {
    if (key == "format") {
      const std::string name = value.ToString();
      for (const UsbFormatName& row : kUsbFormats) {
        if (name == row.name) format = row.format;
      }
      if (!format) {
        throw std::runtime_error(fmt::format("Unknown GetUSBTopology format '{}'", name));
      }
    } else if (key == "rebuild") {
      result.rebuild = value.ToBoolean();
    } else if (key == "array") {
      array = value.ToBoolean();
    } else {
      throw std::runtime_error(fmt::format("Unknown GetUSBTopology parameter '{}'", key));
    }
  });
  // The older of the two ways to choose knows arrays and, without them, XML. The order in which an
  // array enumerates is no choice of its author's, so it does not matter here either.
  if (array) {
    const UsbFormat chosen = *array ? UsbFormat::kArray : UsbFormat::kXml;
    if (format.value_or(chosen) != chosen) {
      throw std::runtime_error(
          fmt::format("Can not set format with {} when previously set with format parameter",
                      *array ? "array" : "xml"));
    }
    format = chosen;
  }
  result.format = format.value_or(result.format);
  return result;
}

class DeviceInfoWalkerArray final : public UsbTopologyWalker {
 public:
  explicit DeviceInfoWalkerArray(pscDomain* domain) : m_domain(domain), m_top(domain) {}

  void EnterContainer(const UsbNode& container) override {
    m_open.push_back(
        {Describe(container), KelvoArrayCreator(m_domain), KelvoArrayCreator(m_domain)});
  }
  void LeaveContainer(const UsbNode&) override {
    Open done = std::move(m_open.back());
    m_open.pop_back();
    done.entry.Set("devices", done.devices.Take());
    done.entry.Set("containers", done.containers.Take());
    (m_open.empty() ? m_top : m_open.back().containers).Add(done.entry.Take());
  }
  void Device(const UsbNode& device) override {
    KelvoAssocArrayCreator entry = Describe(device);
    entry.Set("ident", device.Ident());
    (m_open.empty() ? m_top : m_open.back().devices).Add(entry.Take());
  }
  KelvoObjectRef Take() { return m_top.Take(); }

 private:
  struct Open {
    KelvoAssocArrayCreator entry;
    KelvoArrayCreator devices;
    KelvoArrayCreator containers;
  };

  KelvoAssocArrayCreator Describe(const UsbNode& node) {
    KelvoAssocArrayCreator entry(m_domain);
    entry.Set("category", node.category);
    entry.Set("pid", fmt::format("{:04x}", node.pid));
    entry.Set("type", node.type);
    return entry;
  }

  pscDomain* m_domain;
  KelvoArrayCreator m_top;
  std::vector<Open> m_open;
};

}  // namespace

KelvoObjectRef DeviceInfoInstance::GetUSBTopology(pscInstance* parameters) {
  const UsbParameters chosen = ReadUsbParameters(parameters);
  if (chosen.rebuild || !m_usb) m_usb = ReadUsbTopology();
  switch (chosen.format) {
    case UsbFormat::kXml: return KelvoNewString(GetDomain(), UsbTopologyXml(*m_usb));
    case UsbFormat::kFlat: return KelvoNewString(GetDomain(), UsbTopologyFlat(*m_usb));
    case UsbFormat::kJson: return KelvoNewString(GetDomain(), UsbTopologyJson(*m_usb));
    case UsbFormat::kArray: break;
  }
  DeviceInfoWalkerArray walker(GetDomain());
  walker.Walk(*m_usb);
  return walker.Take();
}

// --- Numbers ----------------------------------------------------------------------------------

KelvoObjectRef DeviceInfoInstance::GetLoadStatistics(pscInstance* parameters) {
  const KelvoTypedValue value = KelvoAssocArrayLookup(parameters, "item");
  if (!value.IsString()) throw std::runtime_error("Value is not a string");
  const std::string item = value.ToString();
  const std::optional<double> number = ReadLoadStatistic(item);
  if (!number) throw std::runtime_error(fmt::format("Unknown load statistic '{}'", item));
  return NewNumber(GetDomain(), *number);
}

KelvoObjectRef DeviceInfoInstance::GetTemperature() {
  const std::optional<double> degrees = ReadBoardTemperature();
  return degrees ? NewNumber(GetDomain(), *degrees) : KelvoObjectRef();
}

namespace {

constexpr fundes kDeviceInfoFunctions[] = {
    koMethod<&DeviceInfoInstance::GetModel>("GetModel"),
    koMethod<&DeviceInfoInstance::GetVersion>("GetVersion"),
    koMethod<&DeviceInfoInstance::GetVersionNumber>("GetVersionNumber"),
    koMethod<&DeviceInfoInstance::GetDeviceUptime>("GetDeviceUptime"),
    koMethod<&DeviceInfoInstance::GetDeviceLifetime>("GetDeviceLifetime"),
    koMethod<&DeviceInfoInstance::GetDeviceBootCount>("GetDeviceBootCount"),
    koMethod<&DeviceInfoInstance::GetBootVersion>("GetBootVersion"),
    koMethod<&DeviceInfoInstance::GetBootVersionNumber>("GetBootVersionNumber"),
    koMethod<&DeviceInfoInstance::GetBootExtraVersion>("GetBootExtraVersion"),
    koMethod<&DeviceInfoInstance::GetRescueVersion>("GetRescueVersion"),
    koMethod<&DeviceInfoInstance::GetDeviceUniqueId>("GetDeviceUniqueId"),
    koMethod<&DeviceInfoInstance::GetSecureId>("GetSecureId"),
    koMethod<&DeviceInfoInstance::GetBoardName>("GetBoardName"),
    koMethod<&DeviceInfoInstance::HasFeature>("HasFeature"),
    koMethod<&DeviceInfoInstance::GetFamily>("GetFamily"),
    koMethod<&DeviceInfoInstance::GetHardwareRevision>("GetHardwareRevision"),
    koMethod<&DeviceInfoInstance::FirmwareIsAtLeast>("FirmwareIsAtLeast"),
    koMethod<&DeviceInfoInstance::BootFirmwareIsAtLeast>("BootFirmwareIsAtLeast"),
    koMethod<&DeviceInfoInstance::GetUSBTopology>("GetUSBTopology"),
    koMethod<&DeviceInfoInstance::GetLoadStatistics>("GetLoadStatistics"),
    koMethod<&DeviceInfoInstance::GetHeapsUsage>("GetHeapsUsage"),
    koMethod<&DeviceInfoInstance::GetTemperature>("GetTemperature"),
    {},
};
constexpr psInterface kDeviceInfoInterfaces[] = {{"ifDeviceInfo", kDeviceInfoFunctions}};

}  // namespace

constinit pscClass DeviceInfoInstance::sm_class =
    KelvoClass<DeviceInfoInstance>("koDeviceInfo", kDeviceInfoInterfaces);
