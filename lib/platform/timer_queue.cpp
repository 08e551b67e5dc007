// Each timer lies in two heaps: the one of all timers, whose front runs next, and the one of the
// timers that make the same call, whose front is the one to cancel. A hash table finds the second
// heap. Both heaps order by due time, then by a serial number that keeps equal times in the order
// of their addition, and each timer knows its places, so it can be taken out of the middle.
//
// Heaps rather than balanced trees: with 100,000 timers a tree misses the cache at every level,
// while a heap of arity four keeps its comparisons in a few consecutive lines.
#include "lib/platform/timer_queue.h"

#include <array>
#include <bit>
#include <unordered_map>
#include <vector>

namespace {

struct Timer {
  TimerCall call;
  size_t queue_place;  // index in the heap of all timers
  size_t group_place;  // index in the heap of the timers with this call
};

// A min-heap of timers it does not own. Place is the member in which a timer keeps its index here.
template <size_t Timer::*Place>
class TimerHeap {
 public:
  struct Entry {
    int64_t due;
    uint64_t serial;
    Timer* timer;

    bool operator<(const Entry& other) const {
      return due != other.due ? due < other.due : serial < other.serial;
    }
  };

  bool IsEmpty() const { return m_entries.empty(); }
  size_t Size() const { return m_entries.size(); }
  const Entry& Front() const { return m_entries.front(); }

  void Push(const Entry& entry) {
    m_entries.push_back(entry);
    MoveUp(m_entries.size() - 1, entry);
  }

  void Remove(const Timer* timer) {
    const size_t place = timer->*Place;
    const Entry last = m_entries.back();
    m_entries.pop_back();
    if (place == m_entries.size()) return;
    if (place > 0 && last < m_entries[Parent(place)]) {
      MoveUp(place, last);
    } else {
      MoveDown(place, last);
    }
  }

 private:
  static constexpr size_t kArity = 4;

  static size_t Parent(size_t place) { return (place - 1) / kArity; }

  void Put(size_t place, const Entry& entry) {
    m_entries[place] = entry;
    entry.timer->*Place = place;
  }

  void MoveUp(size_t place, const Entry entry) {
    while (place > 0 && entry < m_entries[Parent(place)]) {
      Put(place, m_entries[Parent(place)]);
      place = Parent(place);
    }
    Put(place, entry);
  }

  void MoveDown(size_t place, const Entry entry) {
    for (;;) {
      const size_t first = place * kArity + 1;
      if (first >= m_entries.size()) break;
      const size_t end = std::min(first + kArity, m_entries.size());
      size_t least = first;
      for (size_t child = first + 1; child < end; ++child) {
        if (m_entries[child] < m_entries[least]) least = child;
      }
      if (!(m_entries[least] < entry)) break;
      Put(place, m_entries[least]);
      place = least;
    }
    Put(place, entry);
  }

  std::vector<Entry> m_entries;
};

struct HashCall {
  size_t operator()(const TimerCall& call) const {
    // Equal method pointers are equal words: both the address or slot and the adjustment count.
    const auto method = std::bit_cast<std::array<uintptr_t, 2>>(call.method);
    uint64_t hash = 0;
    for (uintptr_t word : {reinterpret_cast<uintptr_t>(call.target), method[0], method[1],
                           reinterpret_cast<uintptr_t>(call.argument)}) {
      // Addresses differ in few bits; the multiplication spreads them, the rotation keeps the
      // order.
      hash = std::rotl(hash ^ word, 23) * 0x9E3779B97F4A7C15u;
    }
    return hash ^ hash >> 32;
  }
};

}  // namespace

struct TimerQueue::Impl {
  using Queue = TimerHeap<&Timer::queue_place>;
  using Group = TimerHeap<&Timer::group_place>;

  Queue queue;
  std::unordered_map<TimerCall, Group, HashCall> groups;  // none of them empty
  uint64_t next_serial = 0;

  // Takes the timer out of its group, which goes when it was the last, and of the queue.
  void Remove(std::unordered_map<TimerCall, Group, HashCall>::iterator group, Timer* timer) {
    group->second.Remove(timer);
    if (group->second.IsEmpty()) groups.erase(group);
    queue.Remove(timer);
    delete timer;
  }
};

TimerQueue::TimerQueue() : m_impl(std::make_unique<Impl>()) {}

TimerQueue::~TimerQueue() {
  while (!IsEmpty()) TakeFirst();
}

void TimerQueue::Add(const TimerCall& call, int64_t due) {
  auto timer = std::make_unique<Timer>(Timer{call, 0, 0});
  const uint64_t serial = m_impl->next_serial++;
  m_impl->groups[call].Push({due, serial, timer.get()});
  m_impl->queue.Push({due, serial, timer.release()});
}

void TimerQueue::Cancel(const TimerCall& call) {
  const auto group = m_impl->groups.find(call);
  if (group != m_impl->groups.end()) m_impl->Remove(group, group->second.Front().timer);
}

bool TimerQueue::IsEmpty() const { return m_impl->queue.IsEmpty(); }

size_t TimerQueue::Size() const { return m_impl->queue.Size(); }

int64_t TimerQueue::NextDue() const { return m_impl->queue.Front().due; }

TimerCall TimerQueue::TakeFirst() {
  Timer* timer = m_impl->queue.Front().timer;
  const TimerCall call = timer->call;
  m_impl->Remove(m_impl->groups.find(call), timer);
  return call;
}
