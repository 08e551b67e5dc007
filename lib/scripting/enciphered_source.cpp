// The hook takes no exceptions, so this is where the reason is printed.
#include "lib/scripting/enciphered_source.h"

#include "lib/hardware/device_secrets.h"
#include "lib/platform/log.h"

bool DecipherScriptSource(const std::string& enciphered, std::string* plain) {
  try {
    if (!DeviceSecrets::Exists()) throw DeviceSecrets::Error("this program has no device keys");
    *plain = DeviceSecrets::GetInstance().DecipherSource(enciphered);
    return true;
  } catch (const std::exception& error) {
    lattix::Log("Plumscript decryption failed: {}\n", error.what());
    return false;
  }
}
