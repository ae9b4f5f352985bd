// Get Transaction History (v1, v2) and Get Refund History over HTTP: which purchases a page
// holds, in which order, and how the revision token carries a walk across pages, also while
// the history changes under it.
#include <algorithm>
#include <vector>

#include "api_fixture.h"

namespace appstore::server::testing {
namespace {

constexpr const char* kCoins = "com.vorntesk.sample.coins100";

struct Page {
  std::vector<std::uint64_t> ids;
  std::string revision;
  bool hasMore = false;
  json::object answer;
};

class HistoryApiTest : public ApiFixture {
 protected:
  Page page(const std::string& path) {
    const auto reply = get(path);
    EXPECT_EQ(reply.status, 200) << path << "\n" << reply.body;
    Page result;
    if (reply.status != 200) return result;
    result.answer = json::parse(reply.body).as_object();
    result.revision = std::string(result.answer.at("revision").as_string());
    result.hasMore = result.answer.at("hasMore").as_bool();
    for (const auto& jws : result.answer.at("signedTransactions").as_array()) {
      result.ids.push_back(std::stoull(std::string(payloadOf(jws.as_string()).at("transactionId").as_string())));
    }
    return result;
  }

  // Every page from the first on, following the tokens; at most 20 requests. The ids of all,
  // with each page's size and the last page's token.
  struct Walk {
    std::vector<std::uint64_t> ids;
    std::vector<std::size_t> sizes;
    std::string revision;
  };
  Walk walk(const std::string& path, const std::string& query = "") {
    Walk result;
    for (int request = 0; request < 20; ++request) {
      const auto separator = query.empty() && result.revision.empty() ? "" : "?";
      std::string full = path + separator + query;
      if (!result.revision.empty()) {
        full += std::string(query.empty() ? "" : "&") + "revision=" + result.revision;
      }
      const auto next = page(full);
      result.sizes.push_back(next.ids.size());
      result.ids.insert(result.ids.end(), next.ids.begin(), next.ids.end());
      result.revision = next.revision;
      if (!next.hasMore) return result;
    }
    ADD_FAILURE() << "more than 20 pages";
    return result;
  }

