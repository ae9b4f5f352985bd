// The store-facing side of the service. The plug-in calls these operations on its own
// serial queue, one at a time; each returns only when its result is complete. Hosts may
// supply their own implementation, which must be usable from any thread. `onCancel` may be
// called from any thread at any time, concurrently with a running operation.
#pragma once

#include "adapter/results.h"

#include <cstdint>

namespace VornTeskPaymentsAddonApple {

class AppleStoreKitServiceNativeAdapter {
 public:
  virtual ~AppleStoreKitServiceNativeAdapter() = default;

  virtual AppleStoreKitServiceGetProductsResult getProducts(const GetProductsRequest& request) = 0;
  virtual AppleStoreKitServicePurchaseResult purchase(const PurchaseRequest& request) = 0;
  virtual AppleStoreKitServiceStartTransactionObserverResult startTransactionObserver(
      const StartTransactionObserverRequest& request) = 0;
  virtual AppleStoreKitServiceStopTransactionObserverResult stopTransactionObserver(
      const StopTransactionObserverRequest& request) = 0;
  virtual AppleStoreKitServiceGetCurrentEntitlementsResult getCurrentEntitlements(
      const GetCurrentEntitlementsRequest& request) = 0;
  virtual AppleStoreKitServiceGetAllTransactionsResult getAllTransactions(
      const GetAllTransactionsRequest& request) = 0;
  virtual AppleStoreKitServiceGetUnfinishedTransactionsResult getUnfinishedTransactions(
      const GetUnfinishedTransactionsRequest& request) = 0;
  virtual AppleStoreKitServiceFinishTransactionResult finishTransaction(
      const FinishTransactionRequest& request) = 0;
  virtual AppleStoreKitServiceSyncResult sync(const SyncRequest& request) = 0;
  virtual AppleStoreKitServiceGetStorefrontResult getStorefront(
      const GetStorefrontRequest& request) = 0;

  // Cancellation of a host call; does nothing unless an implementation can cancel.
  virtual void onCancel(std::int64_t callbackId) { (void)callbackId; }
};

}  // namespace VornTeskPaymentsAddonApple
