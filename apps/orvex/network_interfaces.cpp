// Names, hardware addresses and states come from "/sys/class/net", the addresses from the kernel by
// name, the gateways from "/proc/net/route", whose numbers are in network byte order as a
// hexadecimal number of the machine.
#include "apps/orvex/network_interfaces.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <sstream>
#include <system_error>

#include "apps/orvex/command_files.h"
#include "apps/orvex/command_numbers.h"
#include "lib/platform/device_file.h"
#include "lib/platform/device_path.h"
#include "lib/platform/errno_exception.h"

namespace {

constexpr std::array<const char*, 6> kNames = {"eth0", "wlan0", "ppp0", "eth1", "wlan1", "usb0"};
constexpr char kFolder[] = "/sys/class/net/";

bool IsPresent(const std::string& name) {
  std::error_code ignored;
  return std::filesystem::exists(lattix::DevicePath(kFolder + name), ignored);
}

std::string Content(const std::string& device_path) {
  try {
    return lattix::ReadDeviceFile(device_path);
  } catch (const lattix::ErrnoException&) {
    return {};
  }
}

std::string Attribute(const std::string& name, const char* attribute) {
  std::string text = Content(kFolder + name + "/" + attribute);
  text.erase(std::min(text.find('\n'), text.size()));
  return Printable(text);
}

std::string Text(const sockaddr* address) {
  if (address == nullptr) return {};
  char text[NI_MAXHOST];
  const socklen_t length =
      address->sa_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
  return ::getnameinfo(address, length, text, sizeof text, nullptr, 0, NI_NUMERICHOST) == 0 ? text
                                                                                            : "";
}

std::string PrefixText(const sockaddr* mask) {
  if (mask == nullptr) return {};
  sockaddr_in6 mask6;
  std::memcpy(&mask6, mask, sizeof mask6);
  int bits = 0;
  for (const uint8_t byte : mask6.sin6_addr.s6_addr) bits += std::popcount(byte);
  return std::to_string(bits);
}

std::map<std::string, std::vector<InterfaceState::Address>> Addresses() {
  std::map<std::string, std::vector<InterfaceState::Address>> result;
  ifaddrs* raw = nullptr;
  if (::getifaddrs(&raw) != 0) return result;
  const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> all(raw, ::freeifaddrs);
  for (const ifaddrs* i = all.get(); i != nullptr; i = i->ifa_next) {
    if (i->ifa_addr == nullptr) continue;
    if (i->ifa_addr->sa_family == AF_INET) {
      result[i->ifa_name].push_back(
          {Text(i->ifa_addr), Text(i->ifa_netmask),
           (i->ifa_flags & IFF_BROADCAST) != 0 ? Text(i->ifa_broadaddr) : std::string()});
    } else if (i->ifa_addr->sa_family == AF_INET6) {
      result[i->ifa_name].push_back({Text(i->ifa_addr), PrefixText(i->ifa_netmask), ""});
    }
  }
  return result;
}

std::map<std::string, std::string> Gateways() {
  std::map<std::string, std::string> result;
  std::istringstream routes(Content("/proc/net/route"));
  for (std::string line; std::getline(routes, line);) {
    std::istringstream fields(line);
    std::string name, destination, gateway;
    if (!(fields >> name >> destination >> gateway) || destination != "00000000") continue;
    const auto number = ParseNumber(gateway, UINT32_MAX, 16);
    if (!number || *number == 0) continue;
    const in_addr address = {static_cast<in_addr_t>(*number)};
    char text[INET_ADDRSTRLEN];
    result.try_emplace(name, ::inet_ntop(AF_INET, &address, text, sizeof text));
  }
  return result;
}

size_t NumberOf(const std::string& name) {
  return static_cast<size_t>(std::ranges::find(kNames, name) - kNames.begin());
}

}  // namespace

std::span<const char* const> InterfaceNames() { return kNames; }

std::string SelectInterface(const CommandLine& command, std::string_view selector,
                            size_t otherwise) {
  uint64_t number = otherwise;
  if (!selector.empty()) {
    const auto given = ParseNumber(selector.substr(1), UINT32_MAX, 10);
    if (!given) {
      command.Print("Invalid interface name specified");
      return {};
    }
    number = *given;
  }
  if (number >= kNames.size() ||
      (number != kModemInterface && !IsPresent(kNames[static_cast<size_t>(number)]))) {
    command.Print("Interface with index {} is not present", number);
    return {};
  }
  return kNames[static_cast<size_t>(number)];
}

std::vector<InterfaceState> ReadInterfaces() {
  const auto addresses = Addresses();
  const auto gateways = Gateways();
  std::vector<InterfaceState> result;
  std::error_code error;
  for (std::filesystem::directory_iterator i(lattix::DevicePath(kFolder), error), end;
       !error && i != end; i.increment(error)) {
    const std::string name = i->path().filename();
    if (name == "lo" || !i->is_directory(error)) continue;
    InterfaceState state;
    state.name = Printable(name);
    state.mac = Attribute(name, "address");
    state.state = Attribute(name, "operstate");
    state.mtu = Attribute(name, "mtu");
    if (const auto found = addresses.find(name); found != addresses.end()) {
      state.addresses = found->second;
    }
    if (const auto found = gateways.find(name); found != gateways.end()) {
      state.gateway = found->second;
    }
    result.push_back(std::move(state));
  }
  std::ranges::sort(result, {}, [](const InterfaceState& state) {
    return std::pair(NumberOf(state.name), state.name);
  });
  return result;
}

std::vector<std::string> NameServers() {
  std::vector<std::string> result;
  std::istringstream lines(Content("/etc/resolv.conf"));
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    std::string keyword, server;
    if (fields >> keyword >> server && keyword == "nameserver") result.push_back(Printable(server));
  }
  return result;
}
