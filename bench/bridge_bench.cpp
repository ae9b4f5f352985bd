// P2, bridge overhead: one plug-in registered with the host's dispatcher around an adapter
// that answers at once, called the way a host calls it (dispatcher.callAsync, completion on
// the plug-in's queue), alternating "GetStorefront" and "FinishTransaction". The round trip
// (call, wait for the completion) stands beside a bare SerialQueue hand-off made the way the
// bridge makes its own: a std::function closure owning a CompletionHandler, queued from the
// caller's thread, run on the queue's thread, which calls the handler with an envelope
// string, and the handler releases the same kind of semaphore the caller waits on (two
// thread hops each). Their ratio is what the bridge adds to the hand-off it cannot avoid.
// Pipelined: a batch of calls issued back to back, timed until the last completion.
//
// P3, runBlocking: the default adapter's getStorefront against an in-memory store (a task on
// the shared pool, the caller waiting) beside a bare Task::run whose body releases a
// semaphore the caller waits on.
#include "bench_support.h"

#include "adapter/apple_store_kit_service_native_adapter_default.h"
#include "bridge/apple_store_kit_service_plugin.h"
#include "host/tesk_bridge_dispatcher.h"
#include "platform/serial_queue.h"
#include "platform/task.h"
#include "appstore/local_store.h"
#include "storekit/jws.h"

#include <atomic>
#include <iostream>
#include <memory>
#include <semaphore>
#include <string>

