// Authenticated encryption means that a wrong key, a damaged file and a forged one all fail in the
// same place, before anything of the plain text is used.
#include "lib/hardware/device_secrets/key_files.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <gcrypt.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "lib/platform/device_file.h"
#include "lib/platform/digest/gcrypt_library.h"
#include "lib/platform/errno_exception.h"

namespace {

using Error = DeviceSecrets::Error;

constexpr size_t kKeySize = 32;
constexpr size_t kNonceSize = 12;
constexpr size_t kTagSize = 16;
constexpr size_t kHeaderSize = 4;
constexpr size_t kHashSize = 32;
constexpr size_t kSaltSize = 16;
constexpr size_t kSignatureSize = 64;
constexpr size_t kMaxKeyFile = 4096;
constexpr std::string_view kPassphraseContext = "orvex passphrase";
constexpr std::string_view kUnlockMethod = "pbkdf2-sha256";
constexpr unsigned long kUnlockIterations = 200'000;
// What a key file may ask of the processor: a few seconds on a player.
constexpr unsigned long kMaxUnlockIterations = 5'000'000;

struct CloseCipher {
  void operator()(gcry_cipher_hd_t cipher) const { gcry_cipher_close(cipher); }
};
struct ReleaseExpression {
  void operator()(gcry_sexp_t expression) const { gcry_sexp_release(expression); }
};
using Cipher = std::unique_ptr<gcry_cipher_handle, CloseCipher>;
using Expression = std::unique_ptr<gcry_sexp, ReleaseExpression>;

void Check(gcry_error_t error) {
  if (gcry_err_code(error) == GPG_ERR_ENOMEM) throw std::bad_alloc();
  if (error) throw Error(gcry_strerror(error));
}

std::string_view Trimmed(std::string_view text) {
  constexpr std::string_view kSpace = " \t\r\n";
  const size_t start = text.find_first_not_of(kSpace);
  if (start == std::string_view::npos) return {};
  return text.substr(start, text.find_last_not_of(kSpace) + 1 - start);
}

std::string RandomBytes(size_t n) {
  EnsureGcrypt();
  std::string bytes(n, '\0');
  gcry_randomize(bytes.data(), n, GCRY_STRONG_RANDOM);
  return bytes;
}

// The content of a key file. `what` says what cannot be done without it.
SecretText ReadKeyFile(const char* name, const char* what, bool secret) {
  const std::string path = std::string(kKeyFolder) + name;
  try {
    const lattix::UniqueFd file = lattix::OpenDevice(path, O_RDONLY | O_NONBLOCK);
    struct stat status;
    if (::fstat(file.Get(), &status) != 0) throw lattix::ErrnoException(errno, path);
    if (!S_ISREG(status.st_mode)) throw Error(fmt::format("{} is no regular file", path));
    if ((status.st_mode & (secret ? S_IRWXG | S_IRWXO : S_IWGRP | S_IWOTH)) != 0) {
      throw Error(fmt::format("{} is open to others than its owner", path));
    }
    std::string content(kMaxKeyFile + 1, '\0');
    size_t size = 0;
    while (size < content.size()) {
      const ssize_t n = ::read(file.Get(), content.data() + size, content.size() - size);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) throw lattix::ErrnoException(errno, path);
      if (n == 0) break;
      size += static_cast<size_t>(n);
    }
    if (size > kMaxKeyFile) throw Error(fmt::format("{} is too large", path));
    content.resize(size);
    return SecretText(std::move(content));
  } catch (const lattix::ErrnoException& error) {
    throw Error(fmt::format("this device has no key {} ({}: {})", what, path, error.what()));
  }
}

SecretText ReadKey(const char* name, const char* what, bool secret = true) {
  const SecretText file = ReadKeyFile(name, what, secret);
  SecretText key;
  if (!FromHex(Trimmed(file.Get()), &key.Get()) || key.Get().size() != kKeySize) {
    throw Error(fmt::format("{}{} is not {} bytes in hexadecimal", kKeyFolder, name, kKeySize));
  }
  return key;
}

Cipher OpenCipher(const SecretText& key, std::string_view nonce, std::string_view context) {
  EnsureGcrypt();
  gcry_cipher_hd_t handle;
  Check(gcry_cipher_open(&handle, GCRY_CIPHER_AES256, GCRY_CIPHER_MODE_GCM, 0));
  Cipher cipher(handle);
  Check(gcry_cipher_setkey(handle, key.Get().data(), key.Get().size()));
  Check(gcry_cipher_setiv(handle, nonce.data(), nonce.size()));
  Check(gcry_cipher_authenticate(handle, context.data(), context.size()));
  return cipher;
}

