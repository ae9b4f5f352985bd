// The App Store Server API's door: which bearer tokens get in, and the answers of the
// transaction info endpoint in Apple's shapes, over real HTTP on loopback.
#include <gtest/gtest.h>

#include <httplib.h>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include <algorithm>
#include <chrono>
#include <tuple>
#include <string>

#include "appstore/local_store.h"
#include "appstore/server/app_store_server.h"
#include "platform/base64.h"
#include "platform/openssl.h"

namespace appstore::server {
namespace {

namespace json = boost::json;

const std::string kBundle = "com.vorntesk.example";

std::int64_t nowSeconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// A token as Apple's clients make one, from a header and payload, signed with `key`.
std::string token(const json::object& header, const json::object& payload, EVP_PKEY* key) {
  const auto input = platform::base64URLEncode(json::serialize(header)) + "." +
                     platform::base64URLEncode(json::serialize(payload));
  return input + "." + platform::base64URLEncode(platform::signES256(key, input));
}

class ServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    store_->setBundleID(kBundle);
    purchased_ = store_->buyProduct("com.vorntesk.sample.removeads").id;
    server_ = AppStoreServer::start(store_, {"127.0.0.1", 0, key_});
  }

  httplib::Result get(const std::string& path, const std::string& authorization) {
    httplib::Client client(server_->url());
    client.set_connection_timeout(5);
    client.set_read_timeout(10);
    httplib::Headers headers;
    if (!authorization.empty()) headers.emplace("Authorization", authorization);
    return client.Get(path, headers);
  }

  json::object header() const { return {{"alg", "ES256"}, {"kid", "KEY1"}, {"typ", "JWT"}}; }
  json::object payload() const {
    const auto now = nowSeconds();
    return {{"iss", "ISSUER"}, {"iat", now}, {"exp", now + 300}, {"aud", "appstoreconnect-v1"},
            {"bid", kBundle}};
  }
  std::string bearer(const json::object& h, const json::object& p) const {
    return "Bearer " + token(h, p, key_.key.get());
  }

  InAppPurchaseKey key_ = InAppPurchaseKey::generate("KEY1", "ISSUER");
  std::shared_ptr<LocalStore> store_ =
      LocalStore::createFromFile(VORNTESK_SOURCE_DIR "/examples/SampleStore.storekit");
  std::uint64_t purchased_ = 0;
  std::unique_ptr<AppStoreServer> server_;
};

TEST_F(ServerTest, OnlyTokensSignedWithTheKeyForThisAppGetIn) {
  const auto with = [&](auto change) {
    auto h = header();
    auto p = payload();
    change(h, p);
    return bearer(h, p);
  };
  const auto now = nowSeconds();
  const auto other = InAppPurchaseKey::generate("KEY1", "ISSUER");
  const struct {
    const char* name;
    std::string authorization;
    int status;
  } cases[] = {
      {"node's and swift's token", bearer(header(), payload()), 200},
      {"python's and java's, without iat",
       with([](auto&, auto& p) { p.erase("iat"); }), 200},
      {"aud as a list", with([](auto&, auto& p) { p["aud"] = json::array{"appstoreconnect-v1"}; }), 200},
      {"no typ", with([](auto& h, auto&) { h.erase("typ"); }), 200},
      {"no header", "", 401},
      {"another scheme", "Basic dXNlcjpwYXNz", 401},
      {"not a JWT", "Bearer abc.def", 401},
      {"signed with another key", "Bearer " + token(header(), payload(), other.key.get()), 401},
      {"a changed payload",
       [&] {
         auto t = bearer(header(), payload());
         const auto dot = t.find('.');
         auto p = payload();
         p["bid"] = "com.other";
         return t.substr(0, t.find(' ') + 1) + t.substr(7, dot - 7) + "." +
                platform::base64URLEncode(json::serialize(p)) + t.substr(t.rfind('.'));
       }(),
       401},
      {"expired", with([&](auto&, auto& p) { p["iat"] = now - 600; p["exp"] = now - 1; }), 401},
      {"valid for more than an hour", with([&](auto&, auto& p) { p["exp"] = now + 3601 + 60; }), 401},
      {"no iat and more than an hour to run",
       with([&](auto&, auto& p) { p.erase("iat"); p["exp"] = now + 7200; }), 401},
      {"issued in the future", with([&](auto&, auto& p) { p["iat"] = now + 600; p["exp"] = now + 900; }), 401},
      {"no exp", with([](auto&, auto& p) { p.erase("exp"); }), 401},
      {"wrong aud", with([](auto&, auto& p) { p["aud"] = "appstoreconnect-v2"; }), 401},
      {"wrong kid", with([](auto& h, auto&) { h["kid"] = "KEY2"; }), 401},
      {"wrong iss", with([](auto&, auto& p) { p["iss"] = "SOMEONE"; }), 401},
      {"another algorithm", with([](auto& h, auto&) { h["alg"] = "HS256"; }), 401},
      {"typ not JWT", with([](auto& h, auto&) { h["typ"] = "JWS"; }), 401},
      {"no bid", with([](auto&, auto& p) { p.erase("bid"); }), 401},
      {"another app", with([](auto&, auto& p) { p["bid"] = "com.example.other"; }), 404},
  };
  for (const auto& row : cases) {
    const auto result = get("/inApps/v1/transactions/" + std::to_string(purchased_) + "?", row.authorization);
    ASSERT_TRUE(result) << row.name;
    EXPECT_EQ(result->status, row.status) << row.name << "\n  " << result->body;
    if (row.status == 401) {
      EXPECT_EQ(result->body.find('{'), std::string::npos) << row.name;  // no JSON
    }
    if (row.status == 404) {
      EXPECT_EQ(result->body, R"({"errorCode":4040003,"errorMessage":"App not found."})");
    }
  }
}

