// Work across threads: SerialQueue, the elastic task pool with its stop tokens, and the
// Logger's replaceable sink.
#include "platform/logger.h"
#include "platform/serial_queue.h"
#include "platform/task.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <latch>
#include <numeric>
#include <thread>
#include <vector>

namespace platform {
namespace {

// Waits generously, never as a timing check, until `done` holds; false if it never does.
template <class Done>
bool eventually(Done done) {
  for (int i = 0; i < 6000 && !done(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  return done();
}

TEST(SerialQueueTest, RunsWorkFromManyThreadsOneAtATimeInOrderAndWorkQueuedByWorkAfterIt) {
  SerialQueue queue("com.vorn.test.fifo");
  EXPECT_FALSE(queue.isCurrent());
  std::vector<std::vector<int>> runs(4);    // touched only by work on the queue
  std::atomic<int> inFlight{0}, faults{0};  // overlapping items, or isCurrent() false on the queue
  std::vector<std::thread> producers;
  for (std::size_t t = 0; t < runs.size(); ++t) {
    producers.emplace_back([&, t] {
      for (int i = 0; i < 2000; ++i) {
        queue.async([&, t, i] {
          if (inFlight++ != 0 || !queue.isCurrent()) ++faults;
          runs[t].push_back(i);
          std::this_thread::yield();
          --inFlight;
        });
      }
    });
  }
  for (auto& producer : producers) producer.join();
  std::atomic<int> outerEnded{0}, innerSawOuterEnded{-1};
  queue.async([&] {
    queue.async([&] { innerSawOuterEnded = outerEnded.load(); });
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    outerEnded = 1;
  });
  ASSERT_TRUE(eventually([&] { return innerSawOuterEnded != -1; }));
  EXPECT_EQ(innerSawOuterEnded, 1);
  EXPECT_EQ(faults.load(), 0);
  std::vector<int> expected(2000);
  std::iota(expected.begin(), expected.end(), 0);
  for (const auto& run : runs) EXPECT_EQ(run, expected);
}

TEST(TaskTest, BlockedTasksNeverStarveQueuedOnes) {
  // Every task blocks until the last one has started, so all must run at once: far more
  // than the threads the pool starts eagerly. The handles are dropped at once.
  constexpr int kTasks = 64;
  std::atomic<int> started{0}, finished{0};
  std::latch allStarted(1);
  for (int i = 0; i < kTasks; ++i) {
    Task::run([&] {
      if (++started == kTasks) allStarted.count_down();
      allStarted.wait();
      ++finished;
    });
  }
  ASSERT_TRUE(eventually([&] { return finished == kTasks; }));
  EXPECT_GE(TaskPool::shared().threadCount(), static_cast<std::size_t>(kTasks));
}

TEST(TaskTest, EachTaskSeesOnlyItsOwnCancellation) {
  EXPECT_FALSE(Task::currentStopToken().stop_possible());
  EXPECT_FALSE(Task{}.isCancelled());
  std::thread::id threads[2];
  std::atomic<int> ended{0}, cancelledAtStart{0};
  std::latch started(2);
  Task tasks[2];
  for (const int i : {0, 1}) {
    tasks[i] = Task::run([&, i] {
      threads[i] = std::this_thread::get_id();
      if (Task::currentIsCancelled()) ++cancelledAtStart;
      started.count_down();
      std::mutex mutex;
      std::condition_variable_any never;
      std::unique_lock lock(mutex);
      never.wait(lock, Task::currentStopToken(), [] { return false; });
      ++ended;
    });
  }
  started.wait();
  for (const int i : {0, 1}) {
    tasks[i].cancel();
    EXPECT_TRUE(tasks[i].isCancelled());
    EXPECT_EQ(tasks[1].isCancelled(), i == 1);  // cancelling one leaves the other alone
    ASSERT_TRUE(eventually([&] { return ended == i + 1; }));
  }
  EXPECT_EQ(cancelledAtStart, 0);
  // Work that later runs on a thread which ran a cancelled task must not inherit its token.
  bool reusedThread = false;
  for (int i = 0; i < 10'000 && !reusedThread; ++i) {
    std::atomic<int> tokenLeaked{-1};
    std::thread::id thread;
    TaskPool::shared().submit([&] {
      thread = std::this_thread::get_id();
      tokenLeaked = Task::currentStopToken().stop_possible();
    });
    ASSERT_TRUE(eventually([&] { return tokenLeaked != -1; }));
    ASSERT_EQ(tokenLeaked, 0);
    reusedThread = thread == threads[0] || thread == threads[1];
  }
  EXPECT_TRUE(reusedThread);
}

TEST(LoggerTest, TheSinkGetsEveryFieldAndEveryRecordWhileSinksChange) {
  std::vector<LogRecord> records;
  EXPECT_FALSE(Logger::setSink([&](const LogRecord& record) { records.push_back(record); }));
  const Logger logger("com.vorn.tesk.payments", "bridge");
  logger.log(LogLevel::notice, "100% %s %n done");  // printf directives stay text
  logger.error("failed");
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].subsystem, "com.vorn.tesk.payments");
  EXPECT_EQ(records[0].category, "bridge");
  EXPECT_EQ(records[0].level, LogLevel::notice);
  EXPECT_EQ(records[0].message, "100% %s %n done");
  EXPECT_EQ(records[1].level, LogLevel::error);
  // Records logged from four threads while another replaces the sink all the time.
  std::atomic<int> received{0};
  std::atomic<bool> stop{false};
  const Logger::Sink previous = Logger::setSink([&](const LogRecord&) { ++received; });
  previous(LogRecord{"s", "c", LogLevel::fault, "direct"});
  EXPECT_EQ(records.size(), 3u);
  std::thread swapper([&] {
    while (!stop) Logger::setSink([&](const LogRecord&) { ++received; });
  });
  std::vector<std::thread> threads(4);
  for (auto& thread : threads) {
    thread = std::thread([&] {
      for (int i = 0; i < 500; ++i) logger.log(LogLevel::info, "m");
    });
  }
  for (auto& thread : threads) thread.join();
  stop = true;
  swapper.join();
  EXPECT_TRUE(Logger::setSink({}));
  EXPECT_FALSE(Logger::setSink({}));
  EXPECT_EQ(received.load(), 2000);
  EXPECT_EQ(records.size(), 3u);
}

}  // namespace
}  // namespace platform
