// Each timer has a slot number. A heap of slots in due order says what runs next; a hash table from
// calls to slots says what to cancel. Timers that make the same call share one entry of the table:
// a group, which is a heap of its own, whose front is the one to cancel. A timer that is alone with
// its call, as nearly all are, needs no group.
//
// Heaps order by due time, then by a serial number that keeps equal times in the order of their
// addition. The serial number of a slot's timer tells too whether a heap's entry is that timer's or
// one's that is gone: a cancelled timer stays in the queue until it comes to the front, or until
// half of the queue is such. Taking it out of the middle would touch memory at random for every
// timer that is armed anew, as most are; the front of the queue is always a pending timer.
//
// The cost with many timers is the cost of cache misses. So there are no nodes: everything lies in
// arrays, by slot number where it belongs to one timer; the heaps are flat, with eight children
// in neighbouring cache lines; and the table compares hashes before it looks at a call.
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

// What the timers with one call are: a single slot or a group.
struct Holder {
  uint32_t number;
  bool is_group;
};

// A hash table of holders: open addressing, linear probing, at most three quarters full. It keeps
// the hashes but not the calls, which its user compares.
class HolderTable {
 public:
  HolderTable() : m_entries(kFirstSize) {}

  // The index of the entry with this hash whose holder is the one meant; Size() when there is none.
  template <typename IsMeant>
  size_t Find(uint32_t hash, IsMeant is_meant) const {
    for (size_t i = hash & Mask();; i = (i + 1) & Mask()) {
      const Entry& entry = m_entries[i];
      if (!entry.is_used) return Size();
      if (entry.hash == hash && is_meant(HolderAt(i))) return i;
    }
  }
  size_t Size() const { return m_entries.size(); }

  Holder HolderAt(size_t index) const {
    return {m_entries[index].number, m_entries[index].is_group != 0};
  }
  void Change(size_t index, Holder holder) {
    m_entries[index].number = holder.number;
    m_entries[index].is_group = holder.is_group;
  }

  void Add(uint32_t hash, Holder holder) {
    if (++m_used * 4 > Size() * 3) Grow();
    Entry entry{};
    entry.hash = hash;
    entry.number = holder.number;
    entry.is_group = holder.is_group;
    entry.is_used = true;
    Insert(entry);
  }

  // Moves back what follows and would not be found over the gap.
  void Erase(size_t index) {
    --m_used;
    size_t gap = index;
    for (size_t i = (gap + 1) & Mask(); m_entries[i].is_used; i = (i + 1) & Mask()) {
      const size_t home = m_entries[i].hash & Mask();
      if (((i - home) & Mask()) < ((i - gap) & Mask())) continue;
      m_entries[gap] = m_entries[i];
      gap = i;
    }
    m_entries[gap].is_used = false;
  }

 private:
  static constexpr size_t kFirstSize = 64;

  struct Entry {
    uint32_t hash;
    uint32_t number : 30;
    uint32_t is_group : 1;
    uint32_t is_used : 1;
  };

  size_t Mask() const { return m_entries.size() - 1; }

  void Insert(const Entry& entry) {
    size_t i = entry.hash & Mask();
    while (m_entries[i].is_used) i = (i + 1) & Mask();
    m_entries[i] = entry;
  }

  void Grow() {
    std::vector<Entry> old(m_entries.size() * 2);
    old.swap(m_entries);
    for (const Entry& entry : old) {
      if (entry.is_used) Insert(entry);
    }
  }

  std::vector<Entry> m_entries;  // the size is a power of two
  size_t m_used = 0;
};

}  // namespace

struct TimerQueue::Impl {
  // Below this, entries of timers that are gone are not worth a look at all others.
  static constexpr size_t kSmallQueue = 64;
  static constexpr uint64_t kFree = UINT64_MAX;

  TimerHeap queue;
  size_t gone = 0;  // entries of the queue whose timer is gone
  HolderTable table;
  uint64_t next_serial = 0;

