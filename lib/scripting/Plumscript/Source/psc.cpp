// Classes, instances, domains and typed calls. The collector is in psc_collector.cpp.
//
// Rules of this file:
//  1. An instance is linked and unlinked under psc_ref_and_list_lock only; hooks of its class run
//     without it.
//  2. Destroying an instance may drop the last reference to another one, and so on for as long as a
//     script cared to chain them. Instances that hold references are therefore destroyed from a
//     per-thread queue, one after the other, never inside one another.
#include "psc.h"

#include <strings.h>

#include <cstdio>
#include <cstring>

#include "ps_heap.h"
#include "psc_internal.h"

psRecursiveLock psc_ref_and_list_lock;
std::atomic<bool> psc_changed{false};

namespace {

struct ClassRegistry {
  psList public_classes;
  pscClass* by_index[kPscMaxClasses] = {};
  int size = 1;  // index 0 is never used
  bool initialised = false;
};
ClassRegistry& registry() {
  static ClassRegistry the_registry;
  return the_registry;
}

void (*print_hook)(void* arg, psText text) = nullptr;
void* print_arg = nullptr;

// Classes are prepared at every start, most of them without a single interface of this kind.
template <class T>
void cacheMethods(const pscClass* cl, const char* name, const T** slot) {
  *slot = nullptr;
  for (const psInterface& iface : cl->interfaces) {
    if (iface.methods == nullptr || strcasecmp(iface.name, name) != 0) continue;
    *slot = static_cast<const T*>(iface.methods);
    return;
  }
}

void checkDescriptor(const fundes* f) {
  psAssertText(f->func_ptr != nullptr, "new_func_ptr");
  for (int i = 0; i < f->nargs && f->nargs != kPsVariadic; i++) {
    const psTypeEnum type = f->params[i];
    psAssert(type == psInteger || type == psFloat || type == psBoolean || type == psComponent ||
             type == psInterfaceType || type == psFunctionType || type == psDynamic ||
             type == psString || type == psDouble);
  }
}

bool nameMatches(const fundes* f, const char* name, int nargs) {
  return (nargs == -1 || f->nargs == nargs || f->nargs == kPsVariadic) &&
         strcasecmp(f->name, name) == 0;
}

}  // namespace

// --- Printing ---------------------------------------------------------------------------------

void pscSetPrintHook(void (*print)(void* arg, psText text), void* arg) {
  print_hook = print;
  print_arg = arg;
}

void pscPrint(psText text) {
  if (print_hook != nullptr) return print_hook(print_arg, text);
  std::fwrite(text.data(), 1, text.size(), stderr);
}

void pscDiagnostic(const char* tag, psText message) {
  constexpr size_t kMessageLimit = 255;
  std::string line = "PLUMSCRIPT: ";
  line.append(tag).append(": ").append(message.substr(0, kMessageLimit)).append("\n");
  pscPrint(line);
}

// --- Classes ----------------------------------------------------------------------------------

psTypeEnum pscGetParamType(const fundes* function, int i) {
  psAssert(i >= 0 && i < kPsMaxParameters);
  return function->params[i];
}

void pscPrivateClass(pscClass* cl) {
  if (cl->init_des != nullptr) {
    psAssertText((cl->init_des->meta & kPsStaticFunction) == 0, "(cl->init_des->meta & 1) == 0");
    checkDescriptor(cl->init_des);
  }
  for (const psInterface& iface : cl->interfaces) {
    for (const fundes* f = iface.functions; f->name != nullptr; f++) checkDescriptor(f);
  }
  cacheMethods(cl, "ifInt", &cl->if_int);
  cacheMethods(cl, "ifString", &cl->if_string);
  cacheMethods(cl, "ifAssociativeArray", &cl->if_assoc);
  cacheMethods(cl, "ifArray", &cl->if_array);
  cacheMethods(cl, "ifArrayGet", &cl->if_array_get);
  cacheMethods(cl, "ifArraySet", &cl->if_array_set);
  cacheMethods(cl, "ifEnum", &cl->if_enum);
  cacheMethods(cl, "ifBoolean", &cl->if_boolean);
  cacheMethods(cl, "ifFloat", &cl->if_float);
  cacheMethods(cl, "ifFunction", &cl->if_function);
  cacheMethods(cl, "ifUserData", &cl->if_user_data);
  cacheMethods(cl, "ifDouble", &cl->if_double);
  cacheMethods(cl, "ifImage", &cl->if_image);
  cacheMethods(cl, "ifDraw2D", &cl->if_draw2d);
  cacheMethods(cl, "ifRegion", &cl->if_region);
  cacheMethods(cl, "ifDebug", &cl->if_debug);
  if (cl->validate != nullptr) {
    const bool valid = cl->validate(cl);
    psAssert(valid);
  }
}

