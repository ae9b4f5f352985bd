// An adapter whose every operation answers what the test sets, and which records what
// reached it. Operations run on the plug-in's queue; onCancel on any thread.
#pragma once

#include "adapter/native_adapter.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace testsupport {

using namespace VornTeskPaymentsAddonApple;

class ScriptedAdapter : public AppleStoreKitServiceNativeAdapter {
 public:
  std::function<AppleStoreKitServiceGetProductsResult(const GetProductsRequest&)> onGetProducts =
      [](const auto&) { return GetProductsResponse{}; };
  std::function<AppleStoreKitServicePurchaseResult(const PurchaseRequest&)> onPurchase =
      [](const auto&) { return Pending{}; };
  std::function<AppleStoreKitServiceStartTransactionObserverResult()> onStart = [] {
    return StartTransactionObserverResponse{};
  };
  std::function<AppleStoreKitServiceStopTransactionObserverResult()> onStop = [] {
    return StopTransactionObserverResponse{};
  };
  std::function<AppleStoreKitServiceGetCurrentEntitlementsResult()> onEntitlements = [] {
    return GetCurrentEntitlementsResponse{};
  };
  std::function<AppleStoreKitServiceGetAllTransactionsResult()> onAll = [] {
    return GetAllTransactionsResponse{};
  };
  std::function<AppleStoreKitServiceGetUnfinishedTransactionsResult()> onUnfinished = [] {
    return GetUnfinishedTransactionsResponse{};
  };
  std::function<AppleStoreKitServiceFinishTransactionResult(const FinishTransactionRequest&)>
      onFinish = [](const auto&) { return FinishTransactionResponse{}; };
  std::function<AppleStoreKitServiceSyncResult()> onSync = [] { return SyncResponse{}; };
  std::function<AppleStoreKitServiceGetStorefrontResult()> onStorefront = [] {
    return GetStorefrontResponse{"USA", "143441"};
  };

  std::atomic<int> operationCalls{0};

  std::vector<std::int64_t> cancelledIds() const {
    std::lock_guard lock(mutex_);
    return cancelled_;
  }

  AppleStoreKitServiceGetProductsResult getProducts(const GetProductsRequest& r) override {
    ++operationCalls;
    return onGetProducts(r);
  }
  AppleStoreKitServicePurchaseResult purchase(const PurchaseRequest& r) override {
    ++operationCalls;
    return onPurchase(r);
  }
  AppleStoreKitServiceStartTransactionObserverResult startTransactionObserver(
      const StartTransactionObserverRequest&) override {
    ++operationCalls;
    return onStart();
  }
  AppleStoreKitServiceStopTransactionObserverResult stopTransactionObserver(
      const StopTransactionObserverRequest&) override {
    ++operationCalls;
    return onStop();
  }
  AppleStoreKitServiceGetCurrentEntitlementsResult getCurrentEntitlements(
      const GetCurrentEntitlementsRequest&) override {
    ++operationCalls;
    return onEntitlements();
  }
  AppleStoreKitServiceGetAllTransactionsResult getAllTransactions(
      const GetAllTransactionsRequest&) override {
    ++operationCalls;
    return onAll();
  }
  AppleStoreKitServiceGetUnfinishedTransactionsResult getUnfinishedTransactions(
      const GetUnfinishedTransactionsRequest&) override {
    ++operationCalls;
    return onUnfinished();
  }
  AppleStoreKitServiceFinishTransactionResult finishTransaction(
      const FinishTransactionRequest& r) override {
    ++operationCalls;
    return onFinish(r);
  }
  AppleStoreKitServiceSyncResult sync(const SyncRequest&) override {
    ++operationCalls;
    return onSync();
  }
  AppleStoreKitServiceGetStorefrontResult getStorefront(const GetStorefrontRequest&) override {
    ++operationCalls;
    return onStorefront();
  }
  void onCancel(std::int64_t callbackId) override {
    std::lock_guard lock(mutex_);
    cancelled_.push_back(callbackId);
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::int64_t> cancelled_;
};

}  // namespace testsupport
