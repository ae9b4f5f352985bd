// answerRequest without HTTP: each method and path reaches the endpoint it names with the ids
// and query it carries, overlapping patterns answer as listed, and a path or method no
// endpoint takes gets 404 or 405 with no body.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "appstore/local_store.h"
#include "appstore/server/api_routes.h"
#include "appstore/server/notification_api.h"

namespace appstore::server {
namespace {

constexpr const char* kBasic = "com.vorntesk.sample.basic.monthly";

class ApiRoutesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    coins_ = std::to_string(store_->buyProduct("com.vorntesk.sample.coins100").id);
    basic_ = std::to_string(store_->buyProduct(kBasic).id);
    app_ = store_->appTransactionID();
  }

  ApiAnswer answer(const std::string& method, const std::string& path, QueryParameters query = {},
                   const std::string& body = "") {
    return answerRequest(*store_, {method, path, std::move(query), body});
  }

  std::shared_ptr<LocalStore> store_ =
      LocalStore::createFromFile(VORNTESK_SOURCE_DIR "/examples/SampleStore.storekit");
  std::string coins_, basic_, app_;
};

TEST_F(ApiRoutesTest, EachPathReachesItsEndpointWithItsIdsAndQuery) {
  LocalStore& store = *store_;
  const std::string terms = R"({"extendByDays":3,"extendReasonCode":1,"requestIdentifier":"r1"})";
  const std::string mass = std::string(R"({"productId":")") + kBasic +
                           R"(","extendByDays":3,"extendReasonCode":1,"requestIdentifier":"m1"})";
  const std::string consumption =
      R"({"customerConsented":true,"sampleContentProvided":false,"deliveryStatus":"DELIVERED"})";
  const std::string token = R"({"appAccountToken":"7e3fb20b-4cdb-47cc-936d-99d65f608138"})";
  const auto now = std::chrono::duration_cast<std::chrono::milliseconds>(
                       std::chrono::system_clock::now().time_since_epoch())
                       .count();
  const std::string window = R"({"startDate":)" + std::to_string(now - 60000) + R"(,"endDate":)" +
                             std::to_string(now + 60000) + "}";
  const QueryParameters sorted{{"sort", "DESCENDING"}, {"productType", "CONSUMABLE"}};
  const struct {
    const char* method;
    std::string path;
    QueryParameters query;
    std::string body;
    std::function<ApiAnswer()> endpoint;  // the same request made to the endpoint itself
  } cases[] = {
      {"GET",
       "/inApps/v1/transactions/" + coins_,
       {},
       "",
       [&] { return transactionInfo(store, coins_); }},
      {"HEAD",
       "/inApps/v1/transactions/" + coins_,
       {},
       "",
       [&] { return transactionInfo(store, coins_); }},
      {"GET",
       "/inApps/v1/subscriptions/" + coins_,
       {{"status", "2"}, {"status", "1"}},
       "",
       [&] {
         return allSubscriptionStatuses(store, coins_, {"2", "1"});
       }},
      {"GET",
       "/inApps/v1/subscriptions/" + coins_,
       {{"status", "1"}, {"status", "x"}},
       "",
       [&] {
         return allSubscriptionStatuses(store, coins_, {"1", "x"});
       }},
      {"POST",
       "/inApps/v1/notifications/test",
       {},
       "",
       [&] { return requestTestNotification(store); }},
      {"GET",
       "/inApps/v1/notifications/test/7e3fb20b-4cdb-47cc-936d-99d65f608138",
       {},
       "",
       [&] { return testNotificationStatus(store, "7e3fb20b-4cdb-47cc-936d-99d65f608138"); }},
      // The first of repeated page tokens counts, as httplib's get_param_value gave it.
      {"POST",
       "/inApps/v1/notifications/history",
       {{"paginationToken", ""}, {"paginationToken", "x"}},
       window,
       [&] { return notificationHistory(store, window, ""); }},
      {"POST",
       "/inApps/v1/notifications/history",
       {{"paginationToken", "x"}, {"paginationToken", ""}},
       window,
       [&] { return notificationHistory(store, window, "x"); }},
      {"POST",
       "/inApps/v1/transactions/" + coins_ + "/finish",
       {},
       "",
       [&] { return finishTransaction(store, coins_); }},
      {"GET",
       "/inApps/v1/transactions/appTransactions/x" + app_,
       {},
       "",
       [&] { return appTransactionInfo(store, "x" + app_); }},
      {"PUT",
       "/inApps/v1/transactions/" + coins_ + "/appAccountToken",
       {},
       token,
       [&] { return setAppAccountToken(store, coins_, token); }},
      {"GET", "/inApps/v1/history/" + coins_, sorted, "",
       [&] { return transactionHistory(store, HistoryVersion::v1, coins_, sorted); }},
      {"GET", "/inApps/v2/history/" + coins_, sorted, "",
       [&] { return transactionHistory(store, HistoryVersion::v2, coins_, sorted); }},
      {"PUT",
       "/inApps/v1/transactions/consumption/" + coins_,
       {},
       consumption,
       [&] {
         return sendConsumptionInformation(store, ConsumptionVersion::v1, coins_, consumption);
       }},
      {"PUT",
       "/inApps/v2/transactions/consumption/" + coins_,
       {},
       consumption,
       [&] {
         return sendConsumptionInformation(store, ConsumptionVersion::v2, coins_, consumption);
       }},
      {"PUT",
       "/inApps/v1/subscriptions/extend/" + basic_,
       {},
       terms,
       [&] { return extendRenewalDate(store, basic_, terms); }},
      {"POST",
       "/inApps/v1/subscriptions/extend/mass",
       {},
       mass,
       [&] { return extendRenewalDatesForAllSubscribers(store, mass); }},
      {"GET",
       std::string("/inApps/v1/subscriptions/extend/mass/") + kBasic + "/m1",
       {},
       "",
       [&] { return massExtensionStatus(store, kBasic, "m1"); }},
      {"GET",
       std::string("/inApps/v1/subscriptions/extend/mass/m1/") + kBasic,
       {},
       "",
       [&] { return massExtensionStatus(store, "m1", kBasic); }},
      {"GET",
       "/inApps/v2/refund/lookup/" + coins_,
       {{"revision", "x"}},
       "",
       [&] {
         return refundHistory(store, coins_, {{"revision", "x"}});
       }},
      // Where two patterns fit, the one listed first answers.
      {"PUT",
       "/inApps/v1/transactions/consumption/appAccountToken",
       {},
       token,
       [&] { return setAppAccountToken(store, "consumption", token); }},
      {"GET",
       "/inApps/v1/transactions/appTransactions",
       {},
       "",
       [&] { return transactionInfo(store, "appTransactions"); }},
      {"PUT",
       "/inApps/v1/subscriptions/extend/mass",
       {},
       terms,
       [&] { return extendRenewalDate(store, "mass", terms); }},
      {"GET",
       "/inApps/v1/subscriptions/extend",
       {},
       "",
       [&] { return allSubscriptionStatuses(store, "extend", {}); }},
      // The path comes decoded already: what is left of an escape stays in the id.
      {"GET", "/inApps/v1/transactions/%31", {}, "", [&] { return transactionInfo(store, "%31"); }},
      {"GET",
       std::string("/inApps/v1/transactions/1\0", 26),
       {},
       "",
       [&] { return transactionInfo(store, std::string("1\0", 2)); }},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(std::string(row.method) + " " + row.path + " " + row.body);
    const auto routed = answer(row.method, row.path, row.query, row.body);
    const auto direct = row.endpoint();
    EXPECT_EQ(routed.status, direct.status);
    EXPECT_EQ(routed.body, direct.body);
    EXPECT_TRUE(routed.allow.empty());
  }
}

