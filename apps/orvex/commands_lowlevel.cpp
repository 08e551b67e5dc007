// What reaches below the drivers: memory, I2C registers, the test modes of USB ports. Every request
// is made on a device node, which in a device root is a file there.
#include "apps/orvex/commands_lowlevel.h"

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <linux/usb/ch9.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string>

#include "apps/orvex/command_numbers.h"
#include "apps/orvex/hex_dump.h"
#include "apps/orvex/interruptible_output.h"
#include "lib/hardware/hardware_config.h"
#include "lib/platform/device_file.h"
#include "lib/platform/errno_exception.h"

namespace commands {

namespace {

// --- Memory ------------------------------------------------------------------------------------

// Nobody reads more on a terminal.
constexpr uint64_t kMaxDump = uint64_t{16} << 20;
constexpr size_t kDumpBlock = 4096;

// --- I2C ---------------------------------------------------------------------------------------

// The others are reserved for the bus itself (UM10204, 3.1.12).
constexpr uint64_t kFirstI2cDevice = 0x03;
constexpr uint64_t kLastI2cDevice = 0x77;

void Transfer(int fd, std::span<i2c_msg> messages) {
  i2c_rdwr_ioctl_data transfer = {messages.data(), static_cast<uint32_t>(messages.size())};
  if (::ioctl(fd, I2C_RDWR, &transfer) < 0) throw lattix::ErrnoException(errno);
}

// --- USB (2.0: 7.1.20, 9.4.9, 11.24.2) ---------------------------------------------------------

constexpr uint8_t kToPort = USB_DIR_OUT | USB_TYPE_CLASS | USB_RECIP_OTHER;
constexpr uint16_t kPortTest = 21;
constexpr uint64_t kLastTest = 5;  // force enable
constexpr uint64_t kMaxHubPorts = 31;
constexpr uint64_t kMaxBus = 999;  // three digits in the node's name
constexpr uint64_t kMaxDevice = 127;
constexpr uint32_t kUsbMilliseconds = 1000;

// The ports of a board by number, from 1 on: each is the only port of the root hub of its bus.
struct BoardPorts {
  std::string_view system_on_chip;
  std::array<int, 4> buses;  // 0: there are no more
};
constexpr BoardPorts kBoardPorts[] = {
    {"rk3399", {1, 3, 5}},
    {"rk3568", {1, 2, 5}},
    {"rk3576", {1, 3}},
    {"rk3588", {1, 2, 3, 5}},
};

std::string UsbNode(uint64_t bus, uint64_t device) {
  return fmt::format("/dev/bus/usb/{:03}/{:03}", bus, device);
}

// Asks the hub to put its port into the test mode, or, with test 0, out of it. `shown` is the
// number that the operator knows the port by.
int SetTestMode(const CommandLine& command, const std::string& node, uint64_t port, uint64_t shown,
                uint64_t test) {
  const lattix::UniqueFd hub = lattix::OpenDevice(node, O_RDWR);
  usbdevfs_ctrltransfer request = {};
  request.bRequestType = kToPort;
  request.bRequest = test != 0 ? USB_REQ_SET_FEATURE : USB_REQ_CLEAR_FEATURE;
  request.wValue = kPortTest;
  request.wIndex = static_cast<uint16_t>(test << 8 | port);
  request.timeout = kUsbMilliseconds;
  if (::ioctl(hub.Get(), USBDEVFS_CONTROL, &request) < 0) throw lattix::ErrnoException(errno);
  if (test != 0) {
    command.Print("Port {} is now in test mode {}", shown, test);
  } else {
    command.Print("Port {} is no longer in test mode", shown);
  }
  return 0;
}

bool IsInRange(const CommandLine& command, uint64_t port, uint64_t last_port, uint64_t test) {
  if (port < 1 || port > last_port) {
    command.Print("Port {} is out of range", port);
    return false;
  }
  if (test > kLastTest) {
    command.Print("Test {} is out of range", test);
    return false;
  }
  return true;
}

// The arguments, all decimal numbers; false when there are more or fewer, or others.
template <size_t n>
bool ReadNumbers(const CommandLine& command, std::array<uint64_t, n>* numbers) {
  if (command.argument_count() != n) return false;
  for (size_t i = 0; i < n; ++i) {
    const auto number = ParseNumber(command.argument(i + 1), UINT32_MAX, 10);
    if (!number) return false;
    (*numbers)[i] = *number;
  }
  return true;
}

}  // namespace

int MemDump(const CommandLine& command) {
  const auto address = ParseNumber(command.argument(1), INT64_MAX, 16);
  const auto length = ParseNumber(command.argument(2), kMaxDump, 16);
  if (command.argument_count() != 2 || !address || !length || *length == 0 ||
      *address > INT64_MAX - *length) {
    command.Print("Usage: {} <address-in-hex> <length-in-hex>", command.name());
    return 1;
  }
  const InterruptibleOutput output(command.shell);
  const lattix::UniqueFd memory = lattix::OpenDevice("/dev/mem", O_RDONLY);
  // Read, not mapped: an address that has nothing behind it is an error then, not a fault.
  char block[kDumpBlock];
  for (uint64_t done = 0; done < *length;) {
    const size_t wanted = std::min<uint64_t>(kDumpBlock, *length - done);
    const ssize_t n = ::pread(memory.Get(), block, wanted, static_cast<off_t>(*address + done));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw lattix::ErrnoException(errno);
    if (n == 0) throw lattix::ErrnoException(EFAULT);
    output.ShowText(HexDump(*address + done, {block, static_cast<size_t>(n)}));
    done += static_cast<uint64_t>(n);
  }
  return 0;
}

int I2c(const CommandLine& command) {
  const std::string node(command.argument(1));
  const auto device = ParseNumber(command.argument(2), kLastI2cDevice);
  const auto offset = ParseNumber(command.argument(3), UINT8_MAX);
  const auto value = ParseNumber(command.argument(4), UINT8_MAX);
  const size_t count = command.argument_count();
  const bool is_node = node.starts_with("/dev/") && node.find("/../") == std::string::npos;
  if (count < 3 || count > 4 || !is_node || !device || *device < kFirstI2cDevice || !offset ||
      (count == 4 && !value)) {
    command.Print("Usage: {} <devnode> <device> <offset> [<value>]", command.name());
    return 1;
  }
  const lattix::UniqueFd bus = lattix::OpenDevice(node, O_RDWR);
  const auto slave = static_cast<uint16_t>(*device);
  uint8_t out[] = {static_cast<uint8_t>(*offset), static_cast<uint8_t>(value.value_or(0))};
  if (value) {
    i2c_msg message = {slave, 0, sizeof out, out};
    Transfer(bus.Get(), {&message, 1});
    return 0;
  }
  uint8_t in = 0;
  i2c_msg messages[] = {{slave, 0, 1, out}, {slave, I2C_M_RD, 1, &in}};
  Transfer(bus.Get(), messages);
  command.Print("0x{:02x}", in);
  return 0;
}

int UsbTestMode(const CommandLine& command) {
  std::array<uint64_t, 2> numbers;
  if (!ReadNumbers(command, &numbers)) return command.Usage();
  const auto [port, test] = numbers;
  const std::string& chip = HardwareConfig::GetInstance().GetSystemOnChip();
  const auto* const board = std::ranges::find(kBoardPorts, chip, &BoardPorts::system_on_chip);
  if (board == std::end(kBoardPorts)) {
    command.Print("Unknown USB port configuration for {}", chip);
    return 1;
  }
  const auto ports = std::ranges::find(board->buses, 0) - board->buses.begin();
  if (!IsInRange(command, port, static_cast<uint64_t>(ports), test)) return 1;
  return SetTestMode(command, UsbNode(static_cast<uint64_t>(board->buses[port - 1]), 1), 1, port,
                     test);
}

int Usb3TestMode(const CommandLine& command) {
  std::array<uint64_t, 3> numbers;
  if (!ReadNumbers(command, &numbers) || numbers[0] < 1 || numbers[0] > kMaxBus) {
    return command.Usage();
  }
  const auto [bus, port, test] = numbers;
  if (!IsInRange(command, port, kMaxHubPorts, test)) return 1;
  return SetTestMode(command, UsbNode(bus, 1), port, port, test);
}

int UsbHubTestMode(const CommandLine& command) {
  std::array<uint64_t, 4> numbers;
  if (!ReadNumbers(command, &numbers) || numbers[0] < 1 || numbers[0] > kMaxBus || numbers[1] < 1 ||
      numbers[1] > kMaxDevice) {
    return command.Usage();
  }
  const auto [bus, device, port, test] = numbers;
  if (!IsInRange(command, port, kMaxHubPorts, test)) return 1;
  return SetTestMode(command, UsbNode(bus, device), port, port, test);
}

}  // namespace commands
