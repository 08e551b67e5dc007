// How texts reach the compiler: source files, the libraries that they name, and statements that are
// compiled into a function of a finished module.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <new>

#include "comp_internal.h"
#include "hooks.h"
#include "run.h"

namespace {

// A library's path with its NUL.
constexpr size_t kPathRoom = 512;

std::vector<std::string>& libraryPrefixes() {
  static std::vector<std::string> prefixes;
  return prefixes;
}

// The whole of a plain file, up to the limit of sources.
bool readFile(const std::string& path, std::string* bytes) {
  const int fd = psHooks().openFile(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK, 0);
  if (fd < 0) return false;
  struct stat st = {};
  bool good = fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size >= 0 &&
              static_cast<uint64_t>(st.st_size) <= kPsMaxSourceBytes;
  if (good) {
    bytes->resize(static_cast<size_t>(st.st_size));
    size_t done = 0;
    while (done < bytes->size()) {
      const ssize_t n = read(fd, bytes->data() + done, bytes->size() - done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      done += static_cast<size_t>(n);
    }
    good = done == bytes->size();
  }
  close(fd);
  return good;
}

// A graphic character or white space of the default locale.
bool isText(char c) { return (c >= '!' && c <= '~') || c == ' ' || (c >= '\t' && c <= '\r'); }

// By its name, or by what it begins with.
bool isEnciphered(const std::string& path, const std::string& bytes) {
  constexpr std::string_view kEnciphered = ".eplm";
  return (path.size() > kEnciphered.size() && path.ends_with(kEnciphered)) ||
         bytes.starts_with("OSPS") || bytes.starts_with("PKPS");
}

psStatus readSource(const std::string& path, std::string* text, bool* enciphered) {
  std::string bytes;
  if (!readFile(path, &bytes)) return kPsErrorLoadingFile;
  if (isEnciphered(path, bytes)) {
    std::string plain;
    if (!psHooks().decipherSource(bytes, &plain)) return kPsErrorLoadingFile;
    bytes.swap(plain);
    *enciphered = true;
  }
  if (bytes.starts_with("\xfe\xff") || bytes.starts_with("\xff\xfe")) {
    return kPsUnicodeNotSupported;
  }
  if (bytes.starts_with("\xef\xbb\xbf")) bytes.erase(0, 3);
  if (!bytes.empty() && !isText(bytes[0])) return kPsErrorLoadingFile;
  text->swap(bytes);
  return kPsOkay;
}

// Compiles a library's text in the place of the LIBRARY statement.
psStatus compileLibrary(psParser* p, const std::string& text, const std::string& path) {
  if (p->library_depth >= kPsMaxLibraryDepth || p->library_files >= kPsMaxLibraryFiles) {
    return kPsInternalLimit;
  }
  const psLexer outer = p->lex;
  p->library_depth++;
  p->library_files++;
  lexInit(p, text.c_str(), 1, modAddFileName(p->module, path));
  const psStatus err = MatchProgram(p);
  p->library_depth--;
  p->lex = outer;
  return err;
}

}  // namespace

void compSetLibraryPrefixes(std::vector<std::string> prefixes) {
  libraryPrefixes() = std::move(prefixes);
}

bool ReadScriptSource(const std::string& native_path, std::string* text, psStatus* error,
                      bool* enciphered) {
  *enciphered = false;
  *error = kPsErrorLoadingFile;
  try {
    *error = readSource(native_path, text, enciphered);
  } catch (const std::bad_alloc&) {
  }
  return *error == kPsOkay;
}

psStatus MatchLIBRARY(psParser* p) {
  std::string_view name;
  psStatus err = required(lexString(p, &name));
  if (err != kPsOkay) return err;
  psStatus result = kPsOkay;  // a name that no prefix makes a path of is ignored
  for (const std::string& prefix : libraryPrefixes()) {
    const std::string path = prefix + std::string(name);
    std::string native;
    if (!psHooks().mapFilename(path, &native) || native.size() >= kPathRoom) continue;
    std::string text;
    bool enciphered = false;
    if (!ReadScriptSource(native, &text, &err, &enciphered)) {
      result = err;
      continue;
    }
    if (enciphered && p->module->process != nullptr) p->module->process->stop_on_error = true;
    err = compileLibrary(p, text, native);
    return err == kPsOkay ? required(lexEndOfStatement(p)) : err;
  }
  return result;
}

// --- Live compilation -------------------------------------------------------------------------

namespace {

// The module and the function (null: none) as they were; constants and names may stay.
struct LiveUndo {
  size_t code;
  size_t lines;
  size_t functions;
  size_t variables;
  size_t labels;
};

LiveUndo liveUndo(const psModule* module, const psFunction* function) {
  LiveUndo undo = {};
  undo.lines = module->lines.size();
  undo.functions = module->function_list.size();
  if (function != nullptr) {
    undo.code = function->code.size();
    undo.variables = function->variables.size();
    undo.labels = function->labels.size();
  }
  return undo;
}

void undoLive(psModule* module, psFunction* function, const LiveUndo& undo) {
  while (module->lines.size() > undo.lines) module->lines.pop_back();
  for (psFunction& function_before : module->function_list) {
    psFunction*& newer = function_before.newer;
    if (newer != nullptr && newer->index >= static_cast<int>(undo.functions)) newer = nullptr;
  }
  while (module->function_list.size() > undo.functions) {
    psFunction* added = &module->function_list.back();
    hashRemove(module->function_table, added->name);
    subFree(added);
    module->function_list.pop_back();
  }
  if (function == nullptr) return;
  function->code.resize(undo.code);
  function->variables.resize(undo.variables);
  function->labels.resize(undo.labels);
}

const std::string* liveFileName(psModule* module) {
  if (!module->file_names.empty() && module->file_names.back() == kPsLiveFileName) {
    return &module->file_names.back();
  }
  return modAddFileName(module, kPsLiveFileName);
}

void beginLive(psParser* p, const char* text) {
  const psModule* module = p->module;
  const int32_t line = module->lines.empty() ? 1 : module->lines.back().line_num + 1;
  lexInit(p, text, line, liveFileName(p->module));
}

// Appends the text's code to a copy of the function's; the copy takes the code's place when the
// text has compiled. References, which are in the new code only, are resolved there.
void compileLive(psParser* p, const char* text, psFunction* function) {
  beginLive(p, text);
  p->sp.sub = function;
  p->sp.parent = function->parent;
  p->sp.code.bytes = function->code;
  p->lex.line_pc_start = pcNow(p);
  const psStatus err = required(MatchStatements(p, kEndWordEof));
  if (err != kPsOkay) {
    AddError(p, err);
    return;
  }
  lexMarkOpenLine(p);
  emit(p, kOpEnd);
  mpResolveGotos(p);
  if (!p->errors.empty()) return;
  function->code.swap(p->sp.code.bytes);
  mpResolveReferences(p);
}

void defineLive(psParser* p, const char* text) {
  beginLive(p, text);
  p->redefinable_below = static_cast<int>(p->module->function_list.size());
  const psStatus err = required(MatchFunctions(p));
  if (err != kPsOkay) {
    AddError(p, err);
  } else if (p->errors.empty()) {
    mpResolveReferences(p);
  }
}

// What compile(parser, text) makes of the text becomes the module's, or nothing of it does.
// function is the one that it appends to, or null.
template <class Compile>
psCompileErrors addLive(std::string_view text, psModule* module, psFunction* function,
                        pscDomain* domain, Compile compile) {
  const LiveUndo undo = liveUndo(module, function);
  psCompileErrors errors;
  try {
    psParser p;
    p.module = module;
    p.domain = domain;
    if (text.size() > kPsMaxSourceBytes) throw std::bad_alloc();
    const std::string copy(text.substr(0, text.find('\0')));
    compile(&p, copy.c_str());
    errors = std::move(p.errors);
    if (errors.empty()) {
      lexFinishLineData(module);
      modLink(module);
      return errors;
    }
  } catch (const std::bad_alloc&) {
    psCompileError& error = errors.emplace_back();
    error.code = kPsOutOfMemory;
    error.file = kPsLiveFileName;
  }
  undoLive(module, function, undo);
  return errors;
}

}  // namespace

psCompileErrors LiveCompile(std::string_view text, psModule* module, psFunction* function,
                            uint32_t* start, pscDomain* domain) {
  const auto before = static_cast<uint32_t>(function->code.size());
  psCompileErrors errors =
      addLive(text, module, function, domain,
              [function](psParser* p, const char* source) { compileLive(p, source, function); });
  if (errors.empty()) *start = before;
  return errors;
}

psCompileErrors LiveDefine(std::string_view text, psModule* module, pscDomain* domain) {
  return addLive(text, module, nullptr, domain, defineLive);
}

psLiveMark LiveMark(const psModule* module, const psFunction* function) {
  return {function->code.size(), function->labels.size(), module->lines.size()};
}

void LiveForget(psModule* module, psFunction* function, const psLiveMark& mark) {
  psFreeDecodedFrom(function, static_cast<uint32_t>(mark.code));
  function->code.resize(mark.code);
  function->labels.resize(mark.labels);
  function->label_positions.resize(mark.labels);
  // Lines of anonymous functions stay, and so must the records between them.
  for (size_t i = mark.lines; i < module->lines.size(); i++) {
    psLineData& line = module->lines[i];
    if (line.function == function) line.function = nullptr;
  }
  while (module->lines.size() > mark.lines && module->lines.back().function == nullptr) {
    module->lines.pop_back();
  }
  // Text without a line of its own had counted to the line before.
  lexFinishLineData(module);
}
