// The script host's way to enciphered script sources.
#pragma once

#include <string>

// For psHostHooks::decipherSource: the plain text by the device's secrets. On failure prints
// "Plumscript decryption failed: {}\n" and returns false; so does a process without DeviceSecrets.
// Callable from any thread; throws nothing.
bool DecipherScriptSource(const std::string& enciphered, std::string* plain);