TEST_F(ApiRoutesTest, PathsNoEndpointTakesAreNotFound) {
  const std::string id = coins_;
  const struct {
    const char* method;
    std::string path;
  } cases[] = {
      {"GET", ""},
      {"GET", "/"},
      {"GET", "/inApps"},
      {"GET", "/inapps/v1/transactions/" + id},
      {"GET", "/inApps/V1/transactions/" + id},
      {"GET", "/inApps/v1/Transactions/" + id},
      {"GET", "/inApps/v1/transactions/" + id + "/"},
      {"GET", "/inApps/v1/transactions/"},
      {"GET", "//inApps/v1/transactions/" + id},
      {"GET", "inApps/v1/transactions/" + id},
      {"GET", "http://localhost/inApps/v1/transactions/" + id},
      {"POST", "/inApps/v1/transactions//finish"},
      {"POST", "/inApps/v1/transactions/" + id + "/finish/now"},
      {"GET", "/inApps/v3/history/" + id},
      {"GET", "/inApps/v1/refund/lookup/" + id},
      {"GET", "/inApps/v1/subscriptions/extend/mass/" + id},
      {"GET", "/inApps/v1/subscriptions/extend/mass/a/b/c"},
      {"DELETE", "/inApps/v1/notifications"},
      {"BREW", "/coffee"},
  };
  for (const auto& row : cases) {
    const auto routed = answer(row.method, row.path);
    EXPECT_EQ(routed.status, 404) << row.method << " " << row.path;
    EXPECT_EQ(routed.body, "") << row.path;
    EXPECT_EQ(routed.allow, "") << row.path;
  }
}

TEST_F(ApiRoutesTest, AKnownPathAskedWithAnotherMethodNamesTheMethodsItTakes) {
  const std::string id = coins_;
  const struct {
    const char* method;
    std::string path;
    const char* allow;
  } cases[] = {
      {"POST", "/inApps/v1/transactions/" + id, "GET, HEAD"},
      {"get", "/inApps/v1/transactions/" + id, "GET, HEAD"},
      {"GET", "/inApps/v1/transactions/" + id + "/finish", "POST"},
      {"DELETE", "/inApps/v1/transactions/" + id + "/appAccountToken", "PUT"},
      {"GET", "/inApps/v1/notifications/test", "POST"},
      {"PUT", "/inApps/v1/notifications/history", "POST"},
      {"PATCH", "/inApps/v2/transactions/consumption/" + id, "PUT"},
      {"OPTIONS", "/inApps/v2/refund/lookup/" + id, "GET, HEAD"},
      {"GET", "/inApps/v1/subscriptions/extend/mass", "POST, PUT"},
      {"POST", "/inApps/v1/subscriptions/" + id, "GET, HEAD"},
      {"PUT", "/inApps/v1/transactions/appTransactions/finish", "GET, HEAD, POST"},
  };
  for (const auto& row : cases) {
    const auto routed = answer(row.method, row.path);
    EXPECT_EQ(routed.status, 405) << row.method << " " << row.path;
    EXPECT_EQ(routed.body, "") << row.path;
    EXPECT_EQ(routed.allow, row.allow) << row.method << " " << row.path;
  }
}

}  // namespace
}  // namespace appstore::server