void pscRegisterClass(pscClass* cl) {
  if (cl == nullptr) return;
  psAssertText(cl->ln_Name != nullptr, "cl->node.ln_Name");
  pscPrivateClass(cl);
  ClassRegistry& r = registry();
  psAssertText(r.size < kPscMaxClasses, "cl_index_size < 250");
  AddTail(&r.public_classes, cl);
  cl->index = r.size;
  r.by_index[r.size++] = cl;
}

void pscReserveClassIndex() {
  ClassRegistry& r = registry();
  psAssertText(r.size < kPscMaxClasses, "cl_index_size < 250");
  r.by_index[r.size++] = nullptr;
}

void pscInitBuiltInCoreComponents() {
  ClassRegistry& r = registry();
  psAssert(!r.initialised);
  r.initialised = true;
  for (pscClass* cl :
       {&clArray, &clByteArray, &clList, &clAssociativeArray, &clInt, &clString, &clFloat,
        &clDouble, &clIntrinsicDouble, &clFunction, &clBoolean, &clInvalid, &clMessagePort}) {
    pscRegisterClass(cl);
  }
  pscReserveClassIndex();  // koXMLElement
  pscReserveClassIndex();  // koXMLList
  pscRegisterClass(&clGlobal);
}

void pscUninitClasses() {
  ClassRegistry& r = registry();
  while (auto* cl = static_cast<pscClass*>(RemHead(&r.public_classes))) {
    if (cl->class_cleanup != nullptr) cl->class_cleanup(cl);
    cl->index = 0;
  }
  std::memset(r.by_index, 0, sizeof r.by_index);
  r.size = 1;
  r.initialised = false;
}

pscClass* pscFindClassByName(const char* name) {
  return static_cast<pscClass*>(FindNameNoCase(&registry().public_classes, name));
}

pscClass* pscClassByIndex(unsigned index) {
  const ClassRegistry& r = registry();
  return index < static_cast<unsigned>(r.size) ? r.by_index[index] : nullptr;
}

void pscEnumeratePublicClasses(void (*callback)(pscClass*, void*), void* arg) {
  psAssert(callback);
  for (psNode* n = registry().public_classes.lh_Head; n->ln_Succ != nullptr; n = n->ln_Succ) {
    callback(static_cast<pscClass*>(n), arg);
  }
}

void pscEnumerateInterfaces(const pscClass* cl,
                            void (*callback)(const pscClass*, const psInterface*, void*),
                            void* arg) {
  for (const psInterface& iface : cl->interfaces) callback(cl, &iface, arg);
}

void pscEnumerateFunctions(void* x, const psInterface* iface,
                           void (*callback)(void*, const psInterface*, const fundes*, void*),
                           void* arg) {
  for (const fundes* f = iface->functions; f->name != nullptr; f++) callback(x, iface, f, arg);
}

// --- Domains ----------------------------------------------------------------------------------

pscDomain* pscNewDomain() { return new pscDomain; }

void pscUninitDomain(pscDomain* domain) {
  psAssertText(domain->magic == kPscDomainMagic, "domain->magic == 0xd002a14e");
  for (pscInstance* instance : domain->kept) pscSubRef(instance);
  domain->kept.clear();
  while (pscReleaseLeft(domain)) {
  }
  const pscListLock lock;
  if (domain->list.empty()) return;
  pscPrint("Still extant object instances:\n");
  for (psNode* n = domain->list.lh_Head; n->ln_Succ != nullptr; n = n->ln_Succ) {
    char line[160];
    const auto* instance = static_cast<pscInstance*>(n);
    std::snprintf(line, sizeof line, "  %s@%p\n", instance->psc_class->ln_Name,
                  static_cast<const void*>(instance));
    pscPrint(line);
  }
  psAssert(domain->list.empty());
}

