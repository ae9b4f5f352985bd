// Work across threads: SerialQueue, the elastic task pool with its stop tokens, the Logger sink.
#include "platform/logger.h"
#include "platform/serial_queue.h"
#include "platform/task.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <numeric>
#include <set>
#include <thread>
#include <vector>

namespace platform {
namespace {

using namespace std::chrono_literals;

// Waits generously, never as a timing check, until `done` holds; false if it never does.
template <class Done>
bool eventually(Done done) {
  for (int i = 0; i < 6000 && !done(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  return done();
}

TEST(SerialQueueTest, RunsWorkOnOneThreadInOrderAndWorkQueuedByWorkAfterIt) {
  // Many submitting threads at once: tests/stress (the plug-in's calls).
  SerialQueue queue("com.vorn.test.fifo");
  EXPECT_FALSE(queue.isCurrent());
  std::vector<int> run;  // touched only by work on the queue
  std::set<std::thread::id> workers;
  std::atomic<bool> done{false};
  std::latch queued(1);
  queue.async([&] { queued.wait(); });
  for (int i = 0; i < 1000; ++i) {
    queue.async([&, i] {
      if (queue.isCurrent()) run.push_back(i);
      workers.insert(std::this_thread::get_id());
      if (i == 0) queue.async([&] { run.push_back(-1), done = true; });
    });
  }
  queued.count_down();
  ASSERT_TRUE(eventually([&] { return done.load(); }));
  std::vector<int> expected(1000);
  std::iota(expected.begin(), expected.end(), 0);
  expected.push_back(-1);
  EXPECT_EQ(run, expected);
  EXPECT_EQ(workers.size(), 1u);
}

TEST(TaskTest, BlockedTasksNeverStarveQueuedOnes) {
  // Every task blocks until the last one has started: far more than the pool starts eagerly.
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

TEST(TaskTest, ATaskReadsItsOwnStopToken) {
  EXPECT_FALSE(Task::currentStopToken().stop_possible());
  EXPECT_FALSE(Task{}.isCancelled());
  std::atomic<int> state{0};  // 1 running (3 if it started cancelled), 2 saw its cancellation
  Task task = Task::run([&] {
    state = Task::currentIsCancelled() ? 3 : 1;
    while (!Task::currentStopToken().stop_requested()) std::this_thread::sleep_for(1ms);
    state = 2;
  });
  ASSERT_TRUE(eventually([&] { return state != 0; }));
  EXPECT_EQ(state, 1);
  EXPECT_FALSE(task.isCancelled());
  task.cancel();
  EXPECT_TRUE(task.isCancelled());
  EXPECT_TRUE(eventually([&] { return state == 2; }));
}

TEST(LoggerTest, TheSinkGetsEveryRecordUntilItIsRemoved) {
  std::vector<LogRecord> records;
  EXPECT_FALSE(Logger::setSink([&](const LogRecord& record) { records.push_back(record); }));
  const Logger logger("com.vorn.tesk.payments", "bridge");
  logger.log(LogLevel::notice, "100% %s %n done");  // printf directives stay text
  EXPECT_TRUE(Logger::setSink({}));
  logger.error("dropped");
  EXPECT_FALSE(Logger::setSink({}));
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].subsystem + " " + records[0].category + ": " + records[0].message,
            "com.vorn.tesk.payments bridge: 100% %s %n done");
  EXPECT_EQ(records[0].level, LogLevel::notice);
}

}  // namespace
}  // namespace platform
