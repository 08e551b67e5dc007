// The installed platform hooks. Entries that a host leaves out refuse, so the core never has to ask
// whether one is there.
#include "hooks.h"

#include <cerrno>

namespace {

psHostHooks withRefusals(const psHostHooks& given) {
  psHostHooks h = given;
  if (!h.mapFilename) h.mapFilename = [](psText, std::string*) { return false; };
  if (!h.openFile)
    h.openFile = [](const std::string&, int, unsigned) {
      errno = ENOENT;
      return -1;
    };
  if (!h.deleteFile) h.deleteFile = [](psText) { return false; };
  if (!h.deleteDirectory) h.deleteDirectory = [](psText) { return false; };
  if (!h.createDirectory) h.createDirectory = [](psText) { return false; };
  if (!h.copyFile) h.copyFile = [](psText, psText) { return false; };
  if (!h.moveFile) h.moveFile = [](psText, psText) { return false; };
  if (!h.formatDrive) h.formatDrive = [](psText, psText) { return false; };
  if (!h.ejectDrive) h.ejectDrive = [](psText) { return false; };
  if (!h.getDefaultDrive) h.getDefaultDrive = [] { return std::string(); };
  if (!h.setDefaultDrive) h.setDefaultDrive = [](psText) {};
  if (!h.beforeBlocking) h.beforeBlocking = [] {};
  if (!h.sleep) h.sleep = [](pscDomain*, int32_t) {};
  if (!h.rebootSystem) h.rebootSystem = [] {};
  if (!h.shutdownSystem) h.shutdownSystem = [] {};
  if (!h.restartScript) h.restartScript = [] {};
  if (!h.restartApplication) h.restartApplication = [] {};
  if (!h.enableZoneSupport) h.enableZoneSupport = [](bool) {};
  if (!h.decipherSource) h.decipherSource = [](const std::string&, std::string*) { return false; };
  return h;
}

psHostHooks& installed() {
  static psHostHooks hooks = withRefusals({});
  return hooks;
}

}  // namespace

const psHostHooks& psHooks() { return installed(); }

void psInstallHooks(const psHostHooks& hooks) { installed() = withRefusals(hooks); }
