// Delivery of the store's notifications to a receiver in this process: failed attempts are
// recorded with Apple's result names and retried on Apple's schedule as the store clock moves,
// every attempt carries the same notification, and the sixth failure is the last.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "appstore/local_store.h"
#include "appstore/server/notification_sender.h"
#include "support/notification_receiver.h"

namespace {

using namespace std::chrono;
using appstore::LedgerNotification;
using appstore::LocalStore;
using testsupport::NotificationReceiver;

const std::string kCoins = "com.vorntesk.sample.coins100";

class NotificationDeliveryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    store_ = LocalStore::createFromFile(VORNTESK_SOURCE_DIR "/examples/SampleStore.storekit");
    sender_ = appstore::server::NotificationSender::start(store_, {milliseconds(1000), milliseconds(300)});
  }
  void TearDown() override { sender_.reset(); }

  std::vector<LedgerNotification> all() {
    appstore::NotificationQuery query;
    query.start = platform::dateFromMillisecondsSince1970(0);
    query.end = store_->now() + hours(1);
    query.limit = 100;
    return store_->notificationHistory(query);
  }
  // The results of the attempts to send the `index`th notification, once there are `count`
  // (within five seconds).
  std::vector<std::string> attempts(std::size_t index, std::size_t count) {
    std::vector<std::string> results;
    for (int i = 0; i < 500; ++i) {
      const auto made = all();
      results.clear();
      if (made.size() > index) {
        for (const auto& attempt : made[index].attempts) results.push_back(attempt.result);
      }
      if (results.size() >= count) break;
      std::this_thread::sleep_for(milliseconds(10));
    }
    return results;
  }

  std::shared_ptr<LocalStore> store_;
  std::unique_ptr<appstore::server::NotificationSender> sender_;
};

TEST_F(NotificationDeliveryTest, FailuresAreRetriedOnTheScheduleWithTheSameNotification) {
  auto receiver = std::make_unique<NotificationReceiver>();
  ASSERT_TRUE(receiver->listening());
  const int port = receiver->port();
  receiver->answerWith(500);
  store_->setNotificationsURL(receiver->url());
  store_->buyProduct(kCoins);
  EXPECT_EQ(attempts(0, 1), (std::vector<std::string>{"UNSUCCESSFUL_HTTP_RESPONSE_CODE"}));

  // Nothing listens any more; the retry waits for its hour on the store clock.
  receiver.reset();
  store_->advanceTime(minutes(59));
  std::this_thread::sleep_for(milliseconds(200));
  EXPECT_EQ(all().at(0).attempts.size(), 1u);
  store_->advanceTime(minutes(1));
  EXPECT_EQ(attempts(0, 2).back(), "NO_RESPONSE");

  // A receiver that never answers; then one that takes it.
  receiver = std::make_unique<NotificationReceiver>(port);
  ASSERT_TRUE(receiver->listening());
  receiver->holdWithoutAnswer();
  store_->advanceTime(hours(12));
  EXPECT_EQ(attempts(0, 3).back(), "TIMED_OUT");
  receiver->answerWith(204);
  store_->advanceTime(hours(24));
  EXPECT_EQ(attempts(0, 4).back(), "SUCCESS");

  const auto made = all().at(0);
  EXPECT_FALSE(made.nextAttempt);
  ASSERT_EQ(made.attempts.size(), 4u);
  const hours gaps[] = {hours(1), hours(12), hours(24)};
  for (std::size_t i = 0; i < 3; ++i) {
    const auto gap = made.attempts[i + 1].date - made.attempts[i].date;
    EXPECT_GE(gap, gaps[i]);
    EXPECT_LT(gap, gaps[i] + seconds(5)) << "attempt " << i + 2;
  }
  // The first receiver got the first attempt; this one the last two, the same notification.
  const auto received = receiver->waitFor(2);
  ASSERT_EQ(received.size(), 2u);
  for (const auto& payload : received) {
    EXPECT_EQ(payload.at("notificationUUID").as_string(), made.uuid);
    EXPECT_EQ(payload.at("notificationType"), "ONE_TIME_CHARGE");
  }
}

// How the history reports the attempts is read with Apple's client in the interop test.
TEST_F(NotificationDeliveryTest, GivenUpAfterSixAttempts) {
  NotificationReceiver receiver;
  receiver.answerWith(503);
  store_->setNotificationsURL(receiver.url());
  store_->buyProduct(kCoins);
  ASSERT_EQ(attempts(0, 1).size(), 1u);
  std::size_t made = 1;
  for (const int wait : {1, 12, 24, 48, 72}) {
    store_->advanceTime(hours(wait));
    ASSERT_EQ(attempts(0, ++made).size(), made) << "after " << wait << " hours";
  }
  store_->advanceTime(hours(200));
  std::this_thread::sleep_for(milliseconds(200));
  EXPECT_EQ(all().at(0).attempts.size(), 6u);
  EXPECT_FALSE(all().at(0).nextAttempt);
}

}  // namespace
