// The storages that may hold a presentation, in the order in which they are tried.
//
// The order and the flags are what devices in the field rely on: a card put into a player whose
// flash holds a presentation must win or lose the same way on every version.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

enum StorageFlags : uint32_t {
  kStorageAutorun = 0x01,         // may hold the autorun, and may be written by network recovery
  kStorageSystem = 0x04,          // the system's own files; decides nothing by itself
  kStorageNotPhysical = 0x08,     // a name for something else: left out where media are listed
  kStorageDefaultAutorun = 0x10,  // the built-in script: taken only when nothing better came up
  kStorageMedium = 0x20,          // removable or built-in memory; decides nothing by itself
  kStorageNeedsFlash = 0x40,      // there only on hardware that has a flash storage
};

struct StorageEntry {
  // What the name of a file on it begins with. It ends where the file's name starts, which for the
  // built-in script is inside the last component: "SYS:/default-" + "autorun.plm".
  std::string_view prefix;
  std::string_view directory;  // below "/storage/"
  uint32_t flags;              // of StorageFlags

  bool Has(StorageFlags flag) const { return (flags & flag) != 0; }
};

std::span<const StorageEntry> StorageTable();
