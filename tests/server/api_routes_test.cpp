// answerRequest without HTTP: what routing itself decides. HEAD is GET, the first of repeated
// page tokens counts, overlapping patterns answer as listed, an id is taken as it stands, and a
// path or method no endpoint takes gets 404 or 405 with no body. That each endpoint answers on
// its path is seen over HTTP in the other tests of this folder.
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

class ApiRoutesTest : public ::testing::Test {
 protected:
  void SetUp() override { coins_ = std::to_string(store_->buyProduct(kCoins).id); }

  ApiAnswer answer(const std::string& method, const std::string& path, QueryParameters query = {},
                   const std::string& body = "") {
    return answerRequest(*store_, {method, path, std::move(query), body});
  }

  static constexpr const char* kCoins = "com.vorntesk.sample.coins100";
  std::shared_ptr<LocalStore> store_ =
      LocalStore::createFromFile(VORNTESK_SOURCE_DIR "/examples/SampleStore.storekit");
  std::string coins_;
};

TEST_F(ApiRoutesTest, RoutingDecisionsReachTheEndpointThatAnswersThem) {
  LocalStore& store = *store_;
  const std::string terms = R"({"extendByDays":3,"extendReasonCode":1,"requestIdentifier":"r1"})";
  const std::string token = R"({"appAccountToken":"7e3fb20b-4cdb-47cc-936d-99d65f608138"})";
  const auto now = std::chrono::duration_cast<std::chrono::milliseconds>(
                       std::chrono::system_clock::now().time_since_epoch())
                       .count();
  const std::string window = R"({"startDate":)" + std::to_string(now - 60000) + R"(,"endDate":)" +
                             std::to_string(now + 60000) + "}";
  const std::string uuid = "7e3fb20b-4cdb-47cc-936d-99d65f608138";
  const std::string nul("1\0", 2);
  const struct {
    const char* method;
    std::string path;
    QueryParameters query;
    std::string body;
    std::function<ApiAnswer()> endpoint;  // the same request made to the endpoint itself
  } cases[] = {
      // clang-format off
      {"HEAD", "/inApps/v1/transactions/" + coins_, {}, "", [&] { return transactionInfo(store, coins_); }},
      {"POST", "/inApps/v1/notifications/test", {}, "", [&] { return requestTestNotification(store); }},
      {"GET", "/inApps/v1/notifications/test/" + uuid, {}, "", [&] { return testNotificationStatus(store, uuid); }},
      {"POST", "/inApps/v1/notifications/history", {{"paginationToken", ""}, {"paginationToken", "x"}}, window,
       [&] { return notificationHistory(store, window, ""); }},
      {"POST", "/inApps/v1/notifications/history", {{"paginationToken", "x"}, {"paginationToken", ""}}, window,
       [&] { return notificationHistory(store, window, "x"); }},
      // Where two patterns fit, the one listed first answers.
      {"PUT", "/inApps/v1/transactions/consumption/appAccountToken", {}, token,
       [&] { return setAppAccountToken(store, "consumption", token); }},
      {"GET", "/inApps/v1/transactions/appTransactions", {}, "", [&] { return transactionInfo(store, "appTransactions"); }},
      {"PUT", "/inApps/v1/subscriptions/extend/mass", {}, terms, [&] { return extendRenewalDate(store, "mass", terms); }},
      {"GET", "/inApps/v1/subscriptions/extend", {}, "", [&] { return allSubscriptionStatuses(store, "extend", {}); }},
      {"GET", "/inApps/v1/transactions/" + nul, {}, "", [&] { return transactionInfo(store, nul); }},
      // clang-format on
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

// A path no endpoint has is not found; a known one asked with a method it does not take names
// the methods it takes (more of these, over HTTP, in api_errors_test).
TEST_F(ApiRoutesTest, UnknownPathsAreNotFoundAndOtherMethodsAreNamed) {
  const std::string id = coins_;
  const struct {
    const char* method;
    std::string path;
    const char* allow;  // "" for 404
  } cases[] = {
      {"GET", "", ""},
      {"GET", "/inApps", ""},
      {"GET", "/inapps/v1/transactions/" + id, ""},
      {"GET", "/inApps/v1/transactions/" + id + "/", ""},
      {"GET", "/inApps/v1/transactions/", ""},
      {"GET", "//inApps/v1/transactions/" + id, ""},
      {"GET", "inApps/v1/transactions/" + id, ""},
      {"POST", "/inApps/v1/transactions//finish", ""},
      {"POST", "/inApps/v1/transactions/" + id + "/finish/now", ""},
      {"POST", "/inApps/v1/notifications/tests", ""},
      {"GET", "/inApps/v1/subscriptions/extend/mass/" + id, ""},
      {"GET", "/inApps/v1/subscriptions/extend/mass/a/b/c", ""},
      {"DELETE", "/inApps/v1/notifications", ""},
      {"get", "/inApps/v1/transactions/" + id, "GET, HEAD"},
      {"GET", "/inApps/v1/transactions/" + id + "/finish", "POST"},
      {"GET", "/inApps/v1/subscriptions/extend/mass", "POST, PUT"},
      {"PUT", "/inApps/v1/subscriptions/extend/mass/a/b", "GET, HEAD"},
      {"PUT", "/inApps/v1/transactions/appTransactions/finish", "GET, HEAD, POST"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(std::string(row.method) + " " + row.path);
    const auto routed = answer(row.method, row.path);
    EXPECT_EQ(routed.status, *row.allow ? 405 : 404);
    EXPECT_EQ(routed.body, "");
    EXPECT_EQ(routed.allow, row.allow);
  }
}

}  // namespace
}  // namespace appstore::server
