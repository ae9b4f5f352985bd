// The plug-in under load: a million calls from eight threads, cancellations racing the calls
// they cancel, and registrations that replace the plug-in while calls are in flight. Every
// call is answered exactly once; one thread's calls are answered in the order it made them.
#include "bridge/apple_store_kit_service_plugin.h"
#include "stress/stress.h"
#include "support/scripted_adapter.h"
#include "support/store_service.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <random>
#include <semaphore>
#include <set>
#include <thread>

namespace {

using namespace VornTeskPaymentsAddonApple;
using testsupport::ScriptedAdapter;

std::shared_ptr<AppleStoreKitServicePlugin> makePlugin(std::shared_ptr<ScriptedAdapter> adapter) {
  return std::make_shared<AppleStoreKitServicePlugin>(
      std::move(adapter), std::make_shared<platform::SerialQueue>("stress.plugin"));
}

std::size_t countOnes(const std::vector<std::atomic<int>>& counts) {
  return static_cast<std::size_t>(
      std::count_if(counts.begin(), counts.end(), [](const auto& count) { return count == 1; }));
}

TEST(PluginStress, AMillionCallsFromEightThreadsAreEachAnsweredOnceInTheirThreadsOrder) {
  constexpr std::size_t kThreads = 8;
  constexpr std::size_t kPerThread = 1'000'000 / kThreads;
  auto adapter = std::make_shared<ScriptedAdapter>();
  adapter->onFinish = [](const FinishTransactionRequest& request) {
    return request.transactionId % 8 == 1
               ? AppleStoreKitServiceFinishTransactionResult(TransactionNotFound{})
               : AppleStoreKitServiceFinishTransactionResult(FinishTransactionResponse{});
  };
  const auto plugin = makePlugin(adapter);
  // Four kinds of call: method, payload and the one answer each must get.
  auto callFor = [](std::size_t n) -> std::array<std::string, 3> {
    switch (n % 4) {
      case 0:
        return {"GetStorefront", "{}",
                R"({"success":{"countryCode":"USA","identifier":"143441"}})"};
      case 1:
        return {"FinishTransaction", R"({"transactionId":)" + std::to_string(n) + "}",
                n % 8 == 1 ? R"({"outcome":{"code":"transaction_not_found","data":{}}})"
                           : R"({"success":{}})"};
      case 2:
        return {"Sync", "[]", R"({"success":{}})"};
      default:
        return {"Refund", "{}",
                R"({"error":{"code":"UNIMPLEMENTED","message":"Unknown ASYNC method: Refund"}})"};
    }
  };

  // Written only by completions, which all run on the plug-in's one queue; read once every
  // answer has arrived (Arrivals orders the two).
  std::array<std::size_t, kThreads> nextExpected{}, outOfOrder{}, wrongAnswers{};
  stress::Arrivals arrivals(kThreads * kPerThread);
  std::vector<std::thread> threads;
  for (std::size_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      // A bounded number of calls in flight per thread keeps memory flat.
      auto inFlight = std::make_shared<std::counting_semaphore<>>(4096);
      for (std::size_t seq = 0; seq < kPerThread; ++seq) {
        auto [method, payload, expected] = callFor(seq + t);
        inFlight->acquire();
        plugin->callAsync(method, payload,
                          [&, t, seq, inFlight, expected = expected](std::string envelope) {
                            if (envelope != expected) ++wrongAnswers[t];
                            if (seq != nextExpected[t]) ++outOfOrder[t];
                            nextExpected[t] = seq + 1;
                            inFlight->release();
                            arrivals.arrive();
                          });
      }
    });
  }
  for (auto& thread : threads) thread.join();
  ASSERT_TRUE(arrivals.waitForAll()) << arrivals.count() << " answers";
  for (std::size_t t = 0; t < kThreads; ++t) {
    EXPECT_EQ(nextExpected[t], kPerThread) << t;
    EXPECT_EQ(outOfOrder[t], 0u) << t;
    EXPECT_EQ(wrongAnswers[t], 0u) << t;
  }
  // Every call but those to the unknown method reached the adapter.
  EXPECT_EQ(adapter->operationCalls.load(), static_cast<int>(kThreads * kPerThread / 4 * 3));
  EXPECT_EQ(arrivals.count(), kThreads * kPerThread);
}

