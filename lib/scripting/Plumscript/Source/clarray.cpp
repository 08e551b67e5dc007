// koArray.
//
// One block of slots; element 0 moves inside it, so that taking from or adding to the front moves a
// pointer and not the elements. What scripts can tell apart is the capacity of an array that may
// not grow, which is why it is counted from element 0 and not from the block:
//  - resizable: capacity is whatever the block holds from element 0 on (front + capacity == block);
//  - not resizable: capacity is what the constructor got, and the block is made larger behind the
//    script's back when moving the front needs it.
// Invariant of both: tail < capacity and front + capacity <= block, so slots 0..capacity-1 exist.
//
// A value that leaves the array is released after the lock has been let go of: releasing the last
// reference of an object runs its destructor, which may want other locks.
#include <algorithm>
#include <cstring>
#include <new>

#include "container_tables.h"
#include "containers.h"
#include "ps_heap.h"
#include "ps_native.h"

namespace {

psArray* arrayOf(pscInstance* self) { return pscData<psArray>(self); }

size_t slotBytes(int64_t slots) { return static_cast<size_t>(slots) * sizeof(psTypedValue); }

psTypedValue* blockStart(const psArray* me) {
  return me->elements != nullptr ? me->elements - me->front : nullptr;
}

// Sets the size of the block, keeping what lies in it; false (and unchanged) when refused.
bool resizeBlock(psArray* me, int64_t slots) {
  if (slots > INT32_MAX) return false;
  void* moved = psRealloc(blockStart(me), slotBytes(me->block), slotBytes(slots));
  if (moved == nullptr) return false;
  me->elements = static_cast<psTypedValue*>(moved) + me->front;
  me->block = static_cast<int32_t>(slots);
  return true;
}

// Moves the elements so that element 0 lies at slot `front` of the block. The capacity of a
// resizable array follows.
void placeFront(psArray* me, int32_t front) {
  psTypedValue* to = blockStart(me) + front;
  std::memmove(static_cast<void*>(to), me->elements, slotBytes(me->tail + 1));
  me->elements = to;
  me->front = front;
  if (me->resizable) me->capacity = me->block - front;
}

// Grows a resizable array so that it holds more than `index`, to `wanted` slots by the growth rule:
// by a quarter (or ten slots while it is small), or by what is needed if that is more.
bool grow(psArray* me, int64_t index, int64_t wanted) {
  if (!me->resizable) return false;
  // As many slots lie unused before the elements as there are elements: moving them down costs no
  // more than the Shifts that freed those slots did.
  if (me->front > me->tail && index < me->block) {
    placeFront(me, 0);
    return true;
  }
  const int64_t step =
      std::max<int64_t>(wanted - me->capacity, me->capacity < 40 ? 10 : me->capacity / 4);
  int64_t slots = me->block + step;
  if (slots > INT32_MAX) slots = me->front + index + 1;  // the last few slots there can be
  if (!resizeBlock(me, slots)) return false;
  me->capacity = me->block - me->front;
  return true;
}

// Makes room before element 0 for as many values as half of the elements, so that as many Unshifts
// follow without moving anything. Leaves front 0 when there is no room for even one.
void openFront(psArray* me) {
  const int32_t kept = me->resizable ? me->tail + 1 : me->capacity;
  const int64_t gap = std::max(4, (me->tail + 1) / 2);
  if (me->block - kept < gap) resizeBlock(me, kept + gap);
  const int64_t front = std::min<int64_t>(gap, me->block - kept);
  if (front > 0) placeFront(me, static_cast<int32_t>(front));
}

// Forgets element 0 of an array that is not empty.
void dropFirst(psArray* me) {
  me->tail--;
  if (me->resizable) {
    me->elements++;
    me->front++;
    me->capacity--;
    if (me->tail < 0) placeFront(me, 0);
    return;
  }
  // The capacity stays, so slots are needed behind the block's end: as a rule half as many as the
  // array has, which makes the move back to the start of the block a rare one. A small array is
  // moved each time.
  constexpr int32_t kSmall = 16;
  if (me->block == me->capacity && me->capacity > kSmall) {
    resizeBlock(me, me->capacity + me->capacity / 2);
  }
  me->elements++;
  me->front++;
  if (me->tail < 0 || me->front + me->capacity > me->block) placeFront(me, 0);
}

bool push(psArray* me, const psTypedValue& value) {
  if (me->tail + 1 >= me->capacity) {
    psAssertText(me->tail + 1 == me->capacity, "me->tail+1==me->size");
    const int64_t needed = static_cast<int64_t>(me->tail) + 2;
    if (!grow(me, needed - 1, needed)) return false;
  }
  psCopyRaw(&me->elements[++me->tail], value);
  return true;
}

bool unshift(psArray* me, const psTypedValue& value) {
  if (!me->resizable && me->tail + 1 >= me->capacity) return false;
  if (me->front == 0) openFront(me);
  if (me->front > 0) {
    me->elements--;
    me->front--;
    if (me->resizable) me->capacity++;
  } else if (me->tail + 1 < me->capacity) {
    std::memmove(static_cast<void*>(me->elements + 1), me->elements, slotBytes(me->tail + 1));
  } else {
    return false;
  }
  psCopyRaw(&me->elements[0], value);
  // Scripts rely on this: an enumeration that stands on the last element keeps its index.
  const bool stays = me->enumidx != 0 && me->enumidx == me->tail;
  if (!stays && me->enumidx < INT32_MAX) me->enumidx++;
  me->tail++;
  return true;
}

// Stores a value; *value becomes what has to be released: the old element, or the value itself when
// there is no slot for it.
void setEntry(psArray* me, int32_t index, psTypedValue* value) {
  if (index < 0) return;
  if (index > me->tail) {
    if (index >= me->capacity && !grow(me, index, static_cast<int64_t>(index) + index / 4)) return;
    std::memset(static_cast<void*>(me->elements + me->tail + 1), 0, slotBytes(index - me->tail));
    me->tail = index;
  }
  std::swap(me->elements[index], *value);
}

psTypedValue handOver(const psTypedValue& slot) { return slot.meta != 0 ? slot : psInvalidValue(); }

// Scripts rely on this: taking an element away moves the enumeration only when it stands on the
// last element, from whichever end the element is taken.
void retreatEnumeration(psArray* me) {
  if (me->enumidx != 0 && me->enumidx == me->tail) me->enumidx--;
}

// --- ifArray ----------------------------------------------------------------------------------

psTypedValue Peek(pscInstance* self) {
  psArray* me = arrayOf(self);
  const psGuard guard(me->lock);
  return psCopyValue(psArrayElement(me, me->tail));
}

psTypedValue Pop(pscInstance* self) {
  psArray* me = arrayOf(self);
  const psGuard guard(me->lock);
  if (me->tail < 0) return psInvalidValue();
  retreatEnumeration(me);
  return handOver(me->elements[me->tail--]);
}

void Push(pscInstance* self, psTypedValue value) {
  psArray* me = arrayOf(self);
  {
    const psGuard guard(me->lock);
    if (push(me, value)) return;
  }
  ReleaseValue(&value);
}

psTypedValue Shift(pscInstance* self) {
  psArray* me = arrayOf(self);
  const psGuard guard(me->lock);
  if (me->tail < 0) return psInvalidValue();
  retreatEnumeration(me);
  const psTypedValue value = handOver(me->elements[0]);
  dropFirst(me);
  return value;
}

void Unshift(pscInstance* self, psTypedValue value) {
  psArray* me = arrayOf(self);
  {
    const psGuard guard(me->lock);
    if (unshift(me, value)) return;
  }
  ReleaseValue(&value);
}

bool Delete(pscInstance* self, int32_t index) {
  psArray* me = arrayOf(self);
  psTypedValue removed;
  {
    const psGuard guard(me->lock);
    if (index < 0 || index > me->tail) return false;
    removed = me->elements[index];
    if (index == 0) {
      dropFirst(me);
    } else {
      std::memmove(static_cast<void*>(me->elements + index), me->elements + index + 1,
                   slotBytes(me->tail - index));
      me->tail--;
    }
    if (me->enumidx > index) me->enumidx--;
  }
  ReleaseValue(&removed);
  return true;
}

int32_t Count(pscInstance* self) {
  psArray* me = arrayOf(self);
  const psGuard guard(me->lock);
  return me->tail + 1;
}

// The block of an array that is given up, with the values in it.
struct Detached {
  psTypedValue* block;
  int32_t slots;
  const psTypedValue* elements;
  int32_t count;
};

// Takes the block out of the array, which is left empty and without one.
Detached detachBlock(psArray* me) {
  const Detached detached{blockStart(me), me->block, me->elements, me->tail + 1};
  me->elements = nullptr;
  me->block = 0;
  me->front = 0;
  me->tail = -1;
  me->enumidx = 0;
  return detached;
}

void releaseDetached(const Detached& detached) {
  for (int32_t i = 0; i < detached.count; i++) ReleaseValue(&detached.elements[i]);
  psFree(detached.block, slotBytes(detached.slots));
}

bool holdsReferences(const psArray* me) {
  return std::any_of(me->elements, me->elements + me->tail + 1,
                     [](const psTypedValue& v) { return psIs(v, kPsCountedFlags); });
}

void Clear(pscInstance* self) {
  psArray* me = arrayOf(self);
  Detached detached{};
  {
    const psGuard guard(me->lock);
    // A script that fills and clears an array in turn keeps the block. With objects in it the block
    // goes, so that they can be released outside the lock; one that may not grow gets another
    // first.
    if (me->tail >= 0 && holdsReferences(me)) {
      const int32_t capacity = me->capacity;
      psTypedValue* spare = nullptr;
      if (!me->resizable) {
        spare = static_cast<psTypedValue*>(psAlloc(slotBytes(capacity)));
      }
      if (me->resizable || spare != nullptr) {
        detached = detachBlock(me);
        me->capacity = me->resizable ? 0 : capacity;
        me->elements = spare;
        me->block = me->capacity;
      } else {
        for (int32_t i = me->tail; i >= 0; i--) {
          const psTypedValue value = me->elements[i];
          me->tail = i - 1;
          ReleaseValue(&value);
        }
      }
    }
    me->tail = -1;
    me->enumidx = 0;
    if (me->front > 0) placeFront(me, 0);
  }
  releaseDetached(detached);
}

void Append(pscInstance* self, pscInstance* other) {
  if (other == nullptr || other == self || other->psc_class != &clArray) return;
  // The other array is copied under its own lock first: holding both would deadlock with a thread
  // that appends the other way round.
  psTypedValue* copy = nullptr;
  int32_t slots = 0;
  int32_t count = 0;
  {
    psArray* from = arrayOf(other);
    const psGuard guard(from->lock);
    slots = from->tail + 1;
    if (slots == 0) return;
    copy = static_cast<psTypedValue*>(psAlloc(slotBytes(slots)));
    if (copy == nullptr) return;
    for (int32_t i = 0; i < slots; i++) {
      if (from->elements[i].meta != 0) copy[count++] = psCopyValue(from->elements[i]);
    }
  }
  int32_t stored = 0;
  psArray* me = arrayOf(self);
  {
    const psGuard guard(me->lock);
    while (stored < count && push(me, copy[stored])) stored++;
  }
  while (stored < count) ReleaseValue(&copy[stored++]);
  psFree(copy, slotBytes(slots));
}

// --- ifArrayGet, ifArraySet -------------------------------------------------------------------

psTypedValue GetEntry(pscInstance* self, int32_t index) {
  psArray* me = arrayOf(self);
  const psGuard guard(me->lock);
  return psCopyValue(psArrayElement(me, index));
}

void SetEntry(pscInstance* self, int32_t index, psTypedValue value) {
  psArray* me = arrayOf(self);
  {
    const psGuard guard(me->lock);
    setEntry(me, index, &value);
  }
  ReleaseValue(&value);
}

// --- ifEnum -----------------------------------------------------------------------------------

void Reset(pscInstance* self) {
  psArray* me = arrayOf(self);
  const psGuard guard(me->lock);
  me->enumidx = 0;
}

psTypedValue Next(pscInstance* self) {
  psArray* me = arrayOf(self);
  const psGuard guard(me->lock);
  psAssertText(me->enumidx >= 0, "me->enumidx>=0");
  if (me->enumidx > me->tail) return psInvalidValue();
  return psCopyValue(psArrayElement(me, me->enumidx++));
}

bool IsNext(pscInstance* self) {
  psArray* me = arrayOf(self);
  const psGuard guard(me->lock);
  return me->enumidx <= me->tail;
}

bool IsEmpty(pscInstance* self) {
  psArray* me = arrayOf(self);
  const psGuard guard(me->lock);
  return me->tail < 0;
}

// --- The class --------------------------------------------------------------------------------

bool ArrayConstructor(pscInstance* self, int32_t capacity, bool resizable) {
  if (capacity < 0) return false;
  auto* me = new (arrayOf(self)) psArray{};
  me->capacity = capacity;
  me->tail = -1;
  me->resizable = resizable;
  if (capacity == 0 || resizeBlock(me, capacity)) return true;
  me->~psArray();
  return false;
}

constexpr fundes kConstructor = psMethod<ArrayConstructor>("ArrayConstructor");

constexpr fundes kArrayGetFunctions[] = {psMethod<GetEntry>("GetEntry"), {}};
constexpr fundes kArraySetFunctions[] = {psMethod<SetEntry>("SetEntry"), {}};

constexpr psIfArrayGet kArrayGetMethods = {GetEntry};
constexpr psIfArraySet kArraySetMethods = {SetEntry};

constexpr psInterface kInterfaces[] = {
    psArrayTables<Peek, Pop, Push, Shift, Unshift, Delete, Count, Clear, Append>::kInterface,
    {"ifArrayGet", kArrayGetFunctions, &kArrayGetMethods},
    {"ifArraySet", kArraySetFunctions, &kArraySetMethods},
    psEnumTables<Reset, Next, IsNext, IsEmpty>::kInterface,
};

void destroy(pscInstance* self) {
  psArray* me = arrayOf(self);
  releaseDetached(detachBlock(me));
  me->~psArray();
}

void enumRefs(pscInstance* self, void* arg, psRefCallback callback) {
  psArray* me = arrayOf(self);
  const psGuard guard(me->lock);
  for (int32_t i = 0; i <= me->tail; i++) {
    const psTypedValue& v = me->elements[i];
    if (psIs(v, kPsCountedFlags) && v.value.psc != nullptr) callback(arg, v.value.psc);
  }
}

void detachStrings(pscInstance* self) {
  psArray* me = arrayOf(self);
  const psGuard guard(me->lock);
  for (int32_t i = 0; i <= me->tail; i++) psDetachString(self->domain, &me->elements[i]);
}

}  // namespace

