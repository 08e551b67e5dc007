// How the core reaches the platform: files, drives, sleep, reboot and the script host.
//
// The host fills one table and installs it before the first script runs; the core never opens a
// file or asks for a reboot in any other way, so that it runs alone in tests and tools. All paths
// are the script's own names until mapFilename has turned them into native ones.
//
// The hooks are called on the script's thread and must not throw.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "typedvals.h"

struct pscDomain;

struct psHostHooks {
  // Maps a script name to a native path; false when it names nothing that a script may reach.
  bool (*mapFilename)(psText name, std::string* native) = nullptr;
  // Opens a mapped native path (flags and mode as open(2)) without leaving the drive it lies on;
  // a descriptor, or -1 with errno set. Folders are refused (EISDIR) unless flags hold O_DIRECTORY,
  // which opens one for listing (fdopendir): a mapped path means nothing to the operating system.
  int (*openFile)(const std::string& native, int flags, unsigned mode) = nullptr;

  bool (*deleteFile)(psText name) = nullptr;
  bool (*deleteDirectory)(psText name) = nullptr;
  bool (*createDirectory)(psText name) = nullptr;
  bool (*copyFile)(psText from, psText to) = nullptr;
  bool (*moveFile)(psText from, psText to) = nullptr;
  bool (*formatDrive)(psText drive, psText file_system) = nullptr;
  bool (*ejectDrive)(psText drive) = nullptr;
  std::string (*getDefaultDrive)() = nullptr;
  void (*setDefaultDrive)(psText drive) = nullptr;

  // Called before a script waits for a message or sleeps: what it has printed must be seen by then.
  void (*beforeBlocking)() = nullptr;
  // Sleeps for the milliseconds given (none when negative), however many signals arrive; returns
  // early only when a break was requested for the domain.
  void (*sleep)(pscDomain* domain, int32_t milliseconds) = nullptr;
  void (*rebootSystem)() = nullptr;
  void (*shutdownSystem)() = nullptr;
  void (*restartScript)() = nullptr;
  void (*restartApplication)() = nullptr;
  void (*enableZoneSupport)(bool enable) = nullptr;

  // Deciphers an enciphered script source; false when it cannot.
  bool (*decipherSource)(const std::string& enciphered, std::string* plain) = nullptr;
};

// The installed table; never null (a table of refusals stands in until a host installs its own).
const psHostHooks& psHooks();
// Entries left null refuse. The table is copied.
void psInstallHooks(const psHostHooks& hooks);
