// The versions of what runs before the firmware: the boot loader, and the rescue system.
//
// Nothing is kept: each call reads. Any thread.
#pragma once

#include <string>

// The boot loader's version, which it leaves in the device tree as "orvex/boot-version". "0.0.0"
// when it reports none, which is logged.
std::string ReadBootVersion();
// What it adds to it ("orvex/boot-extra-version"): a build date or a branch; empty for none.
std::string ReadBootExtraVersion();

// The rescue system's version. Its partition ("/dev/disk/mmc0-partlabel/rescue") begins with a
// flattened device tree (the kernel, its trees and a hash of each, as the boot loader wants them),
// whose root node has the property "version". "0.0.0" when it cannot be read, which is logged.
std::string ReadRescueVersion();
