// The registered service end to end: calls through the host's dispatcher against a store
// loaded from a .storekit file, and the exact envelopes a host receives. (Store errors:
// fault_injection_test.cpp; update events: tests/tools, tests/stress.)
#include "support/store_service.h"

#include <gtest/gtest.h>

namespace {

using namespace testsupport;
using IDs = std::vector<std::uint64_t>;

const std::string kSuccess = R"({"success":{}})";

std::string buy(const std::string& productId) { return R"({"productId":")" + productId + R"("})"; }

TEST_F(ServiceTest, ProductsComeInTheStoresOrderUnknownOnesAreLeftOutAndNoneIsRefused) {
  const std::string coins =
      R"({"id":"com.vorntesk.sample.coins100","displayName":"100 Coins",)"
      R"("description":"A pouch of 100 coins to spend in the shop.","displayPrice":"$0.99",)"
      R"("price":"0.99","priceLocale":"en_US","productType":1,"isFamilyShareable":false})";
  const std::string pro =
      R"({"id":"com.vorntesk.sample.pro.monthly","displayName":"Trail Club Pro",)"
      R"("description":"Every trail, every feature, billed monthly.","displayPrice":"$6.99",)"
      R"("price":"6.99","priceLocale":"en_US","productType":3,"subscription":{)"
      R"("subscriptionGroupId":"21500001","subscriptionPeriod":{"value":1,"unit":3},)"
      R"("introductoryOffer":{"type":1,"price":"0","displayPrice":"$0.00",)"
      R"("period":{"value":1,"unit":2},"periodCount":1,"paymentMode":3},)"
      R"("promotionalOffers":[{"id":"trailclub.comeback.sixmonths","type":2,"price":"19.99",)"
      R"("displayPrice":"$19.99","period":{"value":6,"unit":3},"periodCount":1,"paymentMode":2}]},)"
      R"("isFamilyShareable":false})";
  const std::string basic =
      R"({"id":"com.vorntesk.sample.basic.monthly","displayName":"Trail Club Basic",)"
      R"("description":"The essentials, billed monthly.","displayPrice":"$2.99","price":"2.99",)"
      R"("priceLocale":"en_US","productType":3,"subscription":{"subscriptionGroupId":"21500001",)"
      R"("subscriptionPeriod":{"value":1,"unit":3},"introductoryOffer":{"type":1,"price":"0.99",)"
      R"("displayPrice":"$0.99","period":{"value":1,"unit":3},"periodCount":3,"paymentMode":1},)"
      R"("promotionalOffers":[]},"isFamilyShareable":false})";

  EXPECT_EQ(call("GetProducts", R"({"productIds":[")" + kBasic + R"(","com.vorntesk.nope",")" +
                                    kCoins + R"(",")" + kPro + R"("]})"),
            R"({"success":{"products":[)" + coins + "," + pro + "," + basic + "]}}");
  EXPECT_EQ(call("GetProducts", R"({"productIds":["com.vorntesk.nope"]})"),
            R"({"success":{"products":[]}})");
  // The empty list is refused before the store is asked: its simulated error never shows.
  store->setSimulatedError(appstore::StoreKitAPI::loadProducts,
                           appstore::StoreFailure::named("notEntitled"));
  EXPECT_EQ(call("GetProducts", R"({"productIds":[]})"),
            R"({"error":{"code":"INVALID_ARGUMENT","message":"productIds must not be empty."}})");
}

TEST_F(ServiceTest, APurchaseAnswersTheWholeTransactionWithQuantityAndTokenAsTheStoreTookThem) {
  struct Row {
    std::string productId, options;  // the request's "options" member, if any
    std::int64_t quantity;
    json::value token;  // null: none
    std::string price;  // 0.99 a coin; a subscription starts with its free trial
  };
  const std::vector<Row> rows = {
      {kCoins, R"({"quantity":3,"appAccountToken":"e3b0c442-98fc-1c14-9afb-f4c8996fb924"})", 3,
       "E3B0C442-98FC-1C14-9AFB-F4C8996FB924", "2.97"},
      // The store refuses quantities below one; these never reach it, nor does a bad token.
      {kCoins, R"({"quantity":0})", 1, nullptr, "0.99"},
      {kCoins, R"({"quantity":-5,"appAccountToken":"not-a-uuid"})", 1, nullptr, "0.99"},
      {kCoins, "", 1, nullptr, "0.99"},
      {kPro, R"({"appAccountToken":"00000000-0000-4000-8000-00000000000A"})", 1,
       "00000000-0000-4000-8000-00000000000A", "0"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.productId + " " + row.options);
    const auto data =
        success("Purchase", row.options.empty() ? buy(row.productId)
                                                : R"({"productId":")" + row.productId +
                                                      R"(","options":)" + row.options + "}");
    if (data.is_null()) continue;
    const auto& record = data.at("transaction").as_object();
    expectRecordOf(*store, record);
    EXPECT_EQ(record.at("quantity"), row.quantity);
    EXPECT_EQ(record.contains("appAccountToken") ? record.at("appAccountToken") : json::value(),
              row.token);
    EXPECT_EQ(record.at("price"), json::value(row.price));
    // Finishing is the caller's business.
    EXPECT_FALSE(storedTransaction(*store, record.at("id").to_number<std::uint64_t>()).finished);
  }
}