TEST_F(ServerTest, TransactionInfoAnswersWithTheSignedFormOrApplesErrors) {
  const auto authorization = bearer(header(), payload());
  const auto found = get("/inApps/v1/transactions/" + std::to_string(purchased_), authorization);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->status, 200);
  EXPECT_EQ(found->get_header_value("Content-Type"), "application/json");
  EXPECT_EQ(std::string(json::parse(found->body).at("signedTransactionInfo").as_string()),
            *store_->signedForm(purchased_));
  // The id may come percent-encoded, and an empty query changes nothing.
  std::string encoded;
  for (const char digit : std::to_string(purchased_)) encoded += "%3" + std::string(1, digit);
  const auto escaped = get("/inApps/v1/transactions/" + encoded + "?", authorization);
  ASSERT_TRUE(escaped);
  EXPECT_EQ(escaped->status, 200);
  EXPECT_EQ(escaped->body, found->body);

  const struct {
    std::string id;
    int status;
    std::string body;
  } cases[] = {
      {"99999", 404, R"({"errorCode":4040010,"errorMessage":"Transaction id not found."})"},
      {"12ab", 400, R"({"errorCode":4000006,"errorMessage":"Invalid transaction id."})"},
      {"-1", 400, R"({"errorCode":4000006,"errorMessage":"Invalid transaction id."})"},
      {"99999999999999999999999", 400, R"({"errorCode":4000006,"errorMessage":"Invalid transaction id."})"},
  };
  for (const auto& row : cases) {
    const auto result = get("/inApps/v1/transactions/" + row.id, authorization);
    ASSERT_TRUE(result) << row.id;
    EXPECT_EQ(result->status, row.status) << row.id;
    EXPECT_EQ(result->body, row.body) << row.id;
    EXPECT_EQ(result->get_header_value("Content-Type"), "application/json") << row.id;
  }
}

TEST_F(ServerTest, SubscriptionStatusesByGroupFilteredByStatusAndFinishAsTheDeviceDoes) {
  const auto authorization = bearer(header(), payload());
  const auto basic = store_->buyProduct("com.vorntesk.sample.basic.monthly").id;
  const auto statuses = [&](const std::string& query) {
    const auto result = get("/inApps/v1/subscriptions/" + std::to_string(purchased_) + query, authorization);
    EXPECT_TRUE(result);
    return result ? std::pair(result->status, result->body) : std::pair(0, std::string());
  };
  auto [status, body] = statuses("");
  ASSERT_EQ(status, 200) << body;
  auto answer = json::parse(body).as_object();
  EXPECT_EQ(answer.at("environment"), "Xcode");
  EXPECT_EQ(std::string(answer.at("bundleId").as_string()), kBundle);
  EXPECT_FALSE(answer.contains("appAppleId"));
  ASSERT_EQ(answer.at("data").as_array().size(), 1u);
  const auto& group = answer.at("data").at(0);
  EXPECT_EQ(group.at("subscriptionGroupIdentifier"), "21500001");
  const auto& last = group.at("lastTransactions").at(0);
  EXPECT_EQ(last.at("status"), 1);
  EXPECT_EQ(std::string(last.at("originalTransactionId").as_string()), std::to_string(basic));
  EXPECT_EQ(std::string(last.at("signedTransactionInfo").as_string()), *store_->signedForm(basic));
  EXPECT_EQ(std::string(last.at("signedRenewalInfo").as_string()),
            store_->subscriptionStatuses().at(0).signedRenewalInfo);

  // The status filter: repeated keys are OR'ed; anything but 1 to 5 is refused.
  EXPECT_EQ(json::parse(statuses("?status=1&status=4").second).at("data").as_array().size(), 1u);
  EXPECT_TRUE(json::parse(statuses("?status=2").second).at("data").as_array().empty());
  store_->refundTransaction(basic, 0);
  EXPECT_EQ(json::parse(statuses("?status=5").second).at("data").as_array().size(), 1u);
  for (const char* bad : {"?status=6", "?status=0", "?status=active", "?status="}) {
    std::tie(status, body) = statuses(bad);
    EXPECT_EQ(status, 400) << bad;
    EXPECT_EQ(body, R"({"errorCode":4000031,"errorMessage":"Invalid request. The status parameter is invalid."})");
  }
  const auto unknown = get("/inApps/v1/subscriptions/99999", authorization);
  ASSERT_TRUE(unknown);
  EXPECT_EQ(unknown->status, 404);
  EXPECT_EQ(unknown->body, R"({"errorCode":4040010,"errorMessage":"Transaction id not found."})");

  // Finish: no body; the transaction leaves the unfinished listing.
  httplib::Client client(server_->url());
  httplib::Headers headers{{"Authorization", authorization}};
  auto finished = client.Post("/inApps/v1/transactions/" + std::to_string(purchased_) + "/finish", headers, "", "");
  ASSERT_TRUE(finished);
  EXPECT_EQ(finished->status, 200);
  EXPECT_TRUE(finished->body.empty());
  const auto unfinished = store_->transactionIDs(LocalStore::Listing::unfinished);
  EXPECT_EQ(std::count(unfinished.begin(), unfinished.end(), purchased_), 0);
  finished = client.Post("/inApps/v1/transactions/424242/finish", headers, "", "");
  ASSERT_TRUE(finished);
  EXPECT_EQ(finished->status, 404);
  EXPECT_EQ(finished->body, R"({"errorCode":4040010,"errorMessage":"Transaction id not found."})");
}

}  // namespace
}  // namespace appstore::server
