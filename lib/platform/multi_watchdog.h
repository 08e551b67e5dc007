// The one hardware watchdog, shared by all that can get stuck.
//
// The device is prodded as long as every registered client is healthy. A client has a deadline,
// which the code that it supervises keeps moving into the future. When it passes, the client is
// asked: it either extends its deadline or confirms that it is stuck. In that case prodding stops,
// diagnostics are logged, and the hardware resets the device.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "lib/platform/always_magic.h"
#include "lib/platform/singleton.h"

// All members may be called from any thread, but not from a client's callbacks. A program without a
// watchdog does not create one; clients then supervise nothing (see Exists).
class MultiWatchdog : public lattix::Singleton<MultiWatchdog> {
 public:
  class Client;

  virtual ~MultiWatchdog() = default;

  // Lets the device be reset as soon as it can: prodding stops for good. Returns only when the
  // reset does not come.
  virtual void ExpireNow() = 0;
  // Clients are supervised in the running phase only. Before it and after it the process as a whole
  // has a deadline: to get there, and to end.
  virtual void SetRunning(bool running) = 0;
  // Recomputes the next look at the clients; for a deadline that is earlier than it was. A deadline
  // that moved later needs no call.
  virtual void Reevaluate() = 0;
  // The client stays its owner's, who removes it before destroying it.
  virtual void AddClient(Client* client) = 0;
  // Removes every registration of the client; none is no error. When it returns no callback is
  // running or will come.
  virtual void RemoveClient(Client* client) = 0;
  // For the destructor of a client's class: one that is still registered is a broken invariant.
  virtual void CheckClientNotRegistered(Client* client) = 0;
};

// The base of everything supervised. The class at the end of the derivation is final, and calls
// CheckDestruction in its destructor, while GetName still gives its own name.
class MultiWatchdog::Client : private lattix::AlwaysMagic<2870450721> {
 public:
  virtual ~Client() = default;

  // The deadline has passed. True: really stuck, give up. False: there was progress, and
  // the deadline has been extended. Called on the watchdog's thread with its mutex held:
  // must not block.
  virtual bool OnTimeout() = 0;
  // For messages.
  virtual std::string GetName() const = 0;

  // Monotonic nanoseconds. From any thread.
  int64_t GetDeadline() const { return m_deadline.load(std::memory_order_relaxed); }
  // Moves the deadline later; one that is later already stays. From any thread, at any time: it
  // costs no lock and wakes nobody.
  void Defer(int64_t deadline) {
    int64_t current = m_deadline.load(std::memory_order_relaxed);
    while (current < deadline && !m_deadline.compare_exchange_weak(current, deadline)) {
    }
  }

  // For the watchdog's use of a registered client.
  static void CheckValid(const Client* client) { CheckMagic(client); }

 protected:
  // Registers with a new deadline, which may be earlier than the last one; the client is not
  // registered now. Without a watchdog in the process nothing happens.
  void Register(int64_t deadline) {
    m_deadline.store(deadline, std::memory_order_relaxed);
    if (MultiWatchdog::Exists()) MultiWatchdog::GetInstance().AddClient(this);
  }
  void Unregister() {
    if (MultiWatchdog::Exists()) MultiWatchdog::GetInstance().RemoveClient(this);
  }
  void CheckDestruction() {
    if (MultiWatchdog::Exists()) MultiWatchdog::GetInstance().CheckClientNotRegistered(this);
  }

 private:
  std::atomic<int64_t> m_deadline{0};
};
