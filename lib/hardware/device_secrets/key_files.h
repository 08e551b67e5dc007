// The device's provisioned keys, and what is made with them.
//
// Each key is a small file of text below "/etc/orvex/keys/", readable by its owner alone (a key
// that others may read or write is refused, the two public ones excepted):
//
//   script-osps   32 bytes in hexadecimal: enciphers sources with the header "OSPS"
//   script-pkps   the same for the header "PKPS"
//   registry      32 bytes in hexadecimal: obfuscates passphrases and keys
//   unlock        "pbkdf2-sha256 ITERATIONS SALT HASH", the last two in hexadecimal: what the
//                 code that unlocks the manufacturing commands must hash to
//   device-data.pub  32 bytes in hexadecimal: the Ed25519 key (RFC 8032) that device data is signed
//                 with; public
//
// An enciphered source is its header (4 bytes), a nonce (12), the AES-256-GCM ciphertext, as long
// as the plain text, and the tag (16). The header is authenticated too. The obfuscated form of a
// passphrase is the hexadecimal of nonce, ciphertext and tag, with "orvex passphrase" as the data
// authenticated besides.
#pragma once

#include <string>
#include <string_view>

#include "lib/hardware/device_secrets.h"

constexpr char kKeyFolder[] = "/etc/orvex/keys/";

// Text or bytes that are wiped from memory when they go.
class SecretText {
 public:
  SecretText() = default;
  explicit SecretText(std::string text) : m_text(std::move(text)) {}
  SecretText(SecretText&& other) noexcept : m_text(std::move(other.m_text)) { other.Wipe(); }
  SecretText& operator=(SecretText&&) = delete;
  ~SecretText() { Wipe(); }

  const std::string& Get() const { return m_text; }
  std::string& Get() { return m_text; }

 private:
  void Wipe();
  std::string m_text;
};

// Reads the keys when they are needed, so that a key which is provisioned while the player runs
// works at once, and no key stays in memory.
class KeyFileSecrets final : public DeviceSecrets {
 public:
  KeyFileSecrets();
  std::string DecipherSource(std::string_view enciphered) const override;
  std::string Reveal(std::string_view obfuscated) const override;
  bool IsUnlockCode(std::string_view code) const override;
  bool IsDeviceDataGenuine(std::string_view data, std::string_view signature) const override;
};

// --- The other direction, for those who provision devices (tools/device-keys) -----------------
//
// All throw DeviceSecrets::Error, for a key that is not there too.

// `header` is "OSPS" or "PKPS".
std::string EncipherSource(std::string_view header, std::string_view plain);
std::string Obfuscate(std::string_view secret);
// The content of the file "unlock" for a code.
std::string UnlockFile(std::string_view code);
// A new key, as its file's content.
std::string NewKeyFile();
// An Ed25519 key pair, each as its file's content, and a signature (64 bytes) with the private one.
struct SigningKeys {
  SecretText private_file;
  std::string public_file;
};
SigningKeys NewSigningKeys();
std::string SignDeviceData(std::string_view data, std::string_view private_file);

std::string ToHex(std::string_view bytes);
// False when the text is not hexadecimal.
bool FromHex(std::string_view text, std::string* bytes);
