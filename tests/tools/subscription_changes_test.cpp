// Moving between the subscriptions of a group as the app sees it through the driver: up at
// once, down or across to another duration at the next renewal, taken back by buying the
// current one again; and family members given access and losing it.
#include <gtest/gtest.h>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include <algorithm>

#include <string>
#include <vector>

#include "tools/subscription_session.h"

namespace {

using namespace testsupport;
using namespace std::chrono;

const std::vector<std::string> kPlans = {"--config", VORNTESK_SOURCE_DIR "/tests/tools/data/plans.storekit"};

std::string autoRenewProduct(Session& session) {
  return std::string(session.status("G1").at("renewalInfo").at("autoRenewProductId").as_string());
}

// The product, id and isUpgraded of every transaction in the service's history.
std::vector<std::string> history(Session& session) {
  std::vector<std::string> rows;
  const auto answer = session.call("GetAllTransactions");
  for (const auto& t : answer.at("envelope").at("success").at("transactions").as_array()) {
    rows.push_back(std::to_string(t.at("id").as_int64()) + " " + std::string(t.at("productId").as_string()) +
                   (t.at("isUpgraded").as_bool() ? " upgraded" : ""));
  }
  return rows;
}

std::int64_t purchase(Session& session, const std::string& productID) {
  return session.call("Purchase", R"({"productId":")" + productID + R"("})")
      .at("envelope").at("success").at("transaction").at("id").as_int64();
}

TEST(SubscriptionChanges, UpAtOnceDownOrToAnotherDurationAtTheNextRenewal) {
  Session session({}, kPlans);
  EXPECT_EQ(purchase(session, "standard.monthly"), 1);

  // Up a tier, and across to the same duration: at once, the replaced one marked upgraded.
  EXPECT_EQ(purchase(session, "premium.monthly"), 2);
  EXPECT_EQ(purchase(session, "premium.monthly.plus"), 3);
  EXPECT_EQ(history(session), (std::vector<std::string>{"1 standard.monthly upgraded",
                                                        "2 premium.monthly upgraded",
                                                        "3 premium.monthly.plus"}));
  EXPECT_EQ(session.entitlements(), std::vector<std::int64_t>{3});
  EXPECT_EQ(autoRenewProduct(session), "premium.monthly.plus");

  // Across to another duration: the purchase answers with the current transaction, and only
  // the renewal info changes; buying the current product again takes it back.
  EXPECT_EQ(purchase(session, "premium.yearly"), 3);
  EXPECT_EQ(autoRenewProduct(session), "premium.yearly");
  EXPECT_EQ(purchase(session, "premium.monthly.plus"), 3);
  EXPECT_EQ(autoRenewProduct(session), "premium.monthly.plus");

  // Down a tier: entitled to the current one until the renewal, which is the lower one.
  EXPECT_EQ(purchase(session, "standard.monthly"), 3);
  EXPECT_EQ(autoRenewProduct(session), "standard.monthly");
  EXPECT_EQ(session.entitlements(), std::vector<std::int64_t>{3});
  session.advance(days(32));
  const auto status = session.status("G1");
  const auto events = session.newEvents();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].at("productId"), "standard.monthly");
  EXPECT_EQ(events[0].at("price"), "2.99");
  EXPECT_EQ(status.at("renewalInfo").at("productId"), "standard.monthly");
  EXPECT_EQ(session.entitlements(), std::vector<std::int64_t>{events[0].at("id").as_int64()});
  EXPECT_EQ(history(session).size(), 4u);
  const Notice upgrade{"DID_CHANGE_RENEWAL_PREF", "UPGRADE", 1},
      downgrade{"DID_CHANGE_RENEWAL_PREF", "DOWNGRADE", 1}, back{"DID_CHANGE_RENEWAL_PREF", "", 1};
  EXPECT_EQ(session.newNotices(), (Notices{{"SUBSCRIBED", "INITIAL_BUY", 1}, upgrade, upgrade,
                                           downgrade, back, downgrade, {"DID_RENEW", "", 1}}));
}

