// A subscription's life as an app sees it through the driver: the service's answers and
// update events, and the renewal info the store signs, as renewals fail for a billing issue,
// the grace period and billing retry run out, the issue is resolved or auto-renew is off, at
// real time and at accelerated time rates.
#include <gtest/gtest.h>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include <chrono>
#include <string>
#include <vector>

#include "platform/date.h"
#include "tools/subscription_session.h"

namespace {

namespace json = boost::json;
using namespace std::chrono;
using namespace testsupport;

constexpr auto kMargin = seconds(5);

struct Rate {
  int timeRate;
  milliseconds grace, retry;
};
const Rate kRates[] = {{0, days(16), days(60)},
                       {13, minutes(2) + seconds(30), minutes(10)},
                       {1000, minutes(15), minutes(30)}};

TEST(SubscriptionLifecycle, GraceThenBillingRetryThenExpiryWhenTheIssueStays) {
  for (const auto& rate : kRates) {
    SCOPED_TRACE("time rate " + std::to_string(rate.timeRate));
    Session session({R"("store":"timeRate","value":)" + std::to_string(rate.timeRate),
                     R"("store":"shouldEnterBillingRetryOnRenewal","value":true)",
                     R"("store":"billingGracePeriodIsEnabled","value":true)"});
    const auto bought = buy(session);
    EXPECT_EQ(info(session.status(), "autoRenewStatus"), 1);

    // The renewal fails: the grace period starts at the renewal date, entitled throughout.
    session.advance(bought.period + kMargin);
    auto status = session.status();
    EXPECT_EQ(status.at("status"), 4);
    EXPECT_TRUE(inBillingRetry(status));
    EXPECT_EQ(info(status, "gracePeriodExpiresDate") - info(status, "renewalDate"), rate.grace.count());
    EXPECT_EQ(session.entitlements(), std::vector<std::int64_t>{bought.id});
    session.advance(rate.grace - 2 * kMargin);
    EXPECT_EQ(session.status().at("status"), 4);
    EXPECT_EQ(session.entitlements(), std::vector<std::int64_t>{bought.id});

    // Grace over: billing retry, no longer entitled.
    session.advance(2 * kMargin);
    status = session.status();
    EXPECT_EQ(status.at("status"), 3);
    EXPECT_TRUE(inBillingRetry(status));
    EXPECT_EQ(info(status, "gracePeriodExpiresDate"), -1);
    EXPECT_TRUE(session.entitlements().empty());

    // Billing retry runs out, counted from the renewal date: expired for a billing error.
    session.advance(rate.retry - rate.grace - 2 * kMargin);
    EXPECT_EQ(session.status().at("status"), 3);
    session.advance(2 * kMargin);
    status = session.status();
    EXPECT_EQ(status.at("status"), 2);
    EXPECT_FALSE(inBillingRetry(status));
    EXPECT_EQ(info(status, "expirationIntent"), 2);
    EXPECT_TRUE(session.entitlements().empty());
    // No transaction came of any of it.
    EXPECT_TRUE(session.newEvents().empty());
  }
}

TEST(SubscriptionLifecycle, AResolvedIssueRenewsThroughTheUpdatesFromWhenAccessResumes) {
  for (const bool grace : {false, true}) {
    SCOPED_TRACE(grace ? "resolved in the grace period" : "resolved in billing retry");
    Session session({R"("store":"shouldEnterBillingRetryOnRenewal","value":true)",
                     R"("store":"billingGracePeriodIsEnabled","value":)" + std::string(grace ? "true" : "false")});
    const auto bought = buy(session);
    session.advance(bought.period + kMargin);
    auto status = session.status();
    EXPECT_EQ(status.at("status"), grace ? 4 : 3);
    const auto renewalDate = info(status, "renewalDate");
    EXPECT_EQ(session.entitlements().size(), grace ? 1u : 0u);
    session.advance(days(2));

    session.control(R"("store":"resolveIssueForTransaction","identifier":)" + std::to_string(bought.id));
    status = session.status();  // the event a line causes comes before the next line's answer
    const auto events = session.newEvents();
    ASSERT_EQ(events.size(), 1u);
    const auto& renewal = events[0];
    EXPECT_EQ(renewal.at("originalId"), bought.id);
    EXPECT_EQ(renewal.at("transactionReason"), 2);  // renewal
    // In grace the paid time never stopped; in billing retry it starts again on recovery.
    const auto start = platform::millisecondsSince1970(
        *platform::parseRFC3339(renewal.at("purchaseDate").as_string()));
    if (grace) {
      EXPECT_EQ(start, renewalDate);
    } else {
      EXPECT_GE(start, renewalDate + milliseconds(days(2)).count());
    }
    EXPECT_EQ(status.at("status"), 1);
    EXPECT_EQ(status.at("transactionId"), renewal.at("id"));
    EXPECT_FALSE(inBillingRetry(status));
    EXPECT_EQ(session.entitlements(), std::vector<std::int64_t>{renewal.at("id").as_int64()});
  }
}

TEST(SubscriptionLifecycle, RenewsWhileAutoRenewIsOnAndExpiresAsCancelledWhenOff) {
  Session session({});
  const auto bought = buy(session);
  session.advance(bought.period + kMargin);
  EXPECT_EQ(session.status().at("status"), 1);
  auto events = session.newEvents();
  ASSERT_EQ(events.size(), 1u);
  const auto renewalID = events[0].at("id").as_int64();

  session.control(R"("store":"disableAutoRenewForTransaction","identifier":)" + std::to_string(renewalID));
  auto status = session.status();
  EXPECT_EQ(info(status, "autoRenewStatus"), 0);
  EXPECT_EQ(info(status, "expirationIntent"), -1);  // not yet expired
  EXPECT_EQ(session.entitlements(), std::vector<std::int64_t>{renewalID});
  session.advance(days(40));
  status = session.status();
  EXPECT_EQ(status.at("status"), 2);
  EXPECT_EQ(info(status, "expirationIntent"), 1);
  EXPECT_TRUE(session.entitlements().empty());
  EXPECT_TRUE(session.newEvents().empty());
}

TEST(SubscriptionLifecycle, PriceIncreasesRenewAtTheNewPriceOnlyWithConsentOrWhenNoneIsNeeded) {
  const struct {
    const char* name;
    std::vector<std::string> controls;  // after the request, before the renewal date
    bool consentRequired;
    bool renews;
  } cases[] = {
      {"consented", {R"("store":"consentToPriceIncrease","identifier":1)"}, true, true},
      {"no consent needed", {}, false, true},
      {"declined", {R"("store":"declinePriceIncrease","identifier":1)"}, true, false},
      {"never answered", {}, true, false},
      {"declined, then consented",
       {R"("store":"declinePriceIncrease","identifier":1)",
        R"("store":"consentToPriceIncrease","identifier":1)"},
       true, true},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.name);
    Session session({});
    const auto bought = buy(session, kPro);  // the increase applies when the trial ends
    session.control(R"("store":"requestPriceIncreaseConsentForTransaction","identifier":1,)"
                    R"("price":"4.49","consentRequired":)" +
                    std::string(row.consentRequired ? "true" : "false"));
    auto status = session.status();
    EXPECT_EQ(info(status, "priceIncreaseStatus"), row.consentRequired ? 0 : 1);
    EXPECT_EQ(info(status, "renewalPrice"), 4490);
    for (const auto& control : row.controls) session.control(control);

    session.advance(bought.period + kMargin);
    status = session.status();
    const auto events = session.newEvents();
    if (row.renews) {
      ASSERT_EQ(events.size(), 1u);
      EXPECT_EQ(events[0].at("price"), "4.49");
      EXPECT_EQ(status.at("status"), 1);
      EXPECT_EQ(info(status, "priceIncreaseStatus"), -1);  // settled by the renewal
      EXPECT_EQ(info(status, "renewalPrice"), 4490);       // and the new price stays
    } else {
      EXPECT_TRUE(events.empty());
      EXPECT_EQ(status.at("status"), 2);
      EXPECT_EQ(info(status, "expirationIntent"), 3);
      EXPECT_TRUE(session.entitlements().empty());
    }
  }
}

}  // namespace
