#include "platform/logger.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

namespace platform {
namespace {

class LoggerTest : public testing::Test {
 protected:
  void TearDown() override { Logger::setSink({}); }
};

TEST_F(LoggerTest, SinkReceivesEveryFieldAndCanBeReplaced) {
  std::vector<LogRecord> records;
  EXPECT_FALSE(Logger::setSink([&](const LogRecord& record) { records.push_back(record); }));

  const Logger logger("com.vorn.tesk.payments", "bridge");
  EXPECT_EQ(logger.subsystem(), "com.vorn.tesk.payments");
  EXPECT_EQ(logger.category(), "bridge");
  logger.log(LogLevel::notice, "100% %s %n done");
  logger.error(std::string_view("cut\0tail", 8));
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].subsystem, "com.vorn.tesk.payments");
  EXPECT_EQ(records[0].category, "bridge");
  EXPECT_EQ(records[0].level, LogLevel::notice);
  EXPECT_EQ(records[0].message, "100% %s %n done");
  EXPECT_EQ(records[1].level, LogLevel::error);
  EXPECT_EQ(records[1].message, std::string("cut\0tail", 8));

  int second = 0;
  Logger::Sink previous = Logger::setSink([&](const LogRecord&) { ++second; });
  ASSERT_TRUE(previous);
  logger.log(LogLevel::debug, "to the second sink");
  EXPECT_EQ(second, 1);
  EXPECT_EQ(records.size(), 2u);
  previous(LogRecord{"s", "c", LogLevel::fault, "direct"});  // the returned sink still works
  EXPECT_EQ(records.back().message, "direct");

  EXPECT_TRUE(Logger::setSink({}));
  logger.log(LogLevel::info, "nobody listens");
  EXPECT_FALSE(Logger::setSink({}));
  EXPECT_EQ(second, 1);
  EXPECT_EQ(records.size(), 3u);
}

TEST_F(LoggerTest, ConcurrentLoggingWhileSinksChange) {
  constexpr int kThreads = 4;
  constexpr int kPerThread = 500;
  std::atomic<int> first{0};
  std::atomic<int> second{0};
  std::mutex mutex;
  std::vector<std::string> messages;
  auto sinkCounting = [&](std::atomic<int>& counter) {
    return [&](const LogRecord& record) {
      ++counter;
      std::lock_guard lock(mutex);
      messages.push_back(record.message);
    };
  };
  Logger::setSink(sinkCounting(first));
  std::atomic<bool> stop{false};
  std::thread swapper([&] {
    for (int i = 0; !stop; ++i) Logger::setSink(sinkCounting(i % 2 ? first : second));
  });
  std::vector<std::thread> loggers;
  for (int t = 0; t < kThreads; ++t) {
    loggers.emplace_back([t] {
      const Logger logger("com.vorn.test", "thread" + std::to_string(t));
      for (int i = 0; i < kPerThread; ++i) logger.log(LogLevel::info, std::to_string(i));
    });
  }
  for (auto& logger : loggers) logger.join();
  stop = true;
  swapper.join();
  EXPECT_EQ(first + second, kThreads * kPerThread);
  EXPECT_EQ(messages.size(), static_cast<std::size_t>(kThreads * kPerThread));
}

}  // namespace
}  // namespace platform
