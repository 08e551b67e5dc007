// Who may read the console, when several threads want to.
//
// Claims of the console form a stack, and the one on top owns it. A foreground reader's claim goes
// on top and takes the console away from the reader on another thread; a background reader's goes
// beneath all others and waits. What a thread claims beyond that, goes above its own claims.
//
// SIGINT, when the process has a SignalDispatcher, interrupts the reader that owns the console and
// nobody else. All may be called from any thread, unless it is said otherwise.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <mutex>
#include <optional>
#include <thread>

#include "lib/platform/async_signals.h"
#include "lib/platform/listener_list.h"
#include "lib/platform/poll_waker.h"

namespace lattix {

// From now on every reader of the console, the waiting ones too, finds the end of input.
void EndConsoleInput();

// Whether a line or a byte is being read: a SIGINT belongs to that reader.
bool IsConsoleRead();

// --- Those who take what nobody else wants ----------------------------------------------------

// Whether somebody has claimed the console, or its input has been ended.
bool IsConsoleClaimed();
// Reads what there is on standard input, unless the console is claimed. The result and errno of
// read(2); none, and nothing read, when it is claimed or there is nothing to read.
std::optional<ssize_t> ReadUnclaimedConsole(void* buffer, size_t size);
// Called when the last claim has gone, on the thread that had it.
ListenerList<>& ConsoleReleases();

// --- Claims -----------------------------------------------------------------------------------

class ConsoleClaim {
 public:
  ConsoleClaim(const ConsoleClaim&) = delete;
  ConsoleClaim& operator=(const ConsoleClaim&) = delete;

 protected:
  ConsoleClaim() = default;
  ~ConsoleClaim() = default;
  friend struct ConsoleOwnership;
  std::thread::id m_thread;
};

// Keeps the console for the calling thread as long as the object lives, as a debugger does from
// stop to continue: other threads' readers wait, its own read as usual. Returns from construction
// when the reader before has left its line. Holds of several threads nest, the latest on top.
// Destroyed by the thread that made it.
class ConsoleHold : ConsoleClaim {
 public:
  ConsoleHold();
  ~ConsoleHold();
};

// Leaves the console to a program of its own as long as the object lives: everybody else's readers
// wait until it has gone, holds too. Returns from construction when the terminal can be left to the
// program, or input has ended. Destroyed by the thread that made it.
class ConsoleLoan : ConsoleClaim {
 public:
  ConsoleLoan();
  ~ConsoleLoan();
};

// One who reads standard input. Used from one thread at a time: Begin, waits, End.
class ConsoleReader : ConsoleClaim, SignalObserver {
 public:
  enum class Place { kForeground, kBackground };
  enum class Event {
    kInput,        // a read of standard input does not block; what it finds may be its end
    kInterrupted,  // SIGINT
    kSuspended,    // somebody else wants the console: call Suspend
    kEnded,        // EndConsoleInput was called
  };

  // Claims the console and waits until it is there, or input has ended. An interrupt before that
  // is none of this reader's.
  void Begin(Place place);
  // The next event, as often as it is asked.
  Event Wait();
  // Gives the console up, to be called when the terminal can be left to others, and waits for it to
  // come back. False when input has ended instead.
  bool Suspend();
  void End();

 private:
  friend struct ConsoleOwnership;
  void OnSignal(const siginfo_t& info) override;
  bool WaitForTurn(std::unique_lock<std::mutex>& lock);

  PollWaker m_waker;
  // Guarded by the ownership's mutex.
  bool m_woken = false;  // the waker has a byte
  bool m_interrupted = false;
  bool m_attached = false;  // to the signal dispatcher; the reader's thread only
};

}  // namespace lattix
