// A subscription's life as an app sees it through the driver: the service's answers and
// update events, and the renewal info the store signs, as renewals fail for a billing issue,
// the grace period and billing retry run out, the issue is resolved or auto-renew is off, at
// real time and at accelerated time rates.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "tools/subscription_session.h"

namespace {

using namespace std::chrono;
using namespace testsupport;

constexpr auto kMargin = seconds(5);

TEST(SubscriptionLifecycle, GraceThenBillingRetryThenExpiryWhenTheIssueStays) {
  const struct {
    int timeRate;
    milliseconds grace, retry;
  } rates[] = {{0, days(16), days(60)},
               {13, minutes(2) + seconds(30), minutes(10)},
               {1000, minutes(15), minutes(30)}};
  for (const auto& rate : rates) {
    SCOPED_TRACE("time rate " + std::to_string(rate.timeRate));
    Session session({R"("store":"timeRate","value":)" + std::to_string(rate.timeRate),
                     R"("store":"shouldEnterBillingRetryOnRenewal","value":true)",
                     R"("store":"billingGracePeriodIsEnabled","value":true)"});
    const auto bought = buy(session);
    EXPECT_EQ(info(session.status(), "autoRenewStatus"), 1);
    EXPECT_EQ(session.newNotices(), (Notices{{"SUBSCRIBED", "INITIAL_BUY", 1}}));
    // Each step: the time moved on, then the status, whether in billing retry, the grace
    // period's end after the renewal date (-1: none) and the entitlements.
    const auto expect = [&](milliseconds after, int status, bool retry, std::int64_t grace,
                            const Ids& entitled, const Notices& notices) {
      session.advance(after);
      const auto now = session.status();
      EXPECT_EQ(now.at("status"), status);
      EXPECT_EQ(inBillingRetry(now), retry);
      const auto graceEnd = info(now, "gracePeriodExpiresDate");
      EXPECT_EQ(graceEnd < 0 ? -1 : graceEnd - info(now, "renewalDate"), grace);
      EXPECT_EQ(session.entitlements(), entitled);
      EXPECT_EQ(session.newNotices(), notices);
      return now;
    };
    // The renewal fails: the grace period starts at the renewal date, entitled throughout.
    expect(bought.period + kMargin, 4, true, rate.grace.count(), {bought.id},
           {{"DID_FAIL_TO_RENEW", "GRACE_PERIOD", 4}});
    expect(rate.grace - 2 * kMargin, 4, true, rate.grace.count(), {bought.id}, {});
    // Grace over: billing retry, no longer entitled.
    expect(2 * kMargin, 3, true, -1, {}, {{"GRACE_PERIOD_EXPIRED", "", 3}});
    // Billing retry runs out, counted from the renewal date: expired for a billing error.
    expect(rate.retry - rate.grace - 2 * kMargin, 3, true, -1, {}, {});
    const auto expired = expect(2 * kMargin, 2, false, -1, {}, {{"EXPIRED", "BILLING_RETRY", 2}});
    EXPECT_EQ(info(expired, "expirationIntent"), 2);
    // No transaction came of any of it.
    EXPECT_TRUE(session.newEvents().empty());
  }
}

TEST(SubscriptionLifecycle, AResolvedIssueRenewsThroughTheUpdatesFromWhenAccessResumes) {
  for (const bool grace : {false, true}) {
    SCOPED_TRACE(grace ? "resolved in the grace period" : "resolved in billing retry");
    Session session({R"("store":"shouldEnterBillingRetryOnRenewal","value":true)",
                     R"("store":"billingGracePeriodIsEnabled","value":)" +
                         std::string(grace ? "true" : "false")});
    const auto bought = buy(session);
    session.advance(bought.period + kMargin);
    auto status = session.status();
    EXPECT_EQ(status.at("status"), grace ? 4 : 3);
    EXPECT_EQ(session.newNotices(),
              (Notices{{"SUBSCRIBED", "INITIAL_BUY", 1},
                       {"DID_FAIL_TO_RENEW", grace ? "GRACE_PERIOD" : "", grace ? 4 : 3}}));
    const auto renewalDate = info(status, "renewalDate");
    EXPECT_EQ(session.entitlements().size(), grace ? 1u : 0u);
    session.advance(days(2));

    session.control("resolveIssueForTransaction", bought.id);
    status = session.status();  // the event a line causes comes before the next line's answer
    const auto events = session.newEvents();
    ASSERT_EQ(events.size(), 1u);
    const auto& renewal = events[0];
    EXPECT_EQ(renewal.at("originalId"), bought.id);
    EXPECT_EQ(renewal.at("transactionReason"), 2);  // renewal
    // In grace the paid time never stopped; in billing retry it starts again on recovery.
    const auto start = msOf(renewal.at("purchaseDate"));
    if (grace)
      EXPECT_EQ(start, renewalDate);
    else
      EXPECT_GE(start, renewalDate + milliseconds(days(2)).count());
    EXPECT_EQ(status.at("status"), 1);
    EXPECT_EQ(status.at("transactionId"), renewal.at("id"));
    EXPECT_FALSE(inBillingRetry(status));
    EXPECT_EQ(session.entitlements(), Ids{renewal.at("id").as_int64()});
    EXPECT_EQ(session.newNotices(), (Notices{{"DID_RENEW", "BILLING_RECOVERY", 1}}));
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

  session.control("disableAutoRenewForTransaction", renewalID);
  auto status = session.status();
  EXPECT_EQ(info(status, "autoRenewStatus"), 0);
  EXPECT_EQ(info(status, "expirationIntent"), -1);  // not yet expired
  EXPECT_EQ(session.entitlements(), Ids{renewalID});
  session.advance(days(40));
  status = session.status();
  EXPECT_EQ(status.at("status"), 2);
  EXPECT_EQ(info(status, "expirationIntent"), 1);
  EXPECT_TRUE(session.entitlements().empty());
  EXPECT_TRUE(session.newEvents().empty());
  // Turning auto-renew off twice tells the server once.
  session.control("disableAutoRenewForTransaction", renewalID);
  EXPECT_EQ(session.newNotices(), (Notices{{"SUBSCRIBED", "INITIAL_BUY", 1},
                                           {"DID_RENEW", "", 1},
                                           {"DID_CHANGE_RENEWAL_STATUS", "AUTO_RENEW_DISABLED", 1},
                                           {"EXPIRED", "VOLUNTARY", 2}}));
}

TEST(SubscriptionLifecycle, PriceIncreasesRenewAtTheNewPriceOnlyWithConsentOrWhenNoneIsNeeded) {
  const Notice pending{"PRICE_INCREASE", "PENDING", 1}, accepted{"PRICE_INCREASE", "ACCEPTED", 1},
      renewOff{"DID_CHANGE_RENEWAL_STATUS", "AUTO_RENEW_DISABLED", 1}, renewed{"DID_RENEW", "", 1},
      expired{"EXPIRED", "PRICE_INCREASE", 2};
  const std::string consent = "consentToPriceIncrease", decline = "declinePriceIncrease";
  const struct {
    const char* name;
    std::vector<std::string> controls;  // after the request, before the renewal date
    bool consentRequired, renews;
    Notices notices;  // after the purchase's
  } cases[] = {
      {"consented", {consent}, true, true, {pending, accepted, renewed}},
      {"no consent needed", {}, false, true, {accepted, renewed}},
      {"declined", {decline}, true, false, {pending, renewOff, expired}},
      {"never answered", {}, true, false, {pending, expired}},
      {"declined, then consented",
       {decline, consent},
       true,
       true,
       {pending, renewOff, accepted, renewed}},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.name);
    Session session({});
    const auto bought = buy(session, kPro);  // the increase applies when the trial ends
    EXPECT_EQ(session.newNotices(), (Notices{{"SUBSCRIBED", "INITIAL_BUY", 1}}));
    session.control(R"("store":"requestPriceIncreaseConsentForTransaction","identifier":1,)"
                    R"("price":"4.49","consentRequired":)" +
                    std::string(row.consentRequired ? "true" : "false"));
    auto status = session.status();
    EXPECT_EQ(info(status, "priceIncreaseStatus"), row.consentRequired ? 0 : 1);
    EXPECT_EQ(info(status, "renewalPrice"), 4490);
    for (const auto& control : row.controls) session.control(control, 1);

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
    EXPECT_EQ(session.newNotices(), row.notices);
  }
}

TEST(SubscriptionLifecycle, ExtensionsMoveTheRenewalDateTwiceAYearAtMost) {
  for (const auto& [rate, day] :
       {std::pair{0, milliseconds(days(1))}, std::pair{13, milliseconds(10'000)}}) {
    SCOPED_TRACE("time rate " + std::to_string(rate));
    Session session({R"("store":"timeRate","value":)" + std::to_string(rate)});
    const auto bought = buy(session);  // pay as you go: a paid period
    // The date the extension `request` of `days` takes effect from.
    const auto extend = [&](int days, const std::string& request) {
      return msOf(session
                      .control(R"("store":"extendRenewalDate","originalTransactionId":)" +
                               std::to_string(bought.id) + R"(,"extendByDays":)" +
                               std::to_string(days) + R"(,"requestIdentifier":")" + request + "\"")
                      .at("effectiveDate"));
    };
    const auto renewalDate = info(session.status(), "renewalDate");
    const auto first = extend(10, "first");
    EXPECT_EQ(first, renewalDate + 10 * day.count());
    EXPECT_EQ(info(session.status(), "renewalDate"), first);
    // The same request again changes nothing.
    EXPECT_EQ(extend(10, "first"), first);
    EXPECT_EQ(extend(90, "second"), first + 90 * day.count());
    // Still entitled until the new date, and renewed from it.
    session.advance(milliseconds(first - renewalDate) + bought.period);
    EXPECT_EQ(session.entitlements(), Ids{bought.id});
    EXPECT_TRUE(session.newEvents().empty());
    session.advance(90 * day + seconds(5));
    (void)session.status();
    const auto events = session.newEvents();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(msOf(events[0].at("purchaseDate")), first + 90 * day.count());
    // One notification per extension granted; the repeated request made none.
    EXPECT_EQ(session.newNotices(), (Notices{{"SUBSCRIBED", "INITIAL_BUY", 1},
                                             {"RENEWAL_EXTENDED", "", 1},
                                             {"RENEWAL_EXTENDED", "", 1},
                                             {"DID_RENEW", "", 1}}));
  }
}

}  // namespace
