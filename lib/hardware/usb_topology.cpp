// The kernel lists devices and interfaces side by side and names them by their place ("1-4.2",
// "1-4.2:1.0"), so the names alone give the tree; what cannot be read of a device that is just
// going counts as empty.
#include "lib/hardware/usb_topology.h"

#include <dirent.h>
#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "lib/hardware/device_tree.h"
#include "lib/platform/device_path.h"
#include "lib/platform/firmware_version.h"

namespace {

constexpr char kDevices[] = "/sys/bus/usb/devices";
// USB allows 127 devices a bus and seven levels.
constexpr size_t kMaxNames = 8192;
constexpr size_t kMaxPorts = 16;

constexpr uint8_t kHubClass = 0x09;

struct ClassName {
  uint8_t number;
  const char* name;
};
// USB-IF base classes.
constexpr ClassName kClassNames[] = {
    {0x01, "AUDIO"},     {0x02, "COMMUNICATION"}, {0x03, "HID"},      {0x06, "IMAGE"},
    {0x07, "PRINTER"},   {0x08, "STORAGE"},       {kHubClass, "HUB"}, {0x0a, "COMMUNICATION"},
    {0x0b, "SMARTCARD"}, {0x0e, "VIDEO"},         {0xe0, "WIRELESS"}, {0xff, "VENDOR"},
};

// --- Reading ----------------------------------------------------------------------------------

// A place: the bus, and the port of each level. The root hub has no ports.
struct Place {
  unsigned bus = 0;
  std::vector<unsigned> ports;
  auto operator<=>(const Place&) const = default;
};

bool TakeNumber(std::string_view* text, unsigned* number) {
  const auto read = std::from_chars(text->data(), text->data() + text->size(), *number);
  if (read.ec != std::errc()) return false;
  text->remove_prefix(static_cast<size_t>(read.ptr - text->data()));
  return true;
}

// Of a device's name; an interface's is none.
std::optional<Place> PlaceOf(std::string_view name) {
  Place place;
  if (name.starts_with("usb")) {
    name.remove_prefix(3);
    if (!TakeNumber(&name, &place.bus) || !name.empty()) return std::nullopt;
    return place;
  }
  if (!TakeNumber(&name, &place.bus)) return std::nullopt;
  for (char separator = '-'; !name.empty(); separator = '.') {
    unsigned port;
    if (name.front() != separator || place.ports.size() == kMaxPorts) return std::nullopt;
    name.remove_prefix(1);
    if (!TakeNumber(&name, &port)) return std::nullopt;
    place.ports.push_back(port);
  }
  if (place.ports.empty()) return std::nullopt;
  return place;
}

std::string Attribute(const std::string& name, const char* attribute) {
  return lattix::ReadSystemText(fmt::format("{}/{}/{}", kDevices, name, attribute));
}

template <class Number>
Number HexAttribute(const std::string& name, const char* attribute) {
  const std::string text = Attribute(name, attribute);
  Number number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number, 16);
  return number;
}

// A description of the device's own making, for people: one line without control characters.
std::string TextAttribute(const std::string& name, const char* attribute) {
  std::string text = Attribute(name, attribute).substr(0, 256);
  std::ranges::replace_if(
      text, [](char c) { return static_cast<uint8_t>(c) < ' '; }, ' ');
  return text;
}

const char* CategoryOf(uint8_t device_class) {
  const auto found = std::ranges::find(kClassNames, device_class, &ClassName::number);
  return found != std::end(kClassNames) ? found->name : "OTHER";
}

// The connectors by the place they are at.
std::map<Place, std::string> Connectors() {
  std::map<Place, std::string> connectors;
  for (const std::string& entry : device_tree::Strings("orvex/usb-connectors")) {
    const size_t equals = entry.find('=');
    if (equals == 0 || equals == entry.npos) continue;
    if (const auto place = PlaceOf(entry.substr(equals + 1))) {
      connectors[*place] = entry.substr(0, equals);
    }
  }
  return connectors;
}

std::string FriendlyId(const std::map<Place, std::string>& connectors, const Place& place) {
  Place connector = place;
  std::string below;
  for (;; connector.ports.pop_back()) {
    if (const auto found = connectors.find(connector); found != connectors.end()) {
      return found->second + below;
    }
    if (connector.ports.empty()) return {};
    below.insert(0, fmt::format("/{}", connector.ports.back()));
  }
}

