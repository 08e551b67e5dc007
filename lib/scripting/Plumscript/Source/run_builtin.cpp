// The built-ins that are instructions of their own, and PRINT.
#include <cstdio>

#include "bytecode.h"
#include "clwrappers.h"
#include "containers.h"
#include "hooks.h"
#include "publicapis.h"
#include "run.h"
#include "run_debugger.h"

namespace {

void releaseAll(psTypedValue* values, int n) {
  for (int i = 0; i < n; i++) {
    ReleaseValue(&values[i]);
    values[i].meta = 0;
  }
}

psStatus noReading(const psTypedValue& v) {
  return v.type_flags == 0 ? kPsUninitialized : kPsTypeMismatch;
}

// --- CreateObject, ObjFun ---------------------------------------------------------------------

psStatus createObject(psProc* p, int n, psTypedValue* args, psTypedValue* result) {
  if (n < 1) return kPsWrongParameterCount;
  if (!IsStringValue(&args[0])) return kPsInvalidParameter;
  pscClass* cl = pscFindClassByName(GetStringPtr(&args[0]).data());
  *result = psInvalidValue();
  // A class that is not there is no error: scripts test the result.
  if (cl == nullptr) return kPsOkay;
  return pscCreateWithArguments(p->domain, cl, args + 1, n - 1, result);
}

// The count of all arguments, the object and the names among them, is what a descriptor must
// declare; scripts rely on functions of fewer parameters not being found.
psStatus objFun(psProc* p, int n, psTypedValue* args, psTypedValue* result) {
  if (n < 3) return kPsWrongParameterCount;
  if (!psIs(args[0], kPsObjectFlag) || !IsStringValue(&args[2])) return kPsInvalidParameter;
  const char* name = GetStringPtr(&args[2]).data();
  pscInstance* object = args[0].value.psc;
  const psInterface* iface = psIs(args[1], kPsInterfaceFlag) ? args[1].value.iface : nullptr;
  const pscMemberFunction found = iface != nullptr ? pscFindInterfaceFunction(iface, name, n)
                                                   : pscFindMemberFunction(object, name, n);
  if (!found) return kPsMemberNotFound;
  // Another class's function would take the object's data for its own.
  const bool is_static = (found.function->meta & kPsStaticFunction) != 0;
  if (iface != nullptr && !is_static && pscGetInterface(object, iface->name) != iface) {
    return kPsInterfaceNotMember;
  }
  psTypedValue passed[256];
  for (int i = 0; i < n; i++) {
    passed[i] = i + 3 < n ? args[i + 3] : psInvalidValue();
    if (i + 3 < n) args[i + 3].meta = 0;
  }
  return pscCallFunction(p->domain, n, found.function, object, passed, result);
}

// --- Eval -------------------------------------------------------------------------------------

psTypedValue textValue(pscDomain* domain, psText text) {
  pscInstance* s = psNewString(domain, text);
  return s != nullptr ? psStringObjectValue(s) : psInvalidValue();
}

void addMember(pscInstance* array, psText key, psTypedValue value) {
  psAssocAddReplace(pscData<psAssocArray>(array), key, psKeyHash(key), value);
}

// A list of associative arrays, one an error.
psTypedValue compileErrorList(pscDomain* domain, const psCompileErrors& errors) {
  pscInstance* list = psNewList(domain);
  if (list == nullptr) return psInvalidValue();
  for (const psCompileError& e : errors) {
    pscInstance* entry = psNewAssociativeArray(domain);
    if (entry == nullptr) break;
    addMember(entry, "ERRNO", psIntegerValue(e.code));
    addMember(entry, "LINENO", psIntegerValue(e.line));
    addMember(entry, "ERRSTR", textValue(domain, psStatusText(e.code)));
    addMember(entry, "FILESPEC", textValue(domain, e.file));
    psListAddTail(list, psObjectValue(entry));
  }
  return psObjectValue(list);
}

// The line counts within the evaluated text, or in the script's file for an error in a function
// that the text has called.
void reportEvalError(const psProc* p, psStatus status, int32_t first_line) {
  char text[256];
  const psLineData* line = DebugPCToLine(p->mod, p->error_offset, p->error_function);
  if (line != nullptr && p->error_offset >= 0) {
    const bool evaluated = *line->file == kPsLiveFileName && line->line_num >= first_line;
    std::snprintf(text, sizeof text, "Eval runtime error: %s (&h%02x) at line %d\n",
                  psStatusText(status), status,
                  evaluated ? line->line_num - first_line + 1 : line->line_num);
  } else {
    std::snprintf(text, sizeof text, "Eval runtime error: %s (&h%02x)\n", psStatusText(status),
                  status);
  }
  pscPrint(text);
}

psStatus eval(psProc* p, int n, psTypedValue* args, psTypedValue* result) {
  if (n != 1) return kPsWrongParameterCount;
  if (!IsStringValue(&args[0])) return kPsTypeMismatch;
  if (p->eval_depth >= kPsMaxEvalDepth) return kPsStackOverflow;
  const std::string text(GetStringPtr(&args[0]));
  releaseAll(args, n);
  psFunction* function = p->ctx->sub;
  const int32_t first_line = p->mod->lines.empty() ? 1 : p->mod->lines.back().line_num + 1;
  uint32_t start = 0;
  const psCompileErrors errors = LiveCompile(text, p->mod, function, &start, p->domain);
  if (!errors.empty()) {
    *result = compileErrorList(p->domain, errors);
    return kPsOkay;
  }
  const bool paused = DebugPauseStep(p);
  p->eval_depth++;
  const psStatus status = psRunAppended(p, start);
  p->eval_depth--;
  if (paused) DebugResumeStep(p);
  if (status != kPsNormalEnd) reportEvalError(p, status, first_line);
  *result = psIntegerValue(status);
  return kPsOkay;
}

// --- Run --------------------------------------------------------------------------------------

bool compileFileInto(psParser* parser, psProc* child, psText file, psCompileErrors* errors) {
  std::string native;
  std::string text;
  psStatus error = kPsErrorLoadingFile;
  bool enciphered = false;
  if (!psHooks().mapFilename(file, &native) ||
      !ReadScriptSource(native, &text, &error, &enciphered)) {
    *errors = {psCompileError{error, 0, std::string(file), {}}};
    return false;
  }
  child->stop_on_error |= enciphered;
  *errors = compInto(parser, text, file);
  return errors->empty();
}

// Compiles one file, or every file an enumerable object names, into the child's module.
psStatus compileFiles(psProc* child, const psTypedValue& files, psCompileErrors* errors) {
  const bool is_text = IsStringValue(&files);
  const psIfEnum* each = psIs(files, kPsObjectFlag) ? files.value.psc->psc_class->if_enum : nullptr;
  if (!is_text && each == nullptr) return kPsTypeMismatch;
  psParser* parser = compNew(child->domain, child);
  psStatus status = kPsOkay;
  if (is_text) {
    compileFileInto(parser, child, GetStringPtr(&files), errors);
  } else {
    pscInstance* list = files.value.psc;
    each->Reset(list);
    while (status == kPsOkay && errors->empty() && each->IsNext(list)) {
      const psTypedValue file = each->Next(list);
      if (IsStringValue(&file)) {
        compileFileInto(parser, child, GetStringPtr(&file), errors);
      } else {
        status = kPsTypeMismatch;
      }
      ReleaseValue(&file);
    }
  }
  if (status == kPsOkay && errors->empty()) *errors = compFinish(parser, &child->mod);
  compFree(parser);
  return status;
}

constexpr uint32_t kRequest = kPsBreakCodeMask | kPsBreakSticky;

// Requests go to the innermost process. One that reached the parent just before the child was there
// is the child's, and so is a limit on turns; one that the child had no time for is the parent's.
void enterChild(psProc* p, psProc* child) {
  const std::lock_guard lock(psChainLock);
  const uint32_t word = p->break_word.load();
  child->break_word.fetch_or(word & (kRequest | kPsBreakCounted));
  if ((word & kPsBreakSticky) == 0) p->break_word.fetch_and(~kRequest);
  child->turns_left = p->turns_left;
  p->chain.store(child);
}

void leaveChild(psProc* p, psProc* child) {
  const std::lock_guard lock(psChainLock);
  p->chain.store(nullptr);
  p->turns_left = child->turns_left;
  const uint32_t late = child->break_word.load() & kRequest;
  if (late != 0 && (p->break_word.load() & kPsBreakCodeMask) == 0) p->break_word.fetch_or(late);
}

psStatus runFiles(psProc* p, int n, psTypedValue* args, psTypedValue* result) {
  p->last_run_errors.clear();
  if (n < 1) return kPsWrongParameterCount;
  if (p->run_depth >= kPsMaxRunDepth) return kPsStackOverflow;
  psProc* child = scriptCreateProcess();
  if (child == nullptr) return kPsOutOfMemory;
  child->run_depth = p->run_depth + 1;
  child->eval_depth = p->eval_depth;  // both take the same thread's stack
  psAssertText(p->chain.load() == nullptr, "code->chain == ((void *)0)");
  enterChild(p, child);
  *result = psInvalidValue();
  psStatus status = compileFiles(child, args[0], &p->last_run_errors);
  if (status == kPsOkay && p->last_run_errors.empty()) {
    psTypedValue value = psInvalidValue();
    if (child->mod == nullptr || child->mod->main_function == nullptr) {
      child->last_status = kPsNoMain;
    } else if (scriptRunFunction(child, p->io, p->debug_session, child->mod->main_function,
                                 args + 1, n - 1, &value)) {
      if (psIs(value, kPsStringConstantFlag)) value = textValue(p->domain, GetStringPtr(&value));
      if (value.type_flags != 0) *result = value;
    }
    p->last_run_status = child->last_status;
    pscDetachStrings(p->domain);
  }
  leaveChild(p, child);
  scriptDestroyProcess(child);
  return status;
}

}  // namespace

