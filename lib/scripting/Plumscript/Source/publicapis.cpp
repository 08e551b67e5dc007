// The runtime as its hosts see it: set-up, processes, compiling, running, breaking, error texts.
#include "publicapis.h"

#include <cstdio>
#include <new>
#include <utility>

#include "clglobal.h"
#include "containers.h"
#include "hooks.h"
#include "run.h"
#include "run_debugger.h"
#include "run_decode.h"

namespace {

pscDomain* global_domain = nullptr;
void* host_context = nullptr;

constexpr size_t kShortFileName = 32;

void dropModule(psProc* p) {
  // It points into the module's code, and tells that code by addresses that the next may get again.
  p->step_form.reset();
  if (p->mod != nullptr) modFree(p->mod);
  p->mod = nullptr;
}

bool adopt(psProc* p, psModule* module, psCompileErrors errors) {
  p->compile_errors = std::move(errors);
  p->mod = module;
  return p->compile_errors.empty();
}

// What every run finds: the module's global object and the channel. False when memory is refused.
bool enterModule(psProc* p, psIo* io) {
  psModule* module = p->mod;
  if (module->global_object == nullptr) module->global_object = psNewAssociativeArray(p->domain);
  if (module->global_object == nullptr) return false;
  p->io = io;
  return true;
}

void leaveModule(psProc* p) {
  if (p->io != nullptr) io_flush(p->io);
  p->io = nullptr;
  pscGarbageCollect(p->domain);
  pscSubRef(p->mod->global_object);
  p->mod->global_object = nullptr;
  pscGarbageCollect(p->domain);
}

}  // namespace

void scriptInit(psInitArguments arguments) {
  psAssert(global_domain == nullptr);
  host_context = arguments.host_context;
  compInit();
  compSetLibraryPrefixes(std::move(arguments.library_prefixes));
  pscInitBuiltInCoreComponents();
  global_domain = pscNewDomain();
  psAssertText(global_domain != nullptr, "globalDomain != ((void *)0)");
}

void scriptUninit() {
  pscUninitDomain(global_domain);
  delete global_domain;
  global_domain = nullptr;
  pscUninitClasses();
  compUninit();
}

pscDomain* scriptDomain() { return global_domain; }
void* scriptHostContext() { return host_context; }

psProc* scriptCreateProcess() {
  auto* p = new (std::nothrow) psProc;
  if (p == nullptr) return nullptr;
  p->domain = global_domain;
  p->gro = pscNewComponentByClass(global_domain, &clGlobal);
  psAssertText(p->gro != nullptr, "p->gro");
  p->ifGlobal = &kPsGlobalInterface;
  p->evsp = p->eval_stack;
  return p;
}

void scriptDestroyProcess(psProc* p) {
  psAssert(p != nullptr);
  psAssertText(p->ctx == nullptr, "p->ctx==0");
  dropModule(p);
  pscSubRef(p->gro);
  if (p->debug_session != nullptr) DebugDetachSession(p);
  psAssertText(p->debug_session == nullptr, "p->debug_session==((void *)0)");
  delete p;
}

// --- Compiling --------------------------------------------------------------------------------

bool scriptCompileText(psProc* p, std::string_view text, const std::string& name) {
  dropModule(p);
  psModule* module = nullptr;
  psCompileErrors errors = compileText(text, &module, name, p->domain, p);
  return adopt(p, module, std::move(errors));
}

bool scriptCompileFile(psProc* p, const std::string& path, const std::string& name) {
  std::string text;
  psStatus error = kPsErrorLoadingFile;
  bool enciphered = false;
  if (!ReadScriptSource(path, &text, &error, &enciphered)) {
    dropModule(p);
    return adopt(p, nullptr, {psCompileError{error, 0, name, {}}});
  }
  p->stop_on_error |= enciphered;
  return scriptCompileText(p, text, name);
}

std::string scriptShortFileName(std::string_view name) {
  if (name.size() <= kShortFileName) return std::string(name);
  return "..." + std::string(name.substr(name.size() - kShortFileName + 3));
}

std::string scriptCompileErrorText(const psCompileError& error) {
  const char* text = psStatusText(error.code);
  const std::string file = scriptShortFileName(error.file);
  char line[256];
  if (error.code == kPsLabelNotFound) {
    std::snprintf(line, sizeof line, "%s (compile error) in %s(%s)", text, file.c_str(),
                  error.label.c_str());
  } else if (error.line != 0) {
    std::snprintf(line, sizeof line, "%s (compile error &h%02x) in %s(%d)\n", text, error.code,
                  file.c_str(), error.line);
  } else {
    std::snprintf(line, sizeof line, "%s (compile error &h%02x) in %s\n", text, error.code,
                  file.c_str());
  }
  return line;
}

