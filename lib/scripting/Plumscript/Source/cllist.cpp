// koList.
//
// The nodes hang on an intrusive list, so both ends cost the same; a counter beside it answers
// Count. Two places inside the list are remembered: the cursor, which positional access moves, and
// the enumeration node. Invariant: both are null or point at a linked node, so every removal moves
// them first. Positional access goes forward from the cursor when it stands at or before the index
// wanted, and otherwise restarts from the head.
//
// Values are released after the lock has been let go of: releasing the last reference of an object
// runs its destructor, which may want other locks.
#include "cllist.h"

#include <new>

#include "container_tables.h"
#include "containers.h"
#include "ps_heap.h"
#include "ps_native.h"

namespace {

psValueList* listOf(pscInstance* self) { return pscData<psValueList>(self); }

psListNode* real(psNode* node) {
  return node->ln_Succ != nullptr ? static_cast<psListNode*>(node) : nullptr;
}
psListNode* first(psValueList* me) { return real(me->nodes.lh_Head); }
psListNode* last(psValueList* me) {
  return me->count > 0 ? static_cast<psListNode*>(me->nodes.lh_TailPred) : nullptr;
}
psListNode* after(psListNode* node) { return real(node->ln_Succ); }

void unsetCursor(psValueList* me) {
  me->cursor = nullptr;
  me->cursor_index = -1;
}

// A node with the value, counted but not linked yet; null when the list has no room for it.
psListNode* newNode(psValueList* me, const psTypedValue& value) {
  if (me->count == INT32_MAX) return nullptr;
  auto* node = static_cast<psListNode*>(psAlloc(sizeof(psListNode)));
  if (node == nullptr) return nullptr;
  psCopyRaw(&node->value, value);
  me->count++;
  return node;
}

bool append(psValueList* me, const psTypedValue& value) {
  psListNode* node = newNode(me, value);
  if (node == nullptr) return false;
  AddTail(&me->nodes, node);
  unsetCursor(me);
  return true;
}

bool prepend(psValueList* me, const psTypedValue& value) {
  psListNode* node = newNode(me, value);
  if (node == nullptr) return false;
  AddHead(&me->nodes, node);
  unsetCursor(me);
  return true;
}

// Unlinks a node (the caller sees to the cursor) and hands its value over.
psTypedValue take(psValueList* me, psListNode* node) {
  if (me->enum_node == node) me->enum_node = after(node);
  Remove(node);
  me->count--;
  const psTypedValue value = node->value;
  psFree(node, sizeof *node);
  return value;
}

psTypedValue takeEnd(psValueList* me, psListNode* node) {
  unsetCursor(me);
  return node != nullptr ? take(me, node) : psInvalidValue();
}

psTypedValue takeAtCursor(psValueList* me) {
  psListNode* node = me->cursor;
  if (node == nullptr) return psInvalidValue();
  me->cursor = after(node);
  if (me->cursor == nullptr) me->cursor_index = -1;
  return take(me, node);
}

// Moves the cursor to an index; null (and the cursor unset) when the list has no such index.
psListNode* position(psValueList* me, int32_t index) {
  if (index < 0) return nullptr;
  if (index >= me->count) {
    unsetCursor(me);
    return nullptr;
  }
  if (me->cursor == nullptr || me->cursor_index > index) {
    // The last element is one step away from the other end.
    const bool at_end = index == me->count - 1;
    me->cursor = at_end ? last(me) : first(me);
    me->cursor_index = at_end ? index : 0;
  }
  while (me->cursor_index < index) {
    me->cursor = after(me->cursor);
    me->cursor_index++;
  }
  psAssertText(me->cursor_index == index, "me->int_index==index");
  return me->cursor;
}

// Appends Invalid values until the index exists; all of them or, when memory is refused, none.
bool extendTo(psValueList* me, int32_t index) {
  const int64_t num_invalids = static_cast<int64_t>(index) + 1 - me->count;
  psAssertText(num_invalids >= 0, "num_invalids>=0");
  // A script that names an absurd index is refused before the machine has filled its memory with
  // nodes: what cannot be had in one block is not there for so many nodes either.
  constexpr int64_t kProbeFrom = 1 << 16;
  if (num_invalids >= kProbeFrom) {
    const size_t bytes = static_cast<size_t>(num_invalids) * sizeof(psListNode);
    void* probe = psAlloc(bytes);
    if (probe == nullptr) return false;
    psFree(probe, bytes);
  }
  for (int64_t i = 0; i < num_invalids; i++) {
    if (append(me, psInvalidValue())) continue;
    while (i-- > 0) take(me, last(me));
    return false;
  }
  return true;
}

// Takes all nodes off; the caller frees the chain, which ends with null.
psNode* detachAll(psValueList* me) {
  psNode* chain = nullptr;
  if (me->count > 0) {
    chain = me->nodes.lh_Head;
    me->nodes.lh_TailPred->ln_Succ = nullptr;
  }
  NewList(&me->nodes);
  me->count = 0;
  me->enum_node = nullptr;
  unsetCursor(me);
  return chain;
}

void freeChain(psNode* chain) {
  while (chain != nullptr) {
    auto* node = static_cast<psListNode*>(chain);
    chain = chain->ln_Succ;
    ReleaseValue(&node->value);
    psFree(node, sizeof *node);
  }
}

psTypedValue copyOf(psListNode* node) {
  return node != nullptr ? psCopyValue(node->value) : psInvalidValue();
}

// --- ifList, and what ifArray shares with it --------------------------------------------------

psTypedValue GetHead(pscInstance* self) {
  psValueList* me = listOf(self);
  const psGuard guard(me->lock);
  return copyOf(first(me));
}

psTypedValue GetTail(pscInstance* self) {
  psValueList* me = listOf(self);
  const psGuard guard(me->lock);
  return copyOf(last(me));
}

psTypedValue RemoveHead(pscInstance* self) {
  psValueList* me = listOf(self);
  const psGuard guard(me->lock);
  return takeEnd(me, first(me));
}

psTypedValue RemoveTail(pscInstance* self) {
  psValueList* me = listOf(self);
  const psGuard guard(me->lock);
  return takeEnd(me, last(me));
}

psTypedValue GetIndex(pscInstance* self) {
  psValueList* me = listOf(self);
  const psGuard guard(me->lock);
  if (me->cursor == nullptr) return psInvalidValue();
  const psTypedValue value = copyOf(me->cursor);
  me->cursor = after(me->cursor);
  me->cursor_index = me->cursor != nullptr ? me->cursor_index + 1 : -1;
  return value;
}

psTypedValue RemoveIndex(pscInstance* self) {
  psValueList* me = listOf(self);
  const psGuard guard(me->lock);
  return takeAtCursor(me);
}

void AddHead(pscInstance* self, psTypedValue value) {
  psValueList* me = listOf(self);
  {
    const psGuard guard(me->lock);
    if (prepend(me, value)) return;
  }
  ReleaseValue(&value);
}

void AddTail(pscInstance* self, psTypedValue value) {
  if (!psListTryAddTail(self, value)) ReleaseValue(&value);
}

bool ResetIndex(pscInstance* self) {
  psValueList* me = listOf(self);
  const psGuard guard(me->lock);
  me->cursor = first(me);
  me->cursor_index = me->cursor != nullptr ? 0 : -1;
  return me->cursor != nullptr;
}

int32_t Count(pscInstance* self) {
  psValueList* me = listOf(self);
  const psGuard guard(me->lock);
  return me->count;
}

void Clear(pscInstance* self) {
  psValueList* me = listOf(self);
  psNode* chain;
  {
    const psGuard guard(me->lock);
    chain = detachAll(me);
  }
  freeChain(chain);
}

// --- ifArray, ifArrayGet, ifArraySet ----------------------------------------------------------

bool Delete(pscInstance* self, int32_t index) {
  psValueList* me = listOf(self);
  psTypedValue removed;
  {
    const psGuard guard(me->lock);
    if (position(me, index) == nullptr) return false;
    removed = takeAtCursor(me);
  }
  ReleaseValue(&removed);
  return true;
}

void Append(pscInstance* self, pscInstance* other) {
  if (other == nullptr || other == self || other->psc_class != &clList) return;
  // The other list is copied under its own lock first: holding both would deadlock with a thread
  // that appends the other way round.
  psValueList copy{};
  unsetCursor(&copy);
  {
    psValueList* from = listOf(other);
    const psGuard guard(from->lock);
    for (psListNode* node = first(from); node != nullptr; node = after(node)) {
      if (!append(&copy, node->value)) break;
      psRetainValue(&node->value);
    }
  }
  psValueList* me = listOf(self);
  {
    const psGuard guard(me->lock);
    while (copy.count > 0 && me->count < INT32_MAX) {
      psNode* node = copy.nodes.lh_Head;
      Remove(node);
      copy.count--;
      AddTail(&me->nodes, node);
      me->count++;
      unsetCursor(me);
    }
  }
  freeChain(detachAll(&copy));
}

psTypedValue GetEntry(pscInstance* self, int32_t index) {
  psValueList* me = listOf(self);
  const psGuard guard(me->lock);
  return copyOf(position(me, index));
}

void SetEntry(pscInstance* self, int32_t index, psTypedValue value) {
  psValueList* me = listOf(self);
  {
    const psGuard guard(me->lock);
    if (index >= 0 && (index < me->count || extendTo(me, index))) {
      std::swap(position(me, index)->value, value);
    }
  }
  ReleaseValue(&value);  // what the list held before, or what it could not take
}

// --- ifEnum -----------------------------------------------------------------------------------

void Reset(pscInstance* self) {
  psValueList* me = listOf(self);
  const psGuard guard(me->lock);
  me->enum_node = first(me);
}

psTypedValue Next(pscInstance* self) {
  psValueList* me = listOf(self);
  const psGuard guard(me->lock);
  psListNode* node = me->enum_node;
  if (node == nullptr) return psInvalidValue();
  me->enum_node = after(node);
  return copyOf(node);
}

bool IsNext(pscInstance* self) {
  psValueList* me = listOf(self);
  const psGuard guard(me->lock);
  return me->enum_node != nullptr;
}

bool IsEmpty(pscInstance* self) {
  psValueList* me = listOf(self);
  const psGuard guard(me->lock);
  return me->count == 0;
}

// --- The class --------------------------------------------------------------------------------

constexpr fundes kListFunctions[] = {
    psMethod<GetHead>("GetHead"),       psMethod<GetTail>("GetTail"),
    psMethod<RemoveHead>("RemoveHead"), psMethod<RemoveTail>("RemoveTail"),
    psMethod<GetIndex>("GetIndex"),     psMethod<RemoveIndex>("RemoveIndex"),
    psMethod<AddHead>("AddHead"),       psMethod<AddTail>("AddTail"),
    psMethod<ResetIndex>("ResetIndex"), psMethod<Count>("Count"),
    psMethod<Clear>("Clear"),           {},
};
constexpr fundes kArrayGetFunctions[] = {psMethod<GetEntry>("GetEntry"), {}};
constexpr fundes kArraySetFunctions[] = {psMethod<SetEntry>("SetEntry"), {}};

constexpr psIfList kListMethods = {GetHead, GetTail, RemoveHead, RemoveTail, AddHead, AddTail};
constexpr psIfArrayGet kArrayGetMethods = {GetEntry};
constexpr psIfArraySet kArraySetMethods = {SetEntry};

constexpr psInterface kInterfaces[] = {
    {"ifList", kListFunctions, &kListMethods},
    psEnumTables<Reset, Next, IsNext, IsEmpty>::kInterface,
    psArrayTables<GetTail, RemoveTail, AddTail, RemoveHead, AddHead, Delete, Count, Clear,
                  Append>::kInterface,
    {"ifArrayGet", kArrayGetFunctions, &kArrayGetMethods},
    {"ifArraySet", kArraySetFunctions, &kArraySetMethods},
};

bool init(pscInstance* self) {
  unsetCursor(new (listOf(self)) psValueList{});
  return true;
}

void destroy(pscInstance* self) {
  psValueList* me = listOf(self);
  freeChain(detachAll(me));
  me->~psValueList();
}

void enumRefs(pscInstance* self, void* arg, psRefCallback callback) {
  psValueList* me = listOf(self);
  const psGuard guard(me->lock);
  for (psListNode* node = first(me); node != nullptr; node = after(node)) {
    if (psIs(node->value, kPsCountedFlags) && node->value.value.psc != nullptr) {
      callback(arg, node->value.value.psc);
    }
  }
}

void detachStrings(pscInstance* self) {
  psValueList* me = listOf(self);
  const psGuard guard(me->lock);
  for (psListNode* node = first(me); node != nullptr; node = after(node)) {
    psDetachString(self->domain, &node->value);
  }
}

}  // namespace

constinit pscClass clList = [] {
  pscClass cl;
  cl.ln_Name = "koList";
  cl.interfaces = kInterfaces;
  cl.instance_size = sizeof(psValueList);
  cl.init = init;
  cl.destroy = destroy;
  cl.enum_refs = enumRefs;
  cl.break_refs = Clear;
  cl.detach_strings = detachStrings;
  return cl;
}();

pscInstance* psNewList(pscDomain* domain) { return pscNewComponentByClass(domain, &clList); }

void psListAddTail(pscInstance* list, psTypedValue value) { AddTail(list, value); }

bool psListTryAddTail(pscInstance* list, psTypedValue value) {
  psValueList* me = listOf(list);
  const psGuard guard(me->lock);
  return append(me, value);
}

int32_t psListCount(pscInstance* list) { return Count(list); }
