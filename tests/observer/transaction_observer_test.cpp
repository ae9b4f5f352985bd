// The transaction observer against a simulated store: unverified updates forwarded, a record
// that cannot be written dropped with one log line, calls and restarts all at once.
#include "observer/transaction_observer.h"
#include "platform/logger.h"
#include "storekit/device.h"
#include "support/store_service.h"

#include <gtest/gtest.h>

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
  auto log = std::make_shared<std::pair<std::mutex, std::vector<platform::LogRecord>>>();
  auto previousSink = platform::Logger::setSink([log](const platform::LogRecord& record) {
    std::lock_guard lock(log->first);
    log->second.push_back(record);
  });
  // Both left unfinished, so the store's first update listener hears of them: a good one,
  // then one whose product identifier is not UTF-8.
  const auto good = transactionOf(store->buyProduct(kCoins));
  auto broken = good.payload();
  broken["transactionId"] = "900";
  broken["productId"] = "coins\xFF\xFE";
  store->insertTransaction(broken);

  ASSERT_TRUE(observer->start());
  ASSERT_EQ(events.waitFor(1).size(), 1u);
  store->setSimulatedError(appstore::StoreKitAPI::verification,
                           appstore::StoreFailure::named("invalidSignature"));
  const auto later = store->buyProduct(kRemoveAds).id;
  const auto got = events.waitFor(2);
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(json::parse(got[0].payload).at("id"), good.id());
  expectRecordOf(*store, json::parse(got[0].payload));
  EXPECT_EQ(json::parse(got[1].payload).at("id"), later);
  expectRecordOf(*store, json::parse(got[1].payload), 2, 1);
  platform::Logger::setSink(previousSink);

  std::lock_guard lock(log->first);
  ASSERT_EQ(log->second.size(), 1u);
  const auto& line = log->second[0];
  EXPECT_EQ(line.level, platform::LogLevel::error);
  EXPECT_EQ(line.subsystem + " " + line.category + ": " + line.message,
            "com.qubrixplatform.vorntesk.payments.addon.apple TransactionObserver: "
            "OnTransactionUpdate payload encoding failed; dropping the event");
}

// Run under the thread sanitizer too.
TEST_F(ObserverTest, CallsGoOnWhileTheObserverForwardsAndIsRestarted) {
  const std::string ok = R"({"success":{}})";
  ASSERT_EQ(call("StartTransactionObserver"), ok);
  // The observer subscribes from its own task. Until it has, the app's purchases would count
  // as unfinished and come with the first sequence's replay, as on a device.
  ASSERT_TRUE(storekit::Device::current()->waitUntilUpdatesDelivered(std::chrono::seconds(10), 1));
  // Outside purchases from several threads while the app calls: each one forwarded once.
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 10; ++i) store->buyProduct(kCoins);
    });
  }
  for (int i = 0; i < 10; ++i) {
    EXPECT_NE(purchase(kCoins), 0u);
    EXPECT_EQ(call("GetUnfinishedTransactions").rfind(R"({"success":{"transactions":[)", 0), 0u);
  }
  for (auto& thread : threads) thread.join();
  const auto got = events.waitFor(30);
  std::set<std::string> ids;  // each with an identifier of its own
  for (const auto& e : got) ids.insert(json::serialize(json::parse(e.payload).at("id")));
  EXPECT_EQ(got.size(), 30u);
  EXPECT_EQ(ids.size(), 30u);

  // Restarts through the plug-in and of a second observer, against outside purchases,
  // renewals and the app's own calls.
  threads.clear();
  threads.emplace_back([&] {
    for (int i = 0; i < 50; ++i) observer->start(), observer->stop();
  });
  threads.emplace_back([&] {
    for (int i = 0; i < 20; ++i) store->buyProduct(kCoins), store->advanceTime(8 * 24 * 3600.0);
  });
  EXPECT_NE(purchase(kPro), 0u);
  for (int i = 0; i < 30; ++i) {
    EXPECT_EQ(call("StopTransactionObserver"), ok);
    EXPECT_EQ(call("GetCurrentEntitlements").rfind(R"({"success":)", 0), 0u);
    EXPECT_EQ(call("StartTransactionObserver"), ok);
  }
  for (auto& thread : threads) thread.join();
}

}  // namespace
