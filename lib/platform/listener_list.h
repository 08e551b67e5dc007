// Those who want to be told of something that happens on another thread.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <utility>

namespace lattix {

// Listeners are called one after the other, in the order in which they were added, with the list's
// recursive mutex held. So a listener may add and remove, itself too, and once Remove has returned
// on another thread the listener neither runs nor will run: a listener's owner removes it first of
// all in its destructor. The trap is the poll thread's: a thread that holds a lock which a listener
// takes must not call in here.
//
// A listener must not block for long and must not throw. All members may be called from any thread.
template <typename... Args>
class ListenerList {
 public:
  using Listener = std::function<void(Args...)>;

  // What Remove takes; never 0.
  uint64_t Add(Listener listener) {
    const std::lock_guard lock(m_mutex);
    m_listeners.emplace(++m_last, std::move(listener));
    return m_last;
  }
  // One that is not there is no error.
  void Remove(uint64_t id) {
    const std::lock_guard lock(m_mutex);
    m_listeners.erase(id);
  }
  void Call(Args... args) {
    const std::lock_guard lock(m_mutex);
    // Found anew each time, as a listener may remove any of them. It is copied because it may
    // remove itself.
    for (auto next = m_listeners.begin(); next != m_listeners.end();) {
      const uint64_t id = next->first;
      const Listener listener = next->second;
      listener(args...);
      next = m_listeners.upper_bound(id);
    }
  }

 private:
  std::recursive_mutex m_mutex;
  std::map<uint64_t, Listener> m_listeners;  // guarded by m_mutex
  uint64_t m_last = 0;                       // guarded by m_mutex
};

}  // namespace lattix