// A signal handler may come between any two of the stores: it finds a hook with its argument, or
// none.
void pscSetBreakHook(pscDomain* domain, void (*hook)(void*), void* arg) {
  const std::lock_guard lock(domain->break_lock);
  domain->break_hook.store(nullptr, std::memory_order_relaxed);
  std::atomic_signal_fence(std::memory_order_seq_cst);
  domain->break_arg.store(arg, std::memory_order_relaxed);
  std::atomic_signal_fence(std::memory_order_seq_cst);
  domain->break_hook.store(hook, std::memory_order_relaxed);
}

void pscSignalBreakFromHandler(pscDomain* domain) {
  void (*hook)(void*) = domain->break_hook.load(std::memory_order_relaxed);
  std::atomic_signal_fence(std::memory_order_seq_cst);
  if (hook != nullptr) hook(domain->break_arg.load(std::memory_order_relaxed));
}

void pscSignalBreak(pscDomain* domain) {
  const std::lock_guard lock(domain->break_lock);
  pscSignalBreakFromHandler(domain);
}

// Always locked, also while there is one thread only: what is created under the lock may start the
// second one.
void pscForbidGarbageCollector(pscDomain* domain) { domain->collector_lock.lock(); }

void pscPermitGarbageCollector(pscDomain* domain) { domain->collector_lock.unlock(); }

// --- Instances --------------------------------------------------------------------------------

pscInstance* pscAllocateInstance(pscDomain* domain, pscClass* cl) {
  psAssertText(domain->magic == kPscDomainMagic, "domain->magic == 0xd002a14e");
  const size_t size = sizeof(pscInstance) + static_cast<size_t>(cl->instance_size);
  auto* instance = static_cast<pscInstance*>(psAlloc(size));
  if (instance == nullptr) return nullptr;
  std::memset(static_cast<void*>(instance + 1), 0, static_cast<size_t>(cl->instance_size));
  instance->psc_class = cl;
  instance->ref_cnt.store(1, std::memory_order_relaxed);
  instance->gc_word = 0;
  instance->domain = domain;
  const pscListLock lock;
  psNode* last = domain->list.lh_TailPred;
  instance->ln_Succ = reinterpret_cast<psNode*>(&domain->list.lh_Tail);
  instance->ln_Pred = last;
  last->ln_Succ = instance;
  domain->list.lh_TailPred = instance;
  pscMarkChanged();
  return instance;
}

namespace {

void unlink(pscInstance* instance) {
  const pscListLock lock;
  instance->ln_Pred->ln_Succ = instance->ln_Succ;
  instance->ln_Succ->ln_Pred = instance->ln_Pred;
  pscMarkChanged();
}

void freeInstance(pscInstance* instance) {
  psFree(instance, sizeof(pscInstance) + static_cast<size_t>(instance->psc_class->instance_size));
}

// Instances that wait for their destroy hook on this thread, linked through ln_Succ.
thread_local psNode* pending_first = nullptr;
thread_local psNode** pending_last = nullptr;  // where the next one goes; null: no destruction runs

void destroyNow(pscInstance* instance) {
  if (instance->psc_class->destroy != nullptr) instance->psc_class->destroy(instance);
  freeInstance(instance);
}

}  // namespace

void pscDiscardInstance(pscInstance* instance) {
  unlink(instance);
  freeInstance(instance);
}

void pscDestroyInstance(pscInstance* instance) {
  unlink(instance);
  if (instance->psc_class->enum_refs == nullptr) return destroyNow(instance);
  if (pending_last != nullptr) {
    instance->ln_Succ = nullptr;
    *pending_last = instance;
    pending_last = &instance->ln_Succ;
    return;
  }
  pending_last = &pending_first;
  destroyNow(instance);
  while (pending_first != nullptr) {
    auto* next = static_cast<pscInstance*>(pending_first);
    pending_first = next->ln_Succ;
    if (pending_first == nullptr) pending_last = &pending_first;
    destroyNow(next);
  }
  pending_last = nullptr;
}

