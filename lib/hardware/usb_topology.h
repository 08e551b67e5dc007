// The USB devices of the unit as a tree, and its renderings.
//
// The tree is what "/sys/bus/usb/devices" shows: root hubs, hubs ("containers" both) and the
// devices on their ports.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct UsbNode {
  // Where it is: the kernel's name, "usb1" for the root hub of bus 1, "1-4.2" for what is on port 2
  // of what is on its port 4.
  std::string raw;
  // The same counted from the connector on the casing, "A" or "A/2"; empty for what is behind none.
  // The device tree names the connectors: "orvex/usb-connectors" holds strings such as "A=1-4".
  std::string fid;
  // What it does, by its class or that of its first interface: "HUB", "AUDIO", "COMMUNICATION",
  // "HID", "IMAGE", "PRINTER", "STORAGE", "SMARTCARD", "VIDEO", "WIRELESS", "VENDOR", "OTHER".
  std::string category;
  // "roothub", "hub", "composite" (more than one interface) or "device".
  std::string type;
  uint16_t vid = 0;
  uint16_t pid = 0;
  std::string manufacturer;  // as the device says; may be empty
  std::string product;
  bool is_container = false;
  // Of a container: what is on its ports, by port.
  std::vector<UsbNode> children;

  // What the array and JSON forms call "ident": "1-4.2:046d:c31c".
  std::string Ident() const;
};

// The root hubs by bus number, with everything below them. Nothing where there is no USB. Reads
// some files for each device; any thread.
std::vector<UsbNode> ReadUsbTopology();

// Visits a tree in order: a container, its devices and containers as they lie on its ports, the
// container again.
class UsbTopologyWalker {
 public:
  virtual ~UsbTopologyWalker() = default;
  virtual void EnterContainer(const UsbNode& container) = 0;
  virtual void LeaveContainer(const UsbNode& container) = 0;
  virtual void Device(const UsbNode& device) = 0;

  void Walk(const std::vector<UsbNode>& nodes);
};

// The text renderings; docs/objects.md describes them for scripts.
std::string UsbTopologyXml(const std::vector<UsbNode>& roots);
std::string UsbTopologyFlat(const std::vector<UsbNode>& roots);
std::string UsbTopologyJson(const std::vector<UsbNode>& roots);
// For people: a line each, indented by two spaces a level.
std::string UsbTopologyListing(const std::vector<UsbNode>& roots);
