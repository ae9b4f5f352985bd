#include "platform/logger.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace platform {
namespace {

TEST(LoggerTest, SinkReceivesEveryFieldAndCanBeReplaced) {
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

  const Logger::Sink previous = Logger::setSink([](const LogRecord&) {});
  ASSERT_TRUE(previous);
  logger.log(LogLevel::debug, "to the replacement");
  EXPECT_EQ(records.size(), 2u);
  previous(LogRecord{"s", "c", LogLevel::fault, "direct"});
  EXPECT_EQ(records.size(), 3u);
  EXPECT_TRUE(Logger::setSink({}));
  EXPECT_FALSE(Logger::setSink({}));
}

TEST(LoggerTest, EveryRecordReachesOneSinkWhileSinksChange) {
  std::atomic<int> received{0};
  std::atomic<bool> stop{false};
  Logger::setSink([&](const LogRecord&) { ++received; });
  std::thread swapper([&] {
    while (!stop) Logger::setSink([&](const LogRecord&) { ++received; });
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      const Logger logger("com.vorn.test", "thread" + std::to_string(t));
      for (int i = 0; i < 500; ++i) logger.log(LogLevel::info, "m");
    });
  }
  for (auto& thread : threads) thread.join();
  stop = true;
  swapper.join();
  Logger::setSink({});
  EXPECT_EQ(received.load(), 2000);
}

}  // namespace
}  // namespace platform