// The names in the folder: devices by place, and of each device its first interface.
void ListNames(std::map<Place, std::string>* devices, std::map<std::string, std::string>* first) {
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir(lattix::DevicePath(kDevices).c_str()),
                                                   ::closedir);
  if (folder == nullptr) return;
  size_t names = 0;
  while (const dirent* entry = ::readdir(folder.get())) {
    if (++names > kMaxNames) return;
    const std::string name = entry->d_name;
    if (const size_t colon = name.find(':'); colon != name.npos) {
      std::string& interface = (*first)[name.substr(0, colon)];
      if (interface.empty() || name < interface) interface = name;
    } else if (const auto place = PlaceOf(name)) {
      (*devices)[*place] = name;
    }
  }
}

UsbNode ReadNode(const std::string& name, const std::string& first_interface) {
  UsbNode node;
  node.raw = name;
  node.vid = HexAttribute<uint16_t>(name, "idVendor");
  node.pid = HexAttribute<uint16_t>(name, "idProduct");
  node.manufacturer = TextAttribute(name, "manufacturer");
  node.product = TextAttribute(name, "product");
  const auto device_class = HexAttribute<uint8_t>(name, "bDeviceClass");
  node.is_container = name.starts_with("usb") || device_class == kHubClass;
  if (node.is_container) {
    node.category = CategoryOf(kHubClass);
    node.type = name.starts_with("usb") ? "roothub" : "hub";
    return node;
  }
  // 0: each interface has a class; 0xef: the same, said another way.
  const bool by_interface = device_class == 0 || device_class == 0xef;
  node.category = CategoryOf(by_interface && !first_interface.empty()
                                 ? HexAttribute<uint8_t>(first_interface, "bInterfaceClass")
                                 : device_class);
  unsigned interfaces = 0;
  const std::string count = Attribute(name, "bNumInterfaces");
  std::from_chars(count.data(), count.data() + count.size(), interfaces);
  node.type = interfaces > 1 ? "composite" : "device";
  return node;
}

}  // namespace

std::string UsbNode::Ident() const { return fmt::format("{}:{:04x}:{:04x}", raw, vid, pid); }

std::vector<UsbNode> ReadUsbTopology() {
  std::map<Place, std::string> devices;
  std::map<std::string, std::string> first_interfaces;
  ListNames(&devices, &first_interfaces);
  const std::map<Place, std::string> connectors = Connectors();
  std::vector<UsbNode> roots;
  // Places are ordered so that a container comes right before what is below it.
  std::vector<std::pair<Place, UsbNode*>> open;  // the containers around the current place
  for (const auto& device : devices) {
    const Place& place = device.first;
    const std::string& name = device.second;
    const auto around = [&place](const Place& outer) {
      return outer.bus == place.bus && outer.ports.size() < place.ports.size() &&
             std::equal(outer.ports.begin(), outer.ports.end(), place.ports.begin());
    };
    while (!open.empty() && !around(open.back().first)) open.pop_back();
    std::vector<UsbNode>& siblings = open.empty() ? roots : open.back().second->children;
    UsbNode& node = siblings.emplace_back(ReadNode(name, first_interfaces[name]));
    node.fid = FriendlyId(connectors, place);
    // Only the last sibling is ever open, so a vector that grows moves none that is.
    if (node.is_container) open.emplace_back(place, &node);
  }
  return roots;
}

// --- Rendering --------------------------------------------------------------------------------

void UsbTopologyWalker::Walk(const std::vector<UsbNode>& nodes) {
  for (const UsbNode& node : nodes) {
    if (!node.is_container) {
      Device(node);
      continue;
    }
    EnterContainer(node);
    Walk(node.children);
    LeaveContainer(node);
  }
}

namespace {

std::string EscapeXml(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    switch (c) {
      case '&': escaped += "&amp;"; break;
      case '<': escaped += "&lt;"; break;
      case '>': escaped += "&gt;"; break;
      case '"': escaped += "&quot;"; break;
      default: escaped += c;
    }
  }
  return escaped;
}

