// Files for scripts, in a folder of the test's own.
#pragma once

#include <fcntl.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

#include "hooks.h"

// As long as one is there, "SD:/x" maps to the file x in it, and no other name maps.
class ScriptFolder {
 public:
  explicit ScriptFolder(psHostHooks hooks = {}) : before_(psHooks()) {
    char name[] = "/tmp/script_folder.XXXXXX";
    path_ = mkdtemp(name);
    hooks.mapFilename = [](psText script_name, std::string* native) {
      if (!script_name.starts_with("SD:/")) return false;
      *native = path_ + '/' + std::string(script_name.substr(4));
      return true;
    };
    hooks.openFile = [](const std::string& native, int flags, unsigned mode) {
      return ::open(native.c_str(), flags, mode);
    };
    psInstallHooks(hooks);
  }
  ~ScriptFolder() {
    psInstallHooks(before_);
    std::filesystem::remove_all(path_);
  }
  ScriptFolder(const ScriptFolder&) = delete;
  ScriptFolder& operator=(const ScriptFolder&) = delete;

  static const std::string& path() { return path_; }
  static void write(const std::string& name, std::string_view bytes) {
    std::ofstream(path_ + '/' + name, std::ios::binary) << bytes;
  }
  static std::string read(const std::string& name) {
    std::ifstream file(path_ + '/' + name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

 private:
  static inline std::string path_;
  psHostHooks before_;
};
