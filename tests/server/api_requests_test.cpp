// What the write endpoints change, seen from the store: app account tokens, consumption
// information, renewal-date extensions for one subscription and for every subscriber; and the
// app transaction. Bodies arrive as Apple's clients send them (Java's charset suffix,
// Swift's numbers as doubles).
#include "api_fixture.h"

namespace appstore::server::testing {
namespace {

constexpr const char* kBasic = "com.vorntesk.sample.basic.monthly";
constexpr const char* kToken = "7e3fb20b-4cdb-47cc-936d-99d65f608138";

class ApiRequestsTest : public ApiFixture {
 protected:
  json::value latestOf(const std::string& group = "21500001") {
    for (const auto& held : store_->subscriptionStatuses(group)) return payloadOf(held.transaction.jws);
    return nullptr;
  }
  json::value renewalInfo() { return payloadOf(store_->subscriptionStatuses().at(0).signedRenewalInfo); }
};

TEST_F(ApiRequestsTest, AppAccountTokenGoesOnTheCurrentPeriodAndLaterRenewalsOnly) {
  const auto coins = store_->buyProduct("com.vorntesk.sample.coins100").id;
  const auto original = store_->buyProduct(kBasic).id;
  store_->forceRenewalOfSubscription(kBasic);
  const auto current = store_->subscriptionStatuses().at(0).transaction.id;
  ASSERT_NE(current, original);
  const std::string body = std::string(R"({"appAccountToken":")") + kToken + "\"}";
  auto reply = call("PUT", "/inApps/v1/transactions/" + std::to_string(original) + "/appAccountToken?",
                    body, "application/json; charset=utf-8");
  EXPECT_EQ(reply.status, 200) << reply.body;
  EXPECT_TRUE(reply.body.empty());
  EXPECT_EQ(payloadOf(*store_->signedForm(current)).at("appAccountToken"), kToken);
  EXPECT_FALSE(payloadOf(*store_->signedForm(original)).as_object().contains("appAccountToken"));
  EXPECT_EQ(renewalInfo().at("appAccountToken"), kToken);
  store_->forceRenewalOfSubscription(kBasic);
  EXPECT_EQ(latestOf().at("appAccountToken"), kToken);
  // An upgrade keeps it too.
  store_->buyProduct("com.vorntesk.sample.pro.monthly");
  EXPECT_EQ(latestOf().at("productId"), "com.vorntesk.sample.pro.monthly");
  EXPECT_EQ(latestOf().at("appAccountToken"), kToken);

  // Anything else is signed again with it; upper case is written in lower case, as Apple does.
  reply = call("PUT", "/inApps/v1/transactions/" + std::to_string(coins) + "/appAccountToken",
               R"({"appAccountToken":"7E3FB20B-4CDB-47CC-936D-99D65F608138"})");
  EXPECT_EQ(reply.status, 200) << reply.body;
  EXPECT_EQ(payloadOf(*store_->signedForm(coins)).at("appAccountToken"), kToken);
}

TEST_F(ApiRequestsTest, AppTransactionInfoForAnyOfTheCustomersIds) {
  const auto coins = store_->buyProduct("com.vorntesk.sample.coins100").id;
  json::value first;  // the app's purchase date stays what it was first
  for (const auto& id : {std::to_string(coins), store_->appTransactionID()}) {
    const auto reply = get("/inApps/v1/transactions/appTransactions/" + id + "?");
    ASSERT_EQ(reply.status, 200) << reply.body;
    const auto payload =
        payloadOf(json::parse(reply.body).at("signedAppTransactionInfo").as_string()).as_object();
    EXPECT_EQ(payload.at("appTransactionId"), json::value(store_->appTransactionID()));
    EXPECT_EQ(payload.at("bundleId"), json::value(store_->bundleID()));
    EXPECT_EQ(payload.at("receiptType"), "Xcode");
    EXPECT_EQ(payload.at("originalPlatform"), "iOS");
    if (first.is_null()) first = payload.at("originalPurchaseDate");
    EXPECT_EQ(payload.at("originalPurchaseDate"), first);
  }
}

TEST_F(ApiRequestsTest, ConsumptionInformationIsKeptForTheTransaction) {
  const auto coins = store_->buyProduct("com.vorntesk.sample.coins100").id;
  const auto basic = store_->buyProduct(kBasic).id;
  const auto path = [](const char* version, std::uint64_t id) {
    return std::string("/inApps/") + version + "/transactions/consumption/" + std::to_string(id);
  };
  const std::string v2 =
      R"({"customerConsented":true,"sampleContentProvided":true,"deliveryStatus":"DELIVERED","consumptionPercentage":25000.0,"refundPreference":"GRANT_PRORATED"})";
  auto reply = call("PUT", path("v2", coins), v2, "application/json; charset=utf-8");
  EXPECT_EQ(reply.status, 202) << reply.body;
  EXPECT_TRUE(reply.body.empty());
  auto kept = json::parse(store_->consumptionInformation(coins).value_or("null"));
  EXPECT_EQ(kept.at("version"), 2);
  EXPECT_EQ(kept.at("information"), json::parse(v2));
  // A subscription without a percentage; v1 replaces what v2 sent.
  reply = call("PUT", path("v2", basic), R"({"customerConsented":true,"sampleContentProvided":false,"deliveryStatus":"UNDELIVERED_SERVER_OUTAGE","refundPreference":"GRANT_PRORATED"})");
  EXPECT_EQ(reply.status, 202) << reply.body;
  const std::string v1 =
      R"({"customerConsented":true,"consumptionStatus":3,"platform":1,"sampleContentProvided":false,"deliveryStatus":0,"appAccountToken":"7e3fb20b-4cdb-47cc-936d-99d65f608138","accountTenure":7,"playTime":7,"lifetimeDollarsRefunded":1,"lifetimeDollarsPurchased":7,"userStatus":1,"refundPreference":2})";
  reply = call("PUT", path("v1", coins), v1);
  EXPECT_EQ(reply.status, 202) << reply.body;
  kept = json::parse(store_->consumptionInformation(coins).value_or("null"));
  EXPECT_EQ(kept.at("version"), 1);
  EXPECT_EQ(kept.at("information").at("consumptionStatus"), 3);
  EXPECT_TRUE(store_->consumptionInformation(basic).has_value());
}

TEST_F(ApiRequestsTest, ExtendingOneSubscriptionMovesItsExpiryAndCountsTwicePerYear) {
  const auto original = store_->buyProduct(kBasic).id;
  const auto before = latestOf().at("expiresDate").as_int64();
  const auto path = "/inApps/v1/subscriptions/extend/" + std::to_string(original);
  const auto extend = [&](const char* request) {
    return call("PUT", path,
                std::string(R"({"extendByDays":3.0,"extendReasonCode":1,"requestIdentifier":")") +
                    request + "\"}");
  };
  auto reply = extend("first");
  ASSERT_EQ(reply.status, 200) << reply.body;
  auto answer = json::parse(reply.body);
  EXPECT_EQ(answer.at("originalTransactionId"), json::value(std::to_string(original)));
  EXPECT_EQ(answer.at("success"), true);
  EXPECT_EQ(answer.at("effectiveDate"), latestOf().at("expiresDate"));
  EXPECT_GT(latestOf().at("expiresDate").as_int64(), before);
  EXPECT_EQ(answer.at("webOrderLineItemId"), latestOf().at("webOrderLineItemId"));
  // The same request again changes nothing; a third distinct one within the year is refused.
  EXPECT_EQ(json::parse(extend("first").body), answer);
  EXPECT_EQ(extend("second").status, 200);
  reply = extend("third");
  EXPECT_EQ(reply.status, 403);
  EXPECT_EQ(json::parse(reply.body).at("errorCode"), 4030005);
  // Expired: not eligible.
  store_->expireSubscription(kBasic);
  EXPECT_EQ(json::parse(extend("fourth").body).at("errorCode"), 4030004);
}

TEST_F(ApiRequestsTest, MassExtensionReachesActiveSubscribersOfTheProductInTheStorefrontsAsked) {
  store_->setNotificationsURL("http://127.0.0.1:9/");  // kept in the outbox, not delivered
  store_->buyProduct(kBasic);
  const auto before = latestOf().at("expiresDate").as_int64();
  const auto mass = [&](const std::string& identifier, const std::string& more) {
    return call("POST", "/inApps/v1/subscriptions/extend/mass",
                R"({"productId":"com.vorntesk.sample.basic.monthly","extendByDays":10,"extendReasonCode":3,"requestIdentifier":")" +
                    identifier + "\"" + more + "}");
  };
  const auto status = [&](const std::string& a, const std::string& b) {
    const auto reply = get("/inApps/v1/subscriptions/extend/mass/" + a + "/" + b);
    EXPECT_EQ(reply.status, 200) << reply.body;
    return reply.status == 200 ? json::parse(reply.body) : json::value();
  };
  // Another storefront's subscribers only: this account (USA) is left alone.
  auto reply = mass("canada", R"(,"storefrontCountryCodes":["CAN","MEX"])");
  ASSERT_EQ(reply.status, 200) << reply.body;
  EXPECT_EQ(json::parse(reply.body).at("requestIdentifier"), "canada");
  EXPECT_EQ(latestOf().at("expiresDate").as_int64(), before);
  auto counted = status(kBasic, "canada");
  EXPECT_EQ(counted.at("complete"), true);
  EXPECT_EQ(counted.at("succeededCount"), 0);
  EXPECT_EQ(counted.at("failedCount"), 0);

