// Each timer has a slot number. A heap of slots in due order says what runs next; a hash table from
// calls to slots, with the chains through the slots, says what to cancel. Of timers that make the
// same call only one is in the table: a group, which is a heap of its own, and its front is in the
// table, as the one to cancel. A timer that is alone with its call, as nearly all are, needs no
// group.
//
// Heaps order by due time, then by a serial number that keeps equal times in the order of their
// addition. The serial number of a slot's timer tells too whether a heap's entry is that timer's or
// one's that is gone: a cancelled timer stays in the queue until it comes to the front, or until
// three quarters of the queue are such. Taking it out of the middle would touch memory at random
// for every timer that is armed anew, as most are; the front of the queue is always a pending
// timer.
//
// The cost with many timers is the cost of cache misses. So to find a timer costs one, in the cache
// line that holds its call and its place in the chain: the table's heads and the serial numbers lie
// in small arrays of their own. The heaps are flat, with eight children in neighbouring cache
// lines.
#include "lib/platform/timer_queue.h"

#include <algorithm>
#include <array>
#include <bit>
#include <utility>
#include <vector>

namespace {

using Slot = uint32_t;
using GroupNumber = uint32_t;

// A min-heap of timers.
class TimerHeap {
 public:
  struct Entry {
    int64_t due;
    uint64_t serial;
    Slot slot;

    bool IsBefore(const Entry& other) const {
      return due != other.due ? due < other.due : serial < other.serial;
    }
  };

  bool IsEmpty() const { return m_entries.empty(); }
  size_t Size() const { return m_entries.size(); }
  const Entry& Front() const { return m_entries.front(); }

  void Push(const Entry& entry) {
    size_t place = m_entries.size();
    m_entries.push_back(entry);
    while (place > 0 && entry.IsBefore(m_entries[Parent(place)])) {
      m_entries[place] = m_entries[Parent(place)];
      place = Parent(place);
    }
    m_entries[place] = entry;
  }

  void Pop() {
    const Entry last = m_entries.back();
    m_entries.pop_back();
    if (!m_entries.empty()) MoveDown(0, last);
  }

  template <typename IsGone>
  void EraseIf(IsGone is_gone) {
    if (std::erase_if(m_entries, is_gone) == 0 || m_entries.size() < 2) return;
    for (size_t place = Parent(m_entries.size() - 1) + 1; place-- > 0;) {
      MoveDown(place, Entry(m_entries[place]));
    }
  }

 private:
  static constexpr size_t kArity = 8;

  static size_t Parent(size_t place) { return (place - 1) / kArity; }

  void MoveDown(size_t place, const Entry& entry) {
    for (;;) {
      const size_t first = place * kArity + 1;
      if (first >= m_entries.size()) break;
      const size_t end = std::min(first + kArity, m_entries.size());
      size_t least = first;
      for (size_t child = first + 1; child < end; ++child) {
        if (m_entries[child].IsBefore(m_entries[least])) least = child;
      }
      if (!m_entries[least].IsBefore(entry)) break;
      m_entries[place] = m_entries[least];
      place = least;
    }
    m_entries[place] = entry;
  }

  std::vector<Entry> m_entries;
};

uint32_t HashOf(const TimerCall& call) {
  // Equal method pointers are equal words: both the address or slot and the adjustment count.
  const auto method = std::bit_cast<std::array<uintptr_t, 2>>(call.method);
  uint64_t hash = 0;
  for (uintptr_t word : {reinterpret_cast<uintptr_t>(call.target), method[0], method[1],
                         reinterpret_cast<uintptr_t>(call.argument)}) {
    // Addresses differ in few bits; the multiplication spreads them, the rotation keeps the order.
    hash = std::rotl(hash ^ word, 23) * 0x9E3779B97F4A7C15u;
  }
  return static_cast<uint32_t>(hash >> 32);
}

}  // namespace

struct TimerQueue::Impl {
  // Below this, entries of timers that are gone are not worth a look at all others.
  static constexpr size_t kSmallQueue = 64;
  static constexpr size_t kFirstHeads = 64;
  static constexpr uint64_t kFree = UINT64_MAX;
  static constexpr Slot kEnd = UINT32_MAX;
  static constexpr GroupNumber kNoGroup = UINT32_MAX;

  // One cache line.
  struct alignas(64) Timer {
    TimerCall call;
    int64_t due;
    Slot next;          // in the chain, of the one that is in the table
    GroupNumber group;  // of the one that is in the table; kNoGroup when it is alone with its call
  };
  static_assert(sizeof(Timer) == 64);

  TimerHeap queue;
  size_t gone = 0;  // entries of the queue whose timer is gone
  uint64_t next_serial = 0;

  // By slot.
  std::vector<Timer> timers;
  std::vector<uint64_t> serials;  // kFree without a timer
  std::vector<Slot> free_slots;

