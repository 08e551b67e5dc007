// The component system: classes with named interfaces, counted instances, domains, the collector of
// reference cycles, and the typed call from a script into native code.
//
// A class is a static record; it is registered once a process and gets an index. An instance is one
// block: the header below, then the class's private data. A domain is the set of live instances of
// one interpreter.
//
// Counting. Counts change from several threads. A count is an atomic word; while the process has
// only one thread it is changed with plain loads and stores. Whoever takes a count to zero unlinks
// the instance and destroys it, on that thread, exactly once. A count that has reached zero is
// never raised again (the collector skips such instances).
//
// The collector. psc_ref_and_list_lock guards the domain's instance list; the "changed" flag,
// raised by every count and list change of a process with several threads, lets the collector start
// over when another thread moved while it had the lock released. Class hooks are never called with
// psc_ref_and_list_lock held.
#pragma once

#include <sys/single_threaded.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <span>
#include <type_traits>
#include <utility>
#include <vector>

#include "amigalists.h"
#include "ps_assert.h"
#include "status.h"
#include "typedvals.h"

// --- Locks ------------------------------------------------------------------------------------

// True while no second thread exists; then locks are skipped and counts are plain.
inline bool psSingleThreaded() { return __libc_single_threaded != 0; }

using psRecursiveLock = std::recursive_mutex;

// Holds a lock for a scope, unless the process has one thread only. A method never starts a thread
// while it holds one, so the choice made at entry is right until the end.
class psGuard {
 public:
  explicit psGuard(psRecursiveLock& lock) : lock_(psSingleThreaded() ? nullptr : &lock) {
    if (lock_ != nullptr) lock_->lock();
  }
  ~psGuard() {
    if (lock_ != nullptr) lock_->unlock();
  }
  psGuard(const psGuard&) = delete;
  psGuard& operator=(const psGuard&) = delete;

 private:
  psRecursiveLock* lock_;
};

// --- Function descriptors ---------------------------------------------------------------------

constexpr uint16_t kPsVariadic = 99;
constexpr int kPsMaxParameters = 5;
constexpr uint16_t kPsStaticFunction = 1;  // fundes::meta bit 0

// The implementation behind a descriptor. target is the instance, or the domain for a static
// function. The arguments are already converted to the declared types; the thunk reads them, takes
// over Dynamic ones (clearing their word), and fills the result with its final type. Variadic
// thunks get the arguments as they are and take all of them over. Returns 255, or 12 or 26 when
// memory ran out.
using psThunk = psStatus (*)(void* target, psTypedValue* args, int argc, psTypedValue* result);

// One script-callable function; tables end with a record whose name is null.
struct fundes {
  const char* name = nullptr;
  uint16_t nargs = 0;  // 0..5, or kPsVariadic
  psTypeEnum params[kPsMaxParameters] = {};
  psTypeEnum rtype = psVoid;
  uint16_t meta = 0;
  psThunk func_ptr = nullptr;
};

// The declared type of parameter i (0..4; anything else is an assertion failure).
psTypeEnum pscGetParamType(const fundes* function, int i);

// --- Interfaces the runtime calls directly ----------------------------------------------------
// One record of native entries each. Texts are lent; values handed out carry a reference of their
// own; values handed in are taken over.

