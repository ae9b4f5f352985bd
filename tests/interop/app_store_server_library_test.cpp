// Apple's App Store Server Library (from npm, in the build tree) reads what the driver signs as
// we wrote it, verified against the root it exports: transactions, renewal info, the App Store
// Server API's answers and the Server Notifications.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include "platform/base64.h"
#include "platform/date.h"
#include "appstore/local_store.h"
#include "appstore/order_ids.h"
#include "storekit/jws.h"
#include "support/driver_process.h"
#include "support/notification_receiver.h"
#include "interop/node_packages.h"

namespace storekit {
namespace {

namespace fs = std::filesystem;
namespace json = boost::json;

using testsupport::readFile;

int run(const std::string& command) { return std::system(command.c_str()); }

// The certificate of a PEM file, as DER: the base64 between its armour lines.
std::string derOfPEM(const std::string& pem) {
  std::istringstream lines(pem);
  std::string base64;
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with("-----")) base64 += line;
  }
  return platform::base64Decode(base64).value_or("");
}

// The library, installed once per build tree, and the scripts that drive it beside it.
class AppStoreServerLibrary : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto failure = testsupport::installNodePackages(
        VORNTESK_SOURCE_DIR "/tests/interop", dir_,
        {"package.json", "verify.cjs", "server_client.cjs", "notifications.cjs"},
        "@apple/app-store-server-library");
    if (failure && run("npm ping > /dev/null 2>&1") != 0) {
      GTEST_SKIP() << "SKIPPED: the npm registry cannot be reached, so Apple's "
                      "@apple/app-store-server-library could not be installed. npm said:\n"
                   << *failure;
    }
    ASSERT_FALSE(failure) << "npm install failed although the registry answers:\n" << *failure;
  }

  // What SignedDataVerifier makes of each item of `input` (see verify.cjs), under `name`.
  json::array verify(const json::object& input, const std::string& name) {
    auto results = node("verify.cjs", input, name);
    return results.is_array() ? std::move(results.as_array()) : json::array{};
  }

  // What `script` prints for `input`, parsed; null if it fails.
  json::value node(const std::string& script, const json::object& input, const std::string& name) {
    std::ofstream(dir_ / (name + ".json")) << json::serialize(input);
    const auto output = dir_ / (name + "-output.json");
    const auto errors = dir_ / (name + "-error.log");
    EXPECT_EQ(run("cd '" + dir_.string() + "' && node " + script + " " + name + ".json > '" +
                  output.string() + "' 2> '" + errors.string() + "'"),
              0)
        << readFile(errors);
    boost::system::error_code failed;
    auto parsed = json::parse(readFile(output), failed);
    return failed ? json::value() : parsed;
  }

  // A driver serving the App Store Server API in Sandbox with a key it writes to a temporary
  // directory (removed after the test), started with `more` arguments.
  std::unique_ptr<testsupport::RunningDriver> serve(const std::vector<std::string>& more = {}) {
    std::string pattern = (fs::temp_directory_path() / "interop_server.XXXXXX").string();
    EXPECT_NE(::mkdtemp(pattern.data()), nullptr);
    temp_ = pattern;
    std::vector<std::string> arguments{"--environment", "Sandbox", "--server", "0", "--api-key",
                                       (temp_ / "key.p8").string(), "--key-id", "LOCALKEY01",
                                       "--issuer-id", kIssuer};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return std::make_unique<testsupport::RunningDriver>(arguments);
  }

  // What the server scripts are given: the server's address, key and root, and `more`.
  json::object clientInput(testsupport::RunningDriver& driver, json::object more) {
    const auto url = driver.ask(R"({"id":"u","store":"server"})");
    const auto root = driver.ask(R"({"id":"r","store":"rootCertificate"})");
    EXPECT_TRUE(url && root);
    json::object input{
        {"url", json::parse(url.value_or("{}")).at("url")},
        {"keyFile", (temp_ / "key.p8").string()},
        {"keyId", "LOCALKEY01"},
        {"issuerId", kIssuer},
        {"bundleId", "com.vorntesk.example"},
        {"trustedRoot", platform::base64Encode(derOfPEM(
                            std::string(json::parse(root.value_or("{}")).at("pem").as_string())))}};
    for (auto& [key, value] : more) input[key] = std::move(value);
    return input;
  }

  // Sends each control line to `driver`; each must succeed.
  static void control(testsupport::RunningDriver& driver, std::initializer_list<const char*> lines) {
    for (const char* line : lines) {
      const auto answer = driver.ask(line);
      ASSERT_TRUE(answer && answer->find("\"ok\":true") != std::string::npos)
          << line << ": " << answer.value_or("");
    }
  }

  void TearDown() override {
    if (!temp_.empty()) fs::remove_all(temp_);
  }

  static constexpr const char* kIssuer = "57246542-96fe-1a63-e053-0824d011072a";
  const fs::path dir_ = fs::path(VORNTESK_BINARY_DIR) / "interop";
  fs::path temp_;
};

