#include "platform/task.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <latch>
#include <mutex>
#include <thread>
#include <utility>

namespace platform {
namespace {

using namespace std::chrono_literals;

TEST(TaskTest, BlockedTasksNeverStarveQueuedOnes) {
  // Every task blocks until the last one has started, so all must run at once: far more
  // than the threads the pool starts eagerly. The handles are dropped at once.
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
  ASSERT_EQ(done.get_future().wait_for(60s), std::future_status::ready);
  EXPECT_GE(TaskPool::shared().threadCount(), static_cast<std::size_t>(kTasks));
}

TEST(TaskTest, EachTaskSeesItsOwnCancellation) {
  EXPECT_FALSE(Task::currentStopToken().stop_possible());
  EXPECT_FALSE(Task{}.isCancelled());
  struct Probe {
    std::thread::id thread;
    std::promise<void> go;
    std::promise<bool> cancelledBeforeGo;
    std::promise<void> ended;
  } probes[2];
  Task tasks[2];
  for (auto i : {0, 1}) {
    tasks[i] = Task::run([&probe = probes[i]] {
      probe.thread = std::this_thread::get_id();
      probe.go.get_future().wait();
      probe.cancelledBeforeGo.set_value(Task::currentIsCancelled());
      std::mutex mutex;
      std::condition_variable_any never;
      std::unique_lock lock(mutex);
      never.wait(lock, Task::currentStopToken(), [] { return false; });
      probe.ended.set_value();
    });
  }
  for (auto i : {0, 1}) {
    probes[i].go.set_value();
    EXPECT_FALSE(probes[i].cancelledBeforeGo.get_future().get());
    tasks[i].cancel();
    EXPECT_TRUE(tasks[i].isCancelled());
    ASSERT_EQ(probes[i].ended.get_future().wait_for(60s), std::future_status::ready);
    EXPECT_EQ(tasks[1].isCancelled(), i == 1);  // cancelling one leaves the other alone
  }

  // Work that later runs on a thread which ran a cancelled task must not inherit its token.
  bool reusedThread = false;
  for (int i = 0; i < 10'000 && !reusedThread; ++i) {
    std::promise<std::pair<std::thread::id, bool>> ran;
    TaskPool::shared().submit([&] {
      ran.set_value({std::this_thread::get_id(), Task::currentStopToken().stop_possible()});
    });
    const auto [thread, tokenLeaked] = ran.get_future().get();
    ASSERT_FALSE(tokenLeaked);
    reusedThread = thread == probes[0].thread || thread == probes[1].thread;
  }
  EXPECT_TRUE(reusedThread);
}

}  // namespace
}  // namespace platform