struct psIfInt {
  int32_t (*GetInt)(pscInstance*);
  void (*SetInt)(pscInstance*, int32_t);
};
struct psIfFloat {
  float (*GetFloat)(pscInstance*);
  void (*SetFloat)(pscInstance*, float);
};
struct psIfDouble {
  double (*GetDouble)(pscInstance*);
  void (*SetDouble)(pscInstance*, double);
};
struct psIfBoolean {
  bool (*GetBoolean)(pscInstance*);
  void (*SetBoolean)(pscInstance*, bool);
};
struct psIfFunction {
  int32_t (*GetSub)(pscInstance*);
  void (*SetSub)(pscInstance*, int32_t);
};
struct psIfString {
  psText (*GetText)(pscInstance*);             // NUL-terminated, valid until the text changes
  bool (*SetText)(pscInstance*, psText text);  // false when memory ran out
};
struct psIfEnum {
  void (*Reset)(pscInstance*);
  psTypedValue (*Next)(pscInstance*);
  bool (*IsNext)(pscInstance*);
  bool (*IsEmpty)(pscInstance*);
};
struct psIfArrayGet {
  psTypedValue (*GetEntry)(pscInstance*, int32_t index);
};
struct psIfArraySet {
  void (*SetEntry)(pscInstance*, int32_t index, psTypedValue value);
};
struct psIfArray {
  psTypedValue (*Peek)(pscInstance*);
  psTypedValue (*Pop)(pscInstance*);
  void (*Push)(pscInstance*, psTypedValue value);
  psTypedValue (*Shift)(pscInstance*);
  void (*Unshift)(pscInstance*, psTypedValue value);
  bool (*Delete)(pscInstance*, int32_t index);
  int32_t (*Count)(pscInstance*);
  void (*Clear)(pscInstance*);
  void (*Append)(pscInstance*, pscInstance* other);
};
struct psIfList {
  psTypedValue (*GetHead)(pscInstance*);
  psTypedValue (*GetTail)(pscInstance*);
  psTypedValue (*RemoveHead)(pscInstance*);
  psTypedValue (*RemoveTail)(pscInstance*);
  void (*AddHead)(pscInstance*, psTypedValue value);
  void (*AddTail)(pscInstance*, psTypedValue value);
};
struct psIfAssociativeArray {
  psTypedValue (*Lookup)(pscInstance*, psText key);
  void (*AddReplace)(pscInstance*, psText key, psTypedValue value);
  bool (*DoesExist)(pscInstance*, psText key);
  bool (*Delete)(pscInstance*, psText key);
  void (*Clear)(pscInstance*);
  void (*SetModeCaseSensitive)(pscInstance*);
  // Case-insensitive in the bucket given.
  psTypedValue (*FastLookup)(pscInstance*, psText key, int bucket);
  psTypedValue (*LookupCi)(pscInstance*, psText key);
  void (*Append)(pscInstance*, pscInstance* other);
};
// Only koMessagePort has these; an object whose ifMessagePort merely takes a port leaves the record
// null.
struct psIfMessagePort {
  pscInstance* (*GetMessage)(pscInstance*);  // handed over, or null
  pscInstance* (*WaitMessage)(pscInstance*, int32_t milliseconds);
  // Takes the caller's reference over: the script may be done with the message before this returns.
  // False, and the reference stays the caller's, when there is no room or no memory. Any thread,
  // never blocks on the script.
  bool (*PostMessage)(pscInstance*, pscInstance* message);
  pscInstance* (*PeekMessage)(pscInstance*);
  // False, which is logged once, when the script has let too many messages pile up. Any thread.
  bool (*HasRoom)(pscInstance*);
};
// ifDebug: told when the script stops running and when it runs again. Called with
// psc_ref_and_list_lock held.
struct psIfDebug {
  void (*Stopped)(pscInstance*);
  void (*Running)(pscInstance*);
};

// A named group of functions of a class. methods points at the psIf… record of the same name when
// the runtime calls this interface directly, else it is null.
struct psInterface {
  const char* name;
  const fundes* functions;
  const void* methods = nullptr;
};

// --- Classes, domains, instances --------------------------------------------------------------

using psRefCallback = void (*)(void* arg, pscInstance* child);

struct pscClass : psNamedNode {  // ln_Name is the class name
  std::span<const psInterface> interfaces;
  // The constructor a script reaches through CreateObject with arguments; null: none but init.
  // A descriptor with 1..5 parameters makes the class one that needs its arguments.
  const fundes* init_des = nullptr;
  int32_t instance_size = 0;  // bytes of private data behind the header, zeroed at creation
  // Called for a class without init_des; false refuses the creation. May be null.
  bool (*init)(pscInstance*) = nullptr;
  // Called when the last reference has gone, before the memory is freed. May be null.
  void (*destroy)(pscInstance*) = nullptr;
  bool (*validate)(pscClass*) = nullptr;
  void (*class_cleanup)(pscClass*) = nullptr;
  // Reports every component the instance holds a counted reference to; null: it holds none.
  void (*enum_refs)(pscInstance*, void* arg, psRefCallback callback) = nullptr;
  // Drops every reference the instance holds.
  void (*break_refs)(pscInstance*) = nullptr;
  // Replaces every StringConstant the instance holds by a text object of its own.
  void (*detach_strings)(pscInstance*) = nullptr;

  // Filled by the registration.
  int32_t index = 0;
  const psIfInt* if_int = nullptr;
  const psIfString* if_string = nullptr;
  const psIfAssociativeArray* if_assoc = nullptr;
  const psIfArray* if_array = nullptr;
  const psIfArrayGet* if_array_get = nullptr;
  const psIfArraySet* if_array_set = nullptr;
  const psIfEnum* if_enum = nullptr;
  const psIfBoolean* if_boolean = nullptr;
  const psIfFloat* if_float = nullptr;
  const psIfFunction* if_function = nullptr;
  const void* if_user_data = nullptr;
  const psIfDouble* if_double = nullptr;
  const void* if_image = nullptr;
  const void* if_draw2d = nullptr;
  const void* if_region = nullptr;
  const psIfDebug* if_debug = nullptr;