  const std::string id = "c2a1f2d4-4b9a-4d43-9f55-4a0f2b1e9a01";
  reply = mass(id, R"(,"storefrontCountryCodes":["usa"])");
  ASSERT_EQ(reply.status, 200) << reply.body;
  const auto extended = latestOf().at("expiresDate").as_int64();
  EXPECT_GT(extended, before);
  // Sent again after a time-out: the first request stands, nothing is extended twice.
  EXPECT_EQ(mass(id, "").status, 200);
  EXPECT_EQ(latestOf().at("expiresDate").as_int64(), extended);
  for (const auto& answer : {status(kBasic, id), status(id, kBasic)}) {  // either order
    EXPECT_EQ(answer.at("requestIdentifier"), json::value(id));
    EXPECT_EQ(answer.at("succeededCount"), 1);
    EXPECT_EQ(answer.at("failedCount"), 0);
    EXPECT_TRUE(answer.at("completeDate").is_int64());
  }
  // A subscriber in a free trial is active but not eligible: counted as failed.
  store_->clearTransactions();
  store_->buyProduct("com.vorntesk.sample.pro.monthly");
  reply = call("POST", "/inApps/v1/subscriptions/extend/mass",
               R"({"productId":"com.vorntesk.sample.pro.monthly","extendByDays":10,"extendReasonCode":0,"requestIdentifier":"trial"})");
  ASSERT_EQ(reply.status, 200) << reply.body;
  EXPECT_EQ(status("com.vorntesk.sample.pro.monthly", "trial").at("failedCount"), 1);

