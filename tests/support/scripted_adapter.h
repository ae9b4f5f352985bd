// An adapter whose operations (counted; success by default) and cancellation call hooks.
#pragma once

#include "adapter/native_adapter.h"

#include <atomic>
#include <functional>

namespace testsupport {

using namespace VornTeskPaymentsAddonApple;

#define VORNTESK_SCRIPTED(Name, operation, hook)                                        \
  std::function<AppleStoreKitService##Name##Result(const Name##Request&)> hook =        \
      [](const Name##Request&) { return AppleStoreKitService##Name##Result{}; };        \
  AppleStoreKitService##Name##Result operation(const Name##Request& request) override { \
    ++operationCalls;                                                                   \
    return hook(request);                                                               \
  }

class ScriptedAdapter : public AppleStoreKitServiceNativeAdapter {
 public:
  VORNTESK_SCRIPTED(GetProducts, getProducts, onGetProducts)
  VORNTESK_SCRIPTED(Purchase, purchase, onPurchase)
  VORNTESK_SCRIPTED(StartTransactionObserver, startTransactionObserver, onStart)
  VORNTESK_SCRIPTED(StopTransactionObserver, stopTransactionObserver, onStop)
  VORNTESK_SCRIPTED(GetCurrentEntitlements, getCurrentEntitlements, onEntitlements)
  VORNTESK_SCRIPTED(GetAllTransactions, getAllTransactions, onAll)
  VORNTESK_SCRIPTED(GetUnfinishedTransactions, getUnfinishedTransactions, onUnfinished)
  VORNTESK_SCRIPTED(FinishTransaction, finishTransaction, onFinish)
  VORNTESK_SCRIPTED(Sync, sync, onSync)
  VORNTESK_SCRIPTED(GetStorefront, getStorefront, onStorefront)

  std::atomic<int> operationCalls{0};
  std::function<void(std::int64_t)> onCancelHook = [](std::int64_t) {};
  void onCancel(std::int64_t callbackId) override { onCancelHook(callbackId); }
};

#undef VORNTESK_SCRIPTED

}  // namespace testsupport
