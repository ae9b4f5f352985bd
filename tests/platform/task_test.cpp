#include "platform/task.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <latch>
#include <mutex>
#include <thread>
#include <utility>

namespace platform {
namespace {

using namespace std::chrono_literals;

constexpr auto kHang = 60s;

// Blocks the calling task until its own stop token is stopped.
void waitForOwnCancellation() {
  std::mutex mutex;
  std::condition_variable_any never;
  std::unique_lock lock(mutex);
  never.wait(lock, Task::currentStopToken(), [] { return false; });
}

TEST(TaskTest, BlockedTasksNeverStarveQueuedOnes) {
  // Every task blocks until the last one has started, so all of them must run at once:
  // far more than the threads the pool starts eagerly.
  constexpr int kTasks = 64;
  std::atomic<int> started{0};
  std::atomic<int> finished{0};
  std::latch allStarted(1);
  std::promise<void> done;
  for (int i = 0; i < kTasks; ++i) {
    Task::run([&] {
      if (started.fetch_add(1) + 1 == kTasks) allStarted.count_down();
      allStarted.wait();
      if (finished.fetch_add(1) + 1 == kTasks) done.set_value();
    });
  }
  ASSERT_EQ(done.get_future().wait_for(kHang), std::future_status::ready);
  EXPECT_GE(TaskPool::shared().threadCount(), static_cast<std::size_t>(kTasks));

  // The threads go back to waiting for work.
  const auto deadline = std::chrono::steady_clock::now() + kHang;
  while (TaskPool::shared().idleThreadCount() != TaskPool::shared().threadCount()) {
    ASSERT_LT(std::chrono::steady_clock::now(), deadline);
    std::this_thread::yield();
  }
}

TEST(TaskTest, EachTaskReadsItsOwnStopToken) {
  EXPECT_FALSE(Task::currentStopToken().stop_possible());
  EXPECT_FALSE(Task::currentIsCancelled());
  const Task empty;
  EXPECT_FALSE(empty);
  empty.cancel();
  EXPECT_FALSE(empty.isCancelled());

  std::promise<bool> firstStarted;
  std::promise<bool> firstSawCancel;
  std::thread::id firstThread;
  std::thread::id secondThread;
  const Task first = Task::run([&] {
    firstThread = std::this_thread::get_id();
    firstStarted.set_value(Task::currentStopToken().stop_possible());
    waitForOwnCancellation();
    firstSawCancel.set_value(Task::currentIsCancelled());
  });
  std::promise<void> secondGo;
  std::promise<bool> secondCancelledEarly;
  std::promise<bool> secondSawCancel;
  const Task second = Task::run([&] {
    secondThread = std::this_thread::get_id();
    secondGo.get_future().wait();
    secondCancelledEarly.set_value(Task::currentIsCancelled());
    waitForOwnCancellation();
    secondSawCancel.set_value(Task::currentStopToken().stop_requested());
  });

  EXPECT_TRUE(firstStarted.get_future().get());
  EXPECT_FALSE(first.isCancelled());
  first.cancel();
  EXPECT_TRUE(first.isCancelled());
  auto firstSaw = firstSawCancel.get_future();
  ASSERT_EQ(firstSaw.wait_for(kHang), std::future_status::ready);
  EXPECT_TRUE(firstSaw.get());

  // Cancelling one task leaves the other alone.
  EXPECT_FALSE(second.isCancelled());
  secondGo.set_value();
  EXPECT_FALSE(secondCancelledEarly.get_future().get());
  second.cancel();
  auto secondSaw = secondSawCancel.get_future();
  ASSERT_EQ(secondSaw.wait_for(kHang), std::future_status::ready);
  EXPECT_TRUE(secondSaw.get());

  // Work that later runs on a thread which ran a cancelled task must not inherit its token.
  bool reusedThread = false;
  for (int i = 0; i < 10'000 && !reusedThread; ++i) {
    std::promise<std::pair<std::thread::id, bool>> ran;
    TaskPool::shared().submit([&] {
      ran.set_value({std::this_thread::get_id(), Task::currentStopToken().stop_possible()});
    });
    const auto [thread, tokenLeaked] = ran.get_future().get();
    ASSERT_FALSE(tokenLeaked);
    reusedThread = thread == firstThread || thread == secondThread;
  }
  EXPECT_TRUE(reusedThread);
}

}  // namespace
}  // namespace platform
