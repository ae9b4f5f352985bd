// Apple's App Store Server Library (from npm, in the build tree) reads what the driver signs as
// we wrote it, verified against the root it exports: transactions across a relaunch, renewal
// info, the App Store Server API's answers and the Server Notifications.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdlib>
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
#include "storekit/jws.h"
#include "support/driver_process.h"
#include "support/notification_receiver.h"

namespace storekit {
namespace {

namespace fs = std::filesystem;
using appstore::LocalStore;
namespace json = boost::json;

std::string readFile(const fs::path& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

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

// The library, installed once per build tree, and verify.cjs beside it.
class AppStoreServerLibrary : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(dir_);
    for (const char* file : {"package.json", "verify.cjs", "server_client.cjs", "notifications.cjs"}) {
      fs::copy_file(fs::path(VORNTESK_SOURCE_DIR "/tests/interop") / file, dir_ / file,
                    fs::copy_options::overwrite_existing);
    }
    // The tests of this program may run at once: one installs while the others wait.
    const int lock = ::open((dir_ / "install.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(lock, 0);
    lock_ = lock;
    for (int i = 0; i < 600 && ::flock(lock, LOCK_EX | LOCK_NB) != 0; ++i) ::sleep(1);
    if (!fs::exists(dir_ / "node_modules/@apple/app-store-server-library/package.json") &&
        run("cd '" + dir_.string() +
            "' && npm install --no-audit --no-fund --loglevel=error > npm-install.log 2>&1") != 0) {
      const auto failure = readFile(dir_ / "npm-install.log");
      if (run("npm ping > /dev/null 2>&1") != 0) {
        GTEST_SKIP() << "SKIPPED: the npm registry cannot be reached, so Apple's "
                        "@apple/app-store-server-library could not be installed. npm said:\n"
                     << failure;
      }
      FAIL() << "npm install failed although the registry answers:\n" << failure;
    }
    ::close(lock_);
    lock_ = -1;
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

  // What the server scripts are given: the driver's server (its "server" and
  // "rootCertificate" answers), the key the driver was started with in `temp`, and `more`.
  static json::object clientInput(const std::string& serverAnswer, const std::string& rootAnswer,
                                  const fs::path& temp, json::object more) {
    json::object input{
        {"url", json::parse(serverAnswer).at("url")},
        {"keyFile", (temp / "key.p8").string()},
        {"keyId", "LOCALKEY01"},
        {"issuerId", "57246542-96fe-1a63-e053-0824d011072a"},
        {"bundleId", "com.vorntesk.example"},
        {"trustedRoot",
         platform::base64Encode(derOfPEM(std::string(json::parse(rootAnswer).at("pem").as_string())))}};
    for (auto& [key, value] : more) input[key] = std::move(value);
    return input;
  }

  void TearDown() override {
    if (lock_ >= 0) ::close(lock_);
  }

  const fs::path dir_ = fs::path(VORNTESK_BINARY_DIR) / "interop";
  int lock_ = -1;
};

std::string purchaseLine(const char* productID) {
  return std::string(R"({"id":0,"call":"Purchase","payload":{"productId":")") + productID +
         R"("}})";
}

// Tokens the driver signed in the Sandbox form, before a relaunch on the same state file and
// after it, verify under the one root it exported, in Apple's Sandbox environment: every kind
// of transaction the store makes (a quantity and a token, a pay-as-you-go offer, a renewal,
// an upgrade, a non-renewing subscription refunded for a developer issue). Apple's verifier
// turns down a payload changed after signing, and a root other than ours.
TEST_F(AppStoreServerLibrary, VerifiesTokensFromBeforeAndAfterARelaunchAgainstTheExportedRoot) {
  std::string pattern = (fs::temp_directory_path() / "interop_relaunch.XXXXXX").string();
  ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
  const fs::path temp = pattern;
  const std::string options = "--environment Sandbox --state " + (temp / "state.db").string() +
                              " --export-root " + (temp / "root.pem").string();
  const auto first = testsupport::runDriver(
      {R"({"id":0,"call":"Purchase","payload":{"productId":"com.vorntesk.sample.coins100",)"
       R"("options":{"quantity":2,"appAccountToken":"e3b0c442-98fc-1c14-9afb-f4c8996fb924"}}})",
       purchaseLine("com.vorntesk.sample.removeads")},
      options);
  const auto firstRoot = readFile(temp / "root.pem");
  const auto second = testsupport::runDriver(
      {purchaseLine("com.vorntesk.sample.basic.monthly"),
       R"({"id":"r","store":"forceRenewalOfSubscription","productID":"com.vorntesk.sample.basic.monthly"})",
       purchaseLine("com.vorntesk.sample.pro.monthly"), purchaseLine("com.vorntesk.sample.seasonpass"),
       R"({"id":"x","store":"refundTransaction","identifier":6,"reason":"developerIssue"})",
       R"({"id":1,"call":"GetAllTransactions"})"},
      options);
  const auto root = derOfPEM(readFile(temp / "root.pem"));
  fs::remove_all(temp);
  ASSERT_EQ(first.exitStatus, 0) << first.errors;
  ASSERT_EQ(second.exitStatus, 0) << second.errors;
  ASSERT_EQ(second.lines.size(), 6u) << second.errors;
  EXPECT_EQ(derOfPEM(firstRoot), root) << "the relaunch signs under another root";
  ASSERT_FALSE(root.empty());

  const auto listing = json::parse(second.lines[5]);
  const auto& transactions = listing.at("envelope").at("success").at("transactions").as_array();
  ASSERT_EQ(transactions.size(), 6u) << second.lines[5];
  EXPECT_TRUE(transactions[3].at("isUpgraded").as_bool()) << "the renewal, upgraded";
  EXPECT_EQ(transactions[5].at("revocationReason"), 1) << "the season pass, refunded";
  // The tokens handed out before the relaunch are listed as they were.
  ASSERT_EQ(first.lines.size(), 2u) << first.errors;
  for (std::size_t i = 0; i < first.lines.size(); ++i) {
    EXPECT_EQ(json::parse(first.lines[i])
                  .at("envelope")
                  .at("success")
                  .at("transaction")
                  .at("jwsRepresentation"),
              transactions[i].at("jwsRepresentation"));
  }
  json::array items;
  for (const auto& transaction : transactions) {
    items.push_back({{"jws", transaction.at("jwsRepresentation")}, {"environment", "Sandbox"}});
  }
  // The first purchase's token with its quantity changed after signing, and as it is under a
  // foreign root.
  const std::string token(transactions[0].at("jwsRepresentation").as_string());
  const auto payloadStart = token.find('.') + 1, signatureStart = token.rfind('.');
  auto payload =
      *platform::base64URLDecode(token.substr(payloadStart, signatureStart - payloadStart));
  ASSERT_NE(payload.find("\"quantity\":2"), std::string::npos) << payload;
  payload.replace(payload.find("\"quantity\":2"), 12, "\"quantity\":9");
  items.push_back({{"jws", token.substr(0, payloadStart) + platform::base64URLEncode(payload) +
                               token.substr(signatureStart)},
                   {"environment", "Sandbox"}});
  const auto foreignRoot = appstore::SigningAuthority::generate()->rootCertificate();
  items.push_back({{"jws", token},
                   {"environment", "Sandbox"},
                   {"trustedRoots", {json::string(platform::base64Encode(foreignRoot))}}});

  const auto bundleID =
      LocalStore::createFromFile(VORNTESK_SOURCE_DIR "/examples/SampleStore.storekit")->bundleID();
  const auto results = verify({{"bundleId", bundleID},
                               {"trustedRoots", {json::string(platform::base64Encode(root))}},
                               {"items", items}},
                              "relaunch");
  ASSERT_EQ(results.size(), transactions.size() + 2);
  for (std::size_t i = 0; i < transactions.size(); ++i) {
    const auto& token = transactions[i].at("jwsRepresentation").as_string();
    ASSERT_TRUE(results[i].at("ok").as_bool()) << json::serialize(results[i]);
    EXPECT_EQ(results[i].at("decoded"), json::parse(*decodeJWSPayload(token)));
    EXPECT_EQ(results[i].at("decoded").at("environment"), "Sandbox");
  }
  // Turned down for its signature (VerificationStatus.VERIFICATION_FAILURE), and its chain.
  EXPECT_FALSE(results[transactions.size()].at("ok").as_bool());
  EXPECT_EQ(results[transactions.size()].at("status"), 1) << json::serialize(results[transactions.size()]);
  EXPECT_FALSE(results.back().at("ok").as_bool());
}

// Renewal info in every state the lifecycle reaches: with an offer, auto-renew off, in the
// grace period, in billing retry, expired, renewed after recovery, revoked.
TEST_F(AppStoreServerLibrary, VerifiesTheRenewalInfoOfEveryState) {
  std::vector<std::string> input = {
      R"({"id":"s","store":"shouldEnterBillingRetryOnRenewal","value":true})",
      R"({"id":"g","store":"billingGracePeriodIsEnabled","value":true})",
      purchaseLine("com.vorntesk.sample.basic.monthly")};
  const auto status = [&] {
    input.push_back(R"({"id":"status","store":"subscriptionStatus","groupID":"21500001"})");
  };
  const auto step = [&](const std::string& line) {
    input.push_back(line);
    status();
  };
  status();
  step(R"({"id":"off","store":"disableAutoRenewForTransaction","identifier":1})");
  step(R"({"id":"on","store":"enableAutoRenewForTransaction","identifier":1})");
  step(R"({"id":"t","store":"advanceTime","seconds":2764800})");    // 32 days: grace
  step(R"({"id":"t","store":"advanceTime","seconds":1382400})");    // 16 more: billing retry
  step(R"({"id":"r","store":"resolveIssueForTransaction","identifier":1})");
  step(R"({"id":"t","store":"advanceTime","seconds":2764800})");    // fails again: grace
  step(R"({"id":"t","store":"advanceTime","seconds":6048000})");    // 70 days: expired
  step(R"({"id":"b","call":"Purchase","payload":{"productId":"com.vorntesk.sample.pro.monthly"}})");
  step(R"({"id":"x","store":"refundTransaction","identifier":3})");
  input.push_back(R"({"id":"root","store":"rootCertificate"})");
  const auto run = testsupport::runDriver(input, "--environment Sandbox");
  ASSERT_EQ(run.exitStatus, 0) << run.errors;

  json::array items;
  std::vector<json::value> ours;
  std::set<std::int64_t> statesSeen;
  for (const auto& line : run.lines) {
    if (line.rfind(R"({"id":"status",)", 0) != 0) continue;
    const auto held = json::parse(line).at("statuses").at(0);
    statesSeen.insert(held.at("status").as_int64());
    items.push_back({{"jws", held.at("signedRenewalInfo")}, {"environment", "Sandbox"},
                     {"kind", "renewalInfo"}});
    ours.push_back(held.at("renewalInfo"));
  }
  ASSERT_EQ(items.size(), 10u) << run.errors;
  EXPECT_EQ(statesSeen, (std::set<std::int64_t>{1, 2, 3, 4, 5}));
  const auto root = derOfPEM(std::string(json::parse(run.lines.back()).at("pem").as_string()));
  ASSERT_FALSE(root.empty());

  const auto results = verify({{"bundleId", "com.vorntesk.example"},
                               {"trustedRoots", {json::string(platform::base64Encode(root))}},
                               {"items", items}},
                              "renewal-info");
  ASSERT_EQ(results.size(), items.size());
  for (std::size_t i = 0; i < results.size(); ++i) {
    ASSERT_TRUE(results[i].at("ok").as_bool()) << i << ": " << json::serialize(results[i]);
    EXPECT_EQ(results[i].at("decoded"), ours[i]) << i;
  }
}

// Apple's AppStoreServerAPIClient calls every endpoint of the driver's server over purchases
// of each kind (a finished consumable, a refund, a renewed subscription, a non-renewing
// subscription, a family member's shared purchase), and what it decodes, verified, is what
// the store holds: each purchase's transaction info is the transaction the app was handed;
// unknown and malformed ids get Apple's errors, which the library reads.
TEST_F(AppStoreServerLibrary, ItsAPIClientCallsEveryEndpointAndAgreesWithTheStore) {
  std::string pattern = (fs::temp_directory_path() / "interop_endpoints.XXXXXX").string();
  ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
  const fs::path temp = pattern;
  testsupport::RunningDriver driver({"--environment", "Sandbox", "--server", "0", "--api-key",
                                     (temp / "key.p8").string(), "--key-id", "LOCALKEY01",
                                     "--issuer-id", "57246542-96fe-1a63-e053-0824d011072a"});
  std::vector<std::string> handed;
  for (const char* product : {"com.vorntesk.sample.coins100", "com.vorntesk.sample.coins100",
                              "com.vorntesk.sample.removeads", "com.vorntesk.sample.basic.monthly",
                              "com.vorntesk.sample.seasonpass"}) {
    const auto answer = driver.ask(purchaseLine(product));
    ASSERT_TRUE(answer);
    handed.push_back(std::string(
        json::parse(*answer).at("envelope").at("success").at("transaction").at("jwsRepresentation").as_string()));
  }
  for (const char* line :
       {R"({"id":"x","store":"refundTransaction","identifier":3})",
        R"({"id":"r","store":"forceRenewalOfSubscription","productID":"com.vorntesk.sample.basic.monthly"})",
        R"({"id":"f","store":"shareWithFamily","productID":"com.vorntesk.sample.offlinemaps"})"}) {
    const auto answer = driver.ask(line);
    ASSERT_TRUE(answer && answer->find("\"ok\":true") != std::string::npos) << line << ": " << answer.value_or("");
  }
  const auto url = driver.ask(R"({"id":"u","store":"server"})");
  const auto root = driver.ask(R"({"id":"r","store":"rootCertificate"})");
  ASSERT_TRUE(url && root);
  const std::string token = "5c0f8d61-2a3e-4b7f-9a51-0d9e2f3c4b5a";
  const std::string massID = "0b9a6c1e-7d44-4d8e-8f2a-6e5d4c3b2a19";
  const json::array asked{"1", "2", "3", "4", "5", "6", "99", "x1"};
  const auto printed = node(
      "server_client.cjs",
      clientInput(*url, *root, temp,
                  {{"transactionIds", asked},  // the first finished through the server
                   {"endpoints",
                    {{"anyId", "4"}, {"subscriptionId", "4"}, {"consumableId", "2"}, {"token", token},
                     {"massRequestIdentifier", massID},
                     {"massProductId", "com.vorntesk.sample.basic.monthly"}}}}),
      "server-endpoints");
  const auto held = driver.ask(R"({"id":"a","store":"allTransactions"})");
  const auto consumption = driver.ask(R"({"id":"c","store":"consumptionInformation","identifier":2})");
  const auto unfinished = driver.ask(R"({"id":"f","call":"GetUnfinishedTransactions"})");
  fs::remove_all(temp);
  ASSERT_TRUE(printed.is_object() && printed.as_object().contains("endpoints")) << json::serialize(printed);
  ASSERT_TRUE(held && consumption && unfinished);

  // Transaction info: the tokens handed to the app, the refunded one re-signed, the renewal.
  const auto& results = printed.at("results").as_array();
  ASSERT_EQ(results.size(), asked.size());
  for (std::size_t i = 0; i < 6; ++i) {
    ASSERT_TRUE(results[i].at("ok").as_bool()) << json::serialize(results[i]);
    if (i < handed.size() && i != 2) {
      EXPECT_EQ(results[i].at("decoded"), json::parse(*decodeJWSPayload(handed[i]))) << i;
    }
  }
  EXPECT_TRUE(results[2].at("decoded").as_object().contains("revocationDate"));
  EXPECT_EQ(results[6].at("httpStatusCode"), 404);
  EXPECT_EQ(results[6].at("apiError"), 4040010);
  EXPECT_EQ(results[7].at("httpStatusCode"), 400);
  EXPECT_EQ(results[7].at("apiError"), 4000006);
  // The subscription, as the device holds it, with verified renewal info.
  EXPECT_EQ(printed.at("environment"), "Sandbox");
  const auto& groups = printed.at("groups").as_array();
  ASSERT_EQ(groups.size(), 1u);
  EXPECT_EQ(groups[0].at("group"), "21500001");
  EXPECT_EQ(groups[0].at("status"), 1);
  EXPECT_EQ(groups[0].at("originalTransactionId"), "4");
  EXPECT_EQ(groups[0].at("transaction"), results[5].at("decoded"));
  EXPECT_EQ(groups[0].at("renewalInfo").at("autoRenewProductId"), "com.vorntesk.sample.basic.monthly");
  EXPECT_EQ(groups[0].at("renewalInfo").at("environment"), "Sandbox");
  // Finished through the server: the device no longer lists it as unfinished.
  const auto listed = json::parse(*unfinished).at("envelope").at("success").at("transactions").as_array();
  EXPECT_FALSE(listed.empty());
  for (const auto& t : listed) EXPECT_NE(t.at("id"), 1);

  const auto& out = printed.at("endpoints").as_object();

  // The store's own view: every purchase, by id.
  std::map<std::string, json::object> store;
  const auto listing = json::parse(*held);
  for (const auto& entry : listing.at("transactions").as_array()) {
    store[std::to_string(entry.at("identifier").to_number<std::int64_t>())] = entry.as_object();
  }
  ASSERT_EQ(store.size(), 7u);
  const auto ids = [](const json::value& history) {
    std::vector<std::string> found;
    for (const auto& t : history.at("decoded").as_array()) found.emplace_back(t.at("transactionId").as_string());
    return found;
  };
  // Each decoded transaction agrees with the store on product, dates and revocation.
  for (const auto& t : out.at("historyV2").at("decoded").as_array()) {
    const std::string id(t.at("transactionId").as_string());
    ASSERT_TRUE(store.contains(id)) << id;
    const auto& ours = store[id];
    EXPECT_EQ(t.at("productId"), ours.at("productIdentifier")) << id;
    EXPECT_EQ(t.as_object().contains("revocationDate"), ours.at("revoked").as_bool()) << id;
    EXPECT_EQ(platform::formatRFC3339(platform::dateFromMillisecondsSince1970(t.at("purchaseDate").as_int64())),
              ours.at("purchaseDate").as_string()) << id;
    // The current period's expiry moves on with the extensions below; it is compared there.
    if (const auto* expires = t.as_object().if_contains("expiresDate"); expires && id != "6") {
      EXPECT_EQ(platform::formatRFC3339(platform::dateFromMillisecondsSince1970(expires->as_int64())),
                ours.at("expirationDate").as_string()) << id;
    }
  }
  auto all = ids(out.at("historyV2"));
  std::sort(all.begin(), all.end());
  EXPECT_EQ(all, (std::vector<std::string>{"1", "2", "3", "4", "5", "6", "7"}));
  EXPECT_EQ(out.at("historyV2").at("pages").at(0).at("environment"), "Sandbox");
  EXPECT_EQ(out.at("historyV2").at("pages").at(0).at("bundleId"), "com.vorntesk.example");
  // Consumables and non-consumables not revoked, newest change first; the family member's
  // shared purchase included.
  EXPECT_EQ(ids(out.at("historyV2Filtered")), (std::vector<std::string>{"7", "2", "1"}));
  // V1 leaves out the consumable finished through the server.
  auto v1 = ids(out.at("historyV1"));
  std::sort(v1.begin(), v1.end());
  EXPECT_EQ(v1, (std::vector<std::string>{"2", "3", "4", "5", "6", "7"}));
  EXPECT_EQ(ids(out.at("refunds")), std::vector<std::string>{"3"});

  const auto& app = out.at("appTransaction");
  EXPECT_EQ(app.at("receiptType"), "Sandbox");
  EXPECT_EQ(app.at("bundleId"), "com.vorntesk.example");
  EXPECT_EQ(app.at("appTransactionId"), out.at("historyV2").at("decoded").at(0).at("appTransactionId"));

  // The token went on the current period (the renewal, 6) and its renewal info.
  EXPECT_EQ(out.at("afterToken").at("transaction").at("transactionId"), "6");
  EXPECT_EQ(out.at("afterToken").at("transaction").at("appAccountToken"), json::value(token));
  EXPECT_EQ(out.at("afterToken").at("renewalInfo").at("appAccountToken"), json::value(token));

  // Both consumption bodies arrived; the later (v1) is what the store keeps.
  const auto kept = json::parse(*consumption).at("information");
  EXPECT_EQ(kept.at("version"), 1) << *consumption;
  EXPECT_EQ(kept.at("information").at("consumptionStatus"), 2);
  EXPECT_EQ(out.at("consumptionRefused").at("httpStatusCode"), 400);
  EXPECT_EQ(out.at("consumptionRefused").at("apiError"), 4000035);

  // Five days for the one subscription, then two for every subscriber: the expiry the store
  // holds is the last one the client saw.
  EXPECT_EQ(out.at("extension").at("originalTransactionId"), "4");
  EXPECT_EQ(out.at("extension").at("success"), true);
  const auto expires = out.at("afterExtensions").at("expiresDate").as_int64();
  EXPECT_EQ(expires - out.at("extension").at("effectiveDate").as_int64(), 2 * 86400000LL);
  EXPECT_EQ(platform::formatRFC3339(platform::dateFromMillisecondsSince1970(expires)),
            store["6"].at("expirationDate").as_string());
  EXPECT_EQ(out.at("mass").at("requestIdentifier"), json::value(massID));
  EXPECT_EQ(out.at("massStatus").at("complete"), true);
  EXPECT_EQ(out.at("massStatus").at("succeededCount"), 1);
  EXPECT_EQ(out.at("massStatus").at("failedCount"), 0);
  EXPECT_EQ(out.at("massStatusUnknown").at("httpStatusCode"), 404);
  EXPECT_EQ(out.at("massStatusUnknown").at("apiError"), 4040009);
}

// Every notification the store sends passes Apple's verifier, whether it arrives at the
// developer's endpoint or is read back through Apple's client (the history, page by page, its
// failures, and a test notification): the same notifications, in the order the store made
// them, each delivered once to an endpoint that takes it.
TEST_F(AppStoreServerLibrary, ItsVerifierAcceptsEveryNotificationAndItsClientReadsTheHistory) {
  std::string pattern = (fs::temp_directory_path() / "interop_notifications.XXXXXX").string();
  ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
  const fs::path temp = pattern;
  testsupport::NotificationReceiver receiver;
  ASSERT_TRUE(receiver.listening());
  testsupport::RunningDriver driver({"--environment", "Sandbox", "--server", "0", "--api-key",
                                     (temp / "key.p8").string(), "--key-id", "LOCALKEY01",
                                     "--issuer-id", "57246542-96fe-1a63-e053-0824d011072a",
                                     "--notifications-url", receiver.url()});
  for (const char* product : {"com.vorntesk.sample.basic.monthly", "com.vorntesk.sample.coins100"}) {
    ASSERT_TRUE(driver.ask(purchaseLine(product)));
  }
  for (const char* line :
       {R"({"id":"a","store":"advanceTime","seconds":2764800})",
        R"({"id":"p","store":"requestPriceIncreaseConsentForTransaction","identifier":3,"price":"3.49"})",
        R"({"id":"d","store":"disableAutoRenewForTransaction","identifier":3})",
        R"({"id":"e","store":"extendRenewalDate","originalTransactionId":1,"extendByDays":3,"requestIdentifier":"x"})",
        R"({"id":"q","store":"requestRefund","identifier":2,"reason":"UNINTENDED_PURCHASE"})",
        R"({"id":"r","store":"refundTransaction","identifier":2})"}) {
    const auto answer = driver.ask(line);
    ASSERT_TRUE(answer && answer->find("\"ok\":true") != std::string::npos) << line << ": " << answer.value_or("");
  }
  // More than a page of history (20).
  constexpr std::size_t kCharges = 15;
  for (std::size_t i = 0; i < kCharges; ++i) {
    ASSERT_TRUE(driver.ask(R"({"id":"c","store":"buyProduct","productID":"com.vorntesk.sample.coins100"})"));
  }
  const std::size_t delivered = 8 + kCharges;
  ASSERT_EQ(receiver.waitFor(delivered).size(), delivered);
  // Then an endpoint that fails: the next one is attempted, and stays a failure.
  receiver.answerWith(500);
  ASSERT_TRUE(driver.ask(R"({"id":"b","store":"buyProduct","productID":"com.vorntesk.sample.removeads"})"));
  ASSERT_EQ(receiver.waitFor(delivered + 1).size(), delivered + 1);
  const auto made = driver.ask(R"({"id":"n","store":"notifications"})");
  const auto now = driver.ask(R"({"id":"t","store":"now"})");
  const auto url = driver.ask(R"({"id":"u","store":"server"})");
  const auto root = driver.ask(R"({"id":"r","store":"rootCertificate"})");
  ASSERT_TRUE(made && now && url && root);
  receiver.answerWith(200);  // for the test notification
  const auto end = platform::millisecondsSince1970(
                       *platform::parseRFC3339(json::parse(*now).at("now").as_string())) + 60'000;
  const auto printed = node(
      "notifications.cjs",
      clientInput(*url, *root, temp, {{"startDate", end - 29LL * 24 * 3600 * 1000}, {"endDate", end}}),
      "notifications");
  fs::remove_all(temp);
  ASSERT_TRUE(printed.is_object() && printed.as_object().contains("history")) << json::serialize(printed);

  // The store's list, and what the endpoint received, in the store's order.
  const auto listed = json::parse(*made).at("notifications").as_array();
  const auto received = receiver.waitFor(delivered + 2);
  std::vector<std::string> stored, arrived, read;
  for (const auto& n : listed) {
    stored.push_back(std::string(n.at("notificationType").as_string()) + "/" +
                     std::string(n.at("subtype").as_string()) + " " +
                     std::string(n.at("notificationUUID").as_string()));
  }
  for (std::size_t i = 0; i <= delivered && i < received.size(); ++i) {
    const auto subtype = received[i].if_contains("subtype");
    arrived.push_back(std::string(received[i].at("notificationType").as_string()) + "/" +
                        (subtype ? std::string(subtype->as_string()) : "") + " " +
                        std::string(received[i].at("notificationUUID").as_string()));
  }
  for (const auto& n : printed.at("history").as_array()) {
    read.push_back(std::string(n.at("notificationType").as_string()) + "/" +
                   std::string(n.at("subtype").as_string()) + " " +
                   std::string(n.at("notificationUUID").as_string()));
  }
  ASSERT_EQ(stored.size(), delivered + 1);
  const std::vector<std::string> kinds = {
      "SUBSCRIBED/INITIAL_BUY", "ONE_TIME_CHARGE/", "DID_RENEW/", "PRICE_INCREASE/PENDING",
      "DID_CHANGE_RENEWAL_STATUS/AUTO_RENEW_DISABLED", "RENEWAL_EXTENDED/",
      "CONSUMPTION_REQUEST/", "REFUND/", "ONE_TIME_CHARGE/"};  // then more of the last
  for (std::size_t i = 0; i < kinds.size(); ++i) EXPECT_EQ(stored[i].rfind(kinds[i] + " ", 0), 0u) << stored[i];
  std::vector<std::string> sortedStored = stored, sortedArrived = arrived;
  std::sort(sortedStored.begin(), sortedStored.end());
  std::sort(sortedArrived.begin(), sortedArrived.end());
  EXPECT_EQ(sortedArrived, sortedStored);  // delivery order is not promised, as with Apple's
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
  const auto& test = printed.at("test");
  ASSERT_TRUE(test.is_object()) << json::serialize(printed);
  EXPECT_EQ(test.at("notificationType"), "TEST");
  EXPECT_EQ(test.at("attempts"), json::array{"SUCCESS"});
}

}  // namespace
}  // namespace storekit