// Nonce, ciphertext, tag.
std::string Seal(const SecretText& key, std::string_view context, std::string_view plain) {
  const std::string nonce = RandomBytes(kNonceSize);
  const Cipher cipher = OpenCipher(key, nonce, context);
  std::string body(plain);
  Check(gcry_cipher_final(cipher.get()));
  Check(gcry_cipher_encrypt(cipher.get(), body.data(), body.size(), nullptr, 0));
  std::string tag(kTagSize, '\0');
  Check(gcry_cipher_gettag(cipher.get(), tag.data(), tag.size()));
  return nonce + body + tag;
}

std::string Open(const SecretText& key, std::string_view context, std::string_view sealed) {
  if (sealed.size() < kNonceSize + kTagSize) throw Error("it is too short to be enciphered");
  const std::string_view nonce = sealed.substr(0, kNonceSize);
  const std::string_view tag = sealed.substr(sealed.size() - kTagSize);
  const Cipher cipher = OpenCipher(key, nonce, context);
  SecretText plain(std::string(sealed.substr(kNonceSize, sealed.size() - kNonceSize - kTagSize)));
  std::string& text = plain.Get();
  Check(gcry_cipher_final(cipher.get()));
  Check(gcry_cipher_decrypt(cipher.get(), text.data(), text.size(), nullptr, 0));
  if (gcry_cipher_checktag(cipher.get(), tag.data(), tag.size()) != 0) {
    throw Error("it was enciphered with another key, or changed since");
  }
  return std::move(text);
}

// The key file of a source's header; null for other headers.
const char* SourceKey(std::string_view header) {
  if (header == "OSPS") return "script-osps";
  if (header == "PKPS") return "script-pkps";
  return nullptr;
}

bool SameBytes(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  unsigned difference = 0;
  for (size_t i = 0; i < a.size(); ++i) {
    difference |= static_cast<unsigned>(static_cast<unsigned char>(a[i] ^ b[i]));
  }
  return difference == 0;
}

SecretText UnlockHash(std::string_view code, std::string_view salt, unsigned long iterations) {
  EnsureGcrypt();
  SecretText hash(std::string(kHashSize, '\0'));
  // The function refuses an empty passphrase; one byte in front makes every code fit for it.
  const SecretText input(std::string(1, '=').append(code));
  Check(gcry_kdf_derive(input.Get().data(), input.Get().size(), GCRY_KDF_PBKDF2, GCRY_MD_SHA256,
                        salt.data(), salt.size(), iterations, hash.Get().size(),
                        hash.Get().data()));
  return hash;
}

template <typename... Args>
Expression Build(const char* format, Args... args) {
  gcry_sexp_t expression;
  Check(gcry_sexp_build(&expression, nullptr, format, args...));
  return Expression(expression);
}

Expression SignedData(std::string_view data) {
  return Build("(data (flags eddsa)(hash-algo sha512)(value %b))", static_cast<int>(data.size()),
               data.data());
}

// A byte string deep in an expression.
std::string BytesOf(const Expression& expression, const char* name) {
  const Expression found(gcry_sexp_find_token(expression.get(), name, 0));
  size_t size = 0;
  const char* bytes = found ? gcry_sexp_nth_data(found.get(), 1, &size) : nullptr;
  if (!bytes) throw Error("the cryptographic library made no key");
  return {bytes, size};
}

constexpr size_t kMaxSignedData = size_t{1} << 20;

}  // namespace

void SecretText::Wipe() { explicit_bzero(m_text.data(), m_text.capacity()); }

KeyFileSecrets::KeyFileSecrets() = default;

std::string KeyFileSecrets::DecipherSource(std::string_view enciphered) const {
  const std::string_view header = enciphered.substr(0, kHeaderSize);
  const char* name = SourceKey(header);
  if (!name) throw Error("it is no enciphered script");
  const SecretText key = ReadKey(name, "for enciphered scripts");
  return Open(key, header, enciphered.substr(kHeaderSize));
}

std::string KeyFileSecrets::Reveal(std::string_view obfuscated) const {
  const SecretText key = ReadKey("registry", "for obfuscated passphrases");
  std::string sealed;
  if (!FromHex(Trimmed(obfuscated), &sealed)) throw Error("it is no obfuscated passphrase");
  return Open(key, kPassphraseContext, sealed);
}

