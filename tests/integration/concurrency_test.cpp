// Calls, outside purchases and observer restarts all at once (run under the thread
// sanitizer too): every call answered, every update forwarded while the observer runs.
#include "observer/transaction_observer.h"
#include "support/store_service.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

using namespace testsupport;

TEST_F(ServiceTest, CallsGoOnWhileTheObserverForwardsAndIsRestarted) {
  EventLog events;
  ASSERT_EQ(call("StartTransactionObserver"), R"({"success":{}})");
  constexpr std::size_t kOutside = 20;
  std::thread outside([&] {
    for (std::size_t i = 0; i < kOutside; ++i) store->buyProduct(kCoins);
  });
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(call("Purchase", R"({"productId":")" + kCoins + R"("})").rfind(R"({"success":)", 0),
              0u);
    EXPECT_EQ(call("GetUnfinishedTransactions").rfind(R"({"success":{"transactions":[)", 0), 0u);
  }
  outside.join();
  EXPECT_EQ(events.waitFor(kOutside).size(), kOutside);

  // Restarts through the plug-in and straight on a second observer, against outside
  // purchases, renewals and the app's own calls.
  auto observer = std::make_shared<VornTeskPaymentsAddonApple::TransactionObserver>();
  std::thread restarter([&] {
    for (int i = 0; i < 50; ++i) {
      observer->start();
      observer->stop();
    }
  });
  std::thread changes([&] {
    for (int i = 0; i < 20; ++i) {
      store->buyProduct(kCoins);
      store->advanceTime(std::chrono::milliseconds(std::chrono::hours(24 * 8)));
    }
  });
  ASSERT_EQ(call("Purchase", R"({"productId":")" + kPro + R"("})").rfind(R"({"success":)", 0), 0u);
  ASSERT_EQ(call("StopTransactionObserver"), R"({"success":{}})");
  for (int i = 0; i < 30; ++i) {
    EXPECT_EQ(call("StartTransactionObserver"), R"({"success":{}})");
    EXPECT_EQ(call("GetCurrentEntitlements").rfind(R"({"success":)", 0), 0u);
    EXPECT_EQ(call("StopTransactionObserver"), R"({"success":{}})");
  }
  restarter.join();
  changes.join();
  observer->stop();
}

}  // namespace