// Each operation waits for its own call's cancellation, so no call finishes unless
// cancellation reaches the adapter past the call running on the plug-in's queue.
class CancellableAdapter : public ScriptedAdapter {
 public:
  CancellableAdapter() {
    onGetProducts = [this](const GetProductsRequest& request) {
      const auto id = std::stoll(request.productIds.at(0));
      std::unique_lock lock(mutex_);
      changed_.wait_for(lock, std::chrono::minutes(2), [&] { return cancelled_.count(id) > 0; });
      return AppleStoreKitServiceGetProductsResult(vorn::tesk::VornError{
          vorn::tesk::VornErrorCode::cancelled, "cancelled " + std::to_string(id)});
    };
  }
  void onCancel(std::int64_t callbackId) override {
    std::lock_guard lock(mutex_);
    cancelled_.insert(callbackId);
    changed_.notify_all();
  }
  std::multiset<std::int64_t> cancelled() {
    std::lock_guard lock(mutex_);
    return cancelled_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::multiset<std::int64_t> cancelled_;
};

TEST(PluginStress, CancellationsRacingTheirCallsReachTheAdapterOnceAndEveryCallIsAnswered) {
  constexpr std::int64_t kCallers = 2, kCancellers = 4, kCalls = 40'000;
  auto adapter = std::make_shared<CancellableAdapter>();
  const auto plugin = makePlugin(adapter);
  std::vector<std::atomic<int>> answers(kCalls);
  std::atomic<std::int64_t> wrongAnswers{0};
  stress::Arrivals arrivals(kCalls);
  std::vector<std::thread> threads;
  for (std::int64_t c = 0; c < kCallers; ++c) {
    threads.emplace_back([&, c] {
      for (std::int64_t id = c; id < kCalls; id += kCallers) {
        const auto text = std::to_string(id);
        plugin->callAsync(
            "GetProducts", R"({"productIds":[")" + text + R"("]})",
            [&, id, text](std::string envelope) {
              if (envelope !=
                  R"({"error":{"code":"CANCELLED","message":"cancelled )" + text + R"("}})") {
                ++wrongAnswers;
              }
              ++answers[static_cast<std::size_t>(id)];
              arrivals.arrive();
            });
      }
    });
  }
  // Each canceller takes its share of the ids in its own random order, so cancellations come
  // before, during and after the calls they cancel; some name calls that do not exist.
  for (std::int64_t k = 0; k < kCancellers; ++k) {
    threads.emplace_back([&, k] {
      std::vector<std::int64_t> ids;
      for (std::int64_t id = k; id < kCalls; id += kCancellers) ids.push_back(id);
      std::shuffle(ids.begin(), ids.end(), std::mt19937(static_cast<unsigned>(k)));
      for (const auto id : ids) {
        plugin->cancel(id);
        if (id % 100 == 0) plugin->cancel(-id - 1);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  ASSERT_TRUE(arrivals.waitForAll()) << arrivals.count() << " answers";
  EXPECT_EQ(wrongAnswers.load(), 0);
  EXPECT_EQ(countOnes(answers), static_cast<std::size_t>(kCalls));
  const auto cancelled = adapter->cancelled();
  EXPECT_EQ(cancelled.size(), static_cast<std::size_t>(kCalls + kCalls / 100));
  for (std::int64_t id = 0; id < kCalls; id += 100) {
    ASSERT_EQ(cancelled.count(-id - 1), 1u) << id;
  }
  for (std::int64_t id = 0; id < kCalls; ++id) ASSERT_EQ(cancelled.count(id), 1u) << id;
}

// The whole service on a simulated store, registered anew again and again.
class RegistrationStress : public testsupport::ServiceTest {};

TEST_F(RegistrationStress, RegistrationsAnewWhileCallsAreInFlightLoseNoAnswer) {
  constexpr std::size_t kCallers = 4, kPerCaller = 5'000, kRegistrations = 1'000;
  const std::vector<std::pair<std::string, std::string>> calls = {
      {"GetStorefront", "{}"},
      {"Sync", "{}"},
      {"GetProducts", R"({"productIds":[")" + testsupport::kCoins + R"("]})"},
      {"FinishTransaction", R"({"transactionId":424242})"},
      {"GetAllTransactions", "{}"},
      {"Refund", "{}"},
  };
  // What each call answers when nothing else goes on; under churn it must answer the same.
  std::vector<std::string> expected;
  for (const auto& [method, payload] : calls) expected.push_back(call(method, payload));

  auto& dispatcher = vorn::tesk::TeskBridgeDispatcher::shared();
  std::vector<std::atomic<int>> answers(kCallers * kPerCaller);
  std::atomic<std::size_t> wrongAnswers{0};
  stress::Arrivals arrivals(kCallers * kPerCaller);
  std::vector<std::thread> threads;
  for (std::size_t c = 0; c < kCallers; ++c) {
    threads.emplace_back([&, c] {
      auto inFlight = std::make_shared<std::counting_semaphore<>>(256);
      for (std::size_t slot = c * kPerCaller; slot < (c + 1) * kPerCaller; ++slot) {
        const std::size_t kind = slot % calls.size();
        inFlight->acquire();
        dispatcher.callAsync("AppleStoreKitService", calls[kind].first, calls[kind].second,
                             [&, slot, kind, inFlight](std::string envelope) {
                               if (envelope != expected[kind]) ++wrongAnswers;
                               ++answers[slot];
                               inFlight->release();
                               arrivals.arrive();
                             });
      }
    });
  }
  // Each registration replaces the plug-in; cancellations go to whichever is registered.
  threads.emplace_back([&] {
    for (std::size_t r = 0; r < kRegistrations; ++r) {
      VornTeskPaymentsAddonApple::Vorn_Tesk_AppleStoreKitService_Register();
      if (auto plugin = dispatcher.plugin("AppleStoreKitService")) {
        plugin->cancel(static_cast<std::int64_t>(r));
      }
    }
  });
  for (auto& thread : threads) thread.join();
  ASSERT_TRUE(arrivals.waitForAll()) << arrivals.count() << " answers";
  EXPECT_EQ(wrongAnswers.load(), 0u);
  EXPECT_EQ(countOnes(answers), kCallers * kPerCaller);
}

}  // namespace