bool KeyFileSecrets::IsUnlockCode(std::string_view code) const {
  const SecretText file = ReadKeyFile("unlock", "to unlock manufacturing commands", true);
  std::vector<std::string_view> fields;
  std::string_view rest = Trimmed(file.Get());
  while (!rest.empty() && fields.size() < 5) {
    const size_t end = std::min(rest.find(' '), rest.size());
    fields.push_back(rest.substr(0, end));
    rest = Trimmed(rest.substr(end));
  }
  unsigned long iterations = 0;
  std::string salt;
  std::string hash;
  const auto is_number = [&iterations](std::string_view text) {
    const auto [end, error] = std::from_chars(text.begin(), text.end(), iterations);
    return end == text.end() && error == std::errc();
  };
  if (fields.size() != 4 || fields[0] != kUnlockMethod || !is_number(fields[1]) || iterations < 1 ||
      iterations > kMaxUnlockIterations || !FromHex(fields[2], &salt) || salt.empty() ||
      !FromHex(fields[3], &hash) || hash.size() != kHashSize) {
    throw Error(fmt::format("{}unlock is not understood", kKeyFolder));
  }
  return SameBytes(UnlockHash(code, salt, iterations).Get(), hash);
}

bool KeyFileSecrets::IsDeviceDataGenuine(std::string_view data, std::string_view signature) const {
  const SecretText key = ReadKey("device-data.pub", "to verify device data", false);
  if (signature.size() != kSignatureSize || data.size() > kMaxSignedData) return false;
  EnsureGcrypt();
  const Expression public_key = Build("(public-key (ecc (curve Ed25519)(flags eddsa)(q %b)))",
                                      static_cast<int>(kKeySize), key.Get().data());
  const int half = static_cast<int>(kSignatureSize / 2);
  const Expression value = Build("(sig-val (eddsa (r %b)(s %b)))", half, signature.data(), half,
                                 signature.data() + half);
  return gcry_pk_verify(value.get(), SignedData(data).get(), public_key.get()) == 0;
}

std::string EncipherSource(std::string_view header, std::string_view plain) {
  const char* name = SourceKey(header);
  if (!name) throw Error("the header is OSPS or PKPS");
  return std::string(header) + Seal(ReadKey(name, "for enciphered scripts"), header, plain);
}

std::string Obfuscate(std::string_view secret) {
  return ToHex(Seal(ReadKey("registry", "for obfuscated passphrases"), kPassphraseContext, secret));
}

std::string UnlockFile(std::string_view code) {
  const std::string salt = RandomBytes(kSaltSize);
  return fmt::format("{} {} {} {}\n", kUnlockMethod, kUnlockIterations, ToHex(salt),
                     ToHex(UnlockHash(code, salt, kUnlockIterations).Get()));
}

std::string NewKeyFile() {
  const SecretText key(RandomBytes(kKeySize));
  return ToHex(key.Get()) + "\n";
}

SigningKeys NewSigningKeys() {
  EnsureGcrypt();
  const Expression wish = Build("(genkey (ecc (curve Ed25519)(flags eddsa)))");
  gcry_sexp_t made;
  Check(gcry_pk_genkey(&made, wish.get()));
  const Expression keys(made);
  const std::string public_key = BytesOf(keys, "q");
  const SecretText private_key(BytesOf(keys, "d"));
  return {SecretText(ToHex(private_key.Get()) + " " + ToHex(public_key) + "\n"),
          ToHex(public_key) + "\n"};
}

std::string SignDeviceData(std::string_view data, std::string_view private_file) {
  EnsureGcrypt();
  const std::string_view text = Trimmed(private_file);
  const size_t space = std::min(text.find(' '), text.size());
  SecretText secret;
  std::string open;
  if (data.size() > kMaxSignedData || !FromHex(text.substr(0, space), &secret.Get()) ||
      !FromHex(Trimmed(text.substr(space)), &open)) {
    throw Error("the signing key is not understood");
  }
  const Expression key = Build("(private-key (ecc (curve Ed25519)(flags eddsa)(q %b)(d %b)))",
                               static_cast<int>(open.size()), open.data(),
                               static_cast<int>(secret.Get().size()), secret.Get().data());
  gcry_sexp_t made;
  Check(gcry_pk_sign(&made, SignedData(data).get(), key.get()));
  const Expression value(made);
  return BytesOf(value, "r") + BytesOf(value, "s");
}

std::string ToHex(std::string_view bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(2 * bytes.size());
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text += {kDigits[byte >> 4], kDigits[byte & 15]};
  }
  return text;
}

bool FromHex(std::string_view text, std::string* bytes) {
  bytes->clear();
  if (text.size() % 2 != 0) return false;
  for (size_t i = 0; i < text.size(); i += 2) {
    unsigned char byte = 0;
    const auto [end, error] = std::from_chars(&text[i], &text[i] + 2, byte, 16);
    if (error != std::errc() || end != &text[i] + 2) return false;
    *bytes += static_cast<char>(byte);
  }
  return true;
}
