// The plug-in the host's dispatcher calls. It owns its adapter and its serial queue for
// its whole life; both are fixed at construction.
//
// Threads: callAsync only queues (any thread); all decoding, adapter work, encoding and the
// completion run on the plug-in's queue, one call at a time in arrival order. callSync and
// cancel run on the caller's thread; cancel goes straight to the adapter, never through the
// queue, so it is not held up by a running call.
#pragma once

#include "adapter/native_adapter.h"
#include "host/tesk_plugin.h"
#include "platform/serial_queue.h"

#include <memory>
#include <string>
#include <string_view>

namespace VornTeskPaymentsAddonApple {

class AppleStoreKitServicePlugin final
    : public vorn::tesk::TeskPlugin,
      public std::enable_shared_from_this<AppleStoreKitServicePlugin> {
 public:
  static constexpr std::string_view pluginName = "AppleStoreKitService";
  static constexpr std::string_view kQueueLabel =
      "com.qubrixplatform.vorntesk.apple_store_kit_service.plugin";

  // The host's plug-in interface asks for a class-level registration hook. Registration
  // happens only through registerPlugin(adapter) or the exported function, so this one
  // deliberately does nothing.
  static void registerPlugin() {}

  // Registers a new plug-in around `adapter`, on a new serial queue, under pluginName.
  // There is no guard against registering again: each call builds and registers anew.
  static void registerPlugin(std::shared_ptr<AppleStoreKitServiceNativeAdapter> adapter);

  AppleStoreKitServicePlugin(std::shared_ptr<AppleStoreKitServiceNativeAdapter> adapter,
                             std::shared_ptr<platform::SerialQueue> queue);

  std::string callSync(const std::string& method, const std::string& payload) override;
  void callAsync(std::string method, std::string payload,
                 vorn::tesk::CompletionHandler onComplete) override;
  void cancel(std::int64_t callbackId) override;

  const std::shared_ptr<AppleStoreKitServiceNativeAdapter>& adapter() const { return adapter_; }
  const std::shared_ptr<platform::SerialQueue>& queue() const { return queue_; }

 private:
  // Runs one call on the queue and returns its envelope; never throws.
  std::string dispatch(const std::string& method, const std::string& payload);

  const std::shared_ptr<AppleStoreKitServiceNativeAdapter> adapter_;
  const std::shared_ptr<platform::SerialQueue> queue_;
};

}  // namespace VornTeskPaymentsAddonApple
