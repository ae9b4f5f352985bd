// Hands the local store's signed transactions to Apple's App Store Server Library (installed
// from the npm registry into the build tree) and checks that it reads them as we wrote them:
// decoded in the Xcode environment, and verified against our root when signed for Sandbox.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include "platform/base64.h"
#include "storekit/local_store.h"

namespace storekit {
namespace {

namespace fs = std::filesystem;
namespace json = boost::json;

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

int run(const std::string& command) { return std::system(command.c_str()); }

// Installs the library once per build tree; an empty answer means it is there.
std::optional<std::string> installLibrary(const fs::path& dir) {
  const fs::path source = fs::path(VORNTESK_SOURCE_DIR) / "tests" / "interop";
  fs::create_directories(dir);
  for (const char* file : {"package.json", "verify.cjs"}) {
    fs::copy_file(source / file, dir / file, fs::copy_options::overwrite_existing);
  }
  if (fs::exists(dir / "node_modules" / "@apple" / "app-store-server-library" / "package.json")) {
    return std::nullopt;
  }
  const auto log = (dir / "npm-install.log").string();
  if (run("cd '" + dir.string() + "' && npm install --no-audit --no-fund --loglevel=error > '" + log +
          "' 2>&1") == 0) {
    return std::nullopt;
  }
  return readFile(log);
}

std::string lowercase(std::string text) {
  for (auto& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// Every member the library decodes must be what our Transaction says.
void expectSameTransaction(const json::object& decoded, const Transaction& t, const std::string& environment) {
  auto text = [&](const char* key) -> std::optional<std::string> {
    const auto* value = decoded.if_contains(key);
    if (!value) return std::nullopt;
    return std::string(value->as_string());
  };
  auto number = [&](const char* key) -> std::optional<std::int64_t> {
    const auto* value = decoded.if_contains(key);
    if (!value) return std::nullopt;
    return value->to_number<std::int64_t>();
  };
  auto ms = [](platform::Date date) { return platform::millisecondsSince1970(date); };
  auto optionalMs = [&](std::optional<platform::Date> date) -> std::optional<std::int64_t> {
    if (!date) return std::nullopt;
    return ms(*date);
  };
  EXPECT_EQ(text("transactionId"), std::to_string(t.id()));
  EXPECT_EQ(text("originalTransactionId"), std::to_string(t.originalID()));
  EXPECT_EQ(text("webOrderLineItemId"), t.webOrderLineItemID());
  EXPECT_EQ(text("bundleId"), t.appBundleID());
  EXPECT_EQ(text("productId"), t.productID());
  EXPECT_EQ(text("subscriptionGroupIdentifier"), t.subscriptionGroupID());
  EXPECT_EQ(number("purchaseDate"), ms(t.purchaseDate()));
  EXPECT_EQ(number("originalPurchaseDate"), ms(t.originalPurchaseDate()));
  EXPECT_EQ(number("expiresDate"), optionalMs(t.expirationDate()));
  EXPECT_EQ(number("revocationDate"), optionalMs(t.revocationDate()));
  EXPECT_EQ(number("signedDate"), ms(t.signedDate()));
  EXPECT_EQ(number("quantity"), t.purchasedQuantity());
  EXPECT_EQ(text("type"), t.productType().rawValue);
  EXPECT_EQ(text("inAppOwnershipType"), t.ownershipType().rawValue);
  EXPECT_EQ(text("environment"), environment);
  EXPECT_EQ(text("transactionReason"), t.reason().rawValue);
  EXPECT_EQ(text("storefront"), t.storefront().countryCode);
  EXPECT_EQ(text("storefrontId"), t.storefront().id);
  EXPECT_EQ(text("currency"), t.currency());
  EXPECT_EQ(text("appTransactionId"), t.appTransactionID());
  EXPECT_EQ(text("offerIdentifier"), t.offerID());
  EXPECT_EQ(text("offerDiscountType"), t.offerPaymentModeStringRepresentation());
  EXPECT_EQ(text("offerPeriod"), t.offerPeriodStringRepresentation());
  const auto offerType = t.offerType();
  EXPECT_EQ(number("offerType"), offerType ? std::optional(offerType->rawValue) : std::nullopt);
  const auto reason = t.revocationReason();
  EXPECT_EQ(number("revocationReason"), reason ? std::optional(reason->rawValue) : std::nullopt);
  const auto* upgraded = decoded.if_contains("isUpgraded");
  EXPECT_EQ(upgraded && upgraded->as_bool(), t.isUpgraded());
  const auto price = t.price();
  EXPECT_EQ(number("price"), price ? price->scaledByPowerOfTen(3)->toInt64() : std::nullopt);
  if (const auto token = t.appAccountToken()) {
    EXPECT_EQ(lowercase(text("appAccountToken").value_or("")), lowercase(token->uuidString()));
  } else {
    EXPECT_FALSE(text("appAccountToken"));
  }
  EXPECT_EQ(text("deviceVerificationNonce").has_value(), true);
  EXPECT_EQ(platform::base64Decode(text("deviceVerification").value_or("")), t.deviceVerification());
}

TEST(AppStoreServerLibrary, ReadsAndVerifiesOurSignedTransactions) {
  const fs::path dir = fs::path(VORNTESK_BINARY_DIR) / "interop";
  if (const auto failure = installLibrary(dir)) {
    if (run("npm ping > /dev/null 2>&1") != 0) {
      GTEST_SKIP() << "SKIPPED: the npm registry cannot be reached, so Apple's "
                      "@apple/app-store-server-library could not be installed. npm said:\n"
                   << *failure;
    }
    FAIL() << "npm install failed although the registry answers:\n" << *failure;
  }

  auto store = LocalStore::createFromFile(std::string(VORNTESK_SOURCE_DIR) + "/examples/SampleStore.storekit");
  const auto previous = LocalStore::setShared(store);
  const auto coins = Product::products({"com.vorntesk.sample.coins100"}).at(0);
  coins.purchase({PurchaseOption::quantity(2), PurchaseOption::appAccountToken(platform::UUID::random())});
  store->buyProduct("com.vorntesk.sample.basic.monthly");  // pay-as-you-go introductory offer
  store->forceRenewalOfSubscription("com.vorntesk.sample.basic.monthly");
  store->buyProduct("com.vorntesk.sample.pro.monthly");  // an upgrade
  const auto ads = store->buyProduct("com.vorntesk.sample.removeads");
  store->refundTransaction(ads.id(), Transaction::RevocationReason::developerIssue());
  store->buyProduct("com.vorntesk.sample.seasonpass");
  LocalStore::setShared(previous);

  const auto history = store->allTransactions();
  ASSERT_EQ(history.size(), 6u);
  const auto foreignRoot = SigningAuthority::generate()->rootCertificate();
  json::object input;
  input["bundleId"] = store->bundleID();
  input["trustedRoots"] = json::array{json::string(platform::base64Encode(store->rootCertificate()))};
  json::array items;
  for (const auto& entry : history) {
    items.push_back(json::object{{"jws", entry.jwsRepresentation}, {"environment", "Xcode"}});
  }
  for (const auto& entry : history) {
    items.push_back(json::object{{"jws", store->signedTransaction(entry.identifier, Environment::sandbox())},
                                 {"environment", "Sandbox"}});
  }
  // The library must turn these down: a payload changed after signing, and a foreign root.
  const auto sandbox = store->signedTransaction(history[0].identifier, Environment::sandbox());
  const auto first = sandbox.find('.'), last = sandbox.rfind('.');
  auto payload = *platform::base64URLDecode(sandbox.substr(first + 1, last - first - 1));
  payload.replace(payload.find("\"quantity\":2"), 12, "\"quantity\":7");
  items.push_back(json::object{
      {"jws", sandbox.substr(0, first + 1) + platform::base64URLEncode(payload) + sandbox.substr(last)},
      {"environment", "Sandbox"}});
  items.push_back(json::object{{"jws", sandbox},
                               {"environment", "Sandbox"},
                               {"trustedRoots", json::array{json::string(platform::base64Encode(foreignRoot))}}});
  input["items"] = std::move(items);
  {
    std::ofstream out(dir / "input.json");
    out << json::serialize(input);
  }
  ASSERT_EQ(run("cd '" + dir.string() + "' && node verify.cjs input.json > output.json 2> node-error.log"), 0)
      << readFile(dir / "node-error.log");
  const auto results = json::parse(readFile(dir / "output.json")).as_array();
  ASSERT_EQ(results.size(), 2 * history.size() + 2);

  for (std::size_t i = 0; i < 2 * history.size(); ++i) {
    const auto& result = results[i].as_object();
    const bool sandboxItem = i >= history.size();
    const auto& t = *history[i % history.size()].transaction;
    SCOPED_TRACE((sandboxItem ? "Sandbox " : "Xcode ") + t.productID());
    ASSERT_TRUE(result.at("ok").as_bool()) << json::serialize(result);
    const auto& decoded = result.at("decoded").as_object();
    expectSameTransaction(decoded, t, sandboxItem ? "Sandbox" : "Xcode");
    if (!sandboxItem) {
      EXPECT_EQ(decoded, t.payload());
    }
  }
  EXPECT_FALSE(results[2 * history.size()].as_object().at("ok").as_bool());
  EXPECT_FALSE(results[2 * history.size() + 1].as_object().at("ok").as_bool());
}

}  // namespace
}  // namespace storekit
