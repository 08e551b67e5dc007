// Reading costs one system call and an addition. In a root the offset is read from its file once
// and written whenever it changes: it is the root's hardware clock, from which the next process
// starts. It holds a line "offset NANOSECONDS" and a line "hardware set" or "hardware unset".
#include "lib/platform/system_clock.h"

#include <fcntl.h>
#include <linux/rtc.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <string>
#include <system_error>

#include <fmt/format.h>

#include "lib/platform/device_file.h"
#include "lib/platform/device_path.h"
#include "lib/platform/durable_file.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/log.h"

namespace lattix {

namespace {

constexpr int64_t kSecond = 1'000'000'000;
constexpr char kRootClockPath[] = "/var/lib/orvex/clock";
// The bus of the board's clock, a number of four bytes, the highest first.
constexpr char kRtcBusPath[] = "/proc/device-tree/orvex/rtc-i2c-dev";
constexpr char kRtcClassPath[] = "/sys/class/rtc";
// No device was made before: an earlier time is what a clock without power counts from.
constexpr int64_t kFirstPlausible = 1'577'836'800;  // 2020-01-01

int64_t MachineNow() {
  timespec now;
  if (::clock_gettime(CLOCK_REALTIME, &now) != 0) throw ErrnoException(errno, "clock_gettime");
  return now.tv_sec * kSecond + now.tv_nsec;
}

// The device node of the board's clock: that on the bus which the device tree names, or the first
// one where it names none.
std::string RtcDevice() {
  std::string property;
  try {
    property = ReadDeviceFile(kRtcBusPath);
  } catch (const ErrnoException&) {
    return "/dev/rtc0";
  }
  if (property.size() != 4) return "/dev/rtc0";
  uint32_t bus = 0;
  for (const char byte : property) bus = bus << 8 | static_cast<uint8_t>(byte);
  const std::string wanted = fmt::format("/i2c-{}/", bus);
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(DevicePath(kRtcClassPath), error)) {
    const auto target = std::filesystem::canonical(entry.path(), error);
    if (!error && target.string().find(wanted) != std::string::npos) {
      return "/dev/" + entry.path().filename().string();
    }
  }
  throw ErrnoException(ENOENT, "/dev/rtc");
}

// Between the kernel's broken-down time and the C library's, which count alike. The day of the week
// and of the year follow from the rest.
template <class To, class From>
To Converted(const From& from) {
  To to = {};
  to.tm_sec = from.tm_sec;
  to.tm_min = from.tm_min;
  to.tm_hour = from.tm_hour;
  to.tm_mday = from.tm_mday;
  to.tm_mon = from.tm_mon;
  to.tm_year = from.tm_year;
  return to;
}

void WriteRtc(int64_t seconds) {
  const std::string path = RtcDevice();
  const UniqueFd fd = OpenDevice(path, O_RDONLY);
  const time_t time = static_cast<time_t>(seconds);
  tm parts;
  ::gmtime_r(&time, &parts);
  const auto rtc = Converted<rtc_time>(parts);
  if (::ioctl(fd.Get(), RTC_SET_TIME, &rtc) != 0) throw ErrnoException(errno, path);
}

// Whether the board's clock tells a time; one whose power was gone says EINVAL.
bool RtcIsSet() {
  try {
    const UniqueFd fd = OpenDevice(RtcDevice(), O_RDONLY);
    rtc_time rtc = {};
    if (::ioctl(fd.Get(), RTC_RD_TIME, &rtc) != 0) return false;
    auto parts = Converted<tm>(rtc);
    return ::timegm(&parts) >= kFirstPlausible;
  } catch (const ErrnoException&) {
    return false;
  }
}

}  // namespace

SystemClock& SystemClock::Get() {
  static auto& clock = *new SystemClock;
  return clock;
}

SystemClock::SystemClock() { Reload(); }

void SystemClock::Reload() {
  const std::lock_guard lock(m_mutex);
  m_in_root = InDeviceRoot();
  const RootState state = m_in_root ? LoadRoot() : RootState{};
  m_offset = state.offset;
  m_was_set = false;
  m_hardware_is_set.reset();
  if (m_in_root) m_hardware_is_set = state.hardware_is_set;
}

SystemClock::RootState SystemClock::LoadRoot() {
  RootState state;
  try {
    const std::string text = ReadDeviceFile(kRootClockPath);
    char hardware[8] = "";
    const int fields =
        std::sscanf(text.c_str(), "offset %" SCNd64 "\nhardware %7s", &state.offset, hardware);
    if (fields == 2 && state.offset >= -MachineNow()) {  // Set allows no time before 1970
      state.hardware_is_set = std::string_view(hardware) == "set";
      return state;
    }
    Log("{}: not a clock's offset; the machine's clock is used\n", kRootClockPath);
  } catch (const ErrnoException& e) {
    if (e.error() != ENOENT && e.error() != ENOTDIR) Log("{}: {}\n", kRootClockPath, e.what());
  }
  return {};
}

void SystemClock::SaveRoot(const RootState& state) {
  ReplaceDeviceFile(kRootClockPath,
                    fmt::format("offset {}\nhardware {}\n", state.offset,
                                state.hardware_is_set ? "set" : "unset"),
                    0644);
  m_hardware_is_set = state.hardware_is_set;
}

int64_t SystemClock::Now() {
  int64_t now;
  // A root's clock may have been set to the end of time.
  return __builtin_add_overflow(MachineNow(), m_offset.load(), &now) ? INT64_MAX : now;
}

void SystemClock::Set(int64_t utc) {
  {
    const std::lock_guard lock(m_mutex);
    if (utc < 0) throw ErrnoException(EINVAL);
    if (m_in_root) {
      const int64_t offset = utc - MachineNow();
      SaveRoot({offset, true});
      m_offset = offset;
    } else {
      const timespec time = {utc / kSecond, utc % kSecond};
      if (::clock_settime(CLOCK_REALTIME, &time) != 0) throw ErrnoException(errno, "clock_settime");
    }
    m_was_set = true;
  }
  if (!m_in_root) {
    try {
      SetHardwareClock(utc);
    } catch (const ErrnoException& e) {
      // Many boards have none.
      if (e.error() != ENOENT) {
        Log("Unable to set hardware clock: ({}) {}\n", e.error(), e.what());
      }
    }
  }
  m_changes.Call();
}

void SystemClock::SetHardwareClock(int64_t utc) {
  const std::lock_guard lock(m_mutex);
  if (m_in_root) {
    if (utc < 0) throw ErrnoException(EINVAL);
    SaveRoot({utc - MachineNow(), true});
  } else {
    WriteRtc(utc / kSecond);
    m_hardware_is_set = true;
  }
}

void SystemClock::UnsetHardwareClock() {
  const std::lock_guard lock(m_mutex);
  if (m_in_root) {
    SaveRoot({m_offset, false});
  } else {
    WriteRtc(0);
    m_hardware_is_set = false;
  }
}

bool SystemClock::IsValid() {
  if (m_was_set) return true;
  const std::lock_guard lock(m_mutex);
  if (!m_hardware_is_set) m_hardware_is_set = RtcIsSet();
  return *m_hardware_is_set && Now() >= kFirstPlausible * kSecond;
}

}  // namespace lattix
