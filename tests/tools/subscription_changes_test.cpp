// Moving between the subscriptions of a group as the app sees it through the driver: up at
// once, down or across to another duration at the next renewal, taken back by buying the
// current one again; family members given access, renewing with the organizer, and losing it;
// refunds.
#include <gtest/gtest.h>

#include <boost/json/serialize.hpp>

#include <algorithm>
#include <string>
#include <vector>

#include "tools/subscription_session.h"

namespace {

using namespace testsupport;
using namespace std::chrono;

std::string autoRenewProduct(Session& session) {
  return std::string(session.status("G1").at("renewalInfo").at("autoRenewProductId").as_string());
}

std::int64_t purchase(Session& session, const std::string& productID) {
  return session.purchase(productID).at("transaction").at("id").as_int64();
}

// The product, id and isUpgraded of every transaction in the service's history.
std::vector<std::string> history(Session& session) {
  std::vector<std::string> rows;
  const auto answer = session.call("GetAllTransactions");
  for (const auto& t : answer.at("envelope").at("success").at("transactions").as_array()) {
    rows.push_back(std::to_string(t.at("id").as_int64()) + " " +
                   std::string(t.at("productId").as_string()) +
                   (t.at("isUpgraded").as_bool() ? " upgraded" : ""));
  }
  return rows;
}

TEST(SubscriptionChanges, UpAtOnceDownOrToAnotherDurationAtTheNextRenewal) {
  Session session({}, kPlans);
  EXPECT_EQ(purchase(session, "standard.monthly"), 1);

  // Up a tier, and across to the same duration: at once, the replaced one marked upgraded.
  EXPECT_EQ(purchase(session, "premium.monthly"), 2);
  EXPECT_EQ(purchase(session, "premium.monthly.plus"), 3);
  EXPECT_EQ(history(session),
            (std::vector<std::string>{"1 standard.monthly upgraded", "2 premium.monthly upgraded",
                                      "3 premium.monthly.plus"}));
  EXPECT_EQ(session.entitlements(), Ids{3});
  EXPECT_EQ(autoRenewProduct(session), "premium.monthly.plus");

  // Across to another duration: the purchase answers with the current transaction, and only
  // the renewal info changes; buying the current product again takes it back. Down a tier:
  // entitled to the current one until the renewal, which is the lower one.
  for (const char* product : {"premium.yearly", "premium.monthly.plus", "standard.monthly"}) {
    EXPECT_EQ(purchase(session, product), 3);
    EXPECT_EQ(autoRenewProduct(session), product);
  }
  EXPECT_EQ(session.entitlements(), Ids{3});
  session.advance(days(32));
  const auto status = session.status("G1");
  const auto events = session.newEvents();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].at("productId"), "standard.monthly");
  EXPECT_EQ(events[0].at("price"), "2.99");
  EXPECT_EQ(status.at("renewalInfo").at("productId"), "standard.monthly");
  EXPECT_EQ(session.entitlements(), Ids{events[0].at("id").as_int64()});
  EXPECT_EQ(history(session).size(), 4u);
  const Notice upgrade{"DID_CHANGE_RENEWAL_PREF", "UPGRADE", 1},
      downgrade{"DID_CHANGE_RENEWAL_PREF", "DOWNGRADE", 1}, back{"DID_CHANGE_RENEWAL_PREF", "", 1};
  EXPECT_EQ(session.newNotices(), (Notices{{"SUBSCRIBED", "INITIAL_BUY", 1},
                                           upgrade,
                                           upgrade,
                                           downgrade,
                                           back,
                                           downgrade,
                                           {"DID_RENEW", "", 1}}));
}