  std::uint64_t buy(const std::string& productID) { return store_->buyProduct(productID).id; }
};

TEST_F(HistoryApiTest, PagesOfTwentyInTheOrderOfChangeBothWaysAndARefundComesBackAscending) {
  std::vector<std::uint64_t> bought;
  for (int i = 0; i < 22; ++i) bought.push_back(buy(kCoins));
  // A request waiting for a parent's approval was never bought.
  store_->setAskToBuyEnabled(true);
  PurchaseRequest waiting;
  waiting.productID = "com.vorntesk.sample.removeads";
  ASSERT_EQ(store_->purchase(waiting).kind, PurchaseOutcome::Kind::pending);
  store_->setAskToBuyEnabled(false);
  for (const char* product : {"com.vorntesk.sample.seasonpass", "com.vorntesk.sample.basic.monthly"}) {
    bought.push_back(buy(product));
  }
  const auto path = "/inApps/v2/history/" + std::to_string(bought[5]);

  const auto ascending = walk(path);
  EXPECT_EQ(ascending.ids, bought);
  EXPECT_EQ(ascending.sizes, (std::vector<std::size_t>{20, 4}));
  auto reversed = bought;
  std::reverse(reversed.begin(), reversed.end());
  EXPECT_EQ(walk(path, "sort=DESCENDING").ids, reversed);

  // Ascending: a purchase refunded after its page was read comes back at the end, changed.
  const auto first = page(path + "?sort=ASCENDING");
  ASSERT_TRUE(first.hasMore);
  store_->refundTransaction(bought[3], 1);
  const auto second = page(path + "?revision=" + first.revision);
  std::vector<std::uint64_t> expected(bought.begin() + 20, bought.end());
  expected.push_back(bought[3]);
  EXPECT_EQ(second.ids, expected);
  EXPECT_FALSE(second.hasMore);
  const auto refunded = payloadOf(second.answer.at("signedTransactions").as_array().back().as_string());
  EXPECT_TRUE(refunded.as_object().contains("revocationDate"));
  // Descending from the top: the latest change first.
  EXPECT_EQ(page(path + "?sort=DESCENDING").ids.front(), bought[3]);

  // The last page's token, kept, later gives only what changed since.
  EXPECT_TRUE(page(path + "?revision=" + second.revision).ids.empty());
  const auto later = buy(kCoins);
  const auto fresh = page(path + "?revision=" + second.revision);
  EXPECT_EQ(fresh.ids, std::vector<std::uint64_t>{later});
  EXPECT_EQ(fresh.answer.at("bundleId"), json::value(store_->bundleID()));
  EXPECT_EQ(fresh.answer.at("environment"), "Xcode");
  EXPECT_FALSE(fresh.answer.contains("appAppleId"));
}

TEST_F(HistoryApiTest, FiltersCombineAcrossPages) {
  std::vector<std::uint64_t> earlyCoins, lateCoins;
  for (int i = 0; i < 3; ++i) earlyCoins.push_back(buy(kCoins));
  const auto ads = buy("com.vorntesk.sample.removeads");
  store_->advanceTime(3600.0);
  const auto boundary = platform::millisecondsSince1970(store_->now());
  for (int i = 0; i < 21; ++i) lateCoins.push_back(buy(kCoins));
  const auto pass = buy("com.vorntesk.sample.seasonpass");
  const auto basic = buy("com.vorntesk.sample.basic.monthly");
  const auto shared = store_->shareWithFamily("com.vorntesk.sample.offlinemaps").id;
  store_->refundTransaction(lateCoins[0], 0);
  const auto path = "/inApps/v2/history/" + std::to_string(ads) + "?";
  auto allLateCoins = std::vector<std::uint64_t>(lateCoins.begin() + 1, lateCoins.end());

  const struct {
    std::string query;
    std::vector<std::uint64_t> ids;
  } cases[] = {
      {"productId=" + std::string(kCoins) + "&productType=CONSUMABLE&revoked=False&startDate=" +
           std::to_string(boundary) + "&inAppOwnershipType=PURCHASED",
       allLateCoins},
      {"productId=" + std::string(kCoins) + "&excludeRevoked=true&startDate=" + std::to_string(boundary),
       allLateCoins},
      {"productId=" + std::string(kCoins) + "&endDate=" + std::to_string(boundary), earlyCoins},
      {"productType=NON_CONSUMABLE&productType=NON_RENEWABLE&productType=AUTO_RENEWABLE", {ads, pass, basic, shared}},
      {"productId=com.vorntesk.sample.removeads&productId=com.vorntesk.sample.seasonpass", {ads, pass}},
      {"subscriptionGroupIdentifier=21500001&subscriptionGroupIdentifier=none", {basic}},
      {"inAppOwnershipType=FAMILY_SHARED", {shared}},
      {"revoked=TRUE", {lateCoins[0]}},
      {"revoked=true&excludeRevoked=true", {}},
      {"startDate=" + std::to_string(boundary + 3600000) + "&endDate=99999999999999", {}},
  };
  for (const auto& row : cases) {
    EXPECT_EQ(walk(path, row.query).ids, row.ids) << row.query;
  }
}

TEST_F(HistoryApiTest, VersionOneLeavesOutFinishedConsumablesUnlessRevoked) {
  const auto kept = buy(kCoins), finished = buy(kCoins), refunded = buy(kCoins);
  const auto ads = buy("com.vorntesk.sample.removeads");
  for (const auto id : {finished, refunded, ads}) store_->finish(id);
  store_->refundTransaction(refunded, 0);
  const auto id = std::to_string(kept);
  EXPECT_EQ(walk("/inApps/v1/history/" + id).ids, (std::vector<std::uint64_t>{kept, ads, refunded}));
  EXPECT_EQ(walk("/inApps/v2/history/" + id).ids,
            (std::vector<std::uint64_t>{kept, finished, ads, refunded}));
  // The customer may be named by their app transaction too.
  EXPECT_EQ(walk("/inApps/v2/history/" + store_->appTransactionID()).ids.size(), 4u);
}

TEST_F(HistoryApiTest, RefundsOfTheAccountByRevocationDateTwentyAPage) {
  std::vector<std::uint64_t> coins;
  for (int i = 0; i < 23; ++i) coins.push_back(buy(kCoins));
  const auto shared = store_->shareWithFamily("com.vorntesk.sample.offlinemaps").id;
  // Refunded out of id order, a little apart: the page follows the revocation dates.
  std::vector<std::uint64_t> order(coins.rbegin(), coins.rend() - 1);
  for (const auto id : order) {
    store_->refundTransaction(id, 0);
    store_->advanceTime(1.0);
  }
  store_->revokeFamilySharing(shared);  // a family member's purchase: not this account's refund
  const auto path = "/inApps/v2/refund/lookup/" + std::to_string(coins[0]);
  const auto refunds = walk(path);
  EXPECT_EQ(refunds.ids, order);
  EXPECT_EQ(refunds.sizes, (std::vector<std::size_t>{20, 2}));
  // Kept, the last token finds the next refund only.
  store_->refundTransaction(coins[0], 1);
  EXPECT_EQ(page(path + "?revision=" + refunds.revision).ids, std::vector<std::uint64_t>{coins[0]});
}

TEST_F(HistoryApiTest, APageHandsOutEachSignedFormAsItIsWhateverItHolds) {
  // Characters JSON must escape, at each place within and after the words of eight bytes the
  // page checks at a time, beside ones it must not.
  const std::vector<std::string> forms = {
      "\"bcdefgh.ijklmnop.qrs",   "abcdefg\\.ijklmnop.qrs", "abcdefgh.\x01jklmnop.qrs",
      "abcdefgh.ijklmno\x1f.qrs", "abcdefgh.ijklmnop.qr\"", "a b\x7f\u00e9.-_.~+/=",
      "abcdefgh.ijklmnop.qrstuvwx", "\\",                   "",
  };
  std::vector<std::uint64_t> ids;
  for (const auto& form : forms) {
    ids.push_back(buy(kCoins));
    store_->replaceSignedTransaction(ids.back(), form);
  }
  const auto reply = get("/inApps/v2/history/" + std::to_string(ids[0]));
  ASSERT_EQ(reply.status, 200);
  json::error_code ec;
  const auto answer = json::parse(reply.body, ec);
  ASSERT_FALSE(ec) << reply.body;
  std::vector<std::string> handedOut;
  for (const auto& form : answer.at("signedTransactions").as_array()) {
    handedOut.emplace_back(form.as_string());
  }
  EXPECT_EQ(handedOut, forms);
}

}  // namespace
}  // namespace appstore::server::testing
