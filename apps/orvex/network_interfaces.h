// The network interfaces as operators number them, and what they are like.
//
// The numbers are fixed, so that a number means the same interface whatever else is plugged in:
// Ethernet, WiFi and the modem of the device itself first, then those of its USB.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "apps/orvex/command_line.h"

inline constexpr size_t kEthernetInterface = 0;
inline constexpr size_t kWifiInterface = 1;
inline constexpr size_t kModemInterface = 2;

// The names, by number.
std::span<const char* const> InterfaceNames();

// The name of the interface that ":NUMBER" selects, or with an empty selector of the one with the
// number `otherwise`. Empty, and the reason printed, when the selector is none, or the interface is
// not present; the modem's comes with its connection and counts as present.
std::string SelectInterface(const CommandLine& command, std::string_view selector,
                            size_t otherwise);

// What there is to say about an interface now, all of it safe to show; what cannot be read is
// empty.
struct InterfaceState {
  std::string name;
  std::string mac;
  std::string state;  // "up", "down", ...
  std::string mtu;
  std::string gateway;  // of its IPv4 default route
  struct Address {
    std::string address;
    std::string mask;       // IPv4; of IPv6, the number of bits
    std::string broadcast;  // IPv4
  };
  std::vector<Address> addresses;
};

// The device's interfaces, the numbered ones first, without the loopback.
std::vector<InterfaceState> ReadInterfaces();

// The name servers in use, from "/etc/resolv.conf".
std::vector<std::string> NameServers();
