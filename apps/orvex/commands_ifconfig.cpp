// One row of the table a form of the command: what may follow the interface, its explanation, what
// carries it out. Parsing and help both read the table. A form checks everything before it writes.
//
// A key that is empty counts as not set, for whoever reads it; so the forms that change several
// keys clear some of them by writing "", all in one document.
#include "apps/orvex/commands_ifconfig.h"

#include <arpa/inet.h>
#include <crypt.h>
#include <curl/curl.h>
#include <netinet/in.h>

#include <algorithm>
#include <bit>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "apps/orvex/command_files.h"
#include "apps/orvex/command_numbers.h"
#include "apps/orvex/host_lookup.h"
#include "apps/orvex/network_interfaces.h"
#include "lib/hardware/device_secrets/key_files.h"
#include "lib/platform/registry_client.h"
#include "lib/platform/url_fetcher.h"

namespace commands {

namespace {

constexpr char kGlobal[] = "networking";

// IEEE 802.11: of a network's name, and of a passphrase (a longer one is the key, in hexadecimal).
constexpr size_t kMaxEssid = 32;
constexpr size_t kMinPassphrase = 8;
constexpr size_t kMaxPassphrase = 63;
constexpr size_t kKeyDigits = 64;
// RFC 791: what every host forwards whole; the greatest length of a packet.
constexpr uint64_t kMinMtu = 68;
constexpr uint64_t kMaxMtu = 65535;
constexpr uint64_t kMaxRate = 1'000'000'000'000;
constexpr uint64_t kMinVlan = 1;
constexpr uint64_t kMaxVlan = 4094;
// RFC 1035, 2.3.4, without the trailing root.
constexpr size_t kMaxHostName = 253;
constexpr size_t kMaxLabel = 63;
constexpr size_t kMaxText = 255;
constexpr uint64_t kMaxPort = 65535;

// Why a setting is refused; printed as it is.
class Refused : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A form as it was typed.
struct Request {
  const CommandLine& command;
  std::string interface;           // empty for the forms without one
  std::vector<std::string> words;  // after the form's own, which the address form keeps

