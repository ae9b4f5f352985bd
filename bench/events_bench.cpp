// P4, events: purchases made outside the app (LocalStore::buyProduct of a consumable, which
// signs a new transaction and pushes it into the store's update stream) while the
// transaction observer runs, started through the default adapter as the service starts it.
// Every update event is counted at a listener of the host's dispatcher. One iteration pushes
// a batch and ends when the batch's last event has arrived; events per second is the median
// over the repetitions. Lost: pushed transactions whose event never came (each event's
// payload id is checked against the ids the store handed out, so a duplicate cannot hide a
// loss).
//
// Beside it, the floor: what a single event cannot avoid in this store, one ES256 signature
// when the transaction is made and one verification (certificate chain and signature) when
// it is delivered. Events per second can reach at most 1 / (sign + verify) when the two
// follow one another; the figure is the events per second over that rate.
#include "bench_support.h"

#include "adapter/apple_store_kit_service_native_adapter_default.h"
#include "host/tesk_bridge_dispatcher.h"
#include "observer/transaction_observer.h"
#include "appstore/local_store.h"
#include "storekit/jws.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <iostream>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace VornTeskPaymentsAddonApple;
using namespace std::chrono_literals;

const std::string kCoins = "com.vorntesk.sample.coins100";
constexpr std::size_t kBatch = 400;

struct Received {
  std::mutex mutex;
  std::condition_variable arrived;
  std::vector<std::uint64_t> ids;
  std::size_t malformed = 0;
  // The count the benchmark's thread waits for: the listener wakes it once, when the count
  // is reached, not for every event, so the measurement's own wake-ups are not timed.
  std::size_t awaited = 0;
};

Received gReceived;
std::vector<std::uint64_t> gPushed;
std::shared_ptr<appstore::LocalStore> gStore;

void listener(const std::string& name, const std::string& payload) {
  if (name != TransactionObserver::kEventName) return;
  // The record's first key is its id: {"id":123,...
  constexpr std::string_view kPrefix = R"({"id":)";
  std::uint64_t id = 0;
  const bool ok =
      payload.compare(0, kPrefix.size(), kPrefix) == 0 &&
      std::from_chars(payload.data() + kPrefix.size(), payload.data() + payload.size(), id).ec ==
          std::errc{};
  bool complete = false;
  {
    std::lock_guard lock(gReceived.mutex);
    if (ok) {
      gReceived.ids.push_back(id);
    } else {
      ++gReceived.malformed;
    }
    complete = gReceived.ids.size() + gReceived.malformed >= gReceived.awaited;
  }
  if (complete) gReceived.arrived.notify_one();
}

bool waitForEvents(std::size_t count, std::chrono::seconds patience) {
  std::unique_lock lock(gReceived.mutex);
  gReceived.awaited = count;
  return gReceived.arrived.wait_for(lock, patience, [&] { return gReceived.ids.size() >= count; });
}

void Events_BuyProduct(benchmark::State& state) {
  for (auto _ : state) {
    const std::size_t target = gPushed.size() + kBatch;
    for (std::size_t i = 0; i < kBatch; ++i) gPushed.push_back(gStore->buyProduct(kCoins).id);
    if (!waitForEvents(target, 60s)) {
      state.SkipWithError("events stopped arriving");
      break;
    }
    state.PauseTiming();
    // The history would otherwise grow without end; the update stream is not affected.
    gStore->clearTransactions();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kBatch));
}

std::string gPayload;
std::string gToken;

void Floor_SignOneTransaction(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(gStore->signingAuthority().sign(gPayload));
}

void Floor_VerifyOneTransaction(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(storekit::verifyJWS(gToken, gStore->rootCertificate()));
  }
}

void configure(benchmark::internal::Benchmark* b) {
  b->Repetitions(11)->ReportAggregatesOnly(true)->MinTime(0.3)->Unit(benchmark::kMicrosecond);
}

BENCHMARK(Events_BuyProduct)->Apply(configure)->UseRealTime();
BENCHMARK(Floor_SignOneTransaction)->Apply(configure)->UseRealTime();
BENCHMARK(Floor_VerifyOneTransaction)->Apply(configure)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  gStore = appstore::LocalStore::createFromFile(std::string(VORNTESK_SOURCE_DIR) +
                                                "/examples/SampleStore.storekit");
  appstore::LocalStore::setShared(gStore);
  {
    const auto sample = gStore->buyProduct(kCoins);
    gPayload = *storekit::decodeJWSPayload(sample.jws);
    gToken = gStore->allTransactions().back().jwsRepresentation;
    gStore->clearTransactions();
  }
  vorn::tesk::TeskBridgeDispatcher::shared().addEventListener(listener);
  AppleStoreKitServiceNativeAdapterDefault adapter;
  adapter.startTransactionObserver({});

  const int status = bench::runBenchmarks(argc, argv, "events_bench", [](const bench::Medians& m) {
    // Whatever is still on its way gets time to arrive before anything counts as lost.
    waitForEvents(gPushed.size(), 30s);
    std::vector<std::uint64_t> received;
    std::size_t malformed = 0;
    {
      std::lock_guard lock(gReceived.mutex);
      received = gReceived.ids;
      malformed = gReceived.malformed;
    }
    const std::set<std::uint64_t> seen(received.begin(), received.end());
    const auto lost = static_cast<double>(std::count_if(
        gPushed.begin(), gPushed.end(), [&](std::uint64_t id) { return seen.count(id) == 0; }));
    std::cout << "events: " << gPushed.size() << " pushed, " << received.size() << " received ("
              << seen.size() << " distinct), " << malformed << " malformed, " << lost << " lost\n";
    const double eventsPerSecond = bench::medianCounter(m, "Events_BuyProduct", "items_per_second");
    const double cryptoSeconds = (bench::medianNanoseconds(m, "Floor_SignOneTransaction") +
                                  bench::medianNanoseconds(m, "Floor_VerifyOneTransaction")) /
                                 1e9;
    return std::vector<bench::Figure>{
        {"p4_vs_crypto", eventsPerSecond * cryptoSeconds, "x", ""},
        {"p4_events_per_s", eventsPerSecond, "events/s", ""},
        {"p4_lost", lost + static_cast<double>(malformed), "events", ""},
    };
  });
  adapter.stopTransactionObserver({});
  return status;
}
