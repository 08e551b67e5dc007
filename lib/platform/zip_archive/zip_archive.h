// Extracting zip archives whose makers nobody trusts.
//
// Either everything in an archive is extracted, or nothing stays. The whole directory is looked at
// before the first file is written, and an archive is refused that holds a name leading out of the
// target ("..", absolute, a drive letter or a backslash), a name twice, a link or device, more than
// the limits allow, or anything encrypted in another way than AES. What a file's data expands to is
// measured again while it is written, whatever the directory said.
//
// An archive is for one thread at a time. Failures are ZipArchive::Error, and
// lattix::ErrnoException for the target folder's file system.
#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <stop_token>
#include <string>
#include <vector>

#include "lib/platform/unique_fd.h"

class ZipArchive {
 public:
  // Why an archive cannot be read or extracted; the text names the entry it concerns.
  class Error : public std::runtime_error {
   public:
    using std::runtime_error::runtime_error;
  };

  struct Limits {
    uint64_t max_total;  // bytes, all files together
    uint64_t max_entries = 20'000;
    // Of an archive's expanded size to its own, once the former is past `ratio_matters`. Scripts
    // and pages shrink to a tenth or so, and media do not shrink.
    uint64_t max_ratio = 250;
    uint64_t ratio_matters = uint64_t{16} << 20;
  };

  // Reads the directory of the archive in an open regular file, which it takes over.
  explicit ZipArchive(lattix::UniqueFd file);
  ~ZipArchive();
  ZipArchive(const ZipArchive&) = delete;
  ZipArchive& operator=(const ZipArchive&) = delete;

  // Whether any entry is encrypted, so that Extract needs a passphrase.
  bool IsEncrypted() const;
  void SetPassphrase(const std::string& passphrase);

  // Extracts everything beneath the folder (a descriptor of it), replacing files but not folders,
  // and following no link there. Returns the paths of the files, without "./" and the like.
  std::vector<std::string> Extract(int folder, const Limits& limits, const std::stop_token& stop);

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};