constinit pscClass clArray = [] {
  pscClass cl;
  cl.ln_Name = "koArray";
  cl.interfaces = kInterfaces;
  cl.init_des = &kConstructor;
  cl.instance_size = sizeof(psArray);
  cl.destroy = destroy;
  cl.enum_refs = enumRefs;
  cl.break_refs = Clear;
  cl.detach_strings = detachStrings;
  return cl;
}();

pscInstance* pscCreateArray(pscDomain* domain, int32_t capacity, bool resizable) {
  psAssertText(clArray.init_des == &kConstructor, "clArray.init_des->func_ptr == ArrayConstructor");
  pscInstance* instance = pscAllocateInstance(domain, &clArray);
  if (instance == nullptr || ArrayConstructor(instance, capacity, resizable)) return instance;
  pscDiscardInstance(instance);
  return nullptr;
}

void psArrayPush(psArray* array, psTypedValue value) {
  if (!push(array, value)) ReleaseValue(&value);
}

void psArraySetEntry(psArray* array, int32_t index, psTypedValue value) {
  setEntry(array, index, &value);
  ReleaseValue(&value);
}

void psDetachString(pscDomain* domain, psTypedValue* element) {
  if (!psIs(*element, kPsStringConstantFlag)) return;
  pscInstance* text = psNewString(domain, GetStringPtr(element));
  *element = text != nullptr ? psStringObjectValue(text) : psInvalidValue();
}