  std::string Word(size_t i) const { return i < words.size() ? words[i] : std::string(); }
  std::string Section() const { return fmt::format("{}.{}", kGlobal, interface); }
};

// --- The registry ------------------------------------------------------------------------------

using Keys = std::vector<std::pair<const char*, std::string>>;

// Sets the keys, all or none.
void Store(const std::string& section, const Keys& keys) {
  nlohmann::json document;
  for (const auto& [key, value] : keys) document[section][key] = value;
  try {
    GetRegistryClient().WriteJson(document.dump());
  } catch (const nlohmann::json::type_error&) {
    throw Registry::InvalidEncoding();
  }
}

std::string Stored(const std::string& section, const char* key) {
  return GetRegistryClient().Read(section, key);
}

int StoreGlobal(const char* key, const std::string& value) {
  Store(kGlobal, {{key, value}});
  return 0;
}

// --- Checks: each returns what it was given, or refuses it -------------------------------------

bool IsPrintable(std::string_view text) {
  return std::ranges::all_of(text, [](char c) { return c >= ' ' && c < 0x7F; });
}

std::optional<uint32_t> ParseIpv4(const std::string& text) {
  in_addr address;
  if (::inet_pton(AF_INET, text.c_str(), &address) != 1) return std::nullopt;
  return ntohl(address.s_addr);
}

std::string Ipv4Text(uint32_t number) {
  const in_addr address = {htonl(number)};
  char text[INET_ADDRSTRLEN];
  return ::inet_ntop(AF_INET, &address, text, sizeof text);
}

// A host's own address.
uint32_t HostIpv4(const std::string& text, const char* what) {
  const auto address = ParseIpv4(text);
  const uint32_t net = address.value_or(0) >> 24;
  if (net == 0 || net == 127 || net >= 224) {
    throw Refused(fmt::format("Invalid {}: '{}'", what, text));
  }
  return *address;
}

bool IsIpAddress(const std::string& text) {
  in6_addr address;
  return ParseIpv4(text) || ::inet_pton(AF_INET6, text.c_str(), &address) == 1;
}

// RFC 1123, 2.1.
bool IsHostName(std::string_view name) {
  if (name.empty() || name.size() > kMaxHostName) return false;
  for (;;) {
    const std::string_view label = name.substr(0, name.find('.'));
    if (label.empty() || label.size() > kMaxLabel || label.front() == '-' || label.back() == '-' ||
        !std::ranges::all_of(label, [](char c) {
          return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '-';
        })) {
      return false;
    }
    if (label.size() == name.size()) return true;
    name.remove_prefix(label.size() + 1);
  }
}

const std::string& PlainText(const std::string& text, const char* what) {
  if (text.empty() || text.size() > kMaxText || !IsPrintable(text)) {
    throw Refused(fmt::format("Invalid {}: '{}'", what, Printable(text)));
  }
  return text;
}

std::string Number(const std::string& text, uint64_t least, uint64_t most, const char* what) {
  const auto number = ParseNumber(text, most, 10);
  if (!number || *number < least) {
    throw Refused(fmt::format("Invalid {}: '{}' ({} to {})", what, Printable(text), least, most));
  }
  return std::to_string(*number);
}

const std::string& Essid(const std::string& text) {
  if (text.empty() || text.size() > kMaxEssid) {
    throw Refused(fmt::format("Invalid ESSID: '{}'", Printable(text)));
  }
  return text;
}

// The form in which the registry may hold it. A passphrase is never shown, not even a wrong one.
std::string Passphrase(const std::string& text) {
  if (text.empty()) return {};
  const bool is_key = text.size() == kKeyDigits && std::ranges::all_of(text, [](char c) {
                        return std::isxdigit(static_cast<unsigned char>(c)) != 0;
                      });
  if (!is_key &&
      (text.size() < kMinPassphrase || text.size() > kMaxPassphrase || !IsPrintable(text))) {
    throw Refused("Invalid passphrase (8 to 63 characters, or 64 hexadecimal digits)");
  }
  return Obfuscate(text);
}

bool IsFrequency(const std::string& text) {
  const auto mhz = ParseNumber(text, 7115, 10);
  return mhz && ((*mhz >= 2412 && *mhz <= 2472) || *mhz == 2484 || (*mhz >= 5180 && *mhz <= 5885) ||
                 *mhz >= 5955);
}

// --- The forms ---------------------------------------------------------------------------------

int Dhcp(const Request& request) {
  Store(request.Section(),
        {{"method", "dhcp"}, {"address", ""}, {"netmask", ""}, {"broadcast", ""}, {"gateway", ""}});
  return 0;
}

// The mask that the address's class had, for one that is given alone.
uint32_t ClassMask(uint32_t address) {
  return address < 0x80000000 ? 0xFF000000 : address < 0xC0000000 ? 0xFFFF0000 : 0xFFFFFF00;
}

uint32_t Mask(const std::string& text) {
  uint32_t mask = 0;
  if (const auto bits = ParseNumber(text, 32, 10)) {
    mask = *bits == 0 ? 0 : ~uint32_t{0} << (32 - *bits);
  } else {
    mask = ParseIpv4(text).value_or(0);
  }
  if (mask == 0 || std::countl_one(mask) + std::countr_zero(mask) != 32) {
    throw Refused(fmt::format("Invalid netmask: '{}'", Printable(text)));
  }
  return mask;
}

int Address(const Request& request) {
  const std::string& text = request.words[0];
  const size_t slash = text.find('/');
  const uint32_t address = HostIpv4(text.substr(0, slash), "IP address");
  uint32_t mask = ClassMask(address);
  std::string broadcast_text;
  if (slash != std::string::npos) {
    const std::string rest = text.substr(slash + 1);
    const size_t second = rest.find('/');
    mask = Mask(rest.substr(0, second));
    if (second != std::string::npos) broadcast_text = rest.substr(second + 1);
  }
  uint32_t broadcast = address | ~mask;
  if (!broadcast_text.empty()) {
    const auto given = ParseIpv4(broadcast_text);
    if (!given || (*given & mask) != (address & mask)) {
      throw Refused(fmt::format("Invalid broadcast address: '{}'", Printable(broadcast_text)));
    }
    broadcast = *given;
  }
  // The first and the last address of a network are no host's, if it has more than two (RFC 3021).
  if (~mask > 1 && ((address & ~mask) == 0 || address == (address | ~mask))) {
    throw Refused(fmt::format("Invalid IP address: '{}'", text.substr(0, slash)));
  }
  std::string gateway;
  if (request.words.size() > 1) {
    const uint32_t number = HostIpv4(request.words[1], "gateway address");
    if ((number & mask) != (address & mask)) {
      throw Refused(fmt::format("Invalid gateway address: '{}'", request.words[1]));
    }
    gateway = Ipv4Text(number);
  }
  Store(request.Section(), {{"method", "static"},
                            {"address", Ipv4Text(address)},
                            {"netmask", Ipv4Text(mask)},
                            {"broadcast", Ipv4Text(broadcast)},
                            {"gateway", gateway}});
  return 0;
}

int StoreWifi(const Request& request, const char* mode, const std::string& frequency,
              const std::string& passphrase) {
  const std::string essid = *mode == '\0' ? "" : Essid(request.Word(0));
  Store(request.Section(), {{"wifi_mode", mode},
                            {"wifi_essid", essid},
                            {"wifi_frequency", frequency},
                            {"wifi_passphrase", Passphrase(passphrase)}});
  return 0;
}

int Wifi(const Request& request) { return StoreWifi(request, "client", "", request.Word(1)); }

// A passphrase is longer than a frequency, so either may be left out.
int WifiAccessPoint(const Request& request) {
  const bool has_frequency = request.words.size() == 3 || request.Word(1).size() < kMinPassphrase;
  std::string frequency = has_frequency ? request.Word(1) : "";
  if (!frequency.empty() && !IsFrequency(frequency)) {
    throw Refused(fmt::format("Invalid frequency: '{}'", Printable(frequency)));
  }
  return StoreWifi(request, "ap", frequency, request.Word(has_frequency ? 2 : 1));
}

int NoWifi(const Request& request) { return StoreWifi(request, "", "", ""); }

int DhcpServer(const Request& request) {
  const uint32_t first = HostIpv4(request.words[0], "IP address");
  const uint32_t last = HostIpv4(request.words[1], "IP address");
  if (last < first) throw Refused("The last address is before the first");
  Store(request.Section(),
        {{"dhcp_server_first", Ipv4Text(first)}, {"dhcp_server_last", Ipv4Text(last)}});
  return 0;
}

int NoDhcpServer(const Request& request) {
  Store(request.Section(), {{"dhcp_server_first", ""}, {"dhcp_server_last", ""}});
  return 0;
}

int Dialup(const Request& request) {
  const std::string user = request.Word(1);
  const std::string password = request.Word(2);
  if (!user.empty()) PlainText(user, "user");
  if (password.size() > kMaxText || !IsPrintable(password)) throw Refused("Invalid password");
  Store(request.Section(), {{"dialup_number", PlainText(request.words[0], "number")},
                            {"dialup_user", user},
                            {"dialup_password", password.empty() ? "" : Obfuscate(password)}});
  return 0;
}

int NoDialup(const Request& request) {
  Store(request.Section(), {{"dialup_number", ""}, {"dialup_user", ""}, {"dialup_password", ""}});
  return 0;
}

int DialupInit(const Request& request) {
  const std::string text = request.Word(0);
  Store(request.Section(),
        {{"dialup_init", text.empty() ? "" : PlainText(text, "initialisation string")}});
  return 0;
}

int ShapeInbound(const Request& request) {
  std::string rate = request.Word(0);
  if (rate == "default") rate.clear();
  if (!rate.empty() && rate != "none") rate = Number(rate, 1, kMaxRate, "rate");
  Store(request.Section(), {{"shape_inbound", rate}});
  return 0;
}

int Dns(const Request& request) {
  const std::string& domain = request.words[0];
  if (!IsHostName(domain)) throw Refused(fmt::format("Invalid domain: '{}'", Printable(domain)));
  std::string servers;
  for (size_t i = 1; i < request.words.size(); ++i) {
    if (!IsIpAddress(request.words[i])) {
      throw Refused(fmt::format("Invalid DNS server address: '{}'", Printable(request.words[i])));
    }
    servers += (i > 1 ? " " : "") + request.words[i];
  }
  Store(request.Section(), {{"dns_domain", domain}, {"dns_servers", servers}});
  return 0;
}

int Metric(const Request& request) {
  const std::string& text = request.words[0];
  Store(request.Section(),
        {{"metric", text == "default" ? "" : Number(text, 0, UINT32_MAX, "metric")}});
  return 0;
}

int Mtu(const Request& request) {
  Store(request.Section(), {{"mtu", Number(request.words[0], kMinMtu, kMaxMtu, "MTU")}});
  return 0;
}

int Proxy(const Request& request) {
  const std::string& text = request.words[0];
  const std::unique_ptr<CURLU, void (*)(CURLU*)> url(::curl_url(), ::curl_url_cleanup);
  const auto part = [&](CURLUPart which) {
    char* value = nullptr;
    std::string result;
    if (::curl_url_get(url.get(), which, &value, 0) == CURLUE_OK) result = value;
    ::curl_free(value);
    return result;
  };
  if (!IsPrintable(text) || text.size() > kMaxText ||
      ::curl_url_set(url.get(), CURLUPART_URL, text.c_str(), 0) != CURLUE_OK ||
      part(CURLUPART_SCHEME) != "http" || part(CURLUPART_HOST).empty() ||
      part(CURLUPART_PORT).empty() || part(CURLUPART_PATH) != "/" ||
      !part(CURLUPART_QUERY).empty() || !part(CURLUPART_FRAGMENT).empty()) {
    throw Refused(fmt::format("Invalid proxy URL: '{}'", Printable(UrlWithoutCredentials(text))));
  }
  // The password leaves the URL, the user stays in it.
  const std::string user = part(CURLUPART_USER);
  const std::string password = part(CURLUPART_PASSWORD);
  Store(kGlobal, {{"proxy", fmt::format("http://{}{}{}:{}", user, user.empty() ? "" : "@",
                                        part(CURLUPART_HOST), part(CURLUPART_PORT))},
                  {"proxy_password", password.empty() ? "" : Obfuscate(password)}});
  return 0;
}

int NoProxy(const Request&) {
  Store(kGlobal, {{"proxy", ""}, {"proxy_password", ""}});
  return 0;
}

int TimeServer(const Request& request) {
  const std::string& text = request.words[0];
  const size_t colon = text.rfind(':');
  const bool has_port =
      colon != std::string::npos && ParseNumber(text.substr(colon + 1), kMaxPort, 10);
  std::string host = has_port && !IsIpAddress(text) ? text.substr(0, colon) : text;
  if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
  if (!IsHostName(host) && !IsIpAddress(host)) {
    throw Refused(fmt::format("Invalid time server: '{}'", Printable(text)));
  }
  return StoreGlobal("time_server", text);
}

int NoTimeServer(const Request&) { return StoreGlobal("time_server", ""); }

int ClientId(const Request& request) {
  return StoreGlobal("client_id", PlainText(request.words[0], "client identifier"));
}

int NoClientId(const Request&) { return StoreGlobal("client_id", ""); }

int HostName(const Request& request) {
  const std::string& name = request.words[0];
  if (!IsHostName(name)) throw Refused(fmt::format("Invalid host name: '{}'", Printable(name)));
  return StoreGlobal("hostname", name);
}

// Whoever checks a password needs its hash only, as crypt(5) describes it.
int LoginPassword(const Request& request) {
  const std::string& password = request.words[0];
  if (password.empty()) return StoreGlobal("login_password", "");
  const std::unique_ptr<char, void (*)(void*)> salt(::crypt_gensalt_ra("$y$", 0, nullptr, 0),
                                                    ::free);
  void* memory = nullptr;
  int size = 0;
  const char* const hash =
      salt ? ::crypt_ra(password.c_str(), salt.get(), &memory, &size) : nullptr;
  const std::string text = hash != nullptr ? hash : "*";
  if (memory != nullptr) ::explicit_bzero(memory, static_cast<size_t>(size));
  ::free(memory);
  if (text.starts_with('*')) throw Refused("Invalid password");
  return StoreGlobal("login_password", text);
}

int SetProtocol(const Request& request, const char* key, bool enabled) {
  Store(request.Section(), {{key, enabled ? "" : "0"}});
  return 0;
}
int DisableIpv6(const Request& request) { return SetProtocol(request, "ipv6", false); }
int EnableIpv6(const Request& request) { return SetProtocol(request, "ipv6", true); }
int DisableIpv4(const Request& request) { return SetProtocol(request, "ipv4", false); }
int EnableIpv4(const Request& request) { return SetProtocol(request, "ipv4", true); }

int Reset(const Request& request) {
  GetRegistryClient().DeleteSection(request.Section());
  return 0;
}

int ChangeVlans(const Request& request, bool add) {
  const auto vlan = static_cast<unsigned>(
      std::stoul(Number(request.words[0], kMinVlan, kMaxVlan, "VLAN identifier")));
  std::vector<unsigned> vlans;
  const std::string stored = Stored(request.Section(), "vlans");
  for (size_t at = 0; at < stored.size();) {
    const size_t end = std::min(stored.find(' ', at), stored.size());
    if (const auto known = ParseNumber(stored.substr(at, end - at), kMaxVlan, 10)) {
      vlans.push_back(static_cast<unsigned>(*known));
    }
    at = end + 1;
  }
  const bool known = std::erase(vlans, vlan) > 0;
  if (!add && !known) throw Refused(fmt::format("VLAN {} is not configured", vlan));
  if (add) vlans.push_back(vlan);
  std::ranges::sort(vlans);
  Store(request.Section(), {{"vlans", fmt::format("{}", fmt::join(vlans, " "))}});
  return 0;
}
int AddVlan(const Request& request) { return ChangeVlans(request, true); }
int RemoveVlan(const Request& request) { return ChangeVlans(request, false); }
int RemoveAllVlans(const Request& request) {
  Store(request.Section(), {{"vlans", ""}});
  return 0;
}

int Check(const Request& request) {
  const bool verbose = request.Word(0) == "verbose";
  if (!request.words.empty() && !verbose) return request.command.Usage();
  bool passed = true;
  const auto report = [&](bool good, const std::string& what) {
    passed = passed && good;
    if (verbose || !good) request.command.Print("{}: {}", what, good ? "ok" : "failed");
  };
  const std::vector<InterfaceState> interfaces = ReadInterfaces();
  report(!interfaces.empty(), "Interface present");
  report(std::ranges::any_of(interfaces, [](auto& i) { return i.state == "up"; }), "Link");
  report(std::ranges::any_of(interfaces, [](auto& i) { return !i.addresses.empty(); }), "Address");
  report(std::ranges::any_of(interfaces, [](auto& i) { return !i.gateway.empty(); }),
         "Default gateway");
  report(!NameServers().empty(), "DNS servers");
  const std::string server = Stored(kGlobal, "time_server");
  if (IsHostName(server)) {
    const InterruptWait wait;
    std::string why_not;
    report(!LookUpHost(server, AF_UNSPEC, wait, &why_not).empty(),
           fmt::format("Look up '{}'", server));
  }
  request.command.Print("Network check {}", passed ? "passed" : "failed");
  return 0;
}

// --- What is configured, as it is shown --------------------------------------------------------

enum class Shown { kPlain, kSecret, kUrl };
struct Setting {
  const char* key;
  const char* label;
  Shown shown = Shown::kPlain;
};

constexpr Setting kInterfaceSettings[] = {
    {"address", "Static address"},
    {"netmask", "Netmask"},
    {"broadcast", "Broadcast"},
    {"gateway", "Gateway"},
    {"dns_domain", "Domain"},
    {"dns_servers", "DNS servers"},
    {"metric", "Metric"},
    {"mtu", "MTU"},
    {"shape_inbound", "Inbound rate"},
    {"wifi_mode", "WiFi mode"},
    {"wifi_essid", "WiFi ESSID"},
    {"wifi_frequency", "WiFi frequency"},
    {"wifi_passphrase", "WiFi passphrase", Shown::kSecret},
    {"dhcp_server_first", "DHCP server from"},
    {"dhcp_server_last", "DHCP server to"},
    {"dialup_number", "Dial-up number"},
    {"dialup_user", "Dial-up user"},
    {"dialup_password", "Dial-up password", Shown::kSecret},
    {"dialup_init", "Modem initialisation"},
    {"vlans", "VLANs"},
};
constexpr Setting kGlobalSettings[] = {
    {"hostname", "Host name"},
    {"proxy", "Proxy", Shown::kUrl},
    {"proxy_password", "Proxy password", Shown::kSecret},
    {"time_server", "Time server"},
    {"client_id", "Client identifier"},
    {"login_password", "Login password", Shown::kSecret},
};

void ShowSettings(const CommandLine& command, const std::string& section,
                  std::span<const Setting> settings) {
  for (const Setting& setting : settings) {
    const std::string value = Stored(section, setting.key);
    if (value.empty()) continue;
    const std::string text = setting.shown == Shown::kSecret ? "(set)"
                             : setting.shown == Shown::kUrl  ? UrlWithoutCredentials(value)
                                                             : value;
    command.Print("  {}: {}", setting.label, Printable(text));
  }
}

void ShowInterface(const CommandLine& command, const InterfaceState& interface) {
  const auto number = std::ranges::find(InterfaceNames(), interface.name);
  const std::string selector = number == InterfaceNames().end()
                                   ? ""
                                   : fmt::format(":{} ", number - InterfaceNames().begin());
  command.Print("{}{}: {}", selector, interface.name, interface.state);
  if (!interface.mac.empty()) command.Print("  MAC: {}", interface.mac);
  if (!interface.mtu.empty()) command.Print("  Current MTU: {}", interface.mtu);
  for (const auto& [address, mask, broadcast] : interface.addresses) {
    command.Print("  Current address: {}/{}{}{}", address, mask, broadcast.empty() ? "" : "/",
                  broadcast);
  }
  if (!interface.gateway.empty()) command.Print("  Current gateway: {}", interface.gateway);
  const std::string section = fmt::format("{}.{}", kGlobal, interface.name);
  const bool is_static = Stored(section, "method") == "static";
  command.Print("  Configured by: {}", is_static ? "static address" : "DHCP");
  ShowSettings(command, section, kInterfaceSettings);
  for (const char* const key : {"ipv4", "ipv6"}) {
    if (Stored(section, key) == "0") command.Print("  IPv{}: disabled", key + 3);
  }
}

int Display(const Request& request) {
  const CommandLine& command = request.command;
  std::vector<InterfaceState> interfaces = ReadInterfaces();
  for (const char* const name : InterfaceNames()) {
    // One that is not there keeps its settings.
    if (std::ranges::find(interfaces, name, &InterfaceState::name) == interfaces.end() &&
        GetRegistryClient().SectionExists(fmt::format("{}.{}", kGlobal, name))) {
      interfaces.emplace_back().name = name;
      interfaces.back().state = "not present";
    }
  }
  for (const InterfaceState& interface : interfaces) ShowInterface(command, interface);
  const std::vector<std::string> servers = NameServers();
  if (!servers.empty()) command.Print("DNS servers in use: {}", fmt::join(servers, " "));
  command.Print("Settings:");
  ShowSettings(command, kGlobal, kGlobalSettings);
  return 0;
}

int ShowHelp(const Request& request) {
  request.command.Usage();
  return 0;
}

// --- The table ---------------------------------------------------------------------------------

enum class Selects { kNothing, kOptional, kRequired };
struct Form {
  std::string_view word;
  Selects selects;
  size_t otherwise;  // the number of the interface when none is selected
  size_t least, most;
  int (*run)(const Request&);
  // For the help; a line each of a form that is written in two ways. Forms without an explanation
  // are not listed: another spelling, or for old documents' sake.
  std::string_view arguments;
  std::string_view explanation;
};

constexpr size_t kEthernet = kEthernetInterface;
constexpr size_t kWifi = kWifiInterface;
constexpr size_t kModem = kModemInterface;

// clang-format off
constexpr Form kForms[] = {
    {"", Selects::kNothing, 0, 0, 0, Display, "", "Display the network configuration."},
    {"dhcp", Selects::kOptional, kEthernet, 0, 0, Dhcp, "", "Get the address by DHCP."},
    {"", Selects::kOptional, kEthernet, 1, 2, Address,
     "<ip-address>/<network-bits> [gateway]\n"
     "<ip-address>[/<netmask>/[<broadcast>]] [gateway]",
     "Set a static address. A missing broadcast address is the address with all\n"
     "host bits set."},
    {"wifi", Selects::kOptional, kWifi, 1, 2, Wifi, "<ESSID> [<passphrase>]", "Join a WiFi network."},
    {"wifi-ap", Selects::kOptional, kWifi, 1, 3, WifiAccessPoint, "<ESSID> [<frequency-in-MHz>] [<passphrase>]",
     "Be the access point of a WiFi network."},
    {"no-wifi", Selects::kOptional, kWifi, 0, 0, NoWifi, "", "Leave the WiFi network."},
    {"dhcp-server", Selects::kOptional, kEthernet, 2, 2, DhcpServer, "<first-ip> <last-ip>",
     "Serve addresses of this range by DHCP."},
    {"no-dhcp-server", Selects::kOptional, kEthernet, 0, 0, NoDhcpServer, "", "Serve no addresses."},
    {"dialup", Selects::kOptional, kModem, 1, 3, Dialup, "<number> [<user> [<password>]]", "Connect by modem."},
    {"no-dialup", Selects::kOptional, kModem, 0, 0, NoDialup, "", "Do not connect by modem."},
    {"dialup-init", Selects::kOptional, kModem, 0, 1, DialupInit, "[init-string]",
     "Set the modem's initialisation string, or clear it."},
    {"shape-inbound", Selects::kOptional, kEthernet, 0, 1, ShapeInbound, "[default|<rate-in-bits-per-second>|none]",
     "Limit the rate of inbound traffic."},
    {"dns", Selects::kOptional, kEthernet, 2, 4, Dns,
     "<domain> <dns-server-address> [<dns-server-address>] [<dns-server-address>]",
     "Set the domain and up to three DNS servers. Ignored under DHCP."},
    {"metric", Selects::kOptional, kEthernet, 1, 1, Metric, "<metric>", "Set the metric of the interface's routes."},
    {"mtu", Selects::kOptional, kEthernet, 1, 1, Mtu, "<mtu>", "Set the greatest size of a packet."},
    {"proxy", Selects::kNothing, 0, 1, 1, Proxy, "<proxy-url>",
     "Use a proxy: an HTTP URL that names the proxy host and port."},
    {"no-proxy", Selects::kNothing, 0, 0, 0, NoProxy, "", "Use no proxy."},
    {"time-server", Selects::kNothing, 0, 1, 1, TimeServer, "<time-server>", "Get the time from this server."},
    {"no-time-server", Selects::kNothing, 0, 0, 0, NoTimeServer, "", "Do not get the time from the network."},
    {"client-id", Selects::kNothing, 0, 1, 1, ClientId, "<client-identifier>",
     "Set the identifier that DHCP servers are told."},
    {"no-client-id", Selects::kNothing, 0, 0, 0, NoClientId, "", "Tell DHCP servers the usual identifier."},
    {"hostname", Selects::kNothing, 0, 1, 1, HostName, "<hostname>", "Set the host name."},
    {"login-password", Selects::kNothing, 0, 1, 1, LoginPassword, "<password>",
     "Set the password for logging in over the network."},
    {"check", Selects::kNothing, 0, 0, 1, Check, "[verbose]", "Check that the network works."},
    {"disable-ipv6", Selects::kOptional, kEthernet, 0, 0, DisableIpv6, "", "Disable IPv6."},
    {"enable-ipv6", Selects::kOptional, kEthernet, 0, 0, EnableIpv6, "", "Enable IPv6. It is enabled by default."},
    {"reset", Selects::kRequired, 0, 0, 0, Reset, "", "Forget the interface's configuration."},
    {"add-vlan", Selects::kOptional, kEthernet, 1, 1, AddVlan, "VID", "Add a VLAN."},
    {"remove-vlan", Selects::kOptional, kEthernet, 1, 1, RemoveVlan, "VID", "Remove a VLAN."},
    {"remove-all-vlans", Selects::kOptional, kEthernet, 0, 0, RemoveAllVlans, "", "Remove all VLANs."},
    {"help", Selects::kNothing, 0, 0, 0, ShowHelp, "", ""},
    {"disable-ipv4", Selects::kOptional, kEthernet, 0, 0, DisableIpv4, "", ""},
    {"enable-ipv4", Selects::kOptional, kEthernet, 0, 0, EnableIpv4, "", ""},
    {"no-ntp", Selects::kNothing, 0, 0, 0, NoTimeServer, "", ""},
};
// clang-format on

constexpr const Form& kDisplayForm = kForms[0];
constexpr const Form& kAddressForm = kForms[2];
static_assert(kDisplayForm.run == Display && kAddressForm.run == Address);

// The lines of a text, with something in front of each.
std::string Lines(std::string_view text, std::string_view before) {
  std::string result;
  for (;;) {
    const size_t end = text.find('\n');
    std::string line = std::string(before).append(text.substr(0, end));
    line.erase(line.find_last_not_of(' ') + 1);
    result += line + "\n";
    if (end == std::string_view::npos) return result;
    text.remove_prefix(end + 1);
  }
}

constexpr std::string_view kExamples =
    "\n"
    "Examples:\n"
    "  ifconfig 192.168.42.10\n"
    "  ifconfig :0 192.168.42.10/24\n"
    "  ifconfig :1 192.168.42.10/255.255.255.0 192.168.42.1\n"
    "  ifconfig dns localdomain 192.168.42.1 192.168.42.2\n"
    "  ifconfig no-proxy\n"
    "  ifconfig time-server time.example.org\n"
    "  ifconfig no-time-server\n"
    "  ifconfig client-id orvex1\n"
    "  ifconfig hostname george";

// Null for words that are no form.
const Form* FindForm(std::string_view word) {
  if (word.empty()) return nullptr;
  const auto* const form = std::ranges::find(kForms, word, &Form::word);
  if (form != std::end(kForms)) return form;
  return std::isdigit(static_cast<unsigned char>(word[0])) != 0 ? &kAddressForm : nullptr;
}

}  // namespace

int IfConfigHelp(Shell& shell, int, const char**) {
  std::string text = "Usage:\n";
  for (const Form& form : kForms) {
    if (form.explanation.empty()) continue;
    std::string before = "  ifconfig ";
    if (form.selects == Selects::kOptional) before += "[:INTERFACE] ";
    if (form.selects == Selects::kRequired) before += ":INTERFACE ";
    if (!form.word.empty()) before.append(form.word).append(" ");
    text += Lines(form.arguments, before) + Lines(form.explanation, "    ");
  }
  PrintHelpText(shell, text.append(kExamples));
  return 0;
}

int IfConfig(const CommandLine& command) {
  size_t next = 1;
  const bool selected = command.argument(1).starts_with(':');
  if (selected) ++next;
  const Form* const form =
      command.argument_count() == 0 ? &kDisplayForm : FindForm(command.argument(next));
  if (form == nullptr || (selected && form->selects == Selects::kNothing) ||
      (!selected && form->selects == Selects::kRequired)) {
    return command.Usage();
  }
  Request request{command, {}, {}};
  if (!form->word.empty()) ++next;
  for (size_t i = next; i <= command.argument_count(); ++i) {
    request.words.emplace_back(command.argument(i));
  }
  if (request.words.size() < form->least || request.words.size() > form->most) {
    if (form->word.empty()) return command.Usage();
    command.Print("Incorrect number of arguments to 'ifconfig {}'. Try 'help ifconfig'.",
                  form->word);
    return 1;
  }
  if (form->selects != Selects::kNothing) {
    const std::string_view selector = selected ? command.argument(1) : std::string_view();
    request.interface = SelectInterface(command, selector, form->otherwise);
    if (request.interface.empty()) return 1;
  }
  try {
    return form->run(request);
  } catch (const Refused& e) {
    command.Print("{}", e.what());
    return 1;
  }
}

}  // namespace commands
