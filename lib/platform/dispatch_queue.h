// A named worker thread that runs jobs one after the other.
#pragma once

#include <exception>
#include <functional>
#include <memory>
#include <string>

// Jobs run in the order they were enqueued, on the queue's one thread ("DispatchQueue"), with no
// lock held: they may enqueue and cancel. A job is destroyed on that thread once it has run; a
// cancelled job on the cancelling thread.
//
// Enqueue and Cancel may be called from any thread until destruction begins. Destruction waits for
// the running job and discards the queued ones.
class DispatchQueue {
 public:
  using Work = std::function<void()>;
  using ErrorHandler = std::function<void(std::exception_ptr)>;

  // The name labels the queue's messages.
  explicit DispatchQueue(std::string name);
  ~DispatchQueue();
  DispatchQueue(const DispatchQueue&) = delete;
  DispatchQueue& operator=(const DispatchQueue&) = delete;

  // What the work throws goes to the error handler, on the queue's thread; without a handler it is
  // a broken invariant. The tag only serves Cancel; it is not followed.
  void Enqueue(Work work, ErrorHandler on_error = {}, const void* tag = nullptr);

  // Removes every queued job with that tag. One that is running already goes on.
  void Cancel(const void* tag);

 private:
  struct State;

  // Shared with the thread, which outlives this object when a job destroys its own queue.
  std::shared_ptr<State> state_;
};