std::string purchaseLine(const char* productID) {
  return std::string(R"({"id":0,"call":"Purchase","payload":{"productId":")") + productID +
         R"("}})";
}

// Under the root the driver exports and in Apple's Sandbox environment, Apple's verifier
// accepts every transaction the store signed (a quantity and a token, a refund, a subscription
// through grace, billing retry, a recovery, expiry and a new purchase, refunded) and the
// renewal info of every state; it turns down a payload changed after signing, and a root other
// than ours. The first three steps are made by an earlier launch on the same state file: their
// tokens verify after the relaunch, which exports the same root.
TEST_F(AppStoreServerLibrary, ItsVerifierAcceptsEveryTransactionAndRenewalInfo) {
  std::string pattern = (fs::temp_directory_path() / "interop_relaunch.XXXXXX").string();
  ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
  temp_ = pattern;
  const auto options = [&](const char* root) {
    return "--environment Sandbox --state " + (temp_ / "state.db").string() + " --export-root " +
           (temp_ / root).string();
  };
  const auto first = testsupport::runDriver(
      {R"({"id":0,"call":"Purchase","payload":{"productId":"com.vorntesk.sample.coins100",)"
       R"("options":{"quantity":2,"appAccountToken":"e3b0c442-98fc-1c14-9afb-f4c8996fb924"}}})",
       purchaseLine("com.vorntesk.sample.seasonpass"),
       R"({"id":"x","store":"refundTransaction","identifier":2,"reason":"developerIssue"})"},
      options("first.pem"));
  ASSERT_EQ(first.exitStatus, 0) << first.errors;
  ASSERT_EQ(first.lines.size(), 3u) << first.errors;
  std::vector<std::string> input = {
      R"({"id":"s","store":"shouldEnterBillingRetryOnRenewal","value":true})",
      R"({"id":"g","store":"billingGracePeriodIsEnabled","value":true})",
      purchaseLine("com.vorntesk.sample.basic.monthly")};
  const auto step = [&](const std::string& line) {
    if (!line.empty()) input.push_back(line);
    input.push_back(R"({"id":"status","store":"subscriptionStatus","groupID":"21500001"})");
  };
  step("");
  step(R"({"id":"off","store":"disableAutoRenewForTransaction","identifier":3})");
  step(R"({"id":"on","store":"enableAutoRenewForTransaction","identifier":3})");
  step(R"({"id":"t","store":"advanceTime","seconds":2764800})");  // 32 days: grace
  step(R"({"id":"t","store":"advanceTime","seconds":1382400})");  // 16 more: billing retry
  step(R"({"id":"r","store":"resolveIssueForTransaction","identifier":3})");
  step(R"({"id":"t","store":"advanceTime","seconds":2764800})");  // fails again: grace
  step(R"({"id":"t","store":"advanceTime","seconds":6048000})");  // 70 days: expired
  step(purchaseLine("com.vorntesk.sample.pro.monthly"));
  step(R"({"id":"x","store":"refundTransaction","identifier":5})");
  input.push_back(R"({"id":"all","call":"GetAllTransactions"})");
  input.push_back(R"({"id":"root","store":"rootCertificate"})");
  const auto run = testsupport::runDriver(input, options("second.pem"));
  ASSERT_EQ(run.exitStatus, 0) << run.errors;
  ASSERT_EQ(run.lines.size(), input.size()) << run.errors;
  EXPECT_EQ(readFile(temp_ / "first.pem"), readFile(temp_ / "second.pem"));

  json::array items;
  std::vector<json::value> ours;
  std::set<std::int64_t> statesSeen;
  for (const auto& line : run.lines) {
    const auto answer = json::parse(line);
    if (answer.at("id") == "status") {
      const auto& held = answer.at("statuses").at(0);
      statesSeen.insert(held.at("status").as_int64());
      items.push_back({{"jws", held.at("signedRenewalInfo")}, {"environment", "Sandbox"},
                       {"kind", "renewalInfo"}});
      ours.push_back(held.at("renewalInfo"));
    } else if (answer.at("id") == "all") {
      for (const auto& made : answer.at("envelope").at("success").at("transactions").as_array()) {
        items.push_back({{"jws", made.at("jwsRepresentation")}, {"environment", "Sandbox"}});
        ours.push_back(json::parse(*decodeJWSPayload(made.at("jwsRepresentation").as_string())));
      }
    }
  }
  EXPECT_EQ(statesSeen, (std::set<std::int64_t>{1, 2, 3, 4, 5}));
  ASSERT_EQ(ours.size(), 10u + 5u) << run.errors;
  EXPECT_EQ(json::parse(first.lines[0]).at("envelope").at("success").at("transaction")
                .at("jwsRepresentation"), items[10].at("jws")) << "re-signed at the relaunch";
  // The first purchase's token with its quantity changed after signing, and as it is under a
  // foreign root.
  const std::string token(items[10].at("jws").as_string());
  const auto payloadStart = token.find('.') + 1, signatureStart = token.rfind('.');
  auto payload = *platform::base64URLDecode(token.substr(payloadStart, signatureStart - payloadStart));
  ASSERT_NE(payload.find("\"quantity\":2"), std::string::npos) << payload;
  payload.replace(payload.find("\"quantity\":2"), 12, "\"quantity\":9");
  items.push_back({{"jws", token.substr(0, payloadStart) + platform::base64URLEncode(payload) +
                               token.substr(signatureStart)},
                   {"environment", "Sandbox"}});
  const auto foreignRoot = appstore::SigningAuthority::generate()->rootCertificate();
  items.push_back({{"jws", token},
                   {"environment", "Sandbox"},
                   {"trustedRoots", {json::string(platform::base64Encode(foreignRoot))}}});

  const auto root = derOfPEM(std::string(json::parse(run.lines.back()).at("pem").as_string()));
  const auto results = verify({{"bundleId", "com.vorntesk.example"},
                               {"trustedRoots", {json::string(platform::base64Encode(root))}},
                               {"items", items}},
                              "signed-items");
  ASSERT_EQ(results.size(), items.size());
  for (std::size_t i = 0; i < ours.size(); ++i) {
    ASSERT_TRUE(results[i].at("ok").as_bool()) << i << ": " << json::serialize(results[i]);
    EXPECT_EQ(results[i].at("decoded"), ours[i]) << i;
  }
  // Turned down for its signature (VerificationStatus.VERIFICATION_FAILURE), and its chain.
  EXPECT_EQ(results[ours.size()].at("status"), 1) << json::serialize(results[ours.size()]);
  EXPECT_FALSE(results.back().at("ok").as_bool());
}

