// The collector of reference cycles (trial deletion), and the other walks over a domain's
// instances.
//
// An instance whose count is higher than the number of references found inside other instances is
// held from outside (a variable, the stack, native code): a root. Whatever no root reaches is
// garbage.
//
// Rules of this file:
//  1. Hooks run with psc_ref_and_list_lock released. The instance whose hook runs is kept alive by
//     a temporary reference. One that turns out to be the last is kept until the collection is
//     over: a destructor may wait for a thread that waits for the collector lock.
//  2. psc_changed tells that another thread changed a count or a list while the lock was released:
//     the counts gathered so far may describe two different moments, so the collection starts over.
//     After kMaxRestarts it gives up and frees nothing; the next run tries again.
//  3. The walk from the roots keeps its own stack of instances, each with a temporary reference
//     when other threads exist, so that a chain of any length needs no recursion.
#include <vector>

#include "psc_internal.h"

namespace {

constexpr uint32_t kMark = 1;
constexpr uint32_t kOneReference = 2;
constexpr int kMaxRestarts = 1000;

pscInstance* firstOf(psList& list) {
  return list.empty() ? nullptr : static_cast<pscInstance*>(list.lh_Head);
}
pscInstance* after(pscInstance* instance) {
  psNode* next = instance->ln_Succ;
  return next->ln_Succ != nullptr ? static_cast<pscInstance*>(next) : nullptr;
}

int64_t count(const pscInstance* instance) {
  return instance->ref_cnt.load(std::memory_order_acquire);
}

// A reference of the collector's own: it must not look like another thread's change. False when the
// count has reached zero already (the instance is about to be unlinked by its last owner).
bool hold(pscInstance* instance) {
  int64_t n = count(instance);
  while (n > 0) {
    if (instance->ref_cnt.compare_exchange_weak(n, n + 1, std::memory_order_acq_rel)) return true;
  }
  return false;
}
// True when the collector's reference was the last one; it is then still there.
bool letGoUnlessLast(pscInstance* instance) {
  int64_t n = count(instance);
  while (n > 1) {
    if (instance->ref_cnt.compare_exchange_weak(n, n - 1, std::memory_order_acq_rel)) return false;
  }
  return true;
}

class Collector {
 public:
  explicit Collector(pscDomain* domain) : domain_(domain) {}

  pscCollection run() {
    for (int attempt = 0; attempt < kMaxRestarts; attempt++) {
      if (countReferences() && clearFromRoots()) {
        takeGarbage();
        return found_;
      }
    }
    found_.orphaned = 0;
    return found_;
  }

  void releaseLock() { lock_.unlock(); }
  // Without any lock.
  void dropLate() {
    for (pscInstance* instance : late_) pscSubRef(instance);
  }

  // The two steps below run with the lock released: they call class hooks.
  void breakGarbage() {
    for (psNode* n = garbage_.lh_Head; n->ln_Succ != nullptr; n = n->ln_Succ) {
      auto* instance = static_cast<pscInstance*>(n);
      if (instance->psc_class->break_refs != nullptr) instance->psc_class->break_refs(instance);
    }
  }
  // Whoever drops the last reference unlinks the instance from the list it is in: this one.
  void dropGarbage() {
    psNode* next;
    for (psNode* n = garbage_.lh_Head; n->ln_Succ != nullptr; n = next) {
      next = n->ln_Succ;
      pscSubRef(static_cast<pscInstance*>(n));
    }
  }

 private:
  // Runs an instance's enum_refs without the lock. False: start over.
  bool visit(pscInstance* instance, psRefCallback callback) {
    if (!hold(instance)) return true;
    lock_.unlock();
    instance->psc_class->enum_refs(instance, this, callback);
    drainWalk();
    lock_.lock();
    letGo(instance);
    return !psc_changed.load(std::memory_order_acquire);
  }

  void letGo(pscInstance* instance) {
    if (letGoUnlessLast(instance)) late_.push_back(instance);
  }

  bool countReferences() {
    psc_changed.store(false, std::memory_order_release);
    found_ = {};
    for (auto* i = firstOf(domain_->list); i != nullptr; i = after(i)) {
      i->gc_word = kMark;
      found_.total++;
    }
    for (auto* i = firstOf(domain_->list); i != nullptr; i = after(i)) {
      if (i->psc_class->enum_refs == nullptr) continue;
      if (!visit(i, [](void*, pscInstance* child) { child->gc_word += kOneReference; })) {
        return false;
      }
    }
    return true;
  }

