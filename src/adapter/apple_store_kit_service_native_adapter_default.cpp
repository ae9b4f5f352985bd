#include "adapter/apple_store_kit_service_native_adapter_default.h"

#include "adapter/conversions.h"
#include "adapter/run_blocking.h"
#include "adapter/store_error_mapping.h"
#include "storekit/app_store.h"
#include "storekit/transaction.h"

namespace VornTeskPaymentsAddonApple {

using vorn::tesk::VornError;
using vorn::tesk::VornErrorCode;

namespace {

// Reads a whole transaction sequence into records, unverified elements included, in the
// order the store yields them.
std::vector<AppleTransaction> collect(storekit::TransactionSequence sequence) {
  std::vector<AppleTransaction> records;
  while (auto element = sequence.next()) {
    const auto [status, error] = verificationOutcome(*element);
    records.push_back(makeAppleTransaction(element->unsafePayloadValue(),
                                           element->jwsRepresentation(), status, error));
  }
  return records;
}

}  // namespace

AppleStoreKitServiceNativeAdapterDefault::AppleStoreKitServiceNativeAdapterDefault()
    : observer_(std::make_shared<TransactionObserver>()) {}

std::vector<storekit::PurchaseOption> makePurchaseOptions(
    const std::optional<PurchaseOptions>& options) {
  std::vector<storekit::PurchaseOption> set;
  if (!options) return set;
  if (options->appAccountToken) {
    if (const auto token = platform::UUID::fromString(*options->appAccountToken)) {
      set.push_back(storekit::PurchaseOption::appAccountToken(*token));
    }
  }
  if (options->quantity && *options->quantity >= 2) {
    set.push_back(storekit::PurchaseOption::quantity(*options->quantity));
  }
  return set;
}

AppleStoreKitServiceGetProductsResult AppleStoreKitServiceNativeAdapterDefault::getProducts(
    const GetProductsRequest& request) {
  if (request.productIds.empty()) {
    return VornError{VornErrorCode::invalidArgument, "productIds must not be empty."};
  }
  return runBlocking<AppleStoreKitServiceGetProductsResult>(
      [ids = request.productIds]() -> AppleStoreKitServiceGetProductsResult {
        try {
          GetProductsResponse response;
          for (const auto& product : storekit::Product::products(ids)) {
            response.products.push_back(makeAppleProduct(product));
          }
          return response;
        } catch (...) {
          return mapStoreKitError(std::current_exception());
        }
      });
}

AppleStoreKitServicePurchaseResult AppleStoreKitServiceNativeAdapterDefault::purchase(
    const PurchaseRequest& request) {
  return runBlocking<AppleStoreKitServicePurchaseResult>(
      [productId = request.productId,
       options = makePurchaseOptions(request.options)]() -> AppleStoreKitServicePurchaseResult {
        try {
          const auto products = storekit::Product::products({productId});
          if (products.empty()) {
            return VornError{VornErrorCode::notFound, "No product found for the requested id."};
          }
          const auto result = products.front().purchase(options);
          return std::visit(
              [](const auto& outcome) -> AppleStoreKitServicePurchaseResult {
                using Outcome = std::decay_t<decltype(outcome)>;
                if constexpr (std::is_same_v<Outcome, storekit::PurchaseResult::Success>) {
                  return PurchaseResponse{makeAppleTransaction(outcome.verification)};
                } else if constexpr (std::is_same_v<Outcome,
                                                    storekit::PurchaseResult::UserCancelled>) {
                  return UserCanceled{};
                } else if constexpr (std::is_same_v<Outcome, storekit::PurchaseResult::Pending>) {
                  return Pending{};
                } else {
                  return VornError{VornErrorCode::unknown, "Unrecognized StoreKit purchase result."};
                }
              },
              result.value);
        } catch (...) {
          const auto error = std::current_exception();
          if (isUserCancelledError(error)) return UserCanceled{};
          return mapStoreKitError(error);
        }
      });
}

AppleStoreKitServiceStartTransactionObserverResult
AppleStoreKitServiceNativeAdapterDefault::startTransactionObserver(
    const StartTransactionObserverRequest& /*request*/) {
  if (observer_->start()) return StartTransactionObserverResponse{};
  return AlreadyStarted{};
}

AppleStoreKitServiceStopTransactionObserverResult
AppleStoreKitServiceNativeAdapterDefault::stopTransactionObserver(
    const StopTransactionObserverRequest& /*request*/) {
  observer_->stop();
  return StopTransactionObserverResponse{};
}

AppleStoreKitServiceGetCurrentEntitlementsResult
AppleStoreKitServiceNativeAdapterDefault::getCurrentEntitlements(
    const GetCurrentEntitlementsRequest& /*request*/) {
  return runBlocking<AppleStoreKitServiceGetCurrentEntitlementsResult>([] {
    GetCurrentEntitlementsResponse response;
    response.transactions = collect(storekit::Transaction::currentEntitlements());
    return response;
  });
}

AppleStoreKitServiceGetAllTransactionsResult
AppleStoreKitServiceNativeAdapterDefault::getAllTransactions(
    const GetAllTransactionsRequest& /*request*/) {
  return runBlocking<AppleStoreKitServiceGetAllTransactionsResult>([] {
    GetAllTransactionsResponse response;
    response.transactions = collect(storekit::Transaction::all());
    return response;
  });
}

AppleStoreKitServiceGetUnfinishedTransactionsResult
AppleStoreKitServiceNativeAdapterDefault::getUnfinishedTransactions(
    const GetUnfinishedTransactionsRequest& /*request*/) {
  return runBlocking<AppleStoreKitServiceGetUnfinishedTransactionsResult>([] {
    GetUnfinishedTransactionsResponse response;
    response.transactions = collect(storekit::Transaction::unfinished());
    return response;
  });
}

AppleStoreKitServiceFinishTransactionResult
AppleStoreKitServiceNativeAdapterDefault::finishTransaction(
    const FinishTransactionRequest& request) {
  return runBlocking<AppleStoreKitServiceFinishTransactionResult>(
      [id = request.transactionId]() -> AppleStoreKitServiceFinishTransactionResult {
        // Over the whole history, so finishing a finished transaction still succeeds.
        auto all = storekit::Transaction::all();
        while (auto element = all.next()) {
          const auto& transaction = element->unsafePayloadValue();
          if (transaction.id() == id) {
            transaction.finish();
            return FinishTransactionResponse{};
          }
        }
        return TransactionNotFound{};
      });
}

AppleStoreKitServiceSyncResult AppleStoreKitServiceNativeAdapterDefault::sync(
    const SyncRequest& /*request*/) {
  return runBlocking<AppleStoreKitServiceSyncResult>([]() -> AppleStoreKitServiceSyncResult {
    try {
      storekit::AppStore::sync();
      return SyncResponse{};
    } catch (...) {
      const auto error = std::current_exception();
      if (isUserCancelledError(error)) return UserCanceled{};
      return mapStoreKitError(error);
    }
  });
}

AppleStoreKitServiceGetStorefrontResult AppleStoreKitServiceNativeAdapterDefault::getStorefront(
    const GetStorefrontRequest& /*request*/) {
  return runBlocking<AppleStoreKitServiceGetStorefrontResult>(
      []() -> AppleStoreKitServiceGetStorefrontResult {
        const auto storefront = storekit::Storefront::current();
        if (!storefront) {
          return VornError{VornErrorCode::unavailable, "The current storefront is unavailable."};
        }
        return GetStorefrontResponse{storefront->countryCode, storefront->id};
      });
}

}  // namespace VornTeskPaymentsAddonApple
