// Each timer has a slot number. A heap of slots in due order says what runs next; a hash table from
// calls to slots says what to cancel. Timers that make the same call share one entry of the table:
// a group, which is a heap of its own, whose front is the one to cancel. A timer that is alone with
// its call, as nearly all are, needs no group.
//
// Heaps order by due time, then by a serial number that keeps equal times in the order of their
// addition, and note the place of every slot, so that a timer can be taken out of the middle.
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
constexpr GroupNumber kNoGroup = UINT32_MAX;

struct Timer {
  TimerCall call;
  uint64_t serial;
  GroupNumber group;  // kNoGroup for a timer that is alone with its call
};

// A min-heap of slots. The timers, whose serial numbers order equal due times, are its user's, and
// so is what tells where the heap notes the place of a slot.
class SlotHeap {
 public:
  struct Entry {
    int64_t due;
    Slot slot;
  };

  bool IsEmpty() const { return m_entries.empty(); }
  size_t Size() const { return m_entries.size(); }
  const Entry& Front() const { return m_entries.front(); }
  const Entry& At(size_t place) const { return m_entries[place]; }

  void Push(const Entry& entry, const std::vector<Timer>& timers, std::vector<uint32_t>* places) {
    m_entries.push_back(entry);
    Order{m_entries, timers, *places}.MoveUp(m_entries.size() - 1, entry);
  }

  void Remove(Slot slot, const std::vector<Timer>& timers, std::vector<uint32_t>* places) {
    const size_t place = (*places)[slot];
    const Entry last = m_entries.back();
    m_entries.pop_back();
    if (place == m_entries.size()) return;
    Order order{m_entries, timers, *places};
    if (place > 0 && order.IsBefore(last, m_entries[Order::Parent(place)])) {
      order.MoveUp(place, last);
    } else {
      order.MoveDown(place, last);
    }
  }

 private:
  struct Order {
    static constexpr size_t kArity = 8;

    std::vector<Entry>& entries;
    const std::vector<Timer>& timers;
    std::vector<uint32_t>& places;

    static size_t Parent(size_t place) { return (place - 1) / kArity; }

    bool IsBefore(const Entry& a, const Entry& b) const {
      return a.due != b.due ? a.due < b.due : timers[a.slot].serial < timers[b.slot].serial;
    }

    void Put(size_t place, const Entry& entry) {
      entries[place] = entry;
      places[entry.slot] = static_cast<uint32_t>(place);
    }

    void MoveUp(size_t place, const Entry entry) {
      while (place > 0 && IsBefore(entry, entries[Parent(place)])) {
        Put(place, entries[Parent(place)]);
        place = Parent(place);
      }
      Put(place, entry);
    }

    void MoveDown(size_t place, const Entry entry) {
      for (;;) {
        const size_t first = place * kArity + 1;
        if (first >= entries.size()) break;
        const size_t end = std::min(first + kArity, entries.size());
        size_t least = first;
        for (size_t child = first + 1; child < end; ++child) {
          if (IsBefore(entries[child], entries[least])) least = child;
        }
        if (!IsBefore(entries[least], entry)) break;
        Put(place, entries[least]);
        place = least;
      }
      Put(place, entry);
    }
  };

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
  SlotHeap queue;
  HolderTable table;
  uint64_t next_serial = 0;

  // By slot.
  std::vector<Timer> timers;
  std::vector<uint32_t> places;        // in the queue
  std::vector<uint32_t> group_places;  // in the heap of the timer's group
  std::vector<Slot> free_slots;

  std::vector<SlotHeap> groups;  // by number
  std::vector<GroupNumber> free_groups;

  // The first timer of those that are held.
  Slot First(Holder holder) const {
    return holder.is_group ? groups[holder.number].Front().slot : holder.number;
  }

  size_t Find(const TimerCall& call) const {
    return table.Find(HashOf(call),
                      [&](Holder holder) { return timers[First(holder)].call == call; });
  }

  Slot NewSlot(const TimerCall& call) {
    if (free_slots.empty()) {
      free_slots.push_back(static_cast<Slot>(timers.size()));
      timers.emplace_back();
      places.push_back(0);
      group_places.push_back(0);
    }
    const Slot slot = free_slots.back();
    free_slots.pop_back();
    timers[slot] = {call, next_serial++, kNoGroup};
    return slot;
  }

  void AddToGroup(GroupNumber group, const SlotHeap::Entry& timer) {
    groups[group].Push(timer, timers, &group_places);
    timers[timer.slot].group = group;
  }

  // The timer joins those with its call, at this index of the table.
  void Join(size_t index, const SlotHeap::Entry& timer) {
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
      AddToGroup(holder.number, queue.At(places[other]));
    }
    AddToGroup(holder.number, timer);
  }

  // The timer leaves its group, at this index of the table, which goes when one timer is left.
  void LeaveGroup(size_t index, GroupNumber number, Slot slot) {
    SlotHeap& group = groups[number];
    group.Remove(slot, timers, &group_places);
    if (group.Size() > 1) return;
    const Slot last = group.Front().slot;
    group.Remove(last, timers, &group_places);
    timers[last].group = kNoGroup;
    free_groups.push_back(number);
    table.Change(index, {last, false});
  }

  // The index of the table is that of the timer's call.
  void Remove(size_t index, Slot slot) {
    const GroupNumber group = timers[slot].group;
    if (group == kNoGroup) {
      table.Erase(index);
    } else {
      LeaveGroup(index, group, slot);
    }
    queue.Remove(slot, timers, &places);
    free_slots.push_back(slot);
  }
};

TimerQueue::TimerQueue() : m_impl(std::make_unique<Impl>()) {}

TimerQueue::~TimerQueue() = default;

void TimerQueue::Add(const TimerCall& call, int64_t due) {
  const size_t index = m_impl->Find(call);
  const SlotHeap::Entry timer = {due, m_impl->NewSlot(call)};
  if (index == m_impl->table.Size()) {
    m_impl->table.Add(HashOf(call), {timer.slot, false});
  } else {
    m_impl->Join(index, timer);
  }
  m_impl->queue.Push(timer, m_impl->timers, &m_impl->places);
}

void TimerQueue::Cancel(const TimerCall& call) {
  const size_t index = m_impl->Find(call);
  if (index == m_impl->table.Size()) return;
  m_impl->Remove(index, m_impl->First(m_impl->table.HolderAt(index)));
}

bool TimerQueue::IsEmpty() const { return m_impl->queue.IsEmpty(); }

size_t TimerQueue::Size() const { return m_impl->queue.Size(); }

int64_t TimerQueue::NextDue() const { return m_impl->queue.Front().due; }

TimerCall TimerQueue::TakeFirst() {
  const Slot slot = m_impl->queue.Front().slot;
  const TimerCall call = m_impl->timers[slot].call;
  m_impl->Remove(m_impl->Find(call), slot);
  return call;
}
