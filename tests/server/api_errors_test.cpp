// Every endpoint's refusals in one table: a request (method, path, body) and the error code it
// earns, answered as Apple's server answers: status = code / 10000, a JSON body of exactly
// {"errorCode", "errorMessage"} and Content-Type exactly application/json.
#include <map>
#include <string>

#include "api_fixture.h"

namespace appstore::server::testing {
namespace {

class ApiErrorsTest : public ApiFixture {
 protected:
  void SetUp() override {
    ApiFixture::SetUp();
    coins_ = std::to_string(store_->buyProduct("com.vorntesk.sample.coins100").id);
    const auto basic = store_->buyProduct("com.vorntesk.sample.basic.monthly").id;
    basic_ = std::to_string(basic);
    store_->forceRenewalOfSubscription("com.vorntesk.sample.basic.monthly");
    renewal_ = std::to_string(store_->subscriptionStatuses().at(0).transaction.id);
    shared_ = std::to_string(store_->shareWithFamily("com.vorntesk.sample.offlinemaps").id);
    pass_ = std::to_string(store_->buyProduct("com.vorntesk.sample.seasonpass").id);
    app_ = store_->appTransactionID();
  }

  std::string coins_, basic_, renewal_, shared_, pass_, app_;
};

// A v1 consumption body with every field answered, one field replaced by `field`.
std::string v1Body(const std::string& key = "", const std::string& value = "") {
  json::object body{{"customerConsented", true},    {"consumptionStatus", 1},
                    {"platform", 1},                {"sampleContentProvided", false},
                    {"deliveryStatus", 0},          {"appAccountToken", ""},
                    {"accountTenure", 0},           {"playTime", 0},
                    {"lifetimeDollarsRefunded", 0}, {"lifetimeDollarsPurchased", 0},
                    {"userStatus", 1}};
  if (!key.empty()) {
    if (value.empty()) {
      body.erase(key);
    } else {
      body[key] = json::parse(value);
    }
  }
  return json::serialize(body);
}

std::string v2Body(const std::string& extra = "", const char* delivery = "DELIVERED") {
  return std::string(R"({"customerConsented":true,"sampleContentProvided":false,"deliveryStatus":")") +
         delivery + "\"" + extra + "}";
}

TEST_F(ApiErrorsTest, EachBadRequestEarnsItsCode) {
  const std::string history = "/inApps/v2/history/" + coins_ + "?";
  const std::string extend = "/inApps/v1/subscriptions/extend/";
  const std::string terms = R"("extendByDays":7,"extendReasonCode":1,"requestIdentifier":"r1")";
  const std::string mass = R"({"productId":"com.vorntesk.sample.basic.monthly",)";
  const std::string uuid = R"({"appAccountToken":"7e3fb20b-4cdb-47cc-936d-99d65f608138"})";
  const std::string v1 = "/inApps/v1/transactions/consumption/";
  const std::string v2 = "/inApps/v2/transactions/consumption/";
  const struct {
    const char* method;
    std::string path;
    std::string body;
    long code;
  } cases[] = {
      // Transaction history: ids, dates, enum values, page tokens.
      {"GET", "/inApps/v2/history/abc", "", 4000006},
      {"GET", "/inApps/v1/history/-4", "", 4000006},
      {"GET", "/inApps/v2/history/987654", "", 4040010},
      {"GET", history + "revision=next", "", 4000005},
      {"GET", history + "revision=12_3", "", 4000005},
      {"GET", history + "revision=1&revision=2", "", 4000005},
      {"GET", history + "startDate=yesterday", "", 4000015},
      {"GET", history + "startDate=1.5e12", "", 4000015},
      {"GET", history + "endDate=-1", "", 4000016},
      {"GET", history + "startDate=2000&endDate=2000", "", 4000013},
      {"GET", history + "startDate=3000&endDate=2000", "", 4000013},
      {"GET", history + "productType=SUBSCRIPTION", "", 4000022},
      {"GET", history + "productType=CONSUMABLE&productType=consumable", "", 4000022},
      {"GET", history + "productId=", "", 4000023},
      {"GET", history + "subscriptionGroupIdentifier=", "", 4000024},
      {"GET", history + "inAppOwnershipType=OWNED", "", 4000026},
      {"GET", history + "sort=NEWEST", "", 4000021},
      {"GET", history + "sort=ASCENDING&sort=DESCENDING", "", 4000021},
      {"GET", history + "revoked=yes", "", 4000030},
      {"GET", history + "revoked=", "", 4000030},
      {"GET", history + "excludeRevoked=1", "", 4000025},
      // Refund history.
      {"GET", "/inApps/v2/refund/lookup/x", "", 4000006},
      {"GET", "/inApps/v2/refund/lookup/987654", "", 4040010},
      {"GET", "/inApps/v2/refund/lookup/" + coins_ + "?revision=15", "", 4000005},
      {"GET", "/inApps/v2/refund/lookup/" + coins_ + "?revision=a_b", "", 4000005},
      // App transaction info.
      {"GET", "/inApps/v1/transactions/appTransactions/1x", "", 4000006},
      {"GET", "/inApps/v1/transactions/appTransactions/987654", "", 4040010},
      // Transaction info, finish and subscription statuses: in-app purchases only.
      {"GET", "/inApps/v1/transactions/" + app_, "", 4000048},
      {"GET", "/inApps/v1/transactions/99999999999999999999999", "", 4000006},
      {"GET", "/inApps/v1/transactions/987654", "", 4040010},
      {"POST", "/inApps/v1/transactions/" + app_ + "/finish", "", 4000048},
      {"POST", "/inApps/v1/transactions/987654/finish", "", 4040010},
      {"GET", "/inApps/v1/subscriptions/987654", "", 4040010},
      {"GET", "/inApps/v1/subscriptions/" + coins_ + "?status=6", "", 4000031},
      {"GET", "/inApps/v1/subscriptions/" + coins_ + "?status=0", "", 4000031},
      {"GET", "/inApps/v1/subscriptions/" + coins_ + "?status=1&status=active", "", 4000031},
      {"GET", "/inApps/v1/subscriptions/" + coins_ + "?status=", "", 4000031},
      // Set App Account Token.
      {"PUT", "/inApps/v1/transactions/x/appAccountToken", uuid, 4000006},
      {"PUT", "/inApps/v1/transactions/" + app_ + "/appAccountToken", uuid, 4000048},
      {"PUT", "/inApps/v1/transactions/" + coins_ + "/appAccountToken", "{\"appAccountToken\":", 4000000},
      {"PUT", "/inApps/v1/transactions/" + coins_ + "/appAccountToken", "", 4000000},
      {"PUT", "/inApps/v1/transactions/" + coins_ + "/appAccountToken", "[]", 4000000},
      {"PUT", "/inApps/v1/transactions/" + coins_ + "/appAccountToken", R"({"appAccountToken":"abc"})", 4000183},
      {"PUT", "/inApps/v1/transactions/" + coins_ + "/appAccountToken", R"({"appAccountToken":7})", 4000183},
      {"PUT", "/inApps/v1/transactions/" + coins_ + "/appAccountToken", "{}", 4000183},
      {"PUT", "/inApps/v1/transactions/987654/appAccountToken", uuid, 4040005},
      {"PUT", "/inApps/v1/transactions/" + renewal_ + "/appAccountToken", uuid, 4000187},
      {"PUT", "/inApps/v1/transactions/" + shared_ + "/appAccountToken", uuid, 4000185},
      // Consumption information, v2.
      {"PUT", v2 + "abc", v2Body(), 4000006},
      {"PUT", v2 + app_, v2Body(), 4000048},
      {"PUT", v2 + coins_, "not json", 4000000},
      {"PUT", v2 + coins_, R"({"sampleContentProvided":false,"deliveryStatus":"DELIVERED"})", 4000035},
      {"PUT", v2 + coins_, R"({"customerConsented":false,"sampleContentProvided":false,"deliveryStatus":"DELIVERED"})", 4000035},
      {"PUT", v2 + coins_, R"({"customerConsented":"true","sampleContentProvided":false,"deliveryStatus":"DELIVERED"})", 4000035},
      {"PUT", v2 + coins_, v2Body("", "LOST"), 4000036},
      {"PUT", v2 + coins_, R"({"customerConsented":true,"sampleContentProvided":false})", 4000036},
      {"PUT", v2 + coins_, R"({"customerConsented":true,"deliveryStatus":"DELIVERED"})", 4000041},
      {"PUT", v2 + coins_, v2Body(R"(,"refundPreference":"MAYBE")"), 4000044},
      {"PUT", v2 + coins_, v2Body(R"(,"consumptionPercentage":100001)"), 4000210},
      {"PUT", v2 + coins_, v2Body(R"(,"consumptionPercentage":-1)"), 4000210},
      {"PUT", v2 + coins_, v2Body(R"(,"consumptionPercentage":"50")"), 4000210},
      {"PUT", v2 + coins_, v2Body(R"(,"consumptionPercentage":100000,"refundPreference":"GRANT_PRORATED")"), 4000210},
      {"PUT", v2 + coins_, v2Body(R"(,"consumptionPercentage":1000)", "UNDELIVERED_OTHER"), 4000211},
      {"PUT", v2 + basic_, v2Body(R"(,"consumptionPercentage":0)"), 4000209},
      {"PUT", v2 + shared_, v2Body(), 4000185},
      {"PUT", v2 + "987654", v2Body(), 4040010},
      // Consumption information, v1: each required field missing or out of range.
      {"PUT", v1 + coins_, v1Body("customerConsented", "false"), 4000035},
      {"PUT", v1 + coins_, v1Body("consumptionStatus", "4"), 4000034},
      {"PUT", v1 + coins_, v1Body("platform", ""), 4000039},
      {"PUT", v1 + coins_, v1Body("sampleContentProvided", "0"), 4000041},
      {"PUT", v1 + coins_, v1Body("deliveryStatus", "6"), 4000036},
      {"PUT", v1 + coins_, v1Body("appAccountToken", "\"not-a-uuid\""), 4000033},
      {"PUT", v1 + coins_, v1Body("appAccountToken", ""), 4000033},
      {"PUT", v1 + coins_, v1Body("accountTenure", "8"), 4000032},
      {"PUT", v1 + coins_, v1Body("playTime", "-1"), 4000040},
      {"PUT", v1 + coins_, v1Body("lifetimeDollarsRefunded", "1.5"), 4000038},
      {"PUT", v1 + coins_, v1Body("lifetimeDollarsPurchased", "\"1\""), 4000037},
      {"PUT", v1 + coins_, v1Body("userStatus", "5"), 4000042},
      {"PUT", v1 + coins_, v1Body("refundPreference", "4"), 4000044},
      {"PUT", v1 + pass_, v1Body(), 4000047},
      {"PUT", v1 + "987654", v1Body(), 4040010},
      // Extend a subscription renewal date.
      {"PUT", extend + "abc", "{" + terms + "}", 4000008},
      {"PUT", extend + basic_, "{" + terms, 4000000},
      {"PUT", extend + basic_, R"({"extendReasonCode":1,"requestIdentifier":"r"})", 4000009},
      {"PUT", extend + basic_, R"({"extendByDays":7,"extendReasonCode":1,"requestIdentifier":""})", 4000011},
      {"PUT", extend + "987654", "{" + terms + "}", 4040005},
      {"PUT", extend + coins_, "{" + terms + "}", 4040005},
      {"PUT", extend + shared_, "{" + terms + "}", 4030007},
      // Extend for every subscriber, and its status.
      {"POST", extend + "mass", "", 4000000},
      {"POST", extend + "mass", mass + R"("extendByDays":100,"extendReasonCode":1,"requestIdentifier":"m"})", 4000009},
      {"POST", extend + "mass", mass + R"("extendByDays":5,"extendReasonCode":-1,"requestIdentifier":"m"})", 4000010},
      {"POST", extend + "mass", mass + R"("extendByDays":5,"extendReasonCode":1})", 4000011},
      {"POST", extend + "mass", "{" + terms + "}", 4000023},
      {"POST", extend + "mass", "{" + terms + R"(,"productId":"com.vorntesk.sample.coins100"})", 4000023},
      {"POST", extend + "mass", mass + terms + R"(,"storefrontCountryCodes":[]})", 4000027},
      {"POST", extend + "mass", mass + terms + R"(,"storefrontCountryCodes":["USA","ZZZ"]})", 4000028},
      {"POST", extend + "mass", mass + terms + R"(,"storefrontCountryCodes":"USA"})", 4000028},
      {"GET", extend + "mass/com.vorntesk.sample.basic.monthly/unknown-request", "", 4040009},
      {"GET", extend + "mass/" + std::string(129, 'p') + "/" + std::string(129, 'r'), "", 4000011},
      // The path is decoded once: an escaped percent sign stays in the id.
      {"GET", "/inApps/v1/transactions/%2531", "", 4000006},
      {"GET", "/inApps/v1/transactions/%31x?", "", 4000006},
  };
  // The messages Apple's own fixtures show, byte for byte.
  const std::map<long, const char*> words = {
      {4000006, "Invalid transaction id."},
      {4040010, "Transaction id not found."},
      {4000030, "Invalid request. The revoked parameter is invalid."},
      {4000031, "Invalid request. The status parameter is invalid."},
      {4000187, "Invalid request. The transaction ID provided is not an original transaction ID."},
      {4040009, "The server didn't find a subscription-renewal-date extension request for this "
                "requestIdentifier and productId combination."},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(std::string(row.method) + " " + row.path + " " + row.body);
    const auto reply = call(row.method, row.path, row.body);
    EXPECT_EQ(reply.status, row.code / 10000) << reply.body;
    EXPECT_EQ(reply.contentType, "application/json");
    json::error_code ec;
    const auto answer = json::parse(reply.body, ec);
    ASSERT_FALSE(ec) << reply.body;
    ASSERT_TRUE(answer.is_object());
    EXPECT_EQ(answer.as_object().size(), 2u) << reply.body;
    EXPECT_EQ(answer.at("errorCode"), row.code);
    EXPECT_FALSE(answer.at("errorMessage").as_string().empty());
    if (words.contains(row.code)) {
      EXPECT_EQ(answer.at("errorMessage"), json::value(words.at(row.code)));
    }
  }
}

// Over HTTP: each method the server hands on reaches the routing, a path is decoded once (an
// escaped slash is a slash), and a refusal goes out with no body, no Content-Type and Allow.
TEST_F(ApiErrorsTest, UnknownPathsAndMethodsHaveNoBody) {
  const struct {
    const char* method;
    std::string path;
    int status;
    const char* allow;
  } cases[] = {
      {"GET", "/inApps", 404, ""},
      {"GET", "/inApps/v1/transactions/1%2F2", 404, ""},
      {"POST", "/inApps/v1/transactions/" + coins_, 405, "GET, HEAD"},
      {"HEAD", "/inApps/v1/notifications/history", 405, "POST"},
      {"PATCH", "/inApps/v1/transactions/consumption/" + coins_, 405, "PUT"},
      {"DELETE", "/inApps/v1/subscriptions/extend/" + basic_, 405, "PUT"},
      {"OPTIONS", "/inApps/v2/refund/lookup/" + coins_, 405, "GET, HEAD"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(std::string(row.method) + " " + row.path);
    const auto reply = call(row.method, row.path, row.method == std::string("GET") ? "" : "{}");
    EXPECT_EQ(reply.status, row.status);
    EXPECT_EQ(reply.body, "");
    EXPECT_EQ(reply.contentType, "");
    EXPECT_EQ(reply.allow, row.allow);
  }
  // The door comes first: without a token even a path no endpoint has is unauthenticated.
  httplib::Client client(server_->url());
  const auto anonymous = client.Get("/no/such/path");
  ASSERT_TRUE(anonymous);
  EXPECT_EQ(anonymous->status, 401);
}

}  // namespace
}  // namespace appstore::server::testing
