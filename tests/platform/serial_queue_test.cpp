#include "platform/serial_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <thread>
#include <vector>

namespace platform {
namespace {

using namespace std::chrono_literals;

// Generous bound that only a hang can exceed.
constexpr auto kHang = 30s;

TEST(SerialQueueTest, RunsItemsFromManyThreadsOneAtATimeInOrder) {
  constexpr int kThreads = 4;
  constexpr int kPerThread = 2000;
  SerialQueue queue("com.vorn.test.fifo", QualityOfService::userInitiated);
  EXPECT_EQ(queue.label(), "com.vorn.test.fifo");
  EXPECT_EQ(queue.qualityOfService(), QualityOfService::userInitiated);
  EXPECT_FALSE(queue.isCurrent());

  std::vector<std::vector<int>> runs(kThreads);  // touched only by work on the queue
  std::atomic<int> inFlight{0};
  std::atomic<int> overlaps{0};
  std::atomic<int> notCurrent{0};
  std::vector<std::thread> producers;
  for (int t = 0; t < kThreads; ++t) {
    producers.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) {
        queue.async([&, t, i] {
          if (inFlight.fetch_add(1) != 0) ++overlaps;
          if (!queue.isCurrent()) ++notCurrent;
          runs[static_cast<std::size_t>(t)].push_back(i);
          std::this_thread::yield();
          inFlight.fetch_sub(1);
        });
      }
    });
  }
  for (auto& producer : producers) producer.join();
  std::promise<void> drained;
  queue.async([&] { drained.set_value(); });
  ASSERT_EQ(drained.get_future().wait_for(kHang), std::future_status::ready);

  EXPECT_EQ(overlaps.load(), 0);
  EXPECT_EQ(notCurrent.load(), 0);
  for (const auto& run : runs) {
    ASSERT_EQ(run.size(), static_cast<std::size_t>(kPerThread));
    for (int i = 0; i < kPerThread; ++i) ASSERT_EQ(run[static_cast<std::size_t>(i)], i);
  }
}

TEST(SerialQueueTest, WorkSubmittedFromWorkRunsAfterIt) {
  SerialQueue queue("com.vorn.test.nested");
  SerialQueue other("com.vorn.test.other");
  std::vector<std::string> events;  // touched only by work on `queue`
  std::promise<void> done;
  queue.async([&] {
    queue.async([&] {
      events.push_back("inner");
      done.set_value();
    });
    events.push_back("outer end");
  });
  ASSERT_EQ(done.get_future().wait_for(kHang), std::future_status::ready);
  EXPECT_EQ(events, (std::vector<std::string>{"outer end", "inner"}));

  std::promise<std::pair<bool, bool>> seen;
  other.async([&] { seen.set_value({other.isCurrent(), queue.isCurrent()}); });
  EXPECT_EQ(seen.get_future().get(), std::make_pair(true, false));
}

TEST(SerialQueueTest, QueuedWorkRunsAfterTheOwnerLetsGo) {
  auto queue = std::make_unique<SerialQueue>("com.vorn.test.release");
  std::promise<void> gate;
  std::shared_future<void> opened = gate.get_future().share();
  std::atomic<int> ran{0};
  std::promise<void> last;
  queue->async([opened] { opened.wait(); });
  for (int i = 0; i < 100; ++i) queue->async([&] { ++ran; });
  queue->async([&] { last.set_value(); });
  queue.reset();
  gate.set_value();
  ASSERT_EQ(last.get_future().wait_for(kHang), std::future_status::ready);
  EXPECT_EQ(ran.load(), 100);
}

TEST(SerialQueueTest, OwnerMayLetGoFromInsideItsOwnWork) {
  auto queue = std::make_shared<SerialQueue>("com.vorn.test.self-destroying-label");
  std::promise<void> gate;
  std::shared_future<void> opened = gate.get_future().share();
  std::promise<bool> destroyed;
  std::promise<void> after;
  // The work holds the only reference once the test drops its own, then drops it too.
  queue->async([keep = queue, opened, &destroyed]() mutable {
    opened.wait();
    const bool wasCurrent = keep->isCurrent();
    keep.reset();
    destroyed.set_value(wasCurrent);
  });
  queue->async([&] { after.set_value(); });
  queue.reset();
  gate.set_value();
  auto destroyedFuture = destroyed.get_future();
  ASSERT_EQ(destroyedFuture.wait_for(kHang), std::future_status::ready);
  EXPECT_TRUE(destroyedFuture.get());
  EXPECT_EQ(after.get_future().wait_for(kHang), std::future_status::ready);
}

}  // namespace
}  // namespace platform
