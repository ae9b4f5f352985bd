// The adapter that carries out the service against StoreKit. Each store operation runs as a
// task through runBlocking while the calling thread (the plug-in's queue) waits; the two
// observer operations call the adapter's TransactionObserver directly. Thrown store errors
// are caught inside each operation and mapped once (mapStoreKitError). No state besides
// the observer; callable from any thread. Cancellation is not supported: onCancel keeps the
// interface's do-nothing default, and a started operation always runs to its end.
#pragma once

#include "adapter/native_adapter.h"
#include "observer/transaction_observer.h"
#include "storekit/product.h"

#include <memory>
#include <optional>
#include <vector>

namespace VornTeskPaymentsAddonApple {

class AppleStoreKitServiceNativeAdapterDefault final : public AppleStoreKitServiceNativeAdapter {
 public:
  AppleStoreKitServiceNativeAdapterDefault();

  AppleStoreKitServiceGetProductsResult getProducts(const GetProductsRequest& request) override;
  AppleStoreKitServicePurchaseResult purchase(const PurchaseRequest& request) override;
  AppleStoreKitServiceStartTransactionObserverResult startTransactionObserver(
      const StartTransactionObserverRequest& request) override;
  AppleStoreKitServiceStopTransactionObserverResult stopTransactionObserver(
      const StopTransactionObserverRequest& request) override;
  AppleStoreKitServiceGetCurrentEntitlementsResult getCurrentEntitlements(
      const GetCurrentEntitlementsRequest& request) override;
  AppleStoreKitServiceGetAllTransactionsResult getAllTransactions(
      const GetAllTransactionsRequest& request) override;
  AppleStoreKitServiceGetUnfinishedTransactionsResult getUnfinishedTransactions(
      const GetUnfinishedTransactionsRequest& request) override;
  AppleStoreKitServiceFinishTransactionResult finishTransaction(
      const FinishTransactionRequest& request) override;
  AppleStoreKitServiceSyncResult sync(const SyncRequest& request) override;
  AppleStoreKitServiceGetStorefrontResult getStorefront(
      const GetStorefrontRequest& request) override;

  const std::shared_ptr<TransactionObserver>& observer() const { return observer_; }

 private:
  const std::shared_ptr<TransactionObserver> observer_;
};

// The store's option set for a purchase: an app account token when it parses as a UUID
// (dropped silently otherwise) and a quantity when it is at least 2.
std::vector<storekit::PurchaseOption> makePurchaseOptions(
    const std::optional<PurchaseOptions>& options);

}  // namespace VornTeskPaymentsAddonApple