  // Half a cache line, and never parts of two.
  struct alignas(32) SlotCall {
    TimerCall call;
  };
  static_assert(sizeof(SlotCall) == 32);

  // By slot.
  std::vector<SlotCall> calls;
  struct Pending {
    uint64_t serial;  // kFree without a timer
    int64_t due;
  };
  std::vector<Pending> pending;
  std::vector<Slot> free_slots;

  std::vector<TimerHeap> groups;  // by number; none holds timers that are gone
  std::vector<GroupNumber> free_groups;

  // The first timer of those that are held.
  Slot First(Holder holder) const {
    return holder.is_group ? groups[holder.number].Front().slot : holder.number;
  }

  size_t Find(const TimerCall& call, uint32_t hash) const {
    return table.Find(hash, [&](Holder holder) { return calls[First(holder)].call == call; });
  }

  Slot NewSlot(const TimerCall& call, int64_t due) {
    if (free_slots.empty()) {
      free_slots.push_back(static_cast<Slot>(calls.size()));
      calls.emplace_back();
      pending.push_back({kFree, 0});
    }
    const Slot slot = free_slots.back();
    free_slots.pop_back();
    calls[slot].call = call;
    pending[slot] = {next_serial++, due};
    return slot;
  }

  // The timer joins those with its call, at this index of the table.
  void Join(size_t index, const TimerHeap::Entry& timer) {
    Holder holder = table.HolderAt(index);
    if (!holder.is_group) {
      if (free_groups.empty()) {
        free_groups.push_back(static_cast<GroupNumber>(groups.size()));
        groups.emplace_back();
      }
      const Slot other = holder.number;
      holder = {free_groups.back(), true};
      free_groups.pop_back();
      table.Change(index, holder);
      groups[holder.number].Push({pending[other].due, pending[other].serial, other});
    }
    groups[holder.number].Push(timer);
  }

  // The first timer of those with a call, at this index of the table, is gone.
  void RemoveFirst(size_t index) {
    const Holder holder = table.HolderAt(index);
    const Slot slot = First(holder);
    if (!holder.is_group) {
      table.Erase(index);
    } else {
      TimerHeap& group = groups[holder.number];
      group.Pop();
      if (group.Size() == 1) {
        table.Change(index, {group.Front().slot, false});
        group.Pop();
        free_groups.push_back(holder.number);
      }
    }
    pending[slot].serial = kFree;
    free_slots.push_back(slot);
    ++gone;
  }

  bool IsGone(const TimerHeap::Entry& entry) const {
    return pending[entry.slot].serial != entry.serial;
  }

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
  const uint32_t hash = HashOf(call);
  const size_t index = m_impl->Find(call, hash);
  const Slot slot = m_impl->NewSlot(call, due);
  const TimerHeap::Entry timer = {due, m_impl->pending[slot].serial, slot};
  if (index == m_impl->table.Size()) {
    m_impl->table.Add(hash, {slot, false});
  } else {
    m_impl->Join(index, timer);
  }
  m_impl->queue.Push(timer);
}

void TimerQueue::Cancel(const TimerCall& call) {
  const size_t index = m_impl->Find(call, HashOf(call));
  if (index == m_impl->table.Size()) return;
  m_impl->RemoveFirst(index);
  m_impl->ClearFront();
}

bool TimerQueue::IsEmpty() const { return m_impl->queue.IsEmpty(); }

size_t TimerQueue::Size() const { return m_impl->queue.Size() - m_impl->gone; }

int64_t TimerQueue::NextDue() const { return m_impl->queue.Front().due; }

TimerCall TimerQueue::TakeFirst() {
  // The first of all is also the first of those that make its call.
  const TimerCall call = m_impl->calls[m_impl->queue.Front().slot].call;
  m_impl->RemoveFirst(m_impl->Find(call, HashOf(call)));
  m_impl->ClearFront();
  return call;
}
