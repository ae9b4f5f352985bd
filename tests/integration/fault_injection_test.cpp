// Faults of the simulated store through the registered service: every row of the store error
// mapping raised inside a real call, and verification faults on every transaction answer.
#include "support/store_service.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

using namespace testsupport;
using appstore::StoreKitAPI;
using storekit::StoreKitError;
using storekit::VerificationError;
using Family = appstore::StoreFailure::Family;

// How the store is told to fail with a StoreKit error.
appstore::StoreFailure failureOf(const storekit::StoreKitError& error) {
  return {Family::storeKit, error.caseName(), error.underlyingErrorDescription()};
}
appstore::StoreFailure failureOf(const storekit::PurchaseError& error) {
  return {Family::purchase, error.caseName()};
}

std::string errorEnvelope(const std::string& code, const std::string& message,
                          const std::string& externalCode = "") {
  json::object error{{"code", code}, {"message", message}};
  if (!externalCode.empty()) error["externalCode"] = externalCode;
  return json::serialize(json::object{{"error", error}});
}

TEST_F(ServiceTest, EveryStoreErrorIsAnsweredByItsRowOfTheMapping) {
  const std::string unrecognized =
      errorEnvelope("UNKNOWN", "An unrecognized StoreKit error occurred.", "StoreKitError");
  const std::string canceled = R"({"outcome":{"code":"user_canceled","data":{}}})";
  const storekit::URLError offline(storekit::URLError::kNotConnectedToInternet);
  const auto lookup = StoreKitAPI::loadProducts;
  const auto purchase = StoreKitAPI::purchase;
  const auto sync = StoreKitAPI::appStoreSync;
  // The API that fails, its error, the call that meets it, the answer.
  const std::vector<std::tuple<StoreKitAPI, appstore::StoreFailure, std::string, std::string>>
      rows = {
          // Only the operations that buy or sync turn the user's cancellation into an outcome.
          {lookup, failureOf(StoreKitError::userCancelled()), "GetProducts",
           errorEnvelope("CANCELLED", "The user cancelled the operation.")},
          {purchase, failureOf(StoreKitError::userCancelled()), "Purchase", canceled},
          {sync, failureOf(StoreKitError::userCancelled()), "Sync", canceled},
          {purchase, failureOf(StoreKitError::networkError(offline)), "Purchase",
           errorEnvelope("UNAVAILABLE",
                         "A network error occurred: " + offline.localizedDescription(),
                         "NETWORK_ERROR")},
          {lookup,
           failureOf(StoreKitError::systemError(
               std::make_exception_ptr(std::runtime_error("disk I/O")))),
           "GetProducts",
           errorEnvelope("INTERNAL", "A StoreKit system error occurred.", "disk I/O")},
          {purchase, failureOf(StoreKitError::notAvailableInStorefront()), "Purchase",
           errorEnvelope("UNAVAILABLE", "The product is not available in the current storefront.",
                         "STOREFRONT_RESTRICTED")},
          {lookup, failureOf(StoreKitError::notEntitled()), "Purchase",
           errorEnvelope("PERMISSION_DENIED",
                         "The app is not entitled to perform this StoreKit operation.")},
          {sync, failureOf(StoreKitError::unknown()), "Sync", unrecognized},
          // A case the mapping does not name.
          {purchase, failureOf(StoreKitError::withCode(static_cast<StoreKitError::Code>(42))), "Purchase",
           unrecognized},
          // Not a StoreKitError: the fallback row.
          {purchase, failureOf(storekit::PurchaseError(storekit::PurchaseError::Code::ineligibleForOffer)),
           "Purchase",
           errorEnvelope(
               "INTERNAL",
               "StoreKit operation failed: The customer is not eligible for this offer.")},
      };
  const std::string payload =
      R"({"productId":")" + kCoins + R"(","productIds":[")" + kCoins + R"("]})";
  for (const auto& [api, error, method, expected] : rows) {
    SCOPED_TRACE(method + " " + expected);
    store->setSimulatedError(api, error);
    EXPECT_EQ(call(method, payload), expected);
    store->setSimulatedError(api, std::nullopt);
  }
  // Failing transactions fail as an unknown error; once lifted, buying works again.
  store->setFailTransactionsEnabled(true);
  EXPECT_EQ(call("Purchase", payload), unrecognized);
  store->setFailTransactionsEnabled(false);
  EXPECT_TRUE(store->allTransactions().empty());
  EXPECT_NE(this->purchase(kCoins), 0u);
}

TEST_F(ServiceTest, AVerificationFaultMarksEveryTransactionAnswerWithItsOwnError) {
  // The store's cases in the order of the record's raw values from 1, then one unknown (0).
  using Code = VerificationError::Code;
  const std::vector<Code> codes = {
      Code::invalidSignature,        Code::revokedCertificate, Code::invalidDeviceVerification,
      Code::invalidCertificateChain, Code::invalidEncoding,    Code::missingRequiredProperties,
      static_cast<Code>(40)};
  for (std::size_t i = 0; i < codes.size(); ++i) {
    const int wire = static_cast<int>(i + 1) % 7;
    SCOPED_TRACE(wire);
    store->setSimulatedError(StoreKitAPI::verification,
                             appstore::StoreFailure{Family::verification,
                                                    VerificationError(codes[i]).caseName()});
    const auto data = success("Purchase", R"({"productId":")" + kCoins + R"("})");
    if (data.is_null()) continue;
    expectRecordOf(*store, data.at("transaction"), 2, wire);
    for (const char* method :
         {"GetAllTransactions", "GetUnfinishedTransactions", "GetCurrentEntitlements"}) {
      const auto listing = success(method);
      if (listing.is_null()) continue;
      for (const auto& record : listing.at("transactions").as_array()) {
        expectRecordOf(*store, record, 2, wire);
      }
    }
  }
}

}  // namespace
