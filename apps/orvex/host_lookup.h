// Addresses of hosts, for commands of the shell.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <string>
#include <vector>

#include "apps/orvex/interrupt_wait.h"

struct HostAddress {
  sockaddr_storage address = {};
  socklen_t length = 0;

  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address); }
  int family() const { return address.ss_family; }
  // The address alone, with the zone of a link-local one.
  std::string Text() const;
};

// The addresses of a host's name, the one to prefer first (RFC 6724), or of a numeric address: from
// the hosts file and the name servers. `family` is AF_INET, AF_INET6 or, for both, AF_UNSPEC.
// Empty, with the reason, when there are none, or none in ten seconds. Throws what
// InterruptWait::Poll does. The process has initialised c-ares.
std::vector<HostAddress> LookUpHost(const std::string& name, int family, const InterruptWait& wait,
                                    std::string* why_not);