  bool has_stringif() const { return if_string != nullptr; }
};

struct pscInstance : psNode {
  pscClass* psc_class;
  std::atomic<int64_t> ref_cnt;
  uint32_t gc_word;  // bit 0: collector mark; bits 1..31: references found inside other instances
  pscDomain* domain;
};

// Private data of an instance, of the type the class stores there.
template <class T>
T* pscData(pscInstance* instance) {
  return reinterpret_cast<T*>(instance + 1);
}

constexpr uint32_t kPscDomainMagic = 0xd002a14e;

struct pscDomain {
  psList list;  // live instances in creation order, guarded by psc_ref_and_list_lock
  psRecursiveLock collector_lock;
  // How a break reaches a blocking call: it puts its hook here, looks at the break word (a break
  // may have come before the hook) and only then waits.
  std::mutex break_lock;  // held while the hook is changed, and while another thread calls it
  std::atomic<void (*)(void*)> break_hook{nullptr};
  std::atomic<void*> break_arg{nullptr};
  // The break word of the innermost process that runs here; null while none does. The script
  // thread's own.
  const std::atomic<uint32_t>* running_break_word = nullptr;
  uint32_t magic = kPscDomainMagic;
  // Instances that a conversion to Function has left with the reference they had; given back when
  // the domain ends.
  std::vector<pscInstance*> kept;
  std::mutex left_lock;
  std::vector<pscInstance*> left;  // see pscLeaveToScript; guarded by left_lock
};

extern psRecursiveLock psc_ref_and_list_lock;
extern std::atomic<bool> psc_changed;

// --- Process-wide set-up ----------------------------------------------------------------------

// Registers the core classes in their fixed order. Once a process, before any domain.
void pscInitBuiltInCoreComponents();
// Tears the classes down; indexes start over.
void pscUninitClasses();

constexpr int kPscMaxClasses = 250;
void pscRegisterClass(pscClass* cl);  // null is ignored
void pscPrivateClass(pscClass* cl);
// Takes the next class index for a class that this build does not have, so that the indexes of the
// later ones are the same everywhere.
void pscReserveClassIndex();

pscClass* pscFindClassByName(const char* name);  // null when absent
// The class registered under an index, or null for an index nobody has.
pscClass* pscClassByIndex(unsigned index);

// --- Domains ----------------------------------------------------------------------------------

pscDomain* pscNewDomain();
// Asserts that no instance is left (and prints those that are). Does not free the record.
void pscUninitDomain(pscDomain* domain);
// On the script's thread. Null takes the hook away; no call of it is running then, and none will
// come. A hook must be async-signal-safe and must not set the hook itself.
void pscSetBreakHook(pscDomain* domain, void (*hook)(void*), void* arg);
// Calls the hook. Any thread; called after the break word was set.
void pscSignalBreak(pscDomain* domain);
// The same for a signal handler that interrupts the script's thread; takes no lock.
void pscSignalBreakFromHandler(pscDomain* domain);
// Whether the script that runs in the domain is asked to stop. On the script's thread.
bool pscBreakPending(const pscDomain* domain);

// --- Instances --------------------------------------------------------------------------------
// All of these return an instance with one reference, or null.

pscInstance* pscNewComponentByClass(pscDomain* domain, pscClass* cl);
pscInstance* pscNewComponentByName(pscDomain* domain, const char* name);
// Creates an instance of the class registered under index (asserted to be below the number handed
// out; null for a reserved one).
pscInstance* pscFindClassByIndex(pscDomain* domain, unsigned index);
// Native creation through a constructor whose parameters are all Integer; null otherwise.
pscInstance* pscNewComponentWithArgs(pscDomain* domain, const char* name,
                                     std::span<const int32_t> args);
// Creation through the constructor with script arguments, which are consumed. The result is an
// Object or Invalid; see the CreateObject built-in for the statuses.
psStatus pscCreateWithArguments(pscDomain* domain, pscClass* cl, psTypedValue* args, int argc,
                                psTypedValue* result);
// A linked, zeroed instance whose constructor has not run; for classes that build their own
// instances. Null when memory is refused.
pscInstance* pscAllocateInstance(pscDomain* domain, pscClass* cl);
// Unlinks and frees an instance whose constructor failed, without calling destroy.
void pscDiscardInstance(pscInstance* instance);
void pscDestroyInstance(pscInstance* instance);  // the count has just reached zero

inline void pscAddRef(pscInstance* instance) {
  if (psSingleThreaded()) {
    instance->ref_cnt.store(instance->ref_cnt.load(std::memory_order_relaxed) + 1,
                            std::memory_order_relaxed);
    return;
  }
  instance->ref_cnt.fetch_add(1, std::memory_order_relaxed);
  psc_changed.store(true, std::memory_order_relaxed);
}

