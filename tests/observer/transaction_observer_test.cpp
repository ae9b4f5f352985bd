// The transaction observer against a simulated store: unverified updates forwarded, a record
// that cannot be written dropped with one log line. (Restarts racing the store's updates, each
// update forwarded once: tests/stress/observer_stress_test.cpp.)
#include "observer/transaction_observer.h"
#include "platform/logger.h"
#include "storekit/device.h"
#include "support/store_service.h"

#include <gtest/gtest.h>


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

}  // namespace