pscInstance* pscNewComponentByClass(pscDomain* domain, pscClass* cl) {
  psAssertText(domain->magic == kPscDomainMagic, "domain->magic == 0xd002a14e");
  if (cl == nullptr) return nullptr;
  const fundes* constructor = cl->init_des;
  if (constructor != nullptr && constructor->nargs != 0 && constructor->nargs != kPsVariadic) {
    return nullptr;
  }
  pscInstance* instance = pscAllocateInstance(domain, cl);
  if (instance == nullptr) return nullptr;
  bool built = true;
  if (constructor != nullptr) {
    psTypedValue result = psUninitializedValue();
    built = constructor->func_ptr(instance, nullptr, 0, &result) == kPsOkay &&
            psIs(result, kPsBooleanFlag) && result.value.i != 0;
  } else if (cl->init != nullptr) {
    built = cl->init(instance);
  }
  if (built) return instance;
  pscDiscardInstance(instance);
  return nullptr;
}

void pscLeaveToScript(pscInstance* instance) {
  pscDomain* domain = instance->domain;
  const std::lock_guard lock(domain->left_lock);
  domain->left.push_back(instance);
}

bool pscReleaseLeft(pscDomain* domain) {
  std::vector<pscInstance*> left;
  {
    const std::lock_guard lock(domain->left_lock);
    left.swap(domain->left);
  }
  for (pscInstance* instance : left) pscSubRef(instance);
  return !left.empty();
}

pscInstance* pscNewComponentByName(pscDomain* domain, const char* name) {
  return pscNewComponentByClass(domain, pscFindClassByName(name));
}

pscInstance* pscFindClassByIndex(pscDomain* domain, unsigned index) {
  psAssertText(index < static_cast<unsigned>(registry().size), "idx < cl_index_size");
  return pscNewComponentByClass(domain, registry().by_index[index]);
}

pscInstance* pscNewComponentWithArgs(pscDomain* domain, const char* name,
                                     std::span<const int32_t> args) {
  pscClass* cl = pscFindClassByName(name);
  if (cl == nullptr || args.size() > kPsMaxParameters) return nullptr;
  const fundes* constructor = cl->init_des;
  if (constructor == nullptr || constructor->nargs == kPsVariadic) return nullptr;
  psTypedValue values[kPsMaxParameters];
  for (int i = 0; i < constructor->nargs; i++) {
    if (constructor->params[i] != psInteger) return nullptr;
  }
  for (size_t i = 0; i < args.size(); i++) values[i] = psIntegerValue(args[i]);
  psTypedValue result = psInvalidValue();
  pscCreateWithArguments(domain, cl, values, static_cast<int>(args.size()), &result);
  return psIs(result, kPsObjectFlag) ? result.value.psc : nullptr;
}

namespace {

void releaseArguments(psTypedValue* args, int argc) {
  for (int i = 0; i < argc; i++) {
    ReleaseValue(&args[i]);
    args[i].meta = 0;
  }
}

}  // namespace

psStatus pscCreateWithArguments(pscDomain* domain, pscClass* cl, psTypedValue* args, int argc,
                                psTypedValue* result) {
  *result = psInvalidValue();
  const fundes* constructor = cl->init_des;
  if (constructor == nullptr || (argc == 0 && constructor->nargs != kPsVariadic)) {
    pscInstance* instance = pscNewComponentByClass(domain, cl);
    if (instance != nullptr && argc > 0) {
      pscSubRef(instance);
      instance = nullptr;
      releaseArguments(args, argc);
      return kPsComponentParameterCount;
    }
    releaseArguments(args, argc);
    if (instance != nullptr) *result = psObjectValue(instance);
    return kPsOkay;
  }
  pscInstance* instance = pscAllocateInstance(domain, cl);
  if (instance == nullptr) {
    releaseArguments(args, argc);
    return kPsOkay;
  }
  psTypedValue built = psUninitializedValue();
  const psStatus status = pscCallFunction(domain, argc, constructor, instance, args, &built);
  if (status == kPsOkay && psIs(built, kPsBooleanFlag) && built.value.i != 0) {
    *result = psObjectValue(instance);
    return kPsOkay;
  }
  ReleaseValue(&built);
  pscDiscardInstance(instance);
  return status;
}

