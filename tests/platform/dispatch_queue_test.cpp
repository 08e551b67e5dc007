#include "lib/platform/dispatch_queue.h"

#include <future>
#include <memory>
#include <stdexcept>
#include <vector>

#include "tests/platform/test_support.h"

namespace {

// A job that keeps the queue busy until told to end.
struct Blocker {
  SimpleEvent m_running;
  SimpleEvent m_end;

  void Enqueue(DispatchQueue* queue) {
    queue->Enqueue([this] {
      m_running.Set();
      m_end.Wait(0);
    });
    ASSERT_TRUE(Happens(&m_running));
  }
};

void Finish(DispatchQueue* queue) {
  SimpleEvent finished;
  queue->Enqueue([&] { finished.Set(); });
  ASSERT_TRUE(Happens(&finished));
}

TEST(DispatchQueueTest, RunsJobsInOrderButCancelledOnes) {
  DispatchQueue queue("test");
  Blocker blocker;
  blocker.Enqueue(&queue);
  std::vector<int> ran;
  const int tag = 0;
  for (int i = 0; i < 6; ++i) {
    queue.Enqueue([&ran, i] { ran.push_back(i); }, {}, i % 2 ? &tag : nullptr);
  }
  queue.Cancel(&tag);
  blocker.m_end.Set();
  Finish(&queue);
  EXPECT_EQ(ran, (std::vector<int>{0, 2, 4}));
}

TEST(DispatchQueueTest, ErrorHandlerGetsWhatAJobThrows) {
  DispatchQueue queue("test");
  std::exception_ptr error;
  queue.Enqueue([] { throw std::runtime_error("no disk"); },
                [&](std::exception_ptr e) { error = e; });
  Finish(&queue);
  ASSERT_TRUE(error);
  EXPECT_THROW(std::rethrow_exception(error), std::runtime_error);
}

TEST(DispatchQueueTest, DestructionDiscardsQueuedJobs) {
  auto queue = std::make_unique<DispatchQueue>("test");
  Blocker blocker;
  blocker.Enqueue(queue.get());
  auto dropped = std::make_shared<int>(0);
  const std::weak_ptr<int> observer = dropped;
  queue->Enqueue([dropped = std::move(dropped)] { ++*dropped; });
  auto destruction = std::async(std::launch::async, [&] { queue.reset(); });
  // The jobs are let go before the running one is waited for.
  while (!observer.expired()) std::this_thread::yield();
  blocker.m_end.Set();
  destruction.get();
}

// What a job owns may use the queue when it goes.
TEST(DispatchQueueTest, JobMayCancelWhenItIsDestroyed) {
  DispatchQueue queue("test");
  const int tag = 0;
  const auto cancels = [&] {
    return std::shared_ptr<void>(nullptr, [&](void*) { queue.Cancel(&tag); });
  };
  queue.Enqueue([owned = cancels()] {});
  Finish(&queue);
  Blocker blocker;
  blocker.Enqueue(&queue);
  queue.Enqueue([owned = cancels()] {}, {}, &tag);
  queue.Cancel(&tag);
  blocker.m_end.Set();
  Finish(&queue);
}

TEST(DispatchQueueTest, JobMayDestroyItsQueue) {
  auto* queue = new DispatchQueue("mine");
  SimpleEvent enqueued;
  SimpleEvent destroyed;
  // Only the job's own end tells that the thread no longer uses what it shares.
  auto owned = std::shared_ptr<void>(nullptr, [&](void*) { destroyed.Set(); });
  testing::internal::CaptureStderr();
  queue->Enqueue([&enqueued, queue, owned = std::move(owned)] {
    enqueued.Wait(0);
    delete queue;
  });
  enqueued.Set();
  EXPECT_TRUE(Happens(&destroyed));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "mine: Cannot join thread Resource deadlock avoided\n");
}

class DispatchQueueDeathTest : public ThreadedDeathTest {};

TEST_F(DispatchQueueDeathTest, UnhandledExceptionIsNamed) {
  EXPECT_DEATH(
      {
        DispatchQueue queue("downloads");
        queue.Enqueue([] { throw std::runtime_error("no disk"); });
        Finish(&queue);
      },
      "downloads: Unhandled exception in \"Worker\"\n Exception message: \"no disk\"\n");
}

}  // namespace