// Apple's AppStoreServerAPIClient calls every endpoint of the driver's server over purchases
// of each kind (a finished consumable, a refund, a renewed subscription, a non-renewing
// subscription, a family member's shared purchase): each request as the library makes it is
// taken, each answer parses and every signed item in it verifies. What each endpoint answers
// is checked in tests/server; here, what depends on the library's own encoding of a request.
TEST_F(AppStoreServerLibrary, ItsAPIClientCallsEveryEndpoint) {
  const auto driver = serve();
  std::vector<std::string> handed;
  for (const char* product : {"com.vorntesk.sample.coins100", "com.vorntesk.sample.coins100",
                              "com.vorntesk.sample.removeads", "com.vorntesk.sample.basic.monthly",
                              "com.vorntesk.sample.seasonpass"}) {
    const auto answer = driver->ask(purchaseLine(product));
    ASSERT_TRUE(answer);
    handed.emplace_back(json::parse(*answer).at("envelope").at("success").at("transaction")
                            .at("jwsRepresentation").as_string());
  }
  control(*driver,
          {R"({"id":"x","store":"refundTransaction","identifier":3})",
           R"({"id":"r","store":"forceRenewalOfSubscription","productID":"com.vorntesk.sample.basic.monthly"})",
           R"({"id":"f","store":"shareWithFamily","productID":"com.vorntesk.sample.offlinemaps"})"});
  // Order ids as a customer would quote them: the account's purchases, refunded or renewed,
  // are orders; a family member's purchase (7) is not this account's, and is not listed.
  const auto listing = driver->ask(R"({"id":"l","store":"allTransactions"})");
  ASSERT_TRUE(listing);
  const auto listed = json::parse(*listing);
  std::map<std::string, std::string> orderOf;
  for (const auto& t : listed.at("transactions").as_array()) {
    if (const auto* order = t.as_object().if_contains("orderID")) {
      orderOf[std::to_string(t.at("identifier").as_int64())] = order->as_string().c_str();
    }
  }
  ASSERT_EQ(orderOf.size(), 6u) << *listing;
  const json::array orders{orderOf["2"], orderOf["3"], orderOf["6"],
                           appstore::orderIDForTransaction(7), "MZZZZZZZZZ", "order-2"};
  const std::string token = "5c0f8d61-2a3e-4b7f-9a51-0d9e2f3c4b5a";
  const std::string massID = "0b9a6c1e-7d44-4d8e-8f2a-6e5d4c3b2a19";
  const json::array asked{"1", "2", "4", "5", "99", "x1"};
  const auto printed = node(
      "server_client.cjs",
      clientInput(*driver,
                  {{"transactionIds", asked},  // the first finished through the server
                   {"endpoints",
                    {{"anyId", "4"}, {"subscriptionId", "4"}, {"consumableId", "2"}, {"token", token},
                     {"massRequestIdentifier", massID}, {"orderIds", orders},
                     {"massProductId", "com.vorntesk.sample.basic.monthly"}}}}),
      "server-endpoints");
  ASSERT_TRUE(printed.is_object() && printed.as_object().contains("endpoints")) << json::serialize(printed);

  // Transaction info: the tokens handed to the app; Apple's errors, as the library reads them.
  const auto& results = printed.at("results").as_array();
  ASSERT_EQ(results.size(), asked.size());
  for (const std::size_t i : {0, 1, 2, 3}) {
    ASSERT_TRUE(results[i].at("ok").as_bool()) << json::serialize(results[i]);
    const auto id = std::stoul(std::string(asked[i].as_string()));
    EXPECT_EQ(results[i].at("decoded"), json::parse(*decodeJWSPayload(handed[id - 1]))) << id;
  }
  EXPECT_EQ(results[4].at("httpStatusCode"), 404);
  EXPECT_EQ(results[4].at("apiError"), 4040010);
  EXPECT_EQ(results[5].at("apiError"), 4000006);
  ASSERT_EQ(printed.at("groups").as_array().size(), 1u);
  EXPECT_EQ(printed.at("groups").at(0).at("originalTransactionId"), "4");

  const auto& out = printed.at("endpoints").as_object();
  const auto ids = [&](const char* history) {
    std::vector<std::string> found;
    for (const auto& t : out.at(history).at("decoded").as_array()) {
      found.emplace_back(t.at("transactionId").as_string());
    }
    return found;
  };
  auto all = ids("historyV2");
  std::sort(all.begin(), all.end());
  EXPECT_EQ(all, (std::vector<std::string>{"1", "2", "3", "4", "5", "6", "7"}));
  // The library's filters (product types, revoked=false, sort) as the server reads them.
  EXPECT_EQ(ids("historyV2Filtered"), (std::vector<std::string>{"7", "2", "1"}));
  auto v1 = ids("historyV1");  // without the consumable finished through the server
  std::sort(v1.begin(), v1.end());
  EXPECT_EQ(v1, (std::vector<std::string>{"2", "3", "4", "5", "6", "7"}));
  EXPECT_EQ(ids("refunds"), std::vector<std::string>{"3"});
  EXPECT_EQ(out.at("appTransaction").at("appTransactionId"),
            out.at("historyV2").at("decoded").at(0).at("appTransactionId"));
  EXPECT_EQ(out.at("afterToken").at("transaction").at("appAccountToken"), json::value(token));
  EXPECT_EQ(out.at("consumptionRefused").at("apiError"), 4000035);
  // Five days for the one subscription, then two for every subscriber in the storefronts
  // the library names.
  EXPECT_EQ(out.at("afterExtensions").at("expiresDate").as_int64() -
                out.at("extension").at("effectiveDate").as_int64(),
            2 * 86400000LL);
  EXPECT_EQ(out.at("mass").at("requestIdentifier"), json::value(massID));
  EXPECT_EQ(out.at("massStatus").at("succeededCount"), 1);
  EXPECT_EQ(out.at("massStatusUnknown").at("apiError"), 4040009);
  const json::array found = out.at("orders").as_array();
  const json::array expected = json::parse(
      R"([{"status":0,"transactionIds":["2"]},{"status":0,"transactionIds":["3"]},
          {"status":0,"transactionIds":["6"]},{"status":1,"transactionIds":[]},
          {"status":1,"transactionIds":[]},{"status":1,"transactionIds":[]}])").as_array();
  EXPECT_EQ(found, expected) << json::serialize(found);
}

