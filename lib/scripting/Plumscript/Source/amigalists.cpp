// Intrusive lists; see the header for the trick that makes the header both sentinels.
#include "amigalists.h"

#include <strings.h>

#include <cstring>

#include "ps_assert.h"

namespace {

template <class Compare>
psNamedNode* findNamed(const psList* list, const char* name, Compare compare) {
  psAssert(list);
  for (psNode* node = list->lh_Head; node->ln_Succ != nullptr; node = node->ln_Succ) {
    auto* named = static_cast<psNamedNode*>(node);
    if (named->ln_Name != nullptr && compare(named->ln_Name, name) == 0) return named;
  }
  return nullptr;
}

}  // namespace

void NewList(psList* list) {
  list->lh_Head = reinterpret_cast<psNode*>(&list->lh_Tail);
  list->lh_Tail = nullptr;
  list->lh_TailPred = reinterpret_cast<psNode*>(&list->lh_Head);
}

void AddHead(psList* list, psNode* node) {
  psAssert(list);
  psAssert(node);
  node->ln_Succ = list->lh_Head;
  node->ln_Pred = reinterpret_cast<psNode*>(&list->lh_Head);
  psAssert(node->ln_Succ != node);
  list->lh_Head->ln_Pred = node;
  list->lh_Head = node;
}

void AddTail(psList* list, psNode* node) {
  psAssert(list);
  psAssert(node);
  node->ln_Succ = reinterpret_cast<psNode*>(&list->lh_Tail);
  node->ln_Pred = list->lh_TailPred;
  psAssert(node->ln_Pred != node);
  list->lh_TailPred->ln_Succ = node;
  list->lh_TailPred = node;
}

void Remove(psNode* node) {
  psAssert(node);
  node->ln_Pred->ln_Succ = node->ln_Succ;
  node->ln_Succ->ln_Pred = node->ln_Pred;
}

psNode* RemHead(psList* list) {
  psAssert(list);
  if (list->empty()) return nullptr;
  psNode* node = list->lh_Head;
  Remove(node);
  return node;
}

psNode* RemTail(psList* list) {
  psAssert(list);
  if (list->empty()) return nullptr;
  psNode* node = list->lh_TailPred;
  Remove(node);
  return node;
}

psNamedNode* FindName(const psList* list, const char* name) {
  return findNamed(list, name, [](const char* a, const char* b) { return std::strcmp(a, b); });
}

psNamedNode* FindNameNoCase(const psList* list, const char* name) {
  return findNamed(list, name, [](const char* a, const char* b) { return strcasecmp(a, b); });
}

psNode* GetNodeByIndex(const psList* list, int n) {
  psAssert(list);
  if (n < 0) return nullptr;
  for (psNode* node = list->lh_Head; node->ln_Succ != nullptr; node = node->ln_Succ) {
    if (n-- == 0) return node;
  }
  return nullptr;
}
