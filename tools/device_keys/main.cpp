// Provisions a device root with keys, and makes what a device with those keys understands. Secrets
// come in over standard input: an argument would be seen by everybody on the machine.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <string_view>

#include "lib/hardware/device_data.h"
#include "lib/hardware/device_secrets/key_files.h"
#include "lib/platform/device_file.h"
#include "lib/platform/device_path.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/unique_fd.h"

namespace {

constexpr int kWrongUsage = 64;
constexpr char kUsage[] =
    "usage: orvex-device-keys --root DIR COMMAND\n"
    "  create                 make the keys that DIR/etc/orvex/keys does not have yet\n"
    "  encipher OSPS|PKPS     encipher a script from standard input to standard output\n"
    "  obfuscate              obfuscate a passphrase from standard input (one line)\n"
    "  unlock                 make the manufacturing unlock code the one on standard input\n"
    "  sign                   sign the root's device data: sets its PS_SIGNATURE\n"
    "The private key for signing (device-data.key) stays with the manufacturer: no device needs "
    "it.\n";

void WriteKey(const std::string& name, std::string_view content, int flags, mode_t mode) {
  const std::string path = kKeyFolder + name;
  const lattix::UniqueFd file = lattix::OpenDevice(path, O_WRONLY | O_CREAT | flags, mode);
  if (::fchmod(file.Get(), mode) != 0) throw lattix::ErrnoException(errno, path);
  if (::write(file.Get(), content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
    throw lattix::ErrnoException(errno, path);
  }
}

bool HasKey(const std::string& name) {
  return ::access(lattix::DevicePath(kKeyFolder + name).c_str(), F_OK) == 0;
}

void Create() {
  for (const char* name : {"script-osps", "script-pkps", "registry"}) {
    if (!HasKey(name)) WriteKey(name, SecretText(NewKeyFile()).Get(), O_EXCL, 0600);
  }
  if (HasKey("device-data.pub")) return;
  const SigningKeys keys = NewSigningKeys();
  WriteKey("device-data.key", keys.private_file.Get(), O_EXCL, 0600);
  WriteKey("device-data.pub", keys.public_file, O_EXCL, 0644);
}

SecretText Input() {
  SecretText input;
  char block[4096];
  while (const size_t n = ::fread(block, 1, sizeof block, stdin)) input.Get().append(block, n);
  return input;
}

std::string_view FirstLine(const SecretText& input) {
  const std::string_view text = input.Get();
  return text.substr(0, text.find_first_of("\r\n"));
}

void Print(std::string_view text) { ::fwrite(text.data(), 1, text.size(), stdout); }

bool Run(std::string_view command, std::string_view argument) {
  if (command == "create") {
    Create();
  } else if (command == "encipher" && !argument.empty()) {
    Print(EncipherSource(argument, Input().Get()));
  } else if (command == "obfuscate") {
    const SecretText passphrase = Input();
    Print(Obfuscate(FirstLine(passphrase)) + "\n");
  } else if (command == "unlock") {
    const SecretText code = Input();
    WriteKey("unlock", UnlockFile(FirstLine(code)), O_TRUNC, 0600);
  } else if (command == "sign") {
    const std::string key = lattix::ReadDeviceFile(std::string(kKeyFolder) + "device-data.key");
    DeviceData data = DeviceData::Read();
    data.Set("PS_SIGNATURE", ToHex(SignDeviceData(data.SignedText(), key)));
    data.Write();
  } else {
    return false;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::string_view(argv[1]) == "--help") {
    Print(kUsage);
    return 0;
  }
  if (argc < 4 || argc > 5 || std::string_view(argv[1]) != "--root") {
    ::fputs(kUsage, stderr);
    return kWrongUsage;
  }
  try {
    lattix::SetDeviceRoot(argv[2]);
    if (Run(argv[3], argc == 5 ? argv[4] : "")) return 0;
    ::fputs(kUsage, stderr);
    return kWrongUsage;
  } catch (const lattix::ErrnoException& error) {
    ::fprintf(stderr, "orvex-device-keys: %s: %s\n", error.context().c_str(), error.what());
  } catch (const std::exception& error) {
    ::fprintf(stderr, "orvex-device-keys: %s\n", error.what());
  }
  return 1;
}
