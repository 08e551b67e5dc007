// Properties of the device tree, under "/proc/device-tree/".
//
// A property is named by its path below that folder ("orvex/audio-mute-gpio", "compatible"). They
// never change while the system runs. Callable from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace device_tree {

// The strings of a property, each ended by a NUL in the tree; none when the property is missing.
std::vector<std::string> Strings(const std::string& property);
// The first of them; empty when there is none.
std::string String(const std::string& property);

// A property of one cell: four bytes, the highest first. None when it is missing or of another
// size.
std::optional<uint32_t> Cell(const std::string& property);
// The same; throws std::runtime_error "device tree property not found" when there is none.
uint32_t RequireCell(const std::string& property);

// Whether the property is there, whatever it holds.
bool Flag(const std::string& property);

// A string of the root node of a flattened tree, which a file or partition (device path) begins
// with. Reads little, however large the rest. Throws lattix::ErrnoException, and std::runtime_error
// for what is no tree or lacks the property.
std::string FlatRootString(const std::string& device_path, std::string_view property);

}  // namespace device_tree