TEST(SubscriptionChanges, ExpiredSubscribersSeeWinBackOffersAndALongLapseStartsANewRun) {
  Session session({}, kPlans);
  const auto startOf = [&] { return info(session.status("G1"), "recentSubscriptionStartDate"); };
  const auto purchaseDate = [](const json::value& answer) {
    return platform::millisecondsSince1970(*platform::parseRFC3339(
        answer.at("envelope").at("success").at("transaction").at("purchaseDate").as_string()));
  };
  const auto bought = session.call("Purchase", R"({"productId":"standard.monthly"})");
  EXPECT_EQ(startOf(), purchaseDate(bought));
  session.control(R"("store":"disableAutoRenewForTransaction","identifier":1)");
  session.advance(days(40));
  auto renewalInfo = session.status("G1").at("renewalInfo").as_object();
  ASSERT_TRUE(renewalInfo.contains("eligibleWinBackOfferIds"));
  EXPECT_EQ(renewalInfo.at("eligibleWinBackOfferIds"), json::array{"standard.welcomeback"});

  // Back within 60 days of the expiry: the same run goes on; after longer, a new one begins.
  session.call("Purchase", R"({"productId":"standard.monthly"})");
  EXPECT_EQ(startOf(), purchaseDate(bought));
  EXPECT_FALSE(session.status("G1").at("renewalInfo").as_object().contains("eligibleWinBackOfferIds"));
  session.control(R"("store":"disableAutoRenewForTransaction","identifier":2)");
  session.advance(days(100));
  const auto again = session.call("Purchase", R"({"productId":"standard.monthly"})");
  EXPECT_EQ(startOf(), purchaseDate(again));
}

// Xcode's billing switches set in the file itself: purchases interrupted until resolved,
// renewals failing into the grace period, all at a monthly renewal every 5 minutes.
TEST(SubscriptionChanges, AFileWithEveryBillingSettingOnBehavesAsItSays) {
  Session session({}, {"--config", VORNTESK_SOURCE_DIR "/tests/tools/data/billing.storekit"});
  EXPECT_EQ(session.control(R"("store":"timeRate")").at("value"), 13);
  const auto interrupted = session.call("Purchase", R"({"productId":"standard.monthly"})");
  EXPECT_EQ(interrupted.at("envelope").at("outcome").at("code"), "user_canceled");
  EXPECT_TRUE(session.entitlements().empty());
  session.control(R"("store":"interruptedPurchasesEnabled","value":false)");
  session.control(R"("store":"resolveIssueForTransaction","identifier":1)");
  EXPECT_EQ(session.entitlements(), std::vector<std::int64_t>{1});
  auto events = session.newEvents();
  ASSERT_EQ(events.size(), 1u);
  const auto expires = platform::parseRFC3339(events[0].at("expirationDate").as_string());
  const auto purchased = platform::parseRFC3339(events[0].at("purchaseDate").as_string());
  EXPECT_EQ(*expires - *purchased, minutes(5));

  session.advance(minutes(5) + seconds(5));
  const auto status = session.status("G1");
  EXPECT_EQ(status.at("status"), 4);
  EXPECT_EQ(info(status, "gracePeriodExpiresDate") - info(status, "renewalDate"), 150'000);
  EXPECT_TRUE(session.newEvents().empty());
}

TEST(FamilySharing, SharedProductsArriveOwnedAsFamilySharedAndLeaveWhenRevoked) {
  Session session({}, kPlans);
  const auto ownership = [](const json::object& t) { return t.at("ownershipType").as_int64(); };
  std::vector<std::int64_t> shared;
  for (const char* product : {"album", "premium.yearly"}) {
    const auto answer = session.control(R"("store":"shareWithFamily","productID":")" +
                                        std::string(product) + R"(")");
    shared.push_back(answer.at("transactionId").as_int64());
  }
  session.call("GetStorefront");  // the events of the lines before come before its answer
  auto events = session.newEvents();
  ASSERT_EQ(events.size(), 2u);
  for (const auto& event : events) EXPECT_EQ(ownership(event), 2) << json::serialize(event);
  EXPECT_EQ(session.entitlements(), shared);
  const auto listing = session.call("GetCurrentEntitlements");
  for (const auto& t : listing.at("envelope").at("success").at("transactions").as_array()) {
    EXPECT_EQ(ownership(t.as_object()), 2);
  }

  // Not every product can be shared; only shared transactions can be revoked.
  const auto own = purchase(session, "standard.monthly");
  for (const std::string& line :
       {std::string(R"({"id":"x","store":"shareWithFamily","productID":"standard.monthly"})"),
        R"({"id":"y","store":"revokeFamilySharing","identifier":)" + std::to_string(own) + "}"}) {
    RunningDriver driver(kPlans);
    const auto answer = driver.ask(line);
    ASSERT_TRUE(answer);
    EXPECT_NE(answer->find(R"("error":)"), std::string::npos) << *answer;
  }

  session.control(R"("store":"revokeFamilySharing","identifier":)" + std::to_string(shared[0]));
  session.call("GetStorefront");  // the events of the lines before come before its answer
  events = session.newEvents();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].at("id"), shared[0]);
  EXPECT_TRUE(events[0].contains("revocationDate"));
  EXPECT_EQ(ownership(events[0]), 2);
  const auto entitled = session.entitlements();
  EXPECT_EQ(std::count(entitled.begin(), entitled.end(), shared[0]), 0);
  EXPECT_EQ(session.newNotices(),
            (Notices{{"ONE_TIME_CHARGE", "", 0}, {"SUBSCRIBED", "INITIAL_BUY", 1},
                     {"SUBSCRIBED", "INITIAL_BUY", 1}, {"REVOKE", "", 0}}));
}

