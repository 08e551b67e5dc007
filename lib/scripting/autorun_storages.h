// Where the autorun is: the state of every storage as the invoker sees it, and its choice.
#pragma once

#include <array>
#include <string>

#include "lib/scripting/filename_mapper.h"
#include "lib/scripting/storage_scan.h"

constexpr int kStorageCount = 9;

// Of one storage. The values above kStorage are scripts; where a storage holds several, the one
// with the highest number counts: an archive that was put beside a presentation is newer than it.
enum class AutorunStatus : int {
  kChecking = -5,
  kUnmounted = -4,
  kError = -3,
  kRuntimeError = -2,  // its autorun was marked bad
  kLoadError = -1,     // the same
  kNone = 0,           // can hold no autorun, or the built-in script is missing
  kStorage = 1,        // usable, without a script
  kAutorunBas = 2,
  kAutorunPlm = 3,
  kAutorunZip = 4,
  kDiagnostic = 5,
  kAutotest = 6,
};
// "checking", "autorun", ... Any other value prints "Unknown status {}\n" and is a broken
// invariant.
const char* GetStatusText(AutorunStatus status);
// "autorun.plm", ...; asking for that of a status without a script is a broken invariant.
const char* GetScriptName(AutorunStatus status);
inline bool HasScript(AutorunStatus status) { return status >= AutorunStatus::kAutorunBas; }

// The statuses by the storage table's order. Belongs to the invoker's thread.
//
// FIRST and LAST are names rather than media. A device that has a storage of that name (a folder
// "/storage/first") uses it in its place of the order. Otherwise FIRST is the first medium of the
// table that is usable and holds a script, LAST the last such one, and choosing FIRST chooses that
// medium. So a script is always known by the medium it lies on, and so is one that failed.
class AutorunStorages {
 public:
  struct Options {
    bool trace = false;          // print the trace lines
    bool external_only = false;  // leave out what is built in
    bool diagnostic = false;     // diagnostic scripts count: "diagnostic.plm" and "autotest.plm"
    bool has_flash = false;      // the hardware has the flash storage
  };

  explicit AutorunStorages(const Options& options);

  // Looks at every storage and prints what is there. A storage that was marked bad stays so until
  // its medium is taken out.
  void Scan(const FilenameMapper& mapper);

  // The storage to run from: one with "autotest.plm", or else "diagnostic.plm", when these count,
  // else the first with an autorun; the built-in script's own entry when there is nothing better.
  // -1 when there is none at all.
  int Best() const;
  // Whether that entry is the built-in script's.
  static bool IsDefault(int storage_index);
  bool AnyChecking() const;
  // Whether there is a storage that network recovery can use.
  bool HasRecoveryStorage() const;

  AutorunStatus GetStatus(int storage_index) const;
  // "USB1=autorun;" and so on.
  std::string GetStatusList() const;
  // The drive-style name of a storage's script, which there must be.
  std::string GetScriptPath(int storage_index) const;

  void MarkAutorunBad(int storage_index, AutorunStatus status);
  // Somebody has repaired the storages: all are tried again.
  void ForgetBad();

 private:
  AutorunStatus Examine(int storage_index, const FilenameMapper& mapper) const;
  AutorunStatus FindScript(int storage_index, const FilenameMapper& mapper) const;
  void ResolveNames();

  const Options m_options;
  std::array<AutorunStatus, kStorageCount> m_status;
  // For the names: the entry that is meant; for all others themselves.
  std::array<int, kStorageCount> m_meant;
};
