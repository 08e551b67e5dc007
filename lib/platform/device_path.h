// Where the device's absolute paths lie on this machine.
//
// The player's files have device paths ("/etc/orvex-version", "/storage/sd", "/dev/watchdog"). On a
// device they are what they say. On a developer's machine, and in tests, the environment variable
// ORVEX_ROOT names a folder, the device root, that holds them all. Every device path is opened
// through DevicePath; messages print the device path, without the root.
//
// /dev/null is no such path: it is the same everywhere and nothing can reach outside through it.
#pragma once

#include <string>
#include <string_view>

namespace lattix {

// The native path of an absolute device path: the device root, if there is one, put in front. The
// path is taken as it is ("..", links and all: what a script names is checked by the filename
// mapper). A relative path comes back unchanged. Callable from any thread.
std::string DevicePath(std::string_view device_path);

// The device root as an absolute path without a slash at its end; empty on a device (ORVEX_ROOT
// unset, empty or "/"). Read from the environment once, at first use.
std::string DeviceRoot();

// Whether this process plays inside a device root, so must not touch the machine it runs on.
bool InDeviceRoot();

// Whether this process may talk to the system bus: the machine's own bus lies outside a device
// root, so in one DBUS_SYSTEM_BUS_ADDRESS has to name a bus on purpose.
bool MayUseSystemBus();

// Makes the root of a process that was given none: called at most once, by the first use of a
// device path, if ORVEX_ROOT is unset or empty; what it returns is the root as if SetDeviceRoot had
// been called. It must not use device paths itself. To be set before that first use, while no other
// thread runs.
void SetDeviceRootMaker(std::string (*make)());

// Makes another folder the device root, for this process and, through the environment, for the
// programs it starts. Only while no other thread runs: tools call it first of all, tests between
// cases. Empty means the machine itself.
void SetDeviceRoot(const std::string& root);

}  // namespace lattix
