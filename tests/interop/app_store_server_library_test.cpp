// Apple's App Store Server Library (from npm, in the build tree) reads the local store's signed
// transactions as we wrote them, verified against our root, in the Xcode and Sandbox forms.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include "platform/base64.h"
#include "appstore/local_store.h"
#include "storekit/jws.h"

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

TEST(AppStoreServerLibrary, ReadsAndVerifiesOurSignedTransactions) {
  const fs::path dir = fs::path(VORNTESK_BINARY_DIR) / "interop";
  fs::create_directories(dir);
  for (const char* file : {"package.json", "verify.cjs"}) {
    fs::copy_file(fs::path(VORNTESK_SOURCE_DIR "/tests/interop") / file, dir / file,
                  fs::copy_options::overwrite_existing);
  }
  // Installed once per build tree.
  if (!fs::exists(dir / "node_modules/@apple/app-store-server-library/package.json") &&
      run("cd '" + dir.string() +
          "' && npm install --no-audit --no-fund --loglevel=error > npm-install.log 2>&1") != 0) {
    const auto failure = readFile(dir / "npm-install.log");
    if (run("npm ping > /dev/null 2>&1") != 0) {
      GTEST_SKIP() << "SKIPPED: the npm registry cannot be reached, so Apple's "
                      "@apple/app-store-server-library could not be installed. npm said:\n"
                   << failure;
    }
    FAIL() << "npm install failed although the registry answers:\n" << failure;
  }

  // Every kind of transaction the store makes: a quantity and a token, a pay-as-you-go offer,
  // a renewal, an upgrade, a refund, a non-renewing subscription.
  auto store = LocalStore::createFromFile(VORNTESK_SOURCE_DIR "/examples/SampleStore.storekit");
  appstore::PurchaseRequest coins;
  coins.productID = "com.vorntesk.sample.coins100";
  coins.quantity = 2;
  coins.appAccountToken = platform::UUID::random();
  store->buyProduct(coins);
  store->buyProduct("com.vorntesk.sample.basic.monthly");
  store->forceRenewalOfSubscription("com.vorntesk.sample.basic.monthly");
  store->buyProduct("com.vorntesk.sample.pro.monthly");
  const auto ads = store->buyProduct("com.vorntesk.sample.removeads");
  store->refundTransaction(ads.id, 1);  // a developer issue
  store->buyProduct("com.vorntesk.sample.seasonpass");

  const auto history = store->allTransactions();
  ASSERT_EQ(history.size(), 6u);
  json::array items;
  for (const auto& entry : history) {
    items.push_back({{"jws", entry.jwsRepresentation}, {"environment", "Xcode"}});
  }
  for (const auto& entry : history) {
    items.push_back({{"jws", store->resignedTransaction(entry.identifier, "Sandbox")},
                     {"environment", "Sandbox"}});
  }
  // The library must turn these down: a payload changed after signing, and a foreign root.
  const std::string sandbox(items[history.size()].at("jws").as_string());
  const auto first = sandbox.find('.'), last = sandbox.rfind('.');
  auto payload = *platform::base64URLDecode(sandbox.substr(first + 1, last - first - 1));
  payload.replace(payload.find("\"quantity\":2"), 12, "\"quantity\":7");
  items.push_back({{"jws", sandbox.substr(0, first + 1) + platform::base64URLEncode(payload) +
                               sandbox.substr(last)},
                   {"environment", "Sandbox"}});
  const auto foreignRoot = appstore::SigningAuthority::generate()->rootCertificate();
  items.push_back({{"jws", sandbox},
                   {"environment", "Sandbox"},
                   {"trustedRoots", {json::string(platform::base64Encode(foreignRoot))}}});
  std::ofstream(dir / "input.json") << json::serialize(json::object{
      {"bundleId", store->bundleID()},
      {"trustedRoots", {json::string(platform::base64Encode(store->rootCertificate()))}},
      {"items", items}});
  ASSERT_EQ(run("cd '" + dir.string() +
                "' && node verify.cjs input.json > output.json 2> node-error.log"),
            0)
      << readFile(dir / "node-error.log");
  const auto results = json::parse(readFile(dir / "output.json")).as_array();
  ASSERT_EQ(results.size(), 2 * history.size() + 2);
  // Every member the library decodes is the one we signed, and nothing else.
  for (std::size_t i = 0; i < 2 * history.size(); ++i) {
    auto expected =
        json::parse(*decodeJWSPayload(history[i % history.size()].jwsRepresentation)).as_object();
    if (i >= history.size()) expected["environment"] = "Sandbox";
    SCOPED_TRACE(json::serialize(expected));
    ASSERT_TRUE(results[i].at("ok").as_bool()) << json::serialize(results[i]);
    EXPECT_EQ(results[i].at("decoded"), expected);
  }
  EXPECT_FALSE(results[results.size() - 2].at("ok").as_bool());
  EXPECT_FALSE(results.back().at("ok").as_bool());
}

}  // namespace
}  // namespace storekit
