// The objects through which scripts look at the unit and at its kernel's log.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "lib/hardware/usb_topology.h"
#include "lib/platform/kernel_log.h"
#include "lib/scripting/CommonAPI/Include/interface_mixins.h"

class DeviceInfoInstance final
    : public MixinForwarder<DeviceInfoInstance, KelvoObjectInstance<DeviceInfoInstance>> {
 public:
  static pscClass sm_class;  // koDeviceInfo

  std::string GetModel();
  std::string GetVersion();
  int32_t GetVersionNumber();
  int32_t GetDeviceUptime();
  int32_t GetDeviceLifetime() { return 0; }   // scripts ask, no unit counts
  int32_t GetDeviceBootCount() { return 0; }  // the same
  std::string GetBootVersion();
  int32_t GetBootVersionNumber();
  std::string GetBootExtraVersion();
  std::string GetRescueVersion();
  std::string GetDeviceUniqueId();
  std::string GetSecureId();
  std::string GetBoardName();
  bool HasFeature(psText name);
  std::string GetFamily();
  int32_t GetHardwareRevision();
  bool FirmwareIsAtLeast(psText version);
  bool BootFirmwareIsAtLeast(psText version);
  KelvoObjectRef GetUSBTopology(pscInstance* parameters);
  KelvoObjectRef GetLoadStatistics(pscInstance* parameters);
  KelvoObjectRef GetHeapsUsage() { return {}; }
  KelvoObjectRef GetTemperature();

 private:
  std::optional<std::vector<UsbNode>> m_usb;  // as it was last read
};

class SystemLogInstance final
    : public MixinForwarder<SystemLogInstance, KelvoObjectInstance<SystemLogInstance>,
                            StreamSendMixin, FailureReasonMixin> {
 public:
  static pscClass sm_class;  // koSystemLog

  bool Init();
  // Scripts rely on lines ending as they do.
  void SetSendEol(psText) {}
  void SendLine(psText line);
  KelvoObjectRef ReadLog();
  KelvoObjectRef ReadNextLine();

 protected:
  void DoSend(std::string_view bytes) override;
  void DoFlush() override;

 private:
  void WritePending();

  std::unique_ptr<lattix::KernelLog> m_log;
  KelvoText m_pending;
};
