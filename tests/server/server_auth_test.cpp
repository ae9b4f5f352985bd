// The App Store Server API's door: which bearer tokens get in; and the answers of transaction
// info and subscription statuses in Apple's shapes, over real HTTP on loopback.
#include "api_fixture.h"
#include "platform/openssl.h"

namespace appstore::server::testing {
namespace {

std::int64_t nowSeconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// "Bearer " and a token as Apple's clients make one, from a header and payload, signed with `key`.
std::string bearerOf(const json::object& header, const json::object& payload, EVP_PKEY* key) {
  const auto input = platform::base64URLEncode(json::serialize(header)) + "." +
                     platform::base64URLEncode(json::serialize(payload));
  return "Bearer " + input + "." + platform::base64URLEncode(platform::signES256(key, input));
}

class ServerTest : public ApiFixture {
 protected:
  void SetUp() override {
    ApiFixture::SetUp();
    purchased_ = std::to_string(store_->buyProduct("com.vorntesk.sample.removeads").id);
  }

  std::string purchased_;
};

TEST_F(ServerTest, OnlyTokensSignedWithTheKeyForThisAppGetIn) {
  const auto now = nowSeconds();
  const json::object header{{"alg", "ES256"}, {"kid", "KEY1"}, {"typ", "JWT"}};
  const json::object payload{{"iss", "ISSUER"},          {"iat", now}, {"exp", now + 300},
                             {"aud", "appstoreconnect-v1"}, {"bid", store_->bundleID()}};
  const auto with = [&](auto change) {
    auto h = header;
    auto p = payload;
    change(h, p);
    return bearerOf(h, p, key_.key.get());
  };
  const auto valid = bearerOf(header, payload, key_.key.get());
  auto otherBid = payload;
  otherBid["bid"] = "com.other";
  // The valid token's header and signature around another payload.
  const auto changed = valid.substr(0, valid.find('.') + 1) +
                       platform::base64URLEncode(json::serialize(otherBid)) +
                       valid.substr(valid.rfind('.'));
  const auto other = InAppPurchaseKey::generate("KEY1", "ISSUER");
  const struct {
    const char* name;
    std::string authorization;
    int status;
  } cases[] = {
      // clang-format off
      {"node's and swift's token", valid, 200},
      {"python's and java's, without iat", with([](auto&, auto& p) { p.erase("iat"); }), 200},
      {"aud as a list", with([](auto&, auto& p) { p["aud"] = json::array{"appstoreconnect-v1"}; }), 200},
      {"no typ", with([](auto& h, auto&) { h.erase("typ"); }), 200},
      {"no header", "", 401},
      {"another scheme", "Basic dXNlcjpwYXNz", 401},
      {"not a JWT", "Bearer abc.def", 401},
      {"signed with another key", bearerOf(header, payload, other.key.get()), 401},
      {"a changed payload", changed, 401},
      {"expired", with([&](auto&, auto& p) { p["iat"] = now - 600; p["exp"] = now - 1; }), 401},
      {"valid for more than an hour", with([&](auto&, auto& p) { p["exp"] = now + 3601 + 60; }), 401},
      {"no iat, more than an hour to run", with([&](auto&, auto& p) { p.erase("iat"); p["exp"] = now + 7200; }), 401},
      {"issued in the future", with([&](auto&, auto& p) { p["iat"] = now + 600; p["exp"] = now + 900; }), 401},
      {"no exp", with([](auto&, auto& p) { p.erase("exp"); }), 401},
      {"wrong aud", with([](auto&, auto& p) { p["aud"] = "appstoreconnect-v2"; }), 401},
      {"wrong kid", with([](auto& h, auto&) { h["kid"] = "KEY2"; }), 401},
      {"wrong iss", with([](auto&, auto& p) { p["iss"] = "SOMEONE"; }), 401},
      {"another algorithm", with([](auto& h, auto&) { h["alg"] = "HS256"; }), 401},
      {"typ not JWT", with([](auto& h, auto&) { h["typ"] = "JWS"; }), 401},
      {"no bid", with([](auto&, auto& p) { p.erase("bid"); }), 401},
      {"another app", with([](auto&, auto& p) { p["bid"] = "com.example.other"; }), 404},
      // clang-format on
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.name);
    const auto reply = call("GET", "/inApps/v1/transactions/" + purchased_ + "?", "",
                            "application/json", row.authorization);
    EXPECT_EQ(reply.status, row.status) << reply.body;
    if (row.status == 401) {
      EXPECT_EQ(reply.body.find('{'), std::string::npos);  // no JSON
    } else if (row.status == 404) {
      EXPECT_EQ(reply.body, R"({"errorCode":4040003,"errorMessage":"App not found."})");
    }
  }
}

// The id may come percent-encoded, and an empty query changes nothing.
TEST_F(ServerTest, TransactionInfoAnswersWithTheSignedForm) {
  std::string encoded;
  for (const char digit : purchased_) encoded += "%3" + std::string(1, digit);
  for (const auto& id : {purchased_, encoded + "?"}) {
    const auto found = get("/inApps/v1/transactions/" + id);
    EXPECT_EQ(found.status, 200) << id;
    EXPECT_EQ(found.contentType, "application/json");
    EXPECT_EQ(std::string(json::parse(found.body).at("signedTransactionInfo").as_string()),
              *store_->signedForm(std::stoull(purchased_)));
  }
}

// Finish is called by Apple's client in the interop test.
TEST_F(ServerTest, SubscriptionStatusesByGroupFilteredByStatus) {
  const auto basic = store_->buyProduct("com.vorntesk.sample.basic.monthly").id;
  const auto statuses = [&](const std::string& query) {
    const auto reply = get("/inApps/v1/subscriptions/" + purchased_ + query);
    EXPECT_EQ(reply.status, 200) << reply.body;
    return reply.status == 200 ? json::parse(reply.body).as_object() : json::object{};
  };
  const auto answer = statuses("");
  EXPECT_EQ(answer.at("environment"), "Xcode");
  EXPECT_EQ(answer.at("bundleId"), json::value(store_->bundleID()));
  EXPECT_FALSE(answer.contains("appAppleId"));
  ASSERT_EQ(answer.at("data").as_array().size(), 1u);
  const auto& group = answer.at("data").at(0);
  EXPECT_EQ(group.at("subscriptionGroupIdentifier"), "21500001");
  const auto& last = group.at("lastTransactions").at(0);
  EXPECT_EQ(last.at("status"), 1);
  EXPECT_EQ(last.at("originalTransactionId"), json::value(std::to_string(basic)));
  EXPECT_EQ(last.at("signedTransactionInfo"), json::value(*store_->signedForm(basic)));
  EXPECT_EQ(last.at("signedRenewalInfo"),
            json::value(store_->subscriptionStatuses().at(0).signedRenewalInfo));

  // The status filter: repeated keys are OR'ed (refusals are in api_errors_test).
  EXPECT_EQ(statuses("?status=1&status=4").at("data").as_array().size(), 1u);
  EXPECT_TRUE(statuses("?status=2").at("data").as_array().empty());
  store_->refundTransaction(basic, 0);
  EXPECT_EQ(statuses("?status=5").at("data").as_array().size(), 1u);

}

}  // namespace
}  // namespace appstore::server::testing
