// One pass over the storage table: the media are examined each for itself, and the names FIRST and
// LAST, unless they are storages of their own, are then pointed at what was found.
#include "lib/scripting/autorun_storages.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <string_view>
#include <utility>

#include "lib/platform/assertion.h"
#include "lib/platform/device_path.h"
#include "lib/platform/log.h"

using lattix::Log;

namespace {

struct StatusRow {
  AutorunStatus status;
  const char* text;
  const char* script;  // null: none
};

// clang-format off
constexpr StatusRow kStatuses[] = {
    {AutorunStatus::kChecking,     "checking",              nullptr},
    {AutorunStatus::kUnmounted,    "unmounted",             nullptr},
    {AutorunStatus::kError,        "error",                 nullptr},
    {AutorunStatus::kRuntimeError, "autorun-runtime-error", nullptr},
    {AutorunStatus::kLoadError,    "autorun-load-error",    nullptr},
    {AutorunStatus::kNone,         "none",                  nullptr},
    {AutorunStatus::kStorage,      "storage",               nullptr},
    {AutorunStatus::kAutorunBas,   "autorun",               "autorun.bas"},
    {AutorunStatus::kAutorunPlm,   "autorun",               "autorun.plm"},
    {AutorunStatus::kAutorunZip,   "autorun",               "autorun.zip"},
    {AutorunStatus::kDiagnostic,   "diagnostic",            "diagnostic.plm"},
    {AutorunStatus::kAutotest,     "autotest",              "autotest.plm"},
};
// clang-format on

const StatusRow& RowOf(AutorunStatus status) {
  for (const StatusRow& row : kStatuses) {
    if (row.status == status) return row;
  }
  Log("Unknown status {}\n", static_cast<int>(status));
  LATTIX_ASSERT_TEXT(false, "unknown status");
  return kStatuses[0];
}

const StorageEntry& Entry(int storage_index) {
  LATTIX_ASSERT_TEXT(storage_index >= 0 && storage_index < kStorageCount,
                     "storage_index < STORAGE_COUNT");
  return StorageTable()[static_cast<size_t>(storage_index)];
}

// The drive's name, for lists.
std::string_view NameOf(const StorageEntry& entry) {
  return entry.prefix.substr(0, entry.prefix.find(':'));
}

bool IsBad(AutorunStatus status) {
  return status == AutorunStatus::kLoadError || status == AutorunStatus::kRuntimeError;
}

bool MayHoldScript(const StorageEntry& entry) {
  return entry.Has(kStorageAutorun) || entry.Has(kStorageDefaultAutorun);
}

// A name for one of the media: FIRST and LAST.
bool IsName(const StorageEntry& entry) {
  return entry.Has(kStorageAutorun) && entry.Has(kStorageNotPhysical);
}

// A medium that a person puts in: no soldered memory, and no drive inside the case.
bool IsExternal(const StorageEntry& entry) {
  return entry.Has(kStorageMedium) && !entry.Has(kStorageNeedsFlash) && entry.directory != "ssd";
}

// Whether somebody is still writing the file. In a device root a presentation is copied into place
// while it is looked for; a lease on a file is refused as long as it is open for writing.
bool IsBeingWritten(int fd) {
  if (!lattix::InDeviceRoot()) return false;
  // A writer who comes while we hold the lease makes the kernel send a signal, by default one that
  // ends the process.
  ::fcntl(fd, F_SETSIG, SIGURG);
  if (::fcntl(fd, F_SETLEASE, F_RDLCK) != 0) return errno == EAGAIN;
  ::fcntl(fd, F_SETLEASE, F_UNLCK);
  return false;
}

bool IsScript(const std::string& device_path) {
  const lattix::UniqueFd fd = OpenBeneathDrive(device_path, O_RDONLY, 0);
  struct stat status;
  return fd && ::fstat(fd.Get(), &status) == 0 && S_ISREG(status.st_mode) &&
         !IsBeingWritten(fd.Get());
}

}  // namespace

const char* GetStatusText(AutorunStatus status) { return RowOf(status).text; }

const char* GetScriptName(AutorunStatus status) {
  const char* script = RowOf(status).script;
  LATTIX_ASSERT(script != nullptr);
  return script;
}

AutorunStorages::AutorunStorages(const Options& options) : m_options(options) {
  LATTIX_ASSERT(StorageTable().size() == kStorageCount);
  m_status.fill(AutorunStatus::kUnmounted);
  for (int i = 0; i < kStorageCount; ++i) m_meant[static_cast<size_t>(i)] = i;
}

void AutorunStorages::Scan(const FilenameMapper& mapper) {
  for (int i = 0; i < kStorageCount; ++i) {
    AutorunStatus& status = m_status[static_cast<size_t>(i)];
    const AutorunStatus found = Examine(i, mapper);
    const bool there = found != AutorunStatus::kUnmounted;
    if (!(there && IsBad(status))) status = found;
  }
  ResolveNames();
  Log("Storage status: {}\n", GetStatusList());
  if (!m_options.trace) return;
  for (int i = 0; i < kStorageCount; ++i) {
    const AutorunStatus status = GetStatus(i);
    if (Entry(i).Has(kStorageAutorun) && status != AutorunStatus::kUnmounted &&
        status != AutorunStatus::kNone) {
      Log("Storage found for network recovery:{} {}\n", Entry(i).prefix, GetStatusText(status));
    }
  }
}

