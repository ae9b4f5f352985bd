#include "platform/serial_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <numeric>
#include <thread>
#include <vector>

namespace platform {
namespace {

using namespace std::chrono_literals;

TEST(SerialQueueTest, RunsItemsFromManyThreadsOneAtATimeInOrder) {
  constexpr int kThreads = 4;
  constexpr int kPerThread = 2000;
  SerialQueue queue("com.vorn.test.fifo");
  EXPECT_EQ(queue.label(), "com.vorn.test.fifo");
  EXPECT_FALSE(queue.isCurrent());
  std::vector<std::vector<int>> runs(kThreads);  // touched only by work on the queue
  std::atomic<int> inFlight{0};
  std::atomic<int> faults{0};  // overlapping items, or isCurrent() false on the queue
  std::vector<std::thread> producers;
  for (int t = 0; t < kThreads; ++t) {
    producers.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) {
        queue.async([&, t, i] {
          if (inFlight.fetch_add(1) != 0 || !queue.isCurrent()) ++faults;
          runs[static_cast<std::size_t>(t)].push_back(i);
          std::this_thread::yield();
          inFlight.fetch_sub(1);
        });
      }
    });
  }
  for (auto& producer : producers) producer.join();
  // Work submitted from work runs after it.
  std::promise<std::vector<std::string>> events;
  queue.async([&] {
    auto seen = std::make_shared<std::vector<std::string>>();
    queue.async([&, seen] {
      seen->push_back("inner");
      events.set_value(*seen);
    });
    seen->push_back("outer end");
  });
  auto order = events.get_future();
  ASSERT_EQ(order.wait_for(30s), std::future_status::ready);
  EXPECT_EQ(order.get(), (std::vector<std::string>{"outer end", "inner"}));
  EXPECT_EQ(faults.load(), 0);
  std::vector<int> expected(kPerThread);
  std::iota(expected.begin(), expected.end(), 0);
  for (const auto& run : runs) EXPECT_EQ(run, expected);
}

TEST(SerialQueueTest, QueuedWorkRunsAfterTheOwnerLetsGoEvenFromInsideTheQueue) {
  auto queue = std::make_shared<SerialQueue>("com.vorn.test.a-label-longer-than-fifteen");
  std::promise<void> gate;
  std::shared_future<void> opened = gate.get_future().share();
  std::atomic<int> ran{0};
  std::promise<int> last;
  // The first item holds the only reference once the test drops its own, then drops it too.
  queue->async([keep = queue, opened]() mutable {
    opened.wait();
    keep.reset();
  });
  for (int i = 0; i < 100; ++i) queue->async([&] { ++ran; });
  queue->async([&] { last.set_value(ran.load()); });
  queue.reset();
  gate.set_value();
  auto ranWhenLast = last.get_future();
  ASSERT_EQ(ranWhenLast.wait_for(30s), std::future_status::ready);
  EXPECT_EQ(ranWhenLast.get(), 100);
}

}  // namespace
}  // namespace platform
