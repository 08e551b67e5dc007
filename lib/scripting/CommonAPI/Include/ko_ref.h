// References to script objects held by native code, and memory that counts as the script's.
//
// All of these may be used from any thread; one object of them by one thread at a time, unless its
// class says otherwise. What callbacks on other threads than the script's have to mind when they
// are done with a reference is told in kocpp.h.
#pragma once

#include <cstddef>
#include <mutex>
#include <new>
#include <string>
#include <utility>

#include "lib/scripting/Plumscript/Source/ps_heap.h"
#include "lib/scripting/Plumscript/Source/psc.h"

// Holds a domain's collector off for a scope. A thread that is not the script's takes it before it
// copies references out of script objects, or puts references into them: the collector would
// otherwise take what is being handed over for garbage.
//
// The poll thread's callbacks post events and so take this lock inside the poll thread's. Nothing
// that calls into the poll thread may run under it, which is why objects are never destroyed there.
class CollectorLock {
 public:
  explicit CollectorLock(pscDomain* domain) : m_domain(domain) {
    pscForbidGarbageCollector(domain);
  }
  ~CollectorLock() { pscPermitGarbageCollector(m_domain); }
  CollectorLock(const CollectorLock&) = delete;
  CollectorLock& operator=(const CollectorLock&) = delete;

 private:
  pscDomain* m_domain;
};

// A counted reference to a component, or none.
class KelvoObjectRef {
 public:
  KelvoObjectRef() = default;
  // Takes a reference of its own.
  explicit KelvoObjectRef(pscInstance* instance) : m_instance(instance) {
    if (instance != nullptr) pscAddRef(instance);
  }
  // Takes over the caller's.
  static KelvoObjectRef Adopt(pscInstance* instance) {
    KelvoObjectRef ref;
    ref.m_instance = instance;
    return ref;
  }
  KelvoObjectRef(const KelvoObjectRef& other) : KelvoObjectRef(other.m_instance) {}
  KelvoObjectRef(KelvoObjectRef&& other) noexcept : m_instance(other.Release()) {}
  KelvoObjectRef& operator=(KelvoObjectRef other) noexcept {
    std::swap(m_instance, other.m_instance);
    return *this;
  }
  ~KelvoObjectRef() {
    if (m_instance != nullptr) pscSubRef(m_instance);
  }

  pscInstance* Get() const { return m_instance; }
  explicit operator bool() const { return m_instance != nullptr; }
  bool operator==(const KelvoObjectRef&) const = default;
  void Reset() { *this = KelvoObjectRef(); }
  // Hands the reference to the caller.
  [[nodiscard]] pscInstance* Release() { return std::exchange(m_instance, nullptr); }

 private:
  pscInstance* m_instance = nullptr;
};

// A new instance of a public class that needs no arguments, made with the collector held off. A
// class that does not exist is a failed assertion ("m_ref"); std::bad_alloc when memory is refused.
// The class's Init must not call into the poll thread.
class GarbageCollectorLockedKelvoObjectRef : public KelvoObjectRef {
 public:
  GarbageCollectorLockedKelvoObjectRef(pscDomain* domain, const char* class_name);
};

// How the collector asks an object for the references it holds: called once for each of them, with
// the lock that guards it held.
struct KelvoReferenceVisitor {
  void* arg;
  psRefCallback callback;
  void operator()(const KelvoObjectRef& ref) const {
    if (ref) callback(arg, ref.Get());
  }
};

// A reference that several threads use: the form in which an object holds another one as a member.
// What it held before is released after the lock has been let go of.
class GuardedObjectRef {
 public:
  KelvoObjectRef Get() const;
  void Set(KelvoObjectRef ref);

  void EnumReferences(const KelvoReferenceVisitor& visit) const;
  void BreakReferences() { Set({}); }

 private:
  mutable std::mutex m_mutex;
  KelvoObjectRef m_ref;  // guarded by m_mutex
};

// The script heap as an allocator: what an object keeps for a script (the payload of an event,
// above all) counts against the script's memory, so that a peer who sends faster than the script
// reads cannot fill the machine. std::bad_alloc when the limit refuses.
template <class T>
struct KelvoAllocator {
  using value_type = T;
  static_assert(alignof(T) <= 16);

  KelvoAllocator() = default;
  template <class U>
  KelvoAllocator(const KelvoAllocator<U>&) {}  // NOLINT(google-explicit-constructor): rebinding

  T* allocate(size_t n) {
    if (n > SIZE_MAX / sizeof(T)) throw std::bad_alloc();
    void* block = n > 0 ? psAlloc(n * sizeof(T)) : nullptr;
    if (block == nullptr && n > 0) throw std::bad_alloc();
    return static_cast<T*>(block);
  }
  void deallocate(T* block, size_t n) noexcept { psFree(block, n * sizeof(T)); }
  bool operator==(const KelvoAllocator&) const { return true; }
};
using KelvoText = std::basic_string<char, std::char_traits<char>, KelvoAllocator<char>>;
