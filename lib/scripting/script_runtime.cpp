// The core keeps its state in globals, so there is one runtime; its holders are counted, and the
// first and the last one start and end it.
#include "lib/scripting/script_runtime.h"

#include <cstdio>
#include <mutex>

#include "lib/platform/log.h"
#include "lib/scripting/CommonAPI/Include/class_registry.h"
#include "lib/scripting/CommonAPI/Include/object_globals.h"
#include "lib/scripting/Plumscript/Source/publicapis.h"
#include "lib/scripting/enciphered_source.h"

namespace {

std::mutex g_lock;  // held while the runtime is started or ended
int g_holders = 0;  // guarded by g_lock

thread_local ScriptRuntime::RequestHandler* t_handler = nullptr;

void OnRequest(ScriptRequest request) {
  psHooks().beforeBlocking();
  lattix::Log("{}", ScriptRequestLog(request));
  if (t_handler != nullptr) t_handler->OnScriptRequest(request);
}

void InstallHooks() {
  psHostHooks hooks = CommonScriptHooks(OnRequest);
  hooks.beforeBlocking = [] { std::fflush(stdout); };
  hooks.enableZoneSupport = [](bool enable) {
    KelvoObjectGlobals::GetInstance().EnableZoneSupport(enable);
  };
  hooks.decipherSource = DecipherScriptSource;
  psInstallHooks(hooks);
}

}  // namespace

ScriptRuntime::ScriptRuntime() {
  const std::lock_guard lock(g_lock);
  if (g_holders++ > 0) return;
  InstallHooks();
  psInitArguments arguments;
  // A library that the device does not have may lie beside the presentation.
  arguments.library_prefixes = {"SYS:/script-lib/", ""};
  scriptInit(std::move(arguments));
  KelvoRegisterClasses();
}

ScriptRuntime::~ScriptRuntime() {
  const std::lock_guard lock(g_lock);
  if (--g_holders > 0) return;
  scriptUninit();
  psInstallHooks({});
}

void ScriptRuntime::SetRequestHandler(RequestHandler* handler) { t_handler = handler; }