// --- Lookups ----------------------------------------------------------------------------------

const psInterface* pscClassInterface(const pscClass* cl, const char* name) {
  for (const psInterface& iface : cl->interfaces) {
    if (strcasecmp(iface.name, name) == 0) return &iface;
  }
  return nullptr;
}

const psInterface* pscGetInterface(pscInstance* instance, const char* name) {
  return pscClassInterface(instance->psc_class, name);
}

const void* pscGetMethods(pscInstance* instance, const char* interface_name) {
  const psInterface* iface = pscGetInterface(instance, interface_name);
  return iface != nullptr ? iface->methods : nullptr;
}

const void* pscGetClassMethods(const char* class_name, const char* interface_name) {
  const pscClass* cl = pscFindClassByName(class_name);
  const psInterface* iface = cl != nullptr ? pscClassInterface(cl, interface_name) : nullptr;
  return iface != nullptr ? iface->methods : nullptr;
}

pscMemberFunction pscFindInterfaceFunction(const psInterface* iface, const char* name, int nargs) {
  for (int i = 0; iface->functions[i].name != nullptr; i++) {
    if (nameMatches(&iface->functions[i], name, nargs)) return {iface, i, &iface->functions[i]};
  }
  return {};
}

pscMemberFunction pscFindClassMemberFunction(const pscClass* cl, const char* name, int nargs) {
  for (const psInterface& iface : cl->interfaces) {
    if (auto found = pscFindInterfaceFunction(&iface, name, nargs)) return found;
  }
  return {};
}

pscMemberFunction pscFindMemberFunction(pscInstance* instance, const char* name, int nargs) {
  return pscFindClassMemberFunction(instance->psc_class, name, nargs);
}

// --- Calls ------------------------------------------------------------------------------------

namespace {

// Converts an argument in place. A text object given to a String parameter stays what it is: the
// callee reads its text, and the argument holds the object until the call has ended.
psStatus convertArgument(pscDomain* domain, psTypedValue* arg, psTypeEnum type) {
  switch (type) {
    case psInteger:
      if (psIs(*arg, kPsIntegerFlag)) {
        arg->value.i = static_cast<int32_t>(arg->value.i);
        return kPsOkay;
      }
      break;
    case psDynamic:
      arg->type_flags =
          static_cast<uint16_t>((arg->type_flags & ~kPsStringFlavourFlag) | kPsBoxedFlag);
      return kPsOkay;
    case psComponent:
      if (psIs(*arg, kPsObjectFlag)) return kPsOkay;
      break;
    default: break;
  }
  return ConvertToType(domain, arg, type);
}

}  // namespace

psStatus pscCallFunction(pscDomain* domain, int argc, const fundes* function, void* this_,
                         psTypedValue* args, psTypedValue* result) {
  const bool is_static = (function->meta & kPsStaticFunction) != 0;
  if (is_static == (this_ != nullptr)) {
    releaseArguments(args, argc);
    return kPsMustBeStatic;
  }
  void* target = is_static ? static_cast<void*>(domain) : this_;
  if (function->nargs == kPsVariadic) {
    *result = psInvalidValue();
    return function->func_ptr(target, args, argc, result);
  }
  if (argc != function->nargs) {
    releaseArguments(args, argc);
    return kPsComponentParameterCount;
  }
  for (int i = 0; i < argc; i++) {
    const psStatus status = convertArgument(domain, &args[i], function->params[i]);
    if (status != kPsOkay) {
      releaseArguments(args, argc);
      return status;
    }
  }
  psTypedValue value;  // apart from the arguments: result may lie among them
  const psStatus status = function->func_ptr(target, args, argc, &value);
  releaseArguments(args, argc);
  *result = value;
  return status;
}
