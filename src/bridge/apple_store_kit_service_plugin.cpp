#include "bridge/apple_store_kit_service_plugin.h"

#include "bridge/envelope.h"
#include "host/tesk_bridge_dispatcher.h"

#include <cstdio>
#include <cstdlib>

namespace VornTeskPaymentsAddonApple {

namespace {

// Decodes the request of one method, runs the adapter operation, encodes its result.
// Decoding and encoding errors become "INTERNAL" answers whose message is the error's
// description; the adapter is not reached when the payload does not decode.
template <class Request, class Operation>
std::string run(const std::string& payload, Operation&& operation) {
  Request request;
  try {
    request = vorn::tesk::TeskJSONCoding::makeDecoder().decode<Request>(payload);
  } catch (const vorn::tesk::DecodingError& error) {
    return errorEnvelope("INTERNAL", error.description());
  }
  const auto result = operation(request);
  try {
    return encodeResult(result);
  } catch (const vorn::tesk::EncodingError& error) {
    return errorEnvelope("INTERNAL", error.description());
  }
}

}  // namespace

void AppleStoreKitServicePlugin::registerPlugin(
    std::shared_ptr<AppleStoreKitServiceNativeAdapter> adapter) {
  auto& dispatcher = vorn::tesk::TeskBridgeDispatcher::shared();
  auto queue = std::make_shared<platform::SerialQueue>(
      std::string(kQueueLabel), platform::QualityOfService::userInitiated);
  auto plugin = std::make_shared<AppleStoreKitServicePlugin>(std::move(adapter), std::move(queue));
  dispatcher.registerPlugin(std::string(pluginName), std::move(plugin));
}

AppleStoreKitServicePlugin::AppleStoreKitServicePlugin(
    std::shared_ptr<AppleStoreKitServiceNativeAdapter> adapter,
    std::shared_ptr<platform::SerialQueue> queue)
    : adapter_(std::move(adapter)), queue_(std::move(queue)) {
  if (!adapter_ || !queue_) {
    std::fputs("Fatal error: AppleStoreKitServicePlugin needs an adapter and a queue\n", stderr);
    std::abort();
  }
}

std::string AppleStoreKitServicePlugin::callSync(const std::string& /*method*/,
                                                 const std::string& /*payload*/) {
  return errorEnvelope("INTERNAL", "Plugin AppleStoreKitService has no SYNC methods");
}

void AppleStoreKitServicePlugin::callAsync(std::string method, std::string payload,
                                           vorn::tesk::CompletionHandler onComplete) {
  // The queued work keeps the plug-in alive until it has run.
  queue_->async([self = shared_from_this(), method = std::move(method),
                 payload = std::move(payload), onComplete = std::move(onComplete)] {
    onComplete(self->dispatch(method, payload));
  });
}

void AppleStoreKitServicePlugin::cancel(std::int64_t callbackId) {
  adapter_->onCancel(callbackId);
}

std::string AppleStoreKitServicePlugin::dispatch(const std::string& method,
                                                 const std::string& payload) {
  auto& adapter = *adapter_;
  if (method == "GetProducts") {
    return run<GetProductsRequest>(payload, [&](const auto& r) { return adapter.getProducts(r); });
  }
  if (method == "Purchase") {
    return run<PurchaseRequest>(payload, [&](const auto& r) { return adapter.purchase(r); });
  }
  if (method == "StartTransactionObserver") {
    return run<StartTransactionObserverRequest>(
        payload, [&](const auto& r) { return adapter.startTransactionObserver(r); });
  }
  if (method == "StopTransactionObserver") {
    return run<StopTransactionObserverRequest>(
        payload, [&](const auto& r) { return adapter.stopTransactionObserver(r); });
  }
  if (method == "GetCurrentEntitlements") {
    return run<GetCurrentEntitlementsRequest>(
        payload, [&](const auto& r) { return adapter.getCurrentEntitlements(r); });
  }
  if (method == "GetAllTransactions") {
    return run<GetAllTransactionsRequest>(
        payload, [&](const auto& r) { return adapter.getAllTransactions(r); });
  }
  if (method == "GetUnfinishedTransactions") {
    return run<GetUnfinishedTransactionsRequest>(
        payload, [&](const auto& r) { return adapter.getUnfinishedTransactions(r); });
  }
  if (method == "FinishTransaction") {
    return run<FinishTransactionRequest>(
        payload, [&](const auto& r) { return adapter.finishTransaction(r); });
  }
  if (method == "Sync") {
    return run<SyncRequest>(payload, [&](const auto& r) { return adapter.sync(r); });
  }
  if (method == "GetStorefront") {
    return run<GetStorefrontRequest>(payload,
                                     [&](const auto& r) { return adapter.getStorefront(r); });
  }
  return errorEnvelope("UNIMPLEMENTED", "Unknown ASYNC method: " + method);
}

}  // namespace VornTeskPaymentsAddonApple