TEST(SubscriptionChanges, ExpiredSubscribersSeeWinBackOffersAndALongLapseStartsANewRun) {
  Session session({}, kPlans);
  const auto startOf = [&] { return info(session.status("G1"), "recentSubscriptionStartDate"); };
  const auto winBack = [&]() -> json::value {  // null when there are none
    const auto info = session.status("G1").at("renewalInfo").as_object();
    return info.contains("eligibleWinBackOfferIds") ? info.at("eligibleWinBackOfferIds") : nullptr;
  };
  const auto bought =
      msOf(session.purchase("standard.monthly").at("transaction").at("purchaseDate"));
  EXPECT_EQ(startOf(), bought);
  session.control("disableAutoRenewForTransaction", 1);
  session.advance(days(40));
  EXPECT_EQ(winBack(), json::array{"standard.welcomeback"});

  // Back within 60 days of the expiry: the same run goes on; after longer, a new one begins.
  session.purchase("standard.monthly");
  EXPECT_EQ(startOf(), bought);
  EXPECT_TRUE(winBack().is_null());
  session.control("disableAutoRenewForTransaction", 2);
  session.advance(days(100));
  const auto again =
      msOf(session.purchase("standard.monthly").at("transaction").at("purchaseDate"));
  EXPECT_EQ(startOf(), again);
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
  session.control("resolveIssueForTransaction", 1);
  EXPECT_EQ(session.entitlements(), Ids{1});
  auto events = session.newEvents();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(msOf(events[0].at("expirationDate")) - msOf(events[0].at("purchaseDate")), 300'000);

  session.advance(minutes(5) + seconds(5));
  const auto status = session.status("G1");
  EXPECT_EQ(status.at("status"), 4);
  EXPECT_EQ(info(status, "gracePeriodExpiresDate") - info(status, "renewalDate"), 150'000);
  EXPECT_TRUE(session.newEvents().empty());
}

TEST(FamilySharing, SharedProductsArriveOwnedAsFamilySharedAndLeaveWhenRevoked) {
  Session session({}, kPlans);
  Ids shared;
  for (const char* product : {"album", "premium.yearly"}) {
    const auto answer = session.control(R"("store":"shareWithFamily","productID":")" +
                                        std::string(product) + R"(")");
    shared.push_back(answer.at("transactionId").as_int64());
  }
  session.call("GetStorefront");  // the events of the lines before come before its answer
  auto events = session.newEvents();
  ASSERT_EQ(events.size(), 2u);
  for (const auto& event : events)
    EXPECT_EQ(event.at("ownershipType"), 2) << json::serialize(event);
  EXPECT_EQ(session.entitlements(), shared);
  const auto listing = session.call("GetCurrentEntitlements");
  for (const auto& t : listing.at("envelope").at("success").at("transactions").as_array()) {
    EXPECT_EQ(t.at("ownershipType"), 2);
  }

  // The account's own subscription in the same group starts a chain of its own, which the
  // group follows from then on.
  const auto own = purchase(session, "standard.monthly");
  EXPECT_NE(own, shared[1]);
  EXPECT_EQ(session.status("G1").at("renewalInfo").at("originalTransactionId").as_string(),
            std::to_string(own));
  session.control("revokeFamilySharing", shared[0]);
  session.call("GetStorefront");
  events = session.newEvents();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].at("id"), shared[0]);
  EXPECT_TRUE(events[0].contains("revocationDate"));
  EXPECT_EQ(events[0].at("ownershipType"), 2);
  const auto entitled = session.entitlements();
  EXPECT_EQ(std::count(entitled.begin(), entitled.end(), shared[0]), 0);
  EXPECT_EQ(std::count(entitled.begin(), entitled.end(), own), 1);
  EXPECT_EQ(session.newNotices(), (Notices{{"ONE_TIME_CHARGE", "", 0},
                                           {"SUBSCRIBED", "INITIAL_BUY", 1},
                                           {"SUBSCRIBED", "INITIAL_BUY", 1},
                                           {"REVOKE", "", 0}}));
}

