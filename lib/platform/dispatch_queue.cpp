// One list of jobs under one mutex. A job leaves the list before it runs, and jobs are destroyed
// without the mutex: what they own may call back into the queue when it goes.
#include "lib/platform/dispatch_queue.h"

#include <cerrno>
#include <list>
#include <mutex>
#include <thread>
#include <utility>

#include "lib/platform/assertion.h"
#include "lib/platform/condition_variable.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/log.h"
#include "lib/platform/thread_name.h"

using lattix::Log;

namespace {

struct Job {
  DispatchQueue::Work work;
  DispatchQueue::ErrorHandler on_error;
  const void* tag;
};

}  // namespace

struct DispatchQueue::State {
  const std::string name_;
  std::mutex mutex_;
  lattix::condition_variable changed_;
  std::list<Job> jobs_;  // guarded by mutex_
  bool quit_ = false;    // guarded by mutex_
  std::thread thread_;   // touched by the queue's owner only

  explicit State(std::string name) : name_(std::move(name)) {}

  void Worker();
  void Cancel(const void* tag);
};

void DispatchQueue::State::Worker() {
  lattix::SetThreadName("DispatchQueue");
  std::unique_lock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return quit_ || !jobs_.empty(); });
    if (quit_) return;
    std::list<Job> current;
    current.splice(current.begin(), jobs_, jobs_.begin());
    lock.unlock();
    try {
      current.front().work();
    } catch (...) {
      const ErrorHandler& on_error = current.front().on_error;
      if (!on_error) {
        Log("{}: Unhandled exception in \"{}\"\n Exception message: \"{}\"\n", name_, __func__,
            lattix::CurrentExceptionText());
        LATTIX_ASSERT(false);
      }
      on_error(std::current_exception());
    }
    current.clear();
    lock.lock();
  }
}

void DispatchQueue::State::Cancel(const void* tag) {
  std::list<Job> cancelled;
  std::lock_guard lock(mutex_);
  LATTIX_ASSERT(!quit_);
  for (auto job = jobs_.begin(); job != jobs_.end();) {
    const auto next = std::next(job);
    if (job->tag == tag) cancelled.splice(cancelled.end(), jobs_, job);
    job = next;
  }
}

DispatchQueue::DispatchQueue(std::string name) : state_(std::make_shared<State>(std::move(name))) {
  state_->thread_ = std::thread([state = state_] { state->Worker(); });
}

DispatchQueue::~DispatchQueue() {
  {
    std::list<Job> discarded;
    std::lock_guard lock(state_->mutex_);
    state_->quit_ = true;
    discarded.swap(state_->jobs_);
  }
  state_->changed_.notify_one();
  if (state_->thread_.get_id() != std::this_thread::get_id()) {
    state_->thread_.join();
    return;
  }
  // A job destroyed its own queue. Its thread ends by itself when that job is over.
  Log("{}: Cannot join thread {}\n", state_->name_, lattix::ErrorText(EDEADLK));
  state_->thread_.detach();
}

void DispatchQueue::Enqueue(Work work, ErrorHandler on_error, const void* tag) {
  std::list<Job> job;
  job.push_back({std::move(work), std::move(on_error), tag});
  {
    std::lock_guard lock(state_->mutex_);
    if (state_->quit_) return;
    state_->jobs_.splice(state_->jobs_.end(), job);
  }
  state_->changed_.notify_one();
}

void DispatchQueue::Cancel(const void* tag) { state_->Cancel(tag); }