AutorunStatus AutorunStorages::Examine(int storage_index, const FilenameMapper& mapper) const {
  const StorageEntry& entry = Entry(storage_index);
  if (entry.Has(kStorageNeedsFlash) && !m_options.has_flash) return AutorunStatus::kUnmounted;
  if (m_options.external_only && !IsExternal(entry)) return AutorunStatus::kUnmounted;
  Log("Considering storage device {}: {}\n", storage_index, entry.prefix);
  const StorageState state = GetStorageState(entry);
  Log("Storage device '{}': present={:d}, mounted={:d}, corrupt={:d}, checking={:d}\n",
      entry.directory, state.present, state.mounted, state.corrupt, state.checking);
  if (!state.IsUsable()) {
    Log("  unsuitable because we're only interested in usable storage\n");
    if (state.checking) return AutorunStatus::kChecking;
    return state.corrupt ? AutorunStatus::kError : AutorunStatus::kUnmounted;
  }
  return MayHoldScript(entry) ? FindScript(storage_index, mapper) : AutorunStatus::kNone;
}

AutorunStatus AutorunStorages::FindScript(int storage_index, const FilenameMapper& mapper) const {
  const StorageEntry& entry = Entry(storage_index);
  for (int i = static_cast<int>(AutorunStatus::kAutotest);
       i >= static_cast<int>(AutorunStatus::kAutorunBas); --i) {
    const auto status = static_cast<AutorunStatus>(i);
    if (status >= AutorunStatus::kDiagnostic && !m_options.diagnostic) continue;
    std::string path;
    if (mapper.TryMap(std::string(entry.prefix) + GetScriptName(status), &path) && IsScript(path)) {
      return status;
    }
  }
  return entry.Has(kStorageDefaultAutorun) ? AutorunStatus::kNone : AutorunStatus::kStorage;
}

void AutorunStorages::ResolveNames() {
  int first = -1;
  int last = -1;
  for (int i = 0; i < kStorageCount; ++i) {
    if (Entry(i).Has(kStorageNotPhysical) || !HasScript(GetStatus(i))) continue;
    if (first < 0) first = i;
    last = i;
  }
  for (int i = 0; i < kStorageCount; ++i) {
    int& meant = m_meant[static_cast<size_t>(i)];
    AutorunStatus& status = m_status[static_cast<size_t>(i)];
    if (std::exchange(meant, i) != i) status = AutorunStatus::kUnmounted;
    if (!IsName(Entry(i)) || status != AutorunStatus::kUnmounted || first < 0) continue;
    meant = i == 0 ? first : last;
    status = GetStatus(meant);
  }
}

int AutorunStorages::Best() const {
  for (const AutorunStatus least :
       {AutorunStatus::kAutotest, AutorunStatus::kDiagnostic, AutorunStatus::kAutorunBas}) {
    for (int i = 0; i < kStorageCount; ++i) {
      if (GetStatus(i) >= least) return m_meant[static_cast<size_t>(i)];
    }
  }
  return -1;
}

bool AutorunStorages::IsDefault(int storage_index) {
  return Entry(storage_index).Has(kStorageDefaultAutorun);
}

bool AutorunStorages::AnyChecking() const {
  for (const AutorunStatus status : m_status) {
    if (status == AutorunStatus::kChecking) return true;
  }
  return false;
}

bool AutorunStorages::HasRecoveryStorage() const {
  for (int i = 0; i < kStorageCount; ++i) {
    const AutorunStatus status = GetStatus(i);
    if (Entry(i).Has(kStorageAutorun) && status != AutorunStatus::kUnmounted &&
        status != AutorunStatus::kNone) {
      return true;
    }
  }
  return false;
}

AutorunStatus AutorunStorages::GetStatus(int storage_index) const {
  LATTIX_ASSERT_TEXT(storage_index >= 0 && storage_index < kStorageCount,
                     "storage_index < STORAGE_COUNT");
  return m_status[static_cast<size_t>(storage_index)];
}

std::string AutorunStorages::GetStatusList() const {
  std::string list;
  for (int i = 0; i < kStorageCount; ++i) {
    list += NameOf(Entry(i));
    list += '=';
    list += GetStatusText(GetStatus(i));
    list += ';';
  }
  return list;
}

std::string AutorunStorages::GetScriptPath(int storage_index) const {
  return std::string(Entry(storage_index).prefix) + GetScriptName(GetStatus(storage_index));
}

void AutorunStorages::MarkAutorunBad(int storage_index, AutorunStatus status) {
  LATTIX_ASSERT(IsBad(status));
  const StorageEntry& entry = Entry(storage_index);
  Log("Marking autorun on {} as {}\n", entry.prefix, GetStatusText(status));
  m_status[static_cast<size_t>(storage_index)] = status;
  ResolveNames();
}

void AutorunStorages::ForgetBad() {
  for (AutorunStatus& status : m_status) {
    if (IsBad(status)) status = AutorunStatus::kUnmounted;
  }
}