  bool clearFromRoots() {
    for (auto* i = firstOf(domain_->list); i != nullptr; i = after(i)) {
      const int64_t inside = i->gc_word / kOneReference;
      const int64_t references = count(i);
      if (references == 0) continue;
      if (references < inside) {
        // Only a thread that moved in between can explain it; with one thread nothing can.
        psAssertText(!psSingleThreaded(), "inst->ref_cnt >= gc_refcnt");
        return false;
      }
      if (references == inside) continue;
      found_.roots++;
      if ((i->gc_word & kMark) == 0) continue;
      i->gc_word &= ~kMark;
      if (i->psc_class->enum_refs == nullptr) continue;
      if (!visit(i, clear)) return false;
    }
    return true;
  }

  // Called by a container that holds the child, with the container's lock taken.
  static void clear(void* arg, pscInstance* child) {
    auto* self = static_cast<Collector*>(arg);
    if (psc_changed.load(std::memory_order_relaxed) && !psSingleThreaded()) return;
    if ((child->gc_word & kMark) == 0) return;
    child->gc_word &= ~kMark;
    if (child->psc_class->enum_refs != nullptr && hold(child)) self->walk_.push_back(child);
  }

  void drainWalk() {
    while (!walk_.empty()) {
      pscInstance* next = walk_.back();
      walk_.pop_back();
      next->psc_class->enum_refs(next, this, clear);
      letGo(next);
    }
  }

  void takeGarbage() {
    pscInstance* next;
    for (auto* i = firstOf(domain_->list); i != nullptr; i = next) {
      next = after(i);
      if ((i->gc_word & kMark) == 0 || !hold(i)) continue;
      found_.orphaned++;
      Remove(i);
      AddTail(&garbage_, i);
    }
  }

  pscDomain* domain_;
  pscListLock lock_;
  pscCollection found_;
  psList garbage_;
  std::vector<pscInstance*> walk_;
  std::vector<pscInstance*> late_;  // the collector's reference is the last
};

}  // namespace

pscCollection pscGarbageCollect(pscDomain* domain) {
  psAssertText(domain->magic == kPscDomainMagic, "domain->magic == 0xd002a14e");
  // Threads leave references behind under the collector lock. One that was missed would keep its
  // cycle, and after a script's end there is no later collection.
  for (bool missed = true; missed;) {
    pscReleaseLeft(domain);
    pscForbidGarbageCollector(domain);
    const std::lock_guard lock(domain->left_lock);
    missed = !domain->left.empty();
    if (missed) pscPermitGarbageCollector(domain);
  }
  Collector collector(domain);
  const pscCollection found = collector.run();
  collector.releaseLock();
  collector.breakGarbage();
  pscPermitGarbageCollector(domain);
  collector.dropGarbage();
  collector.dropLate();
  return found;
}

void pscEnumerateInstances(pscDomain* domain, void (*callback)(pscInstance*, void*), void* arg) {
  const pscListLock lock;
  for (auto* i = firstOf(domain->list); i != nullptr; i = after(i)) {
    if (count(i) > 0) callback(i, arg);  // else its last owner is about to unlink it
  }
}

void pscNotifyStopped(pscDomain* domain) {
  pscEnumerateInstances(
      domain,
      [](pscInstance* i, void*) {
        if (i->psc_class->if_debug != nullptr) i->psc_class->if_debug->Stopped(i);
      },
      nullptr);
}

void pscNotifyRunning(pscDomain* domain) {
  pscEnumerateInstances(
      domain,
      [](pscInstance* i, void*) {
        if (i->psc_class->if_debug != nullptr) i->psc_class->if_debug->Running(i);
      },
      nullptr);
}

void pscDetachStrings(pscDomain* domain) {
  // Detaching creates instances, which join the list behind the walk; they hold no constants.
  pscListLock lock;
  pscInstance* next;
  for (auto* i = firstOf(domain->list); i != nullptr; i = next) {
    next = after(i);
    if (i->psc_class->detach_strings == nullptr || !hold(i)) continue;
    lock.unlock();
    i->psc_class->detach_strings(i);
    lock.lock();
    next = after(i);
    if (!letGoUnlessLast(i)) continue;
    lock.unlock();
    pscSubRef(i);
    lock.lock();
    next = firstOf(domain->list);  // its neighbours may be gone with it
  }
}