// Every notification the store sends passes Apple's verifier as its client reads them back
// (the history, page by page, its failures, and a test notification), and reaches the
// developer's endpoint once: the same notifications, in the order the store made them.
TEST_F(AppStoreServerLibrary, ItsVerifierAcceptsEveryNotificationAndItsClientReadsTheHistory) {
  testsupport::NotificationReceiver receiver;
  ASSERT_TRUE(receiver.listening());
  const auto driver = serve({"--notifications-url", receiver.url()});
  for (const char* product : {"com.vorntesk.sample.basic.monthly", "com.vorntesk.sample.coins100"}) {
    ASSERT_TRUE(driver->ask(purchaseLine(product)));
  }
  control(*driver,
          {R"({"id":"a","store":"advanceTime","seconds":2764800})",
           R"({"id":"p","store":"requestPriceIncreaseConsentForTransaction","identifier":3,"price":"3.49"})",
           R"({"id":"d","store":"disableAutoRenewForTransaction","identifier":3})",
           R"({"id":"e","store":"extendRenewalDate","originalTransactionId":1,"extendByDays":3,"requestIdentifier":"x"})",
           R"({"id":"q","store":"requestRefund","identifier":2,"reason":"UNINTENDED_PURCHASE"})",
           R"({"id":"r","store":"refundTransaction","identifier":2})"});
  // More than a page of history (20).
  constexpr std::size_t kCharges = 15;
  for (std::size_t i = 0; i < kCharges; ++i) {
    ASSERT_TRUE(driver->ask(R"({"id":"c","store":"buyProduct","productID":"com.vorntesk.sample.coins100"})"));
  }
  const std::size_t delivered = 8 + kCharges;
  ASSERT_EQ(receiver.waitFor(delivered).size(), delivered);
  // Then an endpoint that fails: the next one is attempted, and stays a failure.
  receiver.answerWith(500);
  ASSERT_TRUE(driver->ask(R"({"id":"b","store":"buyProduct","productID":"com.vorntesk.sample.removeads"})"));
  ASSERT_EQ(receiver.waitFor(delivered + 1).size(), delivered + 1);
  const auto made = driver->ask(R"({"id":"n","store":"notifications"})");
  const auto now = driver->ask(R"({"id":"t","store":"now"})");
  ASSERT_TRUE(made && now);
  receiver.answerWith(200);  // for the test notification
  const auto end = platform::millisecondsSince1970(
                       *platform::parseRFC3339(json::parse(*now).at("now").as_string())) + 60'000;
  const auto printed = node(
      "notifications.cjs",
      clientInput(*driver, {{"startDate", end - 29LL * 24 * 3600 * 1000}, {"endDate", end}}),
      "notifications");
  ASSERT_TRUE(printed.is_object() && printed.as_object().contains("history")) << json::serialize(printed);

  // The store's list, what the endpoint received and what the client read, each as
  // "type/subtype uuid".
  const auto described = [](const json::array& notifications, std::size_t count) {
    std::vector<std::string> names;
    for (std::size_t i = 0; i < count && i < notifications.size(); ++i) {
      const auto* subtype = notifications[i].as_object().if_contains("subtype");
      names.push_back(std::string(notifications[i].at("notificationType").as_string()) + "/" +
                      (subtype ? std::string(subtype->as_string()) : "") + " " +
                      std::string(notifications[i].at("notificationUUID").as_string()));
    }
    return names;
  };
  const auto stored = described(json::parse(*made).at("notifications").as_array(), 100);
  const auto received = receiver.waitFor(delivered + 2);
  auto arrived = described(json::array(received.begin(), received.end()), delivered + 1);
  const auto read = described(printed.at("history").as_array(), 100);
  ASSERT_EQ(stored.size(), delivered + 1);
  auto sortedStored = stored;
  std::sort(sortedStored.begin(), sortedStored.end());
  std::sort(arrived.begin(), arrived.end());
  EXPECT_EQ(arrived, sortedStored);  // delivery order is not promised, as with Apple's
  // The history reaches back 30 days in the sandbox: the two purchases before the clock moved
  // 32 days on are out of it; the rest, then the test, in the order they were made.
  auto recent = std::vector<std::string>(stored.begin() + 2, stored.end());
  ASSERT_FALSE(read.empty());
  recent.push_back(read.back());
  EXPECT_EQ(read, recent);
  EXPECT_EQ(read.back().rfind("TEST/ ", 0), 0u);
  const auto& failures = printed.at("failures").as_array();
  ASSERT_EQ(failures.size(), 1u);
  EXPECT_EQ(failures[0].at("attempts"), json::array{"UNSUCCESSFUL_HTTP_RESPONSE_CODE"});
  EXPECT_EQ(failures[0].at("transactionId").as_string(), std::to_string(4 + kCharges));
  EXPECT_EQ(printed.at("test").at("attempts"), json::array{"SUCCESS"});
}

}  // namespace
}  // namespace storekit
