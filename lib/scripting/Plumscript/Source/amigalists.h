// Intrusive doubly linked lists.
//
// The header is head sentinel and tail sentinel at once: lh_Head and lh_Tail overlay a node whose
// predecessor is null, lh_Tail and lh_TailPred overlay one whose successor is null. An empty list
// therefore needs no special case anywhere: lh_Head points at lh_Tail, lh_TailPred at the header.
// Iteration stops at the node whose ln_Succ is null, which is never a real node.
#pragma once

#include <cstddef>

struct psNode {
  psNode* ln_Succ = nullptr;
  psNode* ln_Pred = nullptr;
};

struct psNamedNode : psNode {
  const char* ln_Name = nullptr;
};

struct psList {
  psNode* lh_Head = reinterpret_cast<psNode*>(&lh_Tail);
  psNode* lh_Tail = nullptr;  // always null
  psNode* lh_TailPred = reinterpret_cast<psNode*>(&lh_Head);

  psList() = default;
  psList(const psList&) = delete;
  psList& operator=(const psList&) = delete;
  bool empty() const { return lh_TailPred == reinterpret_cast<const psNode*>(&lh_Head); }
};

// Makes a list empty without touching its nodes.
void NewList(psList* list);
void AddHead(psList* list, psNode* node);
void AddTail(psList* list, psNode* node);
void Remove(psNode* node);
// The removed node, or null when the list is empty.
psNode* RemHead(psList* list);
psNode* RemTail(psList* list);
// The first node with that name, or null; nodes without a name are passed over. NoCase ignores
// ASCII case.
psNamedNode* FindName(const psList* list, const char* name);
psNamedNode* FindNameNoCase(const psList* list, const char* name);
// The n-th node from the head (0-based), or null.
psNode* GetNodeByIndex(const psList* list, int n);