  std::vector<Slot> heads = std::vector<Slot>(kFirstHeads, kEnd);  // a power of two, by hash
  size_t chained = 0;

  std::vector<TimerHeap> groups;  // by number; none holds timers that are gone
  std::vector<GroupNumber> free_groups;

  Slot* Head(const TimerCall& call) { return &heads[HashOf(call) & (heads.size() - 1)]; }

  // What leads to the timer in the table that makes the call; kEnd is there when none does.
  Slot* Find(const TimerCall& call) {
    Slot* link = Head(call);
    while (*link != kEnd && timers[*link].call != call) link = &timers[*link].next;
    return link;
  }

  void Chain(Slot slot, Slot* link) {
    timers[slot].next = *link;
    *link = slot;
    if (++chained > heads.size() / 2) GrowHeads();
  }

  void GrowHeads() {
    std::vector<Slot> old(heads.size() * 2, kEnd);
    old.swap(heads);
    for (Slot slot : old) {
      while (slot != kEnd) {
        Slot* head = Head(timers[slot].call);
        const Slot next = std::exchange(timers[slot].next, *head);
        *head = slot;
        slot = next;
      }
    }
  }

  Slot NewSlot(const TimerCall& call, int64_t due) {
    if (free_slots.empty()) {
      free_slots.push_back(static_cast<Slot>(timers.size()));
      timers.emplace_back();
      serials.push_back(kFree);
    }
    const Slot slot = free_slots.back();
    free_slots.pop_back();
    timers[slot] = {call, due, kEnd, kNoGroup};
    serials[slot] = next_serial++;
    return slot;
  }

  TimerHeap::Entry EntryOf(Slot slot) const { return {timers[slot].due, serials[slot], slot}; }

  // Another timer of the group takes the place in the table that the link leads to.
  void Represent(Slot* link, GroupNumber group) {
    const Slot before = *link;
    const Slot first = groups[group].Front().slot;
    timers[first].group = group;
    if (first == before) return;
    timers[first].next = timers[before].next;
    *link = first;
  }

  // The timer joins those with its call.
  void Join(Slot* link, Slot slot) {
    GroupNumber group = timers[*link].group;
    if (group == kNoGroup) {
      if (free_groups.empty()) {
        free_groups.push_back(static_cast<GroupNumber>(groups.size()));
        groups.emplace_back();
      }
      group = free_groups.back();
      free_groups.pop_back();
      groups[group].Push(EntryOf(*link));
    }
    groups[group].Push(EntryOf(slot));
    Represent(link, group);
  }

  // The timer in the table that the link leads to is gone.
  void RemoveFirst(Slot* link) {
    const Slot slot = *link;
    const GroupNumber group = timers[slot].group;
    if (group == kNoGroup) {
      *link = timers[slot].next;
      --chained;
    } else {
      groups[group].Pop();
      Represent(link, group);
      if (groups[group].Size() == 1) {
        groups[group].Pop();
        free_groups.push_back(group);
        timers[*link].group = kNoGroup;
      }
    }
    serials[slot] = kFree;
    free_slots.push_back(slot);
    ++gone;
    ClearFront();
  }

  bool IsGone(const TimerHeap::Entry& entry) const { return serials[entry.slot] != entry.serial; }

  void ClearFront() {
    while (!queue.IsEmpty() && IsGone(queue.Front())) {
      queue.Pop();
      --gone;
    }
    if (queue.Size() < kSmallQueue || gone * 4 < queue.Size() * 3) return;
    queue.EraseIf([this](const TimerHeap::Entry& entry) { return IsGone(entry); });
    gone = 0;
  }
};

TimerQueue::TimerQueue() : m_impl(std::make_unique<Impl>()) {}

TimerQueue::~TimerQueue() = default;

void TimerQueue::Add(const TimerCall& call, int64_t due) {
  const Slot slot = m_impl->NewSlot(call, due);
  m_impl->queue.Push(m_impl->EntryOf(slot));
  Slot* link = m_impl->Find(call);
  if (*link == Impl::kEnd) {
    m_impl->Chain(slot, m_impl->Head(call));
  } else {
    m_impl->Join(link, slot);
  }
}

void TimerQueue::Cancel(const TimerCall& call) {
  Slot* link = m_impl->Find(call);
  if (*link != Impl::kEnd) m_impl->RemoveFirst(link);
}

bool TimerQueue::IsEmpty() const { return m_impl->queue.IsEmpty(); }

size_t TimerQueue::Size() const { return m_impl->queue.Size() - m_impl->gone; }

int64_t TimerQueue::NextDue() const { return m_impl->queue.Front().due; }

TimerCall TimerQueue::TakeFirst() {
  // The first of all is also the first of those that make its call.
  const TimerCall call = m_impl->timers[m_impl->queue.Front().slot].call;
  m_impl->RemoveFirst(m_impl->Find(call));
  return call;
}
