// What depends on the device's keys: enciphered scripts, obfuscated passphrases, the manufacturing
// unlock, signed device data.
//
// No key is compiled in: keys are provisioned as files (lib/hardware/device_secrets/key_files.h
// says which, docs/device-keys.md how), and without one the operations that need it fail with a
// text that names it. Neither keys nor what they protect is ever logged.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

#include "lib/platform/singleton.h"

// All operations may be called from any thread and block for as long as a small file takes to read.
class DeviceSecrets : public lattix::Singleton<DeviceSecrets> {
 public:
  // Why a secret cannot be had. The text holds nothing secret.
  class Error : public std::runtime_error {
   public:
    using std::runtime_error::runtime_error;
  };

  virtual ~DeviceSecrets() = default;

  // The plain text of an enciphered script source (any that IsEncipheredSource knows, and whatever
  // a file named ".eplm" holds). Throws Error.
  virtual std::string DecipherSource(std::string_view enciphered) const = 0;
  // The passphrase or key behind its obfuscated form, as it stands in the registry or in a script's
  // parameter. Throws Error.
  virtual std::string Reveal(std::string_view obfuscated) const = 0;
  // Whether this is the code that opens the manufacturing commands. No code opens them on a device
  // that was given none: then it throws Error. Takes the same time for every wrong code.
  virtual bool IsUnlockCode(std::string_view code) const = 0;
  // Whether the signature (its bytes) over the device data is the manufacturer's. Throws Error when
  // the device has no key to tell.
  virtual bool IsDeviceDataGenuine(std::string_view data, std::string_view signature) const = 0;
};

// Whether the bytes begin with one of the headers of enciphered sources, "OSPS" or "PKPS".
inline bool IsEncipheredSource(std::string_view source) {
  return source.starts_with("OSPS") || source.starts_with("PKPS");
}