// A refund the customer asks for in the app: the developer's server is asked for consumption
// information (and a subscription stops renewing); Apple then grants or declines it, and a
// granted one can be reversed, which gives the app its purchase back.
TEST(Refunds, RequestedThenGrantedOrDeclinedAndReversed) {
  Session session({}, kPlans);
  const auto subscription = purchase(session, "standard.monthly");
  const auto album = purchase(session, "album");
  (void)session.newNotices();
  const auto id = [](std::int64_t value) { return std::to_string(value); };

  session.control(R"("store":"requestRefund","identifier":)" + id(subscription) +
                  R"(,"reason":"UNINTENDED_PURCHASE")");
  EXPECT_EQ(session.newNotices(), (Notices{{"DID_CHANGE_RENEWAL_STATUS", "AUTO_RENEW_DISABLED", 1},
                                           {"CONSUMPTION_REQUEST", "", 1}}));
  const auto made = session.control(R"("store":"notifications")").at("notifications").as_array();
  EXPECT_EQ(made.back().at("payload").at("data").at("consumptionRequestReason"), "UNINTENDED_PURCHASE");
  EXPECT_EQ(info(session.status("G1"), "autoRenewStatus"), 0);

  session.control(R"("store":"refundTransaction","identifier":)" + id(subscription));
  EXPECT_TRUE(session.entitlements() == std::vector<std::int64_t>{album});
  session.control(R"("store":"reverseRefund","identifier":)" + id(subscription));
  EXPECT_EQ(session.status("G1").at("status"), 1);
  const auto events = session.newEvents();
  ASSERT_EQ(events.size(), 2u);  // revoked, then reinstated
  EXPECT_TRUE(events[0].contains("revocationDate"));
  EXPECT_FALSE(events[1].contains("revocationDate"));
  EXPECT_EQ(session.entitlements(), (std::vector<std::int64_t>{subscription, album}));

  session.control(R"("store":"requestRefund","identifier":)" + id(album) + R"(,"reason":"LEGAL")");
  session.control(R"("store":"declineRefund","identifier":)" + id(album));
  EXPECT_EQ(session.newNotices(), (Notices{{"REFUND", "", 5},
                                           {"REFUND_REVERSED", "", 1},
                                           {"CONSUMPTION_REQUEST", "", 0},
                                           {"REFUND_DECLINED", "", 0}}));

  // What cannot be asked for, granted or reversed is refused in words.
  for (const char* line :
       {R"({"id":"x","store":"requestRefund","identifier":2,"reason":"TOO_EXPENSIVE"})",
        R"({"id":"x","store":"requestRefund","identifier":9,"reason":"OTHER"})",
        R"({"id":"x","store":"reverseRefund","identifier":2})",
        R"({"id":"x","store":"declineRefund","identifier":9})"}) {
    RunningDriver driver(kPlans);
    ASSERT_TRUE(driver.ask(R"({"id":"b","store":"buyProduct","productID":"standard.monthly"})"));
    ASSERT_TRUE(driver.ask(R"({"id":"c","store":"buyProduct","productID":"album"})"));
    const auto answer = driver.ask(line);
    ASSERT_TRUE(answer);
    EXPECT_NE(answer->find(R"("error":)"), std::string::npos) << line << "\n  " << *answer;
  }
}

}  // namespace
