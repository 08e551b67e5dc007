// SHA-1 names scripts because that is what servers compare it with; it protects nothing here.
#include "lib/platform/digest/file_digest.h"

#include <gcrypt.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <new>

#include "lib/platform/digest/gcrypt_library.h"
#include "lib/platform/errno_exception.h"

namespace {

constexpr size_t kBlock = size_t{64} << 10;

struct CloseDigest {
  void operator()(gcry_md_hd_t digest) const { gcry_md_close(digest); }
};
using Digest = std::unique_ptr<gcry_md_handle, CloseDigest>;

Digest OpenSha1() {
  EnsureGcrypt();
  gcry_md_hd_t digest;
  if (gcry_md_open(&digest, GCRY_MD_SHA1, 0)) throw std::bad_alloc();
  return Digest(digest);
}

std::string Finish(const Digest& digest) {
  const unsigned char* bytes = gcry_md_read(digest.get(), GCRY_MD_SHA1);
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (unsigned i = 0; i < gcry_md_get_algo_dlen(GCRY_MD_SHA1); ++i) {
    text += {kDigits[bytes[i] >> 4], kDigits[bytes[i] & 15]};
  }
  return text;
}

}  // namespace

std::string FileSha1(int fd) {
  const Digest digest = OpenSha1();
  const auto block = std::make_unique_for_overwrite<char[]>(kBlock);
  if (::lseek(fd, 0, SEEK_SET) < 0) throw lattix::ErrnoException(errno, "lseek");
  for (;;) {
    const ssize_t n = ::read(fd, block.get(), kBlock);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw lattix::ErrnoException(errno, "read");
    if (n == 0) return Finish(digest);
    gcry_md_write(digest.get(), block.get(), static_cast<size_t>(n));
  }
}

std::string Sha1(std::string_view bytes) {
  const Digest digest = OpenSha1();
  gcry_md_write(digest.get(), bytes.data(), bytes.size());
  return Finish(digest);
}
