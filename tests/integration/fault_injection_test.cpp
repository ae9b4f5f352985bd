// Faults of the simulated store seen through the registered service, beyond the error rows:
// a verification fault marks every transaction answer with its own error, tampered and
// foreign-signed tokens never come out verified, and a fault that is lifted leaves no trace.
#include "platform/base64.h"
#include "storekit/jws.h"
#include "support/store_service.h"

#include <gtest/gtest.h>

namespace {

using namespace testsupport;
using storekit::StoreKitAPI;
using storekit::StoreKitError;
using storekit::VerificationError;

std::string buy(const std::string& productId) { return R"({"productId":")" + productId + R"("})"; }

TEST_F(ServiceTest, AVerificationFaultMarksEveryTransactionAnswerWithItsOwnError) {
  // The store's cases and the record's raw values (positions in the record's enumeration).
  const std::vector<std::pair<VerificationError::Code, int>> rows = {
      {VerificationError::Code::invalidSignature, 1},
      {VerificationError::Code::revokedCertificate, 2},
      {VerificationError::Code::invalidDeviceVerification, 3},
      {VerificationError::Code::invalidCertificateChain, 4},
      {VerificationError::Code::invalidEncoding, 5},
      {VerificationError::Code::missingRequiredProperties, 6},
  };
  for (const auto& [code, wire] : rows) {
    SCOPED_TRACE(wire);
    store->setSimulatedError(StoreKitAPI::verification, VerificationError(code));
    const auto data = success("Purchase", buy(kCoins));
    if (data.is_null()) continue;
    expectRecordOf(*store, data.at("transaction"), {2, wire});
    for (const char* method :
         {"GetAllTransactions", "GetUnfinishedTransactions", "GetCurrentEntitlements"}) {
      const auto listing = success(method);
      if (listing.is_null()) continue;
      for (const auto& record : listing.at("transactions").as_array()) {
        expectRecordOf(*store, record, {2, wire});
      }
    }
  }
  // Lifted: the same history comes out verified.
  store->setSimulatedError(StoreKitAPI::verification, std::nullopt);
  const auto listing = success("GetAllTransactions");
  ASSERT_FALSE(listing.is_null());
  EXPECT_EQ(listing.at("transactions").as_array().size(), rows.size());
  for (const auto& record : listing.at("transactions").as_array()) expectRecordOf(*store, record);
}

TEST_F(ServiceTest, TamperedAndForeignSignedTokensNeverComeOutVerified) {
  const auto id = purchase(kRemoveAds);
  ASSERT_NE(id, 0u);
  const std::string original = storedTransaction(*store, id).jwsRepresentation;
  const auto first = original.find('.');
  const auto second = original.find('.', first + 1);
  auto payload = json::parse(*storekit::decodeJWSPayload(original)).as_object();
  const auto signedPrice = thousandthsText(payload.at("price").as_int64());
  payload["price"] = 1;  // a cheaper claim under the store's own header and signature
  const std::string tampered = original.substr(0, first + 1) +
                               platform::base64URLEncode(json::serialize(payload)) +
                               original.substr(second);
  const std::string foreign =
      storekit::SigningAuthority::generate()->sign(*storekit::decodeJWSPayload(original));

  struct Row {
    std::string token;
    int error;          // the record's verificationError
    bool claimedPrice;  // the record shows the token's own (tampered) claim
  };
  const std::vector<Row> rows = {
      {tampered, 1, true},
      {original.substr(0, second + 1) + "AAAA", 1, false},  // a signature of the wrong size
      {foreign, 4, false},                                  // a chain the store does not trust
      {original.substr(0, second), 5, false},               // not three segments
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.error);
    store->replaceSignedTransaction(id, row.token);
    const auto listing = success("GetAllTransactions");
    if (listing.is_null()) continue;
    const auto& record = listing.at("transactions").as_array().at(0).as_object();
    EXPECT_EQ(record.at("jwsRepresentation"), json::value(row.token));
    EXPECT_EQ(record.at("verificationStatus"), 2);
    EXPECT_EQ(record.at("verificationError"), row.error);
    EXPECT_EQ(record.at("price"), json::value(row.claimedPrice ? "0.001" : signedPrice));
  }
  store->replaceSignedTransaction(id, original);
  expectRecordOf(*store, success("GetAllTransactions").at("transactions").at(0));
}

TEST_F(ServiceTest, AFaultThatIsLiftedLeavesEveryAnswerAsItWasBefore) {
  const std::string products = R"({"productIds":[")" + kCoins + R"("]})";
  const auto productsBefore = call("GetProducts", products);
  const auto syncBefore = call("Sync");
  const auto storefrontBefore = call("GetStorefront");
  ASSERT_EQ(productsBefore.rfind(R"({"success":{"products":[{"id":")" + kCoins, 0), 0u);

  store->setSimulatedError(StoreKitAPI::loadProducts, StoreKitError::notEntitled());
  store->setSimulatedError(StoreKitAPI::purchase, StoreKitError::notAvailableInStorefront());
  store->setSimulatedError(StoreKitAPI::appStoreSync, StoreKitError::notEntitled());
  store->setStorefrontAvailable(false);
  EXPECT_NE(call("GetProducts", products), productsBefore);
  EXPECT_NE(call("Sync"), syncBefore);
  EXPECT_NE(call("GetStorefront"), storefrontBefore);

  for (const auto api :
       {StoreKitAPI::loadProducts, StoreKitAPI::purchase, StoreKitAPI::appStoreSync}) {
    store->setSimulatedError(api, std::nullopt);
  }
  store->setStorefrontAvailable(true);
  EXPECT_EQ(call("GetProducts", products), productsBefore);
  EXPECT_EQ(call("Sync"), syncBefore);
  EXPECT_EQ(call("GetStorefront"), storefrontBefore);
  EXPECT_NE(purchase(kCoins), 0u);
  EXPECT_EQ(store->allTransactions().size(), 1u);
}

TEST_F(ServiceTest, ANextPurchaseResultTakesOnePurchaseAndFailingTransactionsFailEach) {
  store->setNextPurchaseResult(storekit::LocalStore::NextPurchaseResult::userCancelled);
  EXPECT_EQ(call("Purchase", buy(kCoins)), R"({"outcome":{"code":"user_canceled","data":{}}})");
  EXPECT_NE(purchase(kCoins), 0u);

  store->setFailTransactionsEnabled(true);
  const std::string unknown =
      R"({"error":{"code":"UNKNOWN","message":"An unrecognized StoreKit error occurred.",)"
      R"("externalCode":"StoreKitError"}})";
  EXPECT_EQ(call("Purchase", buy(kCoins)), unknown);
  EXPECT_EQ(call("Purchase", buy(kPro)), unknown);
  store->setFailTransactionsEnabled(false);
  EXPECT_NE(purchase(kPro), 0u);
  EXPECT_EQ(store->allTransactions().size(), 2u);
}

}  // namespace
