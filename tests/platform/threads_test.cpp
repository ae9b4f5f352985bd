// Work across threads: the elastic task pool, the Logger sink. (SerialQueue's order, one
// operation at a time: tests/stress/plugin_stress_test.cpp; a task's stop token ending the
// observer's loop: tests/stress/observer_stress_test.cpp.)
#include "platform/logger.h"
#include "platform/task.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
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