psStatus DoRun(psProc* p, uint8_t opcode, int n, psTypedValue* args, psTypedValue* result) {
  psStatus status = kPsOkay;
  switch (opcode) {
    case kOpCallGetGlobalAA:
      if (n != 0) {
        status = kPsWrongParameterCount;
      } else {
        pscAddRef(p->mod->global_object);
        *result = psObjectValue(p->mod->global_object);
      }
      break;
    case kOpCallCreateObject: status = createObject(p, n, args, result); break;
    case kOpCallObjFun: status = objFun(p, n, args, result); break;
    case kOpCallPos:
      status = n == 1 ? kPsOkay : kPsWrongParameterCount;
      *result = psIntegerValue(p->io != nullptr ? io_get_cursor(p->io) : 0);
      break;
    case kOpCallEval: status = eval(p, n, args, result); break;
    case kOpCallBox:
      if (n != 1) {
        status = kPsWrongParameterCount;
        break;
      }
      if (!psIs(args[0], kPsObjectFlag)) status = ConvertIntrinsicToObject(p->domain, &args[0]);
      *result = args[0];
      if (status == kPsOkay) args[0].meta = 0;
      break;
    case kOpCallRun: status = runFiles(p, n, args, result); break;
    case kOpCallRunRtErr:
      status = n == 0 ? kPsOkay : kPsWrongParameterCount;
      *result = psIntegerValue(p->last_run_status);
      break;
    case kOpCallRunClErr:
      status = n == 0 ? kPsOkay : kPsWrongParameterCount;
      *result = p->last_run_errors.empty() || status != kPsOkay
                    ? psInvalidValue()
                    : compileErrorList(p->domain, p->last_run_errors);
      break;
    default: status = kPsUndefinedOp;
  }
  if (opcode != kOpCallEval || status != kPsOkay) releaseAll(args, n);
  return status;
}