inline void pscSubRef(pscInstance* instance) {
  int64_t before;
  if (psSingleThreaded()) {
    before = instance->ref_cnt.load(std::memory_order_relaxed);
    instance->ref_cnt.store(before - 1, std::memory_order_relaxed);
  } else {
    before = instance->ref_cnt.fetch_sub(1, std::memory_order_acq_rel);
    psc_changed.store(true, std::memory_order_relaxed);
  }
  psAssertText(before > 0, "inst->ref_cnt > 0");
  if (before == 1) pscDestroyInstance(instance);
}

// A reference that another thread than the script's has no use for any more. Were it the last one,
// releasing it there would run a destructor there, which may wait for that very thread. So the
// script's thread gets the reference, and releases it when it waits for messages, collects or ends.
void pscLeaveToScript(pscInstance* instance);
// Releases what was left. On the script's thread; false when there was nothing.
bool pscReleaseLeft(pscDomain* domain);

inline void ReleaseValue(const psTypedValue* v) {
  if ((v->type_flags & kPsCountedFlags) && v->value.psc != nullptr) pscSubRef(v->value.psc);
}
inline void psRetainValue(const psTypedValue* v) {
  if ((v->type_flags & kPsCountedFlags) && v->value.psc != nullptr) pscAddRef(v->value.psc);
}
// A counted copy.
inline psTypedValue psCopyValue(const psTypedValue& v) {
  psRetainValue(&v);
  return v;
}

// --- Lookups ----------------------------------------------------------------------------------

const psInterface* pscClassInterface(const pscClass* cl, const char* name);
const psInterface* pscGetInterface(pscInstance* instance, const char* name);
// The native entries of an interface, or null.
const void* pscGetMethods(pscInstance* instance, const char* interface_name);
const void* pscGetClassMethods(const char* class_name, const char* interface_name);

struct pscMemberFunction {
  const psInterface* iface = nullptr;
  int index = -1;
  const fundes* function = nullptr;
  explicit operator bool() const { return function != nullptr; }
};
// nargs -1 accepts any count. Interfaces in table order, functions in table order, ignoring case.
pscMemberFunction pscFindClassMemberFunction(const pscClass* cl, const char* name, int nargs);
pscMemberFunction pscFindMemberFunction(pscInstance* instance, const char* name, int nargs);
pscMemberFunction pscFindInterfaceFunction(const psInterface* iface, const char* name, int nargs);

// --- Calls ------------------------------------------------------------------------------------

// Calls a descriptor with script arguments. The arguments are consumed whatever the outcome (each
// is released or handed on). this_ is null for a static function. Returns 255, 237, 245, the status
// of a failed conversion, or what the function reports.
psStatus pscCallFunction(pscDomain* domain, int argc, const fundes* function, void* this_,
                         psTypedValue* args, psTypedValue* result);

// --- Enumeration and collection ---------------------------------------------------------------

void pscEnumeratePublicClasses(void (*callback)(pscClass*, void*), void* arg);
void pscEnumerateInterfaces(const pscClass* cl,
                            void (*callback)(const pscClass*, const psInterface*, void*),
                            void* arg);
void pscEnumerateFunctions(void* x, const psInterface* iface,
                           void (*callback)(void* x, const psInterface*, const fundes*, void*),
                           void* arg);
void pscEnumerateInstances(pscDomain* domain, void (*callback)(pscInstance*, void*), void* arg);
// Tell every instance that the script stopped, or runs again.
void pscNotifyStopped(pscDomain* domain);
void pscNotifyRunning(pscDomain* domain);

struct pscCollection {
  int total = 0;     // instances
  int roots = 0;     // referenced from outside the component graph
  int orphaned = 0;  // freed
};
pscCollection pscGarbageCollect(pscDomain* domain);
void pscForbidGarbageCollector(pscDomain* domain);
void pscPermitGarbageCollector(pscDomain* domain);
// Makes every container of the domain independent of a module's constant table.
void pscDetachStrings(pscDomain* domain);

// "PLUMSCRIPT: tag: message", the message cut at 255 characters.
void pscDiagnostic(const char* tag, psText message);
// Where the runtime's own messages go; null restores standard error.
void pscSetPrintHook(void (*print)(void* arg, psText text), void* arg);
void pscPrint(psText text);

// The core classes.
extern pscClass clArray, clByteArray, clList, clAssociativeArray, clInt, clString, clFloat,
    clDouble, clIntrinsicDouble, clFunction, clBoolean, clInvalid, clMessagePort, clGlobal;
