// The transaction observer against a simulated store: unverified updates forwarded, a record
// that cannot be written dropped with one log line, the end of an old loop stopping the
// current one, calls and restarts all at once, a clean exit. (Starting, stopping, forwarding
// through the plug-in and a loop outliving its observer: tests/integration/service_test.cpp.)
#include "observer/transaction_observer.h"
#include "platform/logger.h"
#include "support/store_service.h"

#include <gtest/gtest.h>

#include <semaphore>
#include <set>
#include <thread>

namespace {

using namespace testsupport;
using VornTeskPaymentsAddonApple::TransactionObserver;

class ObserverTest : public ServiceTest {
 protected:
  void TearDown() override {
    observer->stop();
    ServiceTest::TearDown();
  }
  std::shared_ptr<TransactionObserver> observer = std::make_shared<TransactionObserver>();
  EventLog events;
};

TEST_F(ObserverTest, UpdatesAreForwardedVerifiedOrNotAndUnwritableOnesDroppedWithOneLogLine) {
  struct Captured {
    std::mutex mutex;
    std::vector<platform::LogRecord> records;
  };
  auto captured = std::make_shared<Captured>();
  auto previousSink = platform::Logger::setSink([captured](const platform::LogRecord& record) {
    std::lock_guard lock(captured->mutex);
    captured->records.push_back(record);
  });
  // Both left unfinished, so the store's first update listener hears of them: a good one,
  // then one whose product identifier is not UTF-8.
  const auto good = store->buyProduct(kCoins);
  auto broken = good.payload();
  broken["transactionId"] = "900";
  broken["productId"] = "coins\xFF\xFE";
  store->insertTransaction(broken);

  ASSERT_TRUE(observer->start());
  EXPECT_TRUE(observer->isRunning());
  ASSERT_EQ(events.waitFor(1).size(), 1u);
  store->setSimulatedError(
      storekit::StoreKitAPI::verification,
      storekit::VerificationError(storekit::VerificationError::Code::invalidSignature));
  const auto later = store->buyProduct(kRemoveAds).id();
  const auto got = events.waitFor(2);
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(idOf(got[0]), good.id());
  expectRecordOf(*store, json::parse(got[0].payload));
  EXPECT_EQ(idOf(got[1]), later);
  expectRecordOf(*store, json::parse(got[1].payload), 2, 1);
  platform::Logger::setSink(previousSink);

  std::lock_guard lock(captured->mutex);
  ASSERT_EQ(captured->records.size(), 1u);
  const auto& line = captured->records[0];
  EXPECT_EQ(line.subsystem, "com.qubrixplatform.vorntesk.payments.addon.apple");
  EXPECT_EQ(line.category, "TransactionObserver");
  EXPECT_EQ(line.level, platform::LogLevel::error);
  EXPECT_EQ(line.message, "OnTransactionUpdate payload encoding failed; dropping the event");
}

TEST_F(ObserverTest, TheEndOfAnOldLoopStopsTheLoopStartedAfterIt) {
  // The first event holds its loop inside the listener until released.
  auto entered = std::make_shared<std::binary_semaphore>(0);
  auto release = std::make_shared<std::binary_semaphore>(0);
  auto first = std::make_shared<std::atomic<bool>>(true);
  auto& dispatcher = vorn::tesk::TeskBridgeDispatcher::shared();
  const auto token = dispatcher.addEventListener([=](const auto&, const auto&) {
    if (!first->exchange(false)) return;
    entered->release();
    release->try_acquire_for(std::chrono::seconds(60));
  });
  ASSERT_TRUE(observer->start());
  store->buyProduct(kCoins);
  ASSERT_TRUE(entered->try_acquire_for(std::chrono::seconds(60)));
  observer->stop();
  ASSERT_TRUE(observer->start());
  release->release();
  // The old loop sees its sequence end and stops whatever loop is current: the new one.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (observer->isRunning() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
  EXPECT_FALSE(observer->isRunning());
  EXPECT_TRUE(observer->start());
  dispatcher.removeEventListener(token);
}

// Run under the thread sanitizer too.
TEST_F(ObserverTest, CallsGoOnWhileTheObserverForwardsAndIsRestarted) {
  const std::string ok = R"({"success":{}})";
  ASSERT_EQ(call("StartTransactionObserver"), ok);
  // Outside purchases from several threads while the app calls: each one forwarded once, with
  // an identifier of its own.
  std::mutex mutex;
  std::set<std::uint64_t> bought;
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 10; ++i) {
        const auto id = store->buyProduct(kCoins).id();
        std::lock_guard lock(mutex);
        bought.insert(id);
      }
    });
  }
  for (int i = 0; i < 10; ++i) {
    EXPECT_NE(purchase(kCoins), 0u);
    EXPECT_EQ(call("GetUnfinishedTransactions").rfind(R"({"success":{"transactions":[)", 0), 0u);
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(bought.size(), 30u);
  EXPECT_EQ(events.waitFor(30).size(), 30u);

  // Restarts through the plug-in and of a second observer, against outside purchases,
  // renewals and the app's own calls.
  threads.clear();
  threads.emplace_back([&] {
    for (int i = 0; i < 50; ++i) observer->start(), observer->stop();
  });
  threads.emplace_back([&] {
    for (int i = 0; i < 20; ++i) {
      store->buyProduct(kCoins);
      store->advanceTime(std::chrono::milliseconds(std::chrono::hours(24 * 8)));
    }
  });
  EXPECT_NE(purchase(kPro), 0u);
  for (int i = 0; i < 30; ++i) {
    EXPECT_EQ(call("StopTransactionObserver"), ok);
    EXPECT_EQ(call("GetCurrentEntitlements").rfind(R"({"success":)", 0), 0u);
    EXPECT_EQ(call("StartTransactionObserver"), ok);
  }
  for (auto& thread : threads) thread.join();
}

TEST(ObserverExitTest, TheProcessExitsCleanlyWhileALoopIsBusyWithUpdates) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        auto store = storekit::LocalStore::createFromFile(kSampleStore);
        storekit::LocalStore::setShared(store);
        // Left unfinished, all of them reach the store's first update listener.
        for (int i = 0; i < 300; ++i) store->buyProduct(kCoins);
        EventLog events;
        auto observer = std::make_shared<TransactionObserver>();
        observer->start();
        events.waitFor(1);
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