// A shared subscription renews with the organizer's, whatever this account's billing, until
// the sharing is revoked; the member cannot manage it, and the group holds one subscription.
TEST(FamilySharing, ASharedSubscriptionRenewsWithTheOrganizersUntilRevoked) {
  // A monthly period every 5 minutes, and this account's renewals failing into billing retry.
  Session session({R"("store":"timeRate","value":13)",
                   R"("store":"shouldEnterBillingRetryOnRenewal","value":true)",
                   R"("store":"billingGracePeriodIsEnabled","value":true)"},
                  kPlans);
  const auto share = [&](const std::string& product) {
    return R"("store":"shareWithFamily","productID":")" + product + "\"";
  };
  const auto shared = session.control(share("premium.monthly")).at("transactionId").as_int64();
  const auto on = [&](const char* name) {
    return R"("store":")" + std::string(name) + R"(","identifier":)" + std::to_string(shared);
  };
  const struct {
    std::string line, error;
  } refused[] = {
      {on("disableAutoRenewForTransaction"), "only the family organizer can manage"},
      {on("requestPriceIncreaseConsentForTransaction") + R"(,"price":"9.99")",
       "only the family organizer can manage"},
      {on("declinePriceIncrease"), "only the family organizer can manage"},
      {R"("store":"extendRenewalDate","originalTransactionId":)" + std::to_string(shared) +
           R"(,"extendByDays":7,"requestIdentifier":"r")",
       "familyShared"},
      {share("premium.yearly"), "already holds a subscription of group G1"},
  };
  for (const auto& line : refused) {
    EXPECT_NE(session.refusal(line.line).find(line.error), std::string::npos) << line.line;
  }
  auto status = session.status("G1");
  EXPECT_EQ(status.at("status"), 1);
  EXPECT_EQ(info(status, "autoRenewStatus"), 1);
  EXPECT_EQ(status.at("renewalInfo").at("originalTransactionId").as_string(),
            std::to_string(shared));

  // Two renewals, each a family-shared transaction of the same chain; none failed.
  session.advance(minutes(10) + seconds(30));
  session.call("GetStorefront");  // the events of the lines before come before its answer
  auto events = session.newEvents();
  ASSERT_EQ(events.size(), 3u);
  Ids renewals;
  for (std::size_t i = 0; i < events.size(); ++i) {
    EXPECT_EQ(events[i].at("ownershipType"), 2) << json::serialize(events[i]);
    EXPECT_EQ(events[i].at("originalId"), shared);
    EXPECT_EQ(events[i].at("transactionReason"), i == 0 ? 1 : 2);
    if (i > 0) renewals.push_back(events[i].at("id").as_int64());
  }
  status = session.status("G1");
  EXPECT_EQ(status.at("status"), 1);
  EXPECT_FALSE(inBillingRetry(status));
  EXPECT_EQ(status.at("transactionId"), renewals.back());
  EXPECT_EQ(info(status, "autoRenewStatus"), 1);
  EXPECT_EQ(session.entitlements(), Ids{renewals.back()});
  EXPECT_EQ(session.newNotices(), (Notices{{"SUBSCRIBED", "INITIAL_BUY", 1},
                                           {"DID_RENEW", "", 1},
                                           {"DID_RENEW", "", 1}}));
  const auto made = session.control(R"("store":"notifications")").at("notifications").as_array();
  EXPECT_TRUE(made.back().at("payload").at("data").as_object().contains("signedRenewalInfo"));

  // Revoked: the subscription ends at once and renews no more.
  session.control("revokeFamilySharing", renewals.back());
  session.advance(minutes(11));
  status = session.status("G1");
  EXPECT_EQ(status.at("status"), 5);
  EXPECT_EQ(info(status, "autoRenewStatus"), 0);
  EXPECT_TRUE(session.entitlements().empty());
  EXPECT_EQ(session.newNotices(), (Notices{{"REVOKE", "", 5}}));
  session.call("GetStorefront");
  EXPECT_EQ(session.newEvents().size(), 1u);  // the revoked transaction only

  // Shared again: access regained on the same chain; the organizer's cancellation ends it.
  const auto again = session.control(share("premium.monthly")).at("transactionId").as_int64();
  EXPECT_EQ(session.status("G1").at("renewalInfo").at("originalTransactionId"),
            std::to_string(shared).c_str());
  session.control(R"("store":"expireSubscription","productID":"premium.monthly")");
  session.advance(seconds(1));
  status = session.status("G1");
  EXPECT_EQ(status.at("status"), 2);
  EXPECT_EQ(info(status, "expirationIntent"), 1);
  EXPECT_EQ(status.at("transactionId"), again);
  EXPECT_EQ(session.newNotices(), (Notices{{"SUBSCRIBED", "RESUBSCRIBE", 1},
                                           {"EXPIRED", "VOLUNTARY", 2}}));
}

// A refund the customer asks for in the app: the developer's server is asked for consumption
// information (and a subscription stops renewing); Apple then grants or declines it, and a
// granted one can be reversed, which gives the app its purchase back.
TEST(Refunds, RequestedThenGrantedOrDeclinedAndReversed) {
  Session session({}, kPlans);
  const auto subscription = purchase(session, "standard.monthly");
  const auto album = purchase(session, "album");
  (void)session.newNotices();
  const auto request = [&](std::int64_t id, const std::string& reason) {
    return session.control(R"("store":"requestRefund","identifier":)" + std::to_string(id) +
                           R"(,"reason":")" + reason + "\"");
  };

  request(subscription, "UNINTENDED_PURCHASE");
  EXPECT_EQ(session.newNotices(), (Notices{{"DID_CHANGE_RENEWAL_STATUS", "AUTO_RENEW_DISABLED", 1},
                                           {"CONSUMPTION_REQUEST", "", 1}}));
  const auto made = session.control(R"("store":"notifications")").at("notifications").as_array();
  EXPECT_EQ(made.back().at("payload").at("data").at("consumptionRequestReason"),
            "UNINTENDED_PURCHASE");
  EXPECT_EQ(info(session.status("G1"), "autoRenewStatus"), 0);

  session.control("refundTransaction", subscription);
  EXPECT_EQ(session.entitlements(), Ids{album});
  session.control("reverseRefund", subscription);
  EXPECT_EQ(session.status("G1").at("status"), 1);
  const auto events = session.newEvents();
  ASSERT_EQ(events.size(), 2u);  // revoked, then reinstated
  EXPECT_TRUE(events[0].contains("revocationDate"));
  EXPECT_FALSE(events[1].contains("revocationDate"));
  EXPECT_EQ(session.entitlements(), (Ids{subscription, album}));

  request(album, "LEGAL");
  session.control("declineRefund", album);
  EXPECT_EQ(session.newNotices(), (Notices{{"REFUND", "", 5},
                                           {"REFUND_REVERSED", "", 1},
                                           {"CONSUMPTION_REQUEST", "", 0},
                                           {"REFUND_DECLINED", "", 0}}));
}

}  // namespace