TEST_F(ServiceTest, PurchasesThatDoNotCompleteAnswerTheirOwnOutcomes) {
  EXPECT_EQ(call("Purchase", buy("com.vorntesk.nope")),
            R"({"error":{"code":"NOT_FOUND","message":"No product found for the requested id."}})");
  store->setNextPurchaseResult(appstore::LocalStore::NextPurchaseResult::userCancelled);
  EXPECT_EQ(call("Purchase", buy(kCoins)), R"({"outcome":{"code":"user_canceled","data":{}}})");
  store->setNextPurchaseResult(appstore::LocalStore::NextPurchaseResult::unrecognized);
  EXPECT_EQ(call("Purchase", buy(kCoins)),
            R"({"error":{"code":"UNKNOWN","message":"Unrecognized StoreKit purchase result."}})");
  store->setAskToBuyEnabled(true);
  EXPECT_EQ(call("Purchase", buy(kCoins)), R"({"outcome":{"code":"pending","data":{}}})");
  // Only the request waiting for approval is in the history.
  const auto history = store->allTransactions();
  ASSERT_EQ(history.size(), 1u);
  EXPECT_TRUE(history[0].pendingAskToBuyConfirmation);
}

TEST_F(ServiceTest, ListingsIncludeUnverifiedTransactionsAndFinishSearchesTheWholeHistory) {
  const auto coins = purchase(kCoins), removeAds = purchase(kRemoveAds), pro = purchase(kPro);
  store->setVerificationFailure(removeAds, appstore::StoreFailure::named("revokedCertificate"));
  const std::string finish = R"({"transactionId":)" + std::to_string(removeAds) + "}";
  EXPECT_EQ(call("FinishTransaction", finish), kSuccess);
  EXPECT_TRUE(storedTransaction(*store, removeAds).finished);
  // Finished already, and still found: the search runs over every transaction.
  EXPECT_EQ(call("FinishTransaction", finish), kSuccess);
  EXPECT_EQ(call("FinishTransaction", R"({"transactionId":987654321})"),
            R"({"outcome":{"code":"transaction_not_found","data":{}}})");

  for (const auto& [method, expected] :
       std::vector<std::pair<std::string, IDs>>{{"GetAllTransactions", {coins, removeAds, pro}},
                                                {"GetUnfinishedTransactions", {coins, pro}},
                                                {"GetCurrentEntitlements", {removeAds, pro}}}) {
    SCOPED_TRACE(method);
    const auto data = success(method);
    if (data.is_null()) continue;
    IDs ids;
    for (const auto& record : data.at("transactions").as_array()) {
      ids.push_back(record.at("id").to_number<std::uint64_t>());
      const bool revoked = ids.back() == removeAds;
      expectRecordOf(*store, record, revoked ? 2 : 1, revoked ? 2 : 0);
    }
    EXPECT_EQ(ids, expected);
  }
  store->clearTransactions();
  EXPECT_EQ(call("GetAllTransactions"), R"({"success":{"transactions":[]}})");
}

TEST_F(ServiceTest, SyncStorefrontAndTheObserverAnswerWhatTheStoreSays) {
  EXPECT_EQ(call("Sync"), kSuccess);
  EXPECT_EQ(call("GetStorefront"), R"({"success":{"countryCode":"USA","identifier":"143441"}})");
  store->setStorefront("DEU");
  EXPECT_EQ(call("GetStorefront"), R"({"success":{"countryCode":"DEU","identifier":"143443"}})");
  store->setStorefrontAvailable(false);
  EXPECT_EQ(
      call("GetStorefront"),
      R"({"error":{"code":"UNAVAILABLE","message":"The current storefront is unavailable."}})");

  EXPECT_EQ(call("StartTransactionObserver"), kSuccess);
  EXPECT_EQ(call("StartTransactionObserver"),
            R"({"outcome":{"code":"already_started","data":{}}})");
  EXPECT_EQ(call("StopTransactionObserver"), kSuccess);
  EXPECT_EQ(call("StopTransactionObserver"), kSuccess);
}

}  // namespace
