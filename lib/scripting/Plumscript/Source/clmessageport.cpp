// koMessagePort.
//
// A private koList holds the messages and an auto-resetting event says that there may be one: it is
// raised after the message is in the list, so whoever finds the list empty and then waits is woken.
// The event may be raised without need (the message was taken without waiting); a wait that finds
// nothing waits on.
//
// A break raises the event too, after the woken flag. The hook for it is in place before the break
// word is looked at, so a break that came earlier is seen there, and a later one finds the hook.
//
// The watchdog runs while it has a timeout and the script runs: not during a wait, and not while
// the script is stopped.
#include "clmessageport.h"

#include <atomic>
#include <chrono>
#include <new>
#include <utility>

#include "cllist.h"
#include "hooks.h"
#include "lib/platform/log.h"
#include "lib/platform/plumscript_watchdog.h"
#include "lib/platform/simple_event.h"
#include "ps_native.h"
#include "run.h"

namespace {

struct MessagePort {
  pscInstance* queue;  // one reference
  const psIfList* iflist;
  const psIfEnum* ifenum;
  SimpleEvent event;
  std::atomic<bool> woken{false};
  std::atomic<bool> overflowing{false};  // told already
  PlumscriptWatchdog watchdog{"Plumscript", psInstructionCounter};
  int32_t watchdog_timeout = 0;  // seconds; 0: not armed
};

MessagePort* portOf(pscInstance* self) { return pscData<MessagePort>(self); }

void armWatchdog(MessagePort* me) {
  if (me->watchdog_timeout > 0) me->watchdog.Arm(std::chrono::seconds(me->watchdog_timeout));
}

pscInstance* objectOf(const psTypedValue& v) {
  if (psIs(v, kPsObjectFlag)) return v.value.psc;
  ReleaseValue(&v);
  return nullptr;
}

// Takes the message over unless memory is refused.
bool post(MessagePort* me, pscInstance* message) {
  if (!psListTryAddTail(me->queue, psObjectValue(message))) return false;
  me->event.Set();
  return true;
}

// --- ifMessagePort ----------------------------------------------------------------------------

void DeferWatchdogBy(pscInstance* self, int32_t seconds) {
  if (seconds > 0) portOf(self)->watchdog.Defer(std::chrono::seconds(seconds));
}
void DeferWatchdog(pscInstance* self) { DeferWatchdogBy(self, portOf(self)->watchdog_timeout); }

pscInstance* GetMessage(pscInstance* self) {
  DeferWatchdog(self);
  MessagePort* me = portOf(self);
  return objectOf(me->iflist->RemoveHead(me->queue));
}

// The break hook.
void wake(void* arg) {
  auto* me = static_cast<MessagePort*>(arg);
  me->woken.store(true);
  me->event.Set();
}

// Waits until there may be a message; false at the end of the time or on a break.
bool waitForEvent(pscInstance* self, int32_t timeout) {
  MessagePort* me = portOf(self);
  me->watchdog.Pause();
  pscSetBreakHook(self->domain, wake, me);
  const bool raised = !pscBreakPending(self->domain) && me->event.Wait(timeout);
  pscSetBreakHook(self->domain, nullptr, nullptr);
  armWatchdog(me);
  return raised && !me->woken.load();
}

pscInstance* WaitMessage(pscInstance* self, int32_t timeout) {
  pscInstance* message = GetMessage(self);
  if (message != nullptr) return message;
  psHooks().beforeBlocking();
  pscReleaseLeft(self->domain);
  while (message == nullptr && waitForEvent(self, timeout)) message = GetMessage(self);
  portOf(self)->woken.store(false);
  return message;
}

void PostMessage(pscInstance* self, pscInstance* message) {
  if (message == nullptr) return;
  pscAddRef(message);
  if (!post(portOf(self), message)) pscSubRef(message);
}

bool HasRoom(pscInstance* self) {
  MessagePort* me = portOf(self);
  const int32_t waiting = psListCount(me->queue);
  if (waiting >= kPsMaxWaitingEvents) {
    if (!me->overflowing.exchange(true)) {
      lattix::Log("koMessagePort: {} events are waiting, new ones are dropped\n", waiting);
    }
    return false;
  }
  if (waiting < kPsMaxWaitingEvents / 2) me->overflowing.store(false, std::memory_order_relaxed);
  return true;
}

bool PostEvent(pscInstance* self, pscInstance* message) {
  return HasRoom(self) && post(portOf(self), message);
}

pscInstance* PeekMessage(pscInstance* self) {
  MessagePort* me = portOf(self);
  return objectOf(me->iflist->GetHead(me->queue));
}

int32_t SetWatchdogTimeout(pscInstance* self, int32_t seconds) {
  if (seconds < 0) return -1;
  MessagePort* me = portOf(self);
  const int32_t before = std::exchange(me->watchdog_timeout, seconds);
  me->watchdog.Pause();
  armWatchdog(me);
  return before;
}

// --- ifEnum -----------------------------------------------------------------------------------
// FOR EACH over a port takes messages until the script leaves the loop.

void Reset(pscInstance*) {}
psTypedValue Next(pscInstance* self) {
  pscInstance* message = WaitMessage(self, 0);
  return message != nullptr ? psObjectValue(message) : psInvalidValue();
}
bool IsNext(pscInstance*) { return true; }
bool IsEmpty(pscInstance* self) {
  MessagePort* me = portOf(self);
  return me->ifenum->IsEmpty(me->queue);
}

// --- ifDebug ----------------------------------------------------------------------------------

void Stopped(pscInstance* self) { portOf(self)->watchdog.Pause(); }
void Running(pscInstance* self) { armWatchdog(portOf(self)); }

// --- The class --------------------------------------------------------------------------------

constexpr fundes kPortFunctions[] = {
    psMethod<GetMessage>("GetMessage"),
    psMethod<WaitMessage>("WaitMessage"),
    psMethod<PostMessage>("PostMessage"),
    psMethod<PeekMessage>("PeekMessage"),
    psMethod<SetWatchdogTimeout>("SetWatchdogTimeout"),
    psMethod<DeferWatchdogBy>("DeferWatchdog"),
    psMethod<DeferWatchdog>("DeferWatchdog"),
    {},
};
constexpr fundes kEnumFunctions[] = {
    psMethod<Reset>("Reset"),
    psMethod<Next>("Next"),
    psMethod<IsNext>("IsNext"),
    psMethod<IsEmpty>("IsEmpty"),
    {},
};
constexpr fundes kDebugFunctions[] = {{}};

constexpr psIfMessagePort kPortMethods = {GetMessage, WaitMessage, PostEvent, PeekMessage, HasRoom};
constexpr psIfEnum kEnumMethods = {Reset, Next, IsNext, IsEmpty};
constexpr psIfDebug kDebugMethods = {Stopped, Running};

constexpr psInterface kInterfaces[] = {
    {"ifMessagePort", kPortFunctions, &kPortMethods},
    {"ifEnum", kEnumFunctions, &kEnumMethods},
    {"ifDebug", kDebugFunctions, &kDebugMethods},
};

bool init(pscInstance* self) {
  pscInstance* queue = psNewList(self->domain);
  if (queue == nullptr) return false;
  auto* me = new (portOf(self)) MessagePort{};
  me->queue = queue;
  me->iflist = static_cast<const psIfList*>(pscGetMethods(queue, "ifList"));
  psAssertText(me->iflist != nullptr, "d->iflist");
  me->ifenum = queue->psc_class->if_enum;
  psAssertText(me->ifenum != nullptr, "d->ifenum");
  return true;
}

void destroy(pscInstance* self) {
  MessagePort* me = portOf(self);
  pscSubRef(me->queue);
  me->~MessagePort();
}

void enumRefs(pscInstance* self, void* arg, psRefCallback callback) {
  callback(arg, portOf(self)->queue);
}

// The queue stays: a sender that is garbage too may post once more before it is gone.
void breakRefs(pscInstance* self) { clList.break_refs(portOf(self)->queue); }

}  // namespace

constinit pscClass clMessagePort = [] {
  pscClass cl;
  cl.ln_Name = "koMessagePort";
  cl.interfaces = kInterfaces;
  cl.instance_size = sizeof(MessagePort);
  cl.init = init;
  cl.destroy = destroy;
  cl.enum_refs = enumRefs;
  cl.break_refs = breakRefs;
  return cl;
}();