psStatus DoType(psTypedValue* args, int n, psTypedValue* result) {
  psStatus status = kPsOkay;
  if (n != 1 && n != 2) {
    status = kPsWrongParameterCount;
  } else if (n == 2 && !(psIs(args[1], kPsIntegerFlag) && args[1].value.i == 3)) {
    status = kPsSyntaxError;
  }
  const char* name = status == kPsOkay ? GetTypeString(&args[0], n == 1) : "";
  releaseAll(args, n);
  *result = status == kPsOkay ? psStringConstantValue(name) : psInvalidValue();
  return status;
}

// --- PRINT ------------------------------------------------------------------------------------

namespace {

// Where a PRINT statement writes: the console, or an object with ifStreamSend.
class PrintTarget {
 public:
  explicit PrintTarget(psIo* io) : io_(io) {}

  void setStream(pscInstance* stream) { stream_ = stream; }
  pscInstance* stream() const { return stream_; }

  psStatus write(psText text) {
    if (stream_ == nullptr) {
      if (io_ != nullptr) io_write(io_, text);
      return kPsOkay;
    }
    psTypedValue arg = textValue(stream_->domain, text);
    return call("ifStreamSend", "SendBlock", &arg, 1);
  }
  psStatus newline() {
    if (stream_ == nullptr) return write("\n");
    psTypedValue arg = psStringConstantValue("");
    return call("ifStreamSend", "SendLine", &arg, 1);
  }
  psStatus zone() {
    constexpr int kZone = 16;
    if (stream_ != nullptr) return write("  ");
    if (io_ != nullptr) blanks(kZone - column() % kZone);
    return kPsOkay;
  }
  psStatus tab(int target) {
    if (stream_ != nullptr) return write("  ");
    if (io_ != nullptr && target > column()) blanks(target - column());
    return kPsOkay;
  }
  psStatus position(int64_t cell) {
    if (stream_ == nullptr) {
      if (io_ != nullptr && cell >= 0 && cell < int64_t{io_->io_width} * io_->io_height) {
        io_set_cursor(io_, static_cast<int>(cell));
      }
      return kPsOkay;
    }
    if (pscGetInterface(stream_, "ifTextField") == nullptr) return kPsTypeMismatch;
    const int64_t width = number("GetWidth");
    const int64_t height = number("GetHeight");
    if (cell < 0 || cell >= width * height) return kPsOkay;
    psTypedValue args[2] = {psIntegerValue(cell % width), psIntegerValue(cell / width)};
    return call("ifTextField", "SetCursorPos", args, 2);
  }