namespace {

using namespace VornTeskPaymentsAddonApple;

// Answers every operation at once, as a host's own adapter could.
class ImmediateAdapter final : public AppleStoreKitServiceNativeAdapter {
 public:
  AppleStoreKitServiceGetProductsResult getProducts(const GetProductsRequest&) override {
    return GetProductsResponse{};
  }
  AppleStoreKitServicePurchaseResult purchase(const PurchaseRequest&) override { return Pending{}; }
  AppleStoreKitServiceStartTransactionObserverResult startTransactionObserver(
      const StartTransactionObserverRequest&) override {
    return StartTransactionObserverResponse{};
  }
  AppleStoreKitServiceStopTransactionObserverResult stopTransactionObserver(
      const StopTransactionObserverRequest&) override {
    return StopTransactionObserverResponse{};
  }
  AppleStoreKitServiceGetCurrentEntitlementsResult getCurrentEntitlements(
      const GetCurrentEntitlementsRequest&) override {
    return GetCurrentEntitlementsResponse{};
  }
  AppleStoreKitServiceGetAllTransactionsResult getAllTransactions(
      const GetAllTransactionsRequest&) override {
    return GetAllTransactionsResponse{};
  }
  AppleStoreKitServiceGetUnfinishedTransactionsResult getUnfinishedTransactions(
      const GetUnfinishedTransactionsRequest&) override {
    return GetUnfinishedTransactionsResponse{};
  }
  AppleStoreKitServiceFinishTransactionResult finishTransaction(
      const FinishTransactionRequest&) override {
    return FinishTransactionResponse{};
  }
  AppleStoreKitServiceSyncResult sync(const SyncRequest&) override { return SyncResponse{}; }
  AppleStoreKitServiceGetStorefrontResult getStorefront(const GetStorefrontRequest&) override {
    return GetStorefrontResponse{"USA", "143441"};
  }
};

const std::string kService(AppleStoreKitServicePlugin::pluginName);
const std::string kStorefront = "GetStorefront";
const std::string kFinish = "FinishTransaction";
const std::string kEmptyPayload = "{}";
const std::string kFinishPayload = R"({"transactionId":2000000000000001})";
const std::string kStorefrontAnswer = R"({"success":{"countryCode":"USA","identifier":"143441"}})";
const std::string kFinishAnswer = R"({"success":{}})";
constexpr std::int64_t kBatch = 10'000;

std::atomic<bool> gWrongAnswer{false};

void call(bool storefront, vorn::tesk::CompletionHandler onComplete) {
  vorn::tesk::TeskBridgeDispatcher::shared().callAsync(kService, storefront ? kStorefront : kFinish,
                                                       storefront ? kEmptyPayload : kFinishPayload,
                                                       std::move(onComplete));
}

void check(bool storefront, const std::string& envelope) {
  if (envelope != (storefront ? kStorefrontAnswer : kFinishAnswer)) gWrongAnswer = true;
}

void Bridge_RoundTrip(benchmark::State& state) {
  std::binary_semaphore done(0);
  bool storefront = true;
  for (auto _ : state) {
    call(storefront, [&done, storefront](std::string envelope) {
      check(storefront, envelope);
      done.release();
    });
    done.acquire();
    storefront = !storefront;
  }
}

// The plug-in's callAsync queues a closure that owns the completion handler and calls it
// with the envelope on the queue's thread; this does the same with an empty envelope, on a
// queue of the same quality of service.
void Floor_QueueHandoff(benchmark::State& state) {
  static platform::SerialQueue queue("bench.floor", platform::QualityOfService::userInitiated);
  std::binary_semaphore done(0);
  for (auto _ : state) {
    vorn::tesk::CompletionHandler onComplete = [&done](std::string envelope) {
      benchmark::DoNotOptimize(envelope);
      done.release();
    };
    queue.async([onComplete = std::move(onComplete)] { onComplete(std::string()); });
    done.acquire();
  }
}

void Bridge_Pipelined(benchmark::State& state) {
  std::binary_semaphore done(0);
  std::atomic<std::int64_t> remaining{0};
  for (auto _ : state) {
    remaining = kBatch;
    for (std::int64_t i = 0; i < kBatch; ++i) {
      const bool storefront = i % 2 == 0;
      call(storefront, [&done, &remaining, storefront](std::string envelope) {
        check(storefront, envelope);
        if (--remaining == 0) done.release();
      });
    }
    done.acquire();
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
}

// For information: the same batch as bare queue hand-offs.
void Floor_QueuePipelined(benchmark::State& state) {
  static platform::SerialQueue queue("bench.floor.pipe", platform::QualityOfService::userInitiated);
  std::binary_semaphore done(0);
  std::atomic<std::int64_t> remaining{0};
  for (auto _ : state) {
    remaining = kBatch;
    for (std::int64_t i = 0; i < kBatch; ++i) {
      queue.async([&done, &remaining] {
        if (--remaining == 0) done.release();
      });
    }
    done.acquire();
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
}

void Adapter_GetStorefront(benchmark::State& state) {
  static AppleStoreKitServiceNativeAdapterDefault adapter;
  for (auto _ : state) {
    auto result = adapter.getStorefront(GetStorefrontRequest{});
    if (!std::holds_alternative<GetStorefrontResponse>(result)) gWrongAnswer = true;
    benchmark::DoNotOptimize(result);
  }
}

void Floor_TaskHandoff(benchmark::State& state) {
  std::binary_semaphore done(0);
  for (auto _ : state) {
    platform::Task::run([&done] { done.release(); });
    done.acquire();
  }
}

void configure(benchmark::internal::Benchmark* b) {
  b->Repetitions(21)->ReportAggregatesOnly(true)->MinTime(0.2)->UseRealTime();
}

BENCHMARK(Bridge_RoundTrip)->Unit(benchmark::kMicrosecond)->Apply(configure);
BENCHMARK(Floor_QueueHandoff)->Unit(benchmark::kMicrosecond)->Apply(configure);
BENCHMARK(Bridge_Pipelined)->Unit(benchmark::kMillisecond)->Apply(configure);
BENCHMARK(Floor_QueuePipelined)->Unit(benchmark::kMillisecond)->Apply(configure);
BENCHMARK(Adapter_GetStorefront)->Unit(benchmark::kMicrosecond)->Apply(configure);
BENCHMARK(Floor_TaskHandoff)->Unit(benchmark::kMicrosecond)->Apply(configure);

}  // namespace

int main(int argc, char** argv) {
  // The default adapter's store: in memory, with the default storefront.
  appstore::LocalStore::setShared(appstore::LocalStore::create());
  AppleStoreKitServicePlugin::registerPlugin(std::make_shared<ImmediateAdapter>());

  const int status = bench::runBenchmarks(argc, argv, "bridge_bench", [](const bench::Medians& m) {
    using bench::medianCounter;
    using bench::medianNanoseconds;
    return std::vector<bench::Figure>{
        {"p2_roundtrip_ratio",
         medianNanoseconds(m, "Bridge_RoundTrip") / medianNanoseconds(m, "Floor_QueueHandoff"),
         "x", ""},
        {"p2_calls_per_s", medianCounter(m, "Bridge_Pipelined", "items_per_second"), "calls/s", ""},
        {"p3_ratio",
         medianNanoseconds(m, "Adapter_GetStorefront") / medianNanoseconds(m, "Floor_TaskHandoff"),
         "x", ""},
    };
  });
  if (gWrongAnswer) {
    std::cerr << "bridge_bench: an answer was not the expected envelope\n";
    return 1;
  }
  return status;
}