bool scriptNextCompileError(psProc* p, std::string* text) {
  if (p->compile_errors.empty()) return false;
  *text = scriptCompileErrorText(p->compile_errors.front());
  p->compile_errors.erase(p->compile_errors.begin());
  return true;
}

std::string scriptGetRuntimeErrorText(const psProc* p) {
  const char* text = psStatusText(p->last_status);
  // A function whose frame could not be pushed has no offset: then the record is its first.
  const psLineData* where = p->mod != nullptr && p->error_function != nullptr
                                ? DebugPCToLine(p->mod, p->error_offset, p->error_function)
                                : nullptr;
  char line[256];
  if (where != nullptr) {
    std::snprintf(line, sizeof line, "%s (runtime error &h%02x) in %s(%d)\n", text, p->last_status,
                  scriptShortFileName(*where->file).c_str(), where->line_num);
  } else {
    std::snprintf(line, sizeof line, "%s (runtime error &h%02x)\n", text, p->last_status);
  }
  return line;
}

// --- Running ----------------------------------------------------------------------------------

bool scriptRun(psProc* p, psIo* io, psDebugSession* session) {
  psAssertText(p != nullptr, "code");
  if (p->mod == nullptr || p->mod->main_function == nullptr) {
    p->last_status = kPsNoMain;
    p->error_offset = -1;
    p->error_function = nullptr;
    return false;
  }
  return scriptRunFunction(p, io, session, p->mod->main_function, nullptr, 0, nullptr);
}

bool scriptRunFunction(psProc* p, psIo* io, psDebugSession* session, psFunction* function,
                       psTypedValue* args, int n, psTypedValue* result) {
  if (!enterModule(p, io)) {
    p->last_status = kPsOutOfMemory;
    return false;
  }
  const bool attach = session != nullptr && p->debug_session == nullptr;
  if (attach) DebugAttachSession(p, session);
  const auto* outer = std::exchange(p->domain->running_break_word, &p->break_word);
  pscNotifyRunning(p->domain);
  const psStatus status = ExecSub(p, function, args, n, nullptr, result);
  p->domain->running_break_word = outer;
  // A run inside another one leaves that one running.
  if (outer == nullptr) pscNotifyStopped(p->domain);
  if (attach) DebugDetachSession(p);
  leaveModule(p);
  return status == kPsOkay;
}

psStatus psBeginFrame(psProc* p, psIo* io) {
  psAssertText(p->ctx == nullptr, "code->ctx==0");
  if (p->mod == nullptr || p->mod->main_function == nullptr) return kPsNoMain;
  if (!enterModule(p, io)) return kPsOutOfMemory;
  const psStatus status = psPushFrame(p, p->mod->main_function, 0, p->mod->global_object);
  if (status != kPsOkay) {
    leaveModule(p);
    return status;
  }
  p->running = true;
  p->domain->running_break_word = &p->break_word;
  pscNotifyRunning(p->domain);
  return kPsOkay;
}

void psEndFrame(psProc* p) {
  while (p->ctx != nullptr) psPopFrame(p);
  p->running = false;
  p->domain->running_break_word = nullptr;
  pscNotifyStopped(p->domain);
  leaveModule(p);
}

std::mutex psChainLock;

void scriptBreak(psProc* p, psStatus code) {
  const std::lock_guard lock(psChainLock);
  while (psProc* child = p->chain.load()) p = child;
  uint32_t word = p->break_word.load();
  while (!p->break_word.compare_exchange_weak(
      word, (word & ~(kPsBreakCodeMask | kPsBreakSticky)) | code)) {
  }
  pscSignalBreak(p->domain);
}

void scriptRequestEnd(psProc* p) {
  const std::lock_guard lock(psChainLock);
  for (psProc* each = p; each != nullptr; each = each->chain.load()) {
    const bool innermost = each->chain.load() == nullptr;
    uint32_t word = each->break_word.load();
    while (!each->break_word.compare_exchange_weak(
        word, (word & ~kPsBreakCodeMask) | kPsNormalEnd | (innermost ? kPsBreakSticky : 0))) {
    }
  }
  pscSignalBreak(p->domain);
}

bool pscBreakPending(const pscDomain* domain) {
  const std::atomic<uint32_t>* word = domain->running_break_word;
  return word != nullptr && (word->load(std::memory_order_acquire) & kPsBreakCodeMask) != 0;
}
