// koList: a doubly linked list of values with a cursor.
#pragma once

#include "psc.h"

struct psListNode : psNode {
  psTypedValue value;
};
static_assert(sizeof(psListNode) == 32);

// The private data of a koList. Scripts walk lists by index as they do arrays; the cursor makes
// such a walk cost one step an element.
struct psValueList {
  psList nodes;
  psListNode* cursor;    // null when unset
  int32_t cursor_index;  // position of the cursor, -1 when unset
  int32_t count;
  psListNode* enum_node;  // the node Next gives; null at the end
  psRecursiveLock lock;
};

// A koList with one reference, or null when memory is refused.
pscInstance* psNewList(pscDomain* domain);
// Appends; takes the value over, and drops it when memory is refused. Takes the list's lock.
void psListAddTail(pscInstance* list, psTypedValue value);
// The same, but false, and the value stays the caller's, when memory is refused.
bool psListTryAddTail(pscInstance* list, psTypedValue value);
int32_t psListCount(pscInstance* list);