 private:
  int column() const { return io_->io_width > 0 ? io_->cursor % io_->io_width : io_->cursor; }
  void blanks(int n) {
    for (; n > 0; n--) io_putc(io_, ' ');
  }
  psStatus call(const char* iface, const char* name, psTypedValue* args, int n,
                psTypedValue* result = nullptr) {
    psTypedValue ignored = psInvalidValue();
    const pscMemberFunction f = pscFindInterfaceFunction(pscGetInterface(stream_, iface), name, n);
    if (!f) {
      releaseAll(args, n);
      return kPsMemberNotFound;
    }
    const psStatus status =
        pscCallFunction(stream_->domain, n, f.function, stream_, args, result ? result : &ignored);
    if (status == kPsOkay && result == nullptr) ReleaseValue(&ignored);
    return status;
  }
  int64_t number(const char* name) {
    psTypedValue result = psInvalidValue();
    int64_t value = 0;
    if (call("ifTextField", name, nullptr, 0, &result) == kPsOkay) GetIntValue(&result, &value);
    return value;
  }

  psIo* io_;
  pscInstance* stream_ = nullptr;
};

bool breakRequested(const psProc* p) {
  return (p->break_word.load(std::memory_order_relaxed) & kPsBreakCodeMask) != 0;
}

psStatus printElements(const psProc* p, PrintTarget* target, pscInstance* object) {
  const psIfEnum* each = object->psc_class->if_enum;
  const psIfAssociativeArray* assoc = object->psc_class->if_assoc;
  psStatus status = kPsOkay;
  each->Reset(object);
  while (status == kPsOkay && each->IsNext(object) && !breakRequested(p)) {
    psTypedValue element = each->Next(object);
    std::string line = ValueToString(&element);
    if (assoc != nullptr && IsStringValue(&element)) {
      const psTypedValue value = assoc->Lookup(object, GetStringPtr(&element));
      line += ": ";
      line += ValueToString(&value);
      ReleaseValue(&value);
    }
    ReleaseValue(&element);
    status = target->write(line);
    if (status == kPsOkay) status = target->newline();
  }
  return status;
}

psStatus printItem(const psProc* p, PrintTarget* target, const psTypedValue& item) {
  if (item.type_flags == 0) return target->write("<UNINITIALIZED>");
  if (psIs(item, kPsObjectFlag) && item.value.psc->psc_class->if_enum != nullptr) {
    return printElements(p, target, item.value.psc);
  }
  if (IsStringValue(&item)) return target->write(GetStringPtr(&item));
  return target->write(ValueToString(&item));
}

psStatus printOne(psProc* p, PrintTarget* target, uint8_t pattern, const psTypedValue* item) {
  int64_t number = 0;
  switch (pattern) {
    case '#':
      if (!psIs(*item, kPsObjectFlag)) return noReading(*item);
      if (pscGetInterface(item->value.psc, "ifStreamSend") == nullptr) return kPsTypeMismatch;
      target->setStream(item->value.psc);
      return kPsOkay;
    case '@': return GetIntValue(item, &number) ? target->position(number) : noReading(*item);
    case 'N': return target->newline();
    case ',': return target->zone();
    case 'T':
      if (!GetIntValue(item, &number)) return kPsTypeMismatch;
      if (number < 0 || number > 255) return kPsInvalidParameter;
      return target->tab(static_cast<int>(number));
    case 'P': return printItem(p, target, *item);
    default: psAssertText(false, "unknown print pattern"); return kPsUndefinedOp;
  }
}

}  // namespace

psStatus DoPrint(psProc* p, psTypedValue* items, int n, const uint8_t* pattern) {
  PrintTarget target(p->io);
  psStatus status = kPsOkay;
  int next = 0;
  for (; *pattern != 'E' && status == kPsOkay; pattern++) {
    const bool takes_item = *pattern != 'N' && *pattern != ',';
    status = printOne(p, &target, *pattern, &items[next]);
    if (takes_item) next++;
  }
  releaseAll(items, n);
  return status;
}
