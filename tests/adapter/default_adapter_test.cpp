// Every row of the store error mapping, each raised by the simulated store inside a real
// call, with the exact envelope the host receives; the purchase options handed to the store;
// and the blocking bridge the calls use.
#include "adapter/apple_store_kit_service_native_adapter_default.h"
#include "adapter/run_blocking.h"
#include "adapter/store_error_mapping.h"
#include "platform/task.h"
#include "support/store_service.h"

#include <gtest/gtest.h>

#include <latch>
#include <stdexcept>
#include <thread>

namespace {

using namespace testsupport;
using storekit::PurchaseError;
using storekit::StoreKitAPI;
using storekit::StoreKitError;
using storekit::URLError;

std::string errorEnvelope(const std::string& code, const std::string& message,
                          const std::string& externalCode = "") {
  json::object error{{"code", code}, {"message", message}};
  if (!externalCode.empty()) error["externalCode"] = externalCode;
  return json::serialize(json::object{{"error", error}});
}

TEST_F(ServiceTest, EveryStoreErrorIsAnsweredByItsRowOfTheMapping) {
  struct Row {
    StoreKitAPI api;
    storekit::SimulatedError error;
    std::string method;
    std::string expected;
  };
  const std::string unrecognized =
      errorEnvelope("UNKNOWN", "An unrecognized StoreKit error occurred.", "StoreKitError");
  const URLError offline(URLError::kNotConnectedToInternet);
  const auto lookup = StoreKitAPI::loadProducts;
  const auto purchase = StoreKitAPI::purchase;
  const auto sync = StoreKitAPI::appStoreSync;
  const std::vector<Row> rows = {
      // Only the operations that buy or sync turn the user's cancellation into an outcome.
      {lookup, StoreKitError::userCancelled(), "GetProducts",
       errorEnvelope("CANCELLED", "The user cancelled the operation.")},
      {lookup, StoreKitError::userCancelled(), "Purchase",
       R"({"outcome":{"code":"user_canceled","data":{}}})"},
      {sync, StoreKitError::userCancelled(), "Sync",
       R"({"outcome":{"code":"user_canceled","data":{}}})"},
      {purchase, StoreKitError::networkError(offline), "Purchase",
       errorEnvelope("UNAVAILABLE", "A network error occurred: " + offline.localizedDescription(),
                     "NETWORK_ERROR")},
      {sync, StoreKitError::networkError(URLError(URLError::kTimedOut, "")), "Sync",
       errorEnvelope("UNAVAILABLE", "A network error occurred: ", "NETWORK_ERROR")},
      {lookup, StoreKitError::systemError(std::make_exception_ptr(std::runtime_error("disk I/O"))),
       "GetProducts", errorEnvelope("INTERNAL", "A StoreKit system error occurred.", "disk I/O")},
      {purchase, StoreKitError::notAvailableInStorefront(), "Purchase",
       errorEnvelope("UNAVAILABLE", "The product is not available in the current storefront.",
                     "STOREFRONT_RESTRICTED")},
      {lookup, StoreKitError::notEntitled(), "Purchase",
       errorEnvelope("PERMISSION_DENIED",
                     "The app is not entitled to perform this StoreKit operation.")},
      {sync, StoreKitError::notEntitled(), "Sync",
       errorEnvelope("PERMISSION_DENIED",
                     "The app is not entitled to perform this StoreKit operation.")},
      {lookup, StoreKitError::unknown(), "GetProducts", unrecognized},
      // Cases the mapping does not name: one that newer systems added, one not known at all.
      {purchase, StoreKitError::unsupported(), "Purchase", unrecognized},
      {sync, StoreKitError::withCode(static_cast<StoreKitError::Code>(42)), "Sync", unrecognized},
      // Not a StoreKitError: the fallback row.
      {purchase, PurchaseError(PurchaseError::Code::ineligibleForOffer), "Purchase",
       errorEnvelope("INTERNAL",
                     "StoreKit operation failed: The customer is not eligible for this offer.")},
  };
  const std::string payload =
      R"({"productId":")" + kCoins + R"(","productIds":[")" + kCoins + R"("]})";
  for (const auto& row : rows) {
    SCOPED_TRACE(row.method + " " + row.expected);
    store->setSimulatedError(row.api, row.error);
    EXPECT_EQ(call(row.method, payload), row.expected);
    store->setSimulatedError(row.api, std::nullopt);
  }
  EXPECT_TRUE(store->allTransactions().empty());

  // The store's own refusal of a quantity is a PurchaseError too.
  EXPECT_EQ(call("Purchase", R"({"productId":")" + kCoins + R"(","options":{"quantity":11}})"),
            errorEnvelope(
                "INTERNAL",
                "StoreKit operation failed: " +
                    PurchaseError(PurchaseError::Code::invalidQuantity).localizedDescription()));
}

TEST(StoreErrorMapping, ATaskCancellationIsNotTheUsersCancellation) {
  const auto cancellation = std::make_exception_ptr(platform::CancellationError{});
  EXPECT_FALSE(VornTeskPaymentsAddonApple::isUserCancelledError(cancellation));
  const auto mapped = VornTeskPaymentsAddonApple::mapStoreKitError(cancellation);
  EXPECT_EQ(mapped.code, vorn::tesk::VornErrorCode::internalError);
  EXPECT_EQ(mapped.message,
            std::string("StoreKit operation failed: ") + platform::CancellationError{}.what());
  EXPECT_FALSE(mapped.externalCode.has_value());
}

TEST(PurchaseOptions, OnlyAWellFormedTokenAndAQuantityOfTwoOrMoreReachTheStore) {
  using storekit::PurchaseOption;
  using VornTeskPaymentsAddonApple::PurchaseOptions;
  const std::string text = "e3b0c442-98fc-1c14-9afb-f4c8996fb924";
  const auto token = PurchaseOption::appAccountToken(*platform::UUID::fromString(text));
  const std::vector<std::pair<std::optional<PurchaseOptions>, std::vector<PurchaseOption>>> rows = {
      {std::nullopt, {}},
      {PurchaseOptions{}, {}},
      {PurchaseOptions{std::nullopt, 1}, {}},
      {PurchaseOptions{std::nullopt, 2}, {PurchaseOption::quantity(2)}},
      {PurchaseOptions{std::nullopt, -5}, {}},
      {PurchaseOptions{"not-a-uuid", std::nullopt}, {}},
      {PurchaseOptions{text, 0}, {token}},
  };
  for (const auto& [options, expected] : rows) {
    EXPECT_TRUE(VornTeskPaymentsAddonApple::makePurchaseOptions(options) == expected)
        << (options && options->quantity ? *options->quantity : 99);
  }
}

TEST(RunBlocking, EachCallerWaitsForItsOwnOperationRunningElsewhere) {
  // Both operations must be running at once for either to finish.
  std::latch bothRunning(2);
  auto operation = [&bothRunning](int value) {
    return [&bothRunning, value, caller = std::this_thread::get_id()] {
      EXPECT_NE(std::this_thread::get_id(), caller);
      bothRunning.arrive_and_wait();
      return value;
    };
  };
  int other = 0;
  std::thread caller([&] { other = VornTeskPaymentsAddonApple::runBlocking<int>(operation(1)); });
  EXPECT_EQ(VornTeskPaymentsAddonApple::runBlocking<int>(operation(2)), 2);
  caller.join();
  EXPECT_EQ(other, 1);
}

}  // namespace