  // The developer's server hears of each subscription extended or not, and of each request's end.
  NotificationQuery everything;
  everything.start = platform::dateFromMillisecondsSince1970(0);
  everything.end = store_->now() + std::chrono::hours(1);
  std::vector<std::string> told;
  json::value lastSummary;
  for (const auto& made : store_->notificationHistory(everything)) {
    told.push_back(made.type + "/" + made.subtype);
    const auto payload = payloadOf(made.signedPayload);
    if (made.subtype == "SUMMARY") lastSummary = payload.at("summary");
  }
  EXPECT_EQ(told, (std::vector<std::string>{
                      "SUBSCRIBED/INITIAL_BUY", "RENEWAL_EXTENSION/SUMMARY", "RENEWAL_EXTENDED/",
                      "RENEWAL_EXTENSION/SUMMARY", "SUBSCRIBED/INITIAL_BUY",
                      "RENEWAL_EXTENSION/FAILURE", "RENEWAL_EXTENSION/SUMMARY"}));
  EXPECT_EQ(lastSummary, json::parse(R"({"environment":"Xcode","bundleId":"com.vorntesk.example",)"
                                     R"("productId":"com.vorntesk.sample.pro.monthly",)"
                                     R"("requestIdentifier":"trial","succeededCount":0,"failedCount":1})"));

  // A family member's shared subscription is extended with the organizer's, though a request
  // for the member's alone is refused.
  const auto plans = LocalStore::createFromFile(VORNTESK_SOURCE_DIR "/tests/tools/data/plans.storekit");
  const auto shared = plans->shareWithFamily("premium.monthly").id;
  const auto expiry = [&] { return payloadOf(*plans->signedForm(shared)).at("expiresDate").as_int64(); };
  const auto sharedUntil = expiry();
  try {
    plans->extendRenewalDate({shared, 10, 0, "member"});
    ADD_FAILURE() << "a family member's access was extended directly";
  } catch (const RenewalExtensionRefused& refused) {
    EXPECT_EQ(refused.reason(), RenewalExtensionRefused::Reason::familyShared);
  }
  const auto family = plans->extendRenewalDatesForAllSubscribers({"premium.monthly", 10, 0, "family"});
  EXPECT_EQ(family.succeededCount, 1);
  EXPECT_EQ(family.failedCount, 0);
  EXPECT_EQ(expiry() - sharedUntil, 10 * 86'400'000);
}

}  // namespace
}  // namespace appstore::server::testing