class DeviceInfoWalkerXML final : public UsbTopologyWalker {
 public:
  void EnterContainer(const UsbNode& c) override {
    Append("<devices raw=\"{}\"", EscapeXml(c.raw));
    if (!c.fid.empty()) Append(" fid=\"{}\"", EscapeXml(c.fid));
    Append(" category=\"{}\" vid=\"{:04x}\" pid=\"{:04x}\" type=\"{}\">", c.category, c.vid, c.pid,
           c.type);
  }
  void LeaveContainer(const UsbNode&) override { m_text += "</devices>"; }
  void Device(const UsbNode& d) override {
    Append("<device><raw>{}</raw><fid>{}</fid><category>{}</category>", EscapeXml(d.raw),
           EscapeXml(d.fid), d.category);
    Append("<vid>{:04x}</vid><pid>{:04x}</pid><type>{}</type></device>", d.vid, d.pid, d.type);
  }
  std::string Take() { return "<topology>" + std::move(m_text) + "</topology>"; }

 private:
  template <class... Args>
  void Append(fmt::format_string<Args...> format, const Args&... args) {
    fmt::vformat_to(std::back_inserter(m_text), fmt::string_view(format),
                    fmt::make_format_args(args...));
  }
  std::string m_text;
};

class DeviceInfoWalkerFlat final : public UsbTopologyWalker {
 public:
  void EnterContainer(const UsbNode& c) override {
    Append('\\', c);
    if (!c.children.empty()) m_text += '/';
  }
  void LeaveContainer(const UsbNode&) override {}
  void Device(const UsbNode& d) override { Append('|', d); }
  std::string Take() { return std::move(m_text); }

 private:
  void Append(char start, const UsbNode& node) {
    fmt::format_to(std::back_inserter(m_text), "{}{},{},{:04x},{:04x}|", start, node.raw,
                   node.category, node.vid, node.pid);
  }
  std::string m_text;
};

class DeviceInfoWalkerJSON final : public UsbTopologyWalker {
 public:
  void EnterContainer(const UsbNode& c) override {
    Json json = Describe(c);
    json["devices"] = Json::array();
    json["containers"] = Json::array();
    m_open.push_back(std::move(json));
  }
  void LeaveContainer(const UsbNode&) override {
    Json json = std::move(m_open.back());
    m_open.pop_back();
    Add("containers", std::move(json));
  }
  void Device(const UsbNode& d) override {
    Json json = Describe(d);
    json["ident"] = d.Ident();
    Add("devices", std::move(json));
  }
  std::string Take() {
    // What the kernel names is ASCII; a root laid out by hand may hold anything.
    return m_top.dump(-1, ' ', false, Json::error_handler_t::replace);
  }

 private:
  using Json = nlohmann::ordered_json;

  static Json Describe(const UsbNode& node) {
    return {
        {"category", node.category}, {"pid", fmt::format("{:04x}", node.pid)}, {"type", node.type}};
  }
  void Add(const char* kind, Json json) {
    (m_open.empty() ? m_top : m_open.back()[kind]).push_back(std::move(json));
  }

  Json m_top = Json::array();
  std::vector<Json> m_open;
};

class Lister final : public UsbTopologyWalker {
 public:
  void EnterContainer(const UsbNode& c) override {
    Device(c);
    m_depth++;
  }
  void LeaveContainer(const UsbNode&) override { m_depth--; }
  void Device(const UsbNode& d) override {
    fmt::format_to(std::back_inserter(m_text), "{:{}}{} {:04x}:{:04x} {}", "", 2 * m_depth, d.raw,
                   d.vid, d.pid, d.category);
    for (const std::string* text : {&d.manufacturer, &d.product}) {
      if (!text->empty()) m_text.append(" ").append(*text);
    }
    if (!d.fid.empty()) m_text.append(" (").append(d.fid).append(")");
    m_text += '\n';
  }
  std::string Take() { return std::move(m_text); }

 private:
  std::string m_text;
  int m_depth = 0;
};

template <class Walker>
std::string Render(const std::vector<UsbNode>& roots) {
  Walker walker;
  walker.Walk(roots);
  return walker.Take();
}

}  // namespace

std::string UsbTopologyXml(const std::vector<UsbNode>& roots) {
  return Render<DeviceInfoWalkerXML>(roots);
}
std::string UsbTopologyFlat(const std::vector<UsbNode>& roots) {
  return Render<DeviceInfoWalkerFlat>(roots);
}
std::string UsbTopologyJson(const std::vector<UsbNode>& roots) {
  return Render<DeviceInfoWalkerJSON>(roots);
}
std::string UsbTopologyListing(const std::vector<UsbNode>& roots) { return Render<Lister>(roots); }
