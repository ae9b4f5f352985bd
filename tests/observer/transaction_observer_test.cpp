// The transaction observer against a simulated store: one loop at a time, every update
// forwarded whether verified or not, a record that cannot be written dropped with one log
// line, the end of an old loop stopping the current one, and a loop that outlives its
// observer.
#include "observer/transaction_observer.h"
#include "platform/logger.h"
#include "support/store_service.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

using namespace testsupport;
using VornTeskPaymentsAddonApple::TransactionObserver;

std::uint64_t idOf(const EventLog::Event& event) {
  return json::parse(event.payload).at("id").to_number<std::uint64_t>();
}

std::vector<std::uint64_t> idsOf(const std::vector<EventLog::Event>& events) {
  std::vector<std::uint64_t> ids;
  for (const auto& event : events) ids.push_back(idOf(event));
  return ids;
}

class ObserverTest : public ::testing::Test {
 protected:
  void SetUp() override {
    store = storekit::LocalStore::createFromFile(kSampleStore);
    previous_ = storekit::LocalStore::setShared(store);
  }
  void TearDown() override {
    observer->stop();
    storekit::LocalStore::setShared(previous_);
  }

  std::shared_ptr<storekit::LocalStore> store;
  std::shared_ptr<TransactionObserver> observer = std::make_shared<TransactionObserver>();
  EventLog events;

 private:
  std::shared_ptr<storekit::LocalStore> previous_;
};

TEST_F(ObserverTest, OneLoopAtATimeForwardsEachUpdateOnce) {
  observer->stop();
  EXPECT_FALSE(observer->isRunning());
  EXPECT_TRUE(observer->start());
  EXPECT_FALSE(observer->start());
  EXPECT_TRUE(observer->isRunning());
  const auto first = store->buyProduct(kCoins).id();
  ASSERT_EQ(events.waitFor(1).size(), 1u);
  const auto second = store->buyProduct(kRemoveAds).id();
  const auto got = events.waitFor(2);
  // A second loop would have forwarded the first purchase twice by now.
  EXPECT_EQ(idsOf(got), (std::vector<std::uint64_t>{first, second}));
  for (const auto& event : got) {
    EXPECT_EQ(event.name, "AppleStoreKitService.OnTransactionUpdate");
    expectRecordOf(*store, json::parse(event.payload));
  }
  observer->stop();
  observer->stop();
  EXPECT_FALSE(observer->isRunning());
}

TEST_F(ObserverTest, UnverifiedUpdatesAreForwardedWithTheirStatusAndError) {
  store->setSimulatedError(
      storekit::StoreKitAPI::verification,
      storekit::VerificationError(storekit::VerificationError::Code::invalidSignature));
  ASSERT_TRUE(observer->start());
  const auto id = store->buyProduct(kCoins).id();
  const auto got = events.waitFor(1);
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(idOf(got[0]), id);
  expectRecordOf(*store, json::parse(got[0].payload), {2, 1});
}

TEST_F(ObserverTest, ARecordThatCannotBeWrittenIsDroppedWithOneErrorLine) {
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
  const auto later = store->buyProduct(kRemoveAds).id();
  const auto got = events.waitFor(2);
  EXPECT_EQ(idsOf(got), (std::vector<std::uint64_t>{good.id(), later}));
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
  auto entered = std::make_shared<Gate>();
  auto release = std::make_shared<Gate>();
  auto first = std::make_shared<std::atomic<bool>>(true);
  auto& dispatcher = vorn::tesk::TeskBridgeDispatcher::shared();
  const auto token = dispatcher.addEventListener([=](const auto&, const auto&) {
    if (!first->exchange(false)) return;
    entered->open();
    release->wait();
  });
  ASSERT_TRUE(observer->start());
  store->buyProduct(kCoins);
  ASSERT_TRUE(entered->wait());
  observer->stop();
  ASSERT_TRUE(observer->start());
  EXPECT_TRUE(observer->isRunning());
  release->open();
  // The old loop sees its sequence end and stops whatever loop is current: the new one.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (observer->isRunning() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
  EXPECT_FALSE(observer->isRunning());
  EXPECT_TRUE(observer->start());
  dispatcher.removeEventListener(token);
}

TEST_F(ObserverTest, ALoopOutlivesItsObserverAndKeepsForwarding) {
  auto orphan = std::make_shared<TransactionObserver>();
  std::weak_ptr<TransactionObserver> watched = orphan;
  ASSERT_TRUE(orphan->start());
  orphan.reset();
  EXPECT_TRUE(watched.expired());
  const auto id = store->buyProduct(kCoins).id();
  const auto got = events.waitFor(1);
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(idOf(got[0]), id);
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
