// One constant table; whoever scans it asks the flags, never the names.
#include "lib/scripting/storage_table.h"

namespace {

constexpr uint32_t kMedium = kStorageAutorun | kStorageMedium;
constexpr uint32_t kAlias = kStorageAutorun | kStorageNotPhysical;

// clang-format off
constexpr StorageEntry kTable[] = {
    {"FIRST:/",       "first", kAlias},
    {"FLASH:/",       "flash", kMedium | kStorageNeedsFlash},
    {"USB1:/",        "usb1",  kMedium},
    {"SD:/",          "sd",    kMedium},
    {"SD2:/",         "sd2",   kMedium},
    {"SSD:/",         "ssd",   kMedium},
    {"BOOT:/",        "boot",  kStorageNotPhysical},
    {"LAST:/",        "last",  kAlias},
    {"SYS:/default-", "sys",   kStorageSystem | kStorageNotPhysical | kStorageDefaultAutorun},
};
// clang-format on
static_assert(kAlias == 0x09 && kMedium == 0x21 && kTable[1].flags == 0x61 &&
              kTable[8].flags == 0x1c);

}  // namespace

std::span<const StorageEntry> StorageTable() { return kTable; }
