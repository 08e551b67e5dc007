// One table of algorithms. SHA-1 names scripts because that is what servers compare it with; it
// protects nothing here.
#include "lib/platform/digest/file_digest.h"

#include <gcrypt.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>
#include <stdexcept>

#include "lib/platform/digest/gcrypt_library.h"
#include "lib/platform/errno_exception.h"

namespace {

constexpr size_t kBlock = size_t{64} << 10;

struct CloseDigest {
  void operator()(gcry_md_hd_t digest) const { gcry_md_close(digest); }
};
using Digest = std::unique_ptr<gcry_md_handle, CloseDigest>;

struct Algorithm {
  std::string_view name;
  int library;
  bool swap_words;
};

constexpr Algorithm kAlgorithms[] = {
    {"md5", GCRY_MD_MD5, false},       {"sha1", GCRY_MD_SHA1, false},
    {"sha224", GCRY_MD_SHA224, false}, {"sha256", GCRY_MD_SHA256, false},
    {"sha384", GCRY_MD_SHA384, false}, {"sha512", GCRY_MD_SHA512, false},
    {"besha1", GCRY_MD_SHA1, true},
};
constexpr Algorithm kSha1 = kAlgorithms[1];

const Algorithm* FindAlgorithm(std::string_view name) {
  const auto* const found =
      std::find_if(std::begin(kAlgorithms), std::end(kAlgorithms),
                   [name](const Algorithm& algorithm) { return algorithm.name == name; });
  return found != std::end(kAlgorithms) ? found : nullptr;
}

Digest Open(const Algorithm& algorithm) {
  EnsureGcrypt();
  gcry_md_hd_t digest;
  if (gcry_md_open(&digest, algorithm.library, 0)) throw std::bad_alloc();
  return Digest(digest);
}

std::string Finish(const Digest& digest, const Algorithm& algorithm) {
  const unsigned char* bytes = gcry_md_read(digest.get(), algorithm.library);
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (unsigned i = 0; i < gcry_md_get_algo_dlen(algorithm.library); ++i) {
    const unsigned char byte = bytes[algorithm.swap_words ? i ^ 3 : i];
    text += {kDigits[byte >> 4], kDigits[byte & 15]};
  }
  return text;
}

std::string DigestOf(const Algorithm& algorithm, int fd, const DigestProgress& progress) {
  const Digest digest = Open(algorithm);
  const auto block = std::make_unique_for_overwrite<char[]>(kBlock);
  if (::lseek(fd, 0, SEEK_SET) < 0) throw lattix::ErrnoException(errno, "lseek");
  for (;;) {
    const ssize_t n = ::read(fd, block.get(), kBlock);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw lattix::ErrnoException(errno, "read");
    if (n == 0) return Finish(digest, algorithm);
    gcry_md_write(digest.get(), block.get(), static_cast<size_t>(n));
    if (progress) progress();
  }
}

}  // namespace

bool IsDigestAlgorithm(std::string_view algorithm) { return FindAlgorithm(algorithm) != nullptr; }

std::string FileDigest(std::string_view algorithm, int fd, const DigestProgress& progress) {
  const Algorithm* const found = FindAlgorithm(algorithm);
  if (found == nullptr) throw std::invalid_argument("Unknown digest algorithm");
  return DigestOf(*found, fd, progress);
}

std::string FileSha1(int fd, const DigestProgress& progress) {
  return DigestOf(kSha1, fd, progress);
}

std::string Sha1(std::string_view bytes) {
  const Digest digest = Open(kSha1);
  gcry_md_write(digest.get(), bytes.data(), bytes.size());
  return Finish(digest, kSha1);
}
