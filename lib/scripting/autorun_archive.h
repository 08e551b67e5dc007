// Presentations that come as one file, "autorun.zip".
#pragma once

#include <stop_token>
#include <string>

#include "lib/scripting/filename_mapper.h"

struct AutorunArchive {
  // The script to run, "tmp:/autozip.plm" or "tmp:/autozip.bas"; empty when there is none.
  std::string script;
  // Why there is none, in words for the log and the error report.
  std::string error;
};

// Extracts the archive of that drive-style name ("SD:/autorun.zip") into "/storage/tmp" and finds
// its script, "autozip.plm" or else "autozip.bas", at its top. Files of the same names there are
// replaced. An archive that cannot be extracted whole, or is not one that a presentation's author
// makes (see lib/platform/zip_archive/zip_archive.h), leaves nothing of its own behind.
//
// Encrypted archives (AES) are opened with the passphrase in the setting "autozipkey" of
// "security", which is in the device's obfuscated form.
//
// Prints "Extracting autorun.zip.\n", "Looking for autozip.plm within zip file\n" and which script
// it found; the error is the caller's to print. Blocks for as long as the extraction takes; a stop
// request ends it ("Cancelled"). Throws nothing but std::bad_alloc. One extraction at a time, on
// any thread.
AutorunArchive ExtractAutorunArchive(const FilenameMapper& mapper, const std::string& name,
                                     std::stop_token stop = {});
