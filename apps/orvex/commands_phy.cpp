// The registers of an Ethernet PHY (IEEE 802.3, clause 22), and the test modes that one of them
// selects. They are reached through the network interface, which a device root cannot hold: there
// the interface's driver has no such registers.
#include <linux/mii.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "apps/orvex/command_numbers.h"
#include "apps/orvex/commands_lowlevel.h"
#include "apps/orvex/commands_network.h"
#include "apps/orvex/network_interfaces.h"
#include "lib/platform/device_path.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/unique_fd.h"

namespace commands {

namespace {

constexpr uint16_t kRegisters = 32;
// 1000BASE-T control, bits 15 to 13 (IEEE 802.3, 40.6.1.1.2).
constexpr uint64_t kLastTestMode = 4;
constexpr int kTestModeShift = 13;
constexpr uint16_t kTestModeBits = 7 << kTestModeShift;

class Phy {
 public:
  // Throws lattix::ErrnoException, as the others do.
  explicit Phy(const std::string& interface) {
    if (lattix::InDeviceRoot()) throw lattix::ErrnoException(EOPNOTSUPP, interface);
    m_socket.Reset(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!m_socket) throw lattix::ErrnoException(errno, "socket");
    interface.copy(m_request.ifr_name, IFNAMSIZ - 1);
    Do(SIOCGMIIPHY);  // fills in the PHY's own address
  }
  uint16_t Read(uint16_t number) {
    m_registers.reg_num = number;
    Do(SIOCGMIIREG);
    return m_registers.val_out;
  }
  void Write(uint16_t number, uint16_t value) {
    m_registers.reg_num = number;
    m_registers.val_in = value;
    Do(SIOCSMIIREG);
  }

 private:
  void Do(unsigned long request) {
    static_assert(sizeof m_registers <= sizeof m_request.ifr_ifru);
    std::memcpy(&m_request.ifr_ifru, &m_registers, sizeof m_registers);
    if (::ioctl(m_socket.Get(), request, &m_request) < 0) {
      throw lattix::ErrnoException(errno, m_request.ifr_name);
    }
    std::memcpy(&m_registers, &m_request.ifr_ifru, sizeof m_registers);
  }

  lattix::UniqueFd m_socket;
  ifreq m_request = {};
  mii_ioctl_data m_registers = {};  // what the request carries
};

// The interface that is named by the first argument, or the first one, when it is there; empty, and
// the reason printed, when not. `first` becomes the number of the argument after it.
std::string Interface(const CommandLine& command, size_t* first) {
  std::string_view selector;
  if (command.argument(1).starts_with(':')) selector = command.argument(1);
  *first = selector.empty() ? 1 : 2;
  return SelectInterface(command, selector, 0);
}

}  // namespace

int Mii(const CommandLine& command) {
  size_t first = 1;
  if (command.argument_count() == 0) return command.Usage();
  const std::string interface = Interface(command, &first);
  if (interface.empty()) return 1;
  const std::string_view action = command.argument(first);
  const size_t count = command.argument_count() + 1 - first;
  const auto number = ParseNumber(command.argument(first + 1), kRegisters - 1);
  const auto value = ParseNumber(command.argument(first + 2), UINT16_MAX);
  if (action == "dump" && count == 1) {
    Phy phy(interface);
    for (uint16_t i = 0; i < kRegisters; ++i) command.Print("{:2}: 0x{:04x}", i, phy.Read(i));
    return 0;
  }
  if (action == "read" && count == 2 && number) {
    command.Print("0x{:04x}", Phy(interface).Read(static_cast<uint16_t>(*number)));
    return 0;
  }
  if (action == "write" && count == 3 && number && value) {
    Phy(interface).Write(static_cast<uint16_t>(*number), static_cast<uint16_t>(*value));
    return 0;
  }
  return command.Usage();
}

int EthTestMode(const CommandLine& command) {
  size_t first = 1;
  if (command.argument_count() == 0) return command.Usage();
  const std::string interface = Interface(command, &first);
  if (interface.empty()) return 1;
  const auto mode = ParseNumber(command.argument(first), UINT32_MAX, 10);
  if (command.argument_count() != first || !mode) return command.Usage();
  if (*mode > kLastTestMode) {
    command.Print("Test {} is out of range", *mode);
    return 1;
  }
  Phy phy(interface);
  const uint16_t others = phy.Read(MII_CTRL1000) & static_cast<uint16_t>(~kTestModeBits);
  phy.Write(MII_CTRL1000, static_cast<uint16_t>(others | *mode << kTestModeShift));
  if (*mode != 0) {
    command.Print("{} is now in test mode {}", interface, *mode);
  } else {
    command.Print("{} is no longer in test mode", interface);
  }
  return 0;
}

}  // namespace commands
