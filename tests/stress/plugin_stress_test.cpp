// The plug-in under load: a million calls from eight threads, cancellations racing the calls
// they cancel, and registrations that replace the plug-in while calls are in flight. Every
// call is answered exactly once, and the answers to one thread's calls come in the order the
// thread made them.
#include "bridge/apple_store_kit_service_plugin.h"
#include "stress/stress.h"
#include "support/scripted_adapter.h"
#include "support/store_service.h"

#include <gtest/gtest.h>

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

TEST(PluginStress, AMillionCallsFromEightThreadsAreEachAnsweredOnceInTheirThreadsOrder) {
  constexpr std::size_t kThreads = 8;
  const std::size_t perThread = 1'000'000 / kThreads;
  auto adapter = std::make_shared<ScriptedAdapter>();
  adapter->onFinish = [](const FinishTransactionRequest& request) {
    return request.transactionId % 2 == 1
               ? AppleStoreKitServiceFinishTransactionResult(TransactionNotFound{})
               : AppleStoreKitServiceFinishTransactionResult(FinishTransactionResponse{});
  };
  const auto plugin = makePlugin(adapter);

  // Four kinds of call, each with the answer it must get.
  struct Call {
    std::string method;
    std::string payload;
    std::string expected;
  };
  auto callFor = [](std::size_t seq) -> Call {
    switch (seq % 4) {
      case 0:
        return {"GetStorefront", "{}",
                R"({"success":{"countryCode":"USA","identifier":"143441"}})"};
      case 1:
        return {"FinishTransaction", R"({"transactionId":)" + std::to_string(seq) + "}",
                seq % 2 == 1 ? R"({"outcome":{"code":"transaction_not_found","data":{}}})"
                             : R"({"success":{}})"};
      case 2:
        return {"Sync", "[]", R"({"success":{}})"};
      default:
        return {"Refund", "{}",
                R"({"error":{"code":"UNIMPLEMENTED","message":"Unknown ASYNC method: Refund"}})"};
    }
  };

  // Written only by completions, which all run on the plug-in's one queue; read after all
  // answers have arrived (Arrivals orders the two).
  std::array<std::size_t, kThreads> nextExpected{};
  std::array<std::size_t, kThreads> outOfOrder{};
  std::array<std::size_t, kThreads> wrongAnswers{};
  stress::Arrivals arrivals(kThreads * perThread);

  std::vector<std::thread> threads;
  for (std::size_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      // A bounded number of calls in flight per thread keeps memory flat.
      auto inFlight = std::make_shared<std::counting_semaphore<>>(4096);
      for (std::size_t seq = 0; seq < perThread; ++seq) {
        auto call = callFor(seq + t);
        inFlight->acquire();
        plugin->callAsync(
            std::move(call.method), std::move(call.payload),
            [&, t, seq, inFlight, expected = std::move(call.expected)](std::string envelope) {
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
  ASSERT_TRUE(arrivals.waitForAll()) << arrivals.count() << " of " << kThreads * perThread;

  for (std::size_t t = 0; t < kThreads; ++t) {
    SCOPED_TRACE(t);
    EXPECT_EQ(nextExpected[t], perThread);
    EXPECT_EQ(outOfOrder[t], 0u);
    EXPECT_EQ(wrongAnswers[t], 0u);
  }
  // Every call but the unknown method's reached the adapter, once.
  EXPECT_EQ(static_cast<std::size_t>(adapter->operationCalls.load()),
            kThreads * perThread - kThreads * perThread / 4);
  EXPECT_EQ(arrivals.count(), kThreads * perThread);
}

// Each operation waits until its own call is cancelled, so no call can finish unless
// cancellation reaches the adapter past the call that is running on the plug-in's queue.
class CancellableAdapter : public ScriptedAdapter {
 public:
  CancellableAdapter() {
    onGetProducts = [this](const GetProductsRequest& request) {
      const auto id = std::stoll(request.productIds.at(0));
      std::unique_lock lock(mutex_);
      if (!changed_.wait_for(lock, std::chrono::minutes(2), [&] { return cancelled_.count(id); })) {
        return AppleStoreKitServiceGetProductsResult(GetProductsResponse{});
      }
      return AppleStoreKitServiceGetProductsResult(vorn::tesk::VornError{
          vorn::tesk::VornErrorCode::cancelled, "cancelled " + std::to_string(id)});
    };
  }
  void onCancel(std::int64_t callbackId) override {
    std::lock_guard lock(mutex_);
    ++cancelCalls_;
    cancelled_.insert(callbackId);
    changed_.notify_all();
  }
  std::multiset<std::int64_t> cancelled() {
    std::lock_guard lock(mutex_);
    return cancelled_;
  }
  std::size_t cancelCalls() {
    std::lock_guard lock(mutex_);
    return cancelCalls_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::multiset<std::int64_t> cancelled_;
  std::size_t cancelCalls_ = 0;
};

TEST(PluginStress, CancellationsRacingTheirCallsReachTheAdapterOnceAndEveryCallIsAnswered) {
  constexpr std::int64_t kCallers = 2;
  constexpr std::int64_t kCancellers = 4;
  const auto perCaller = std::int64_t{20'000};
  const std::int64_t calls = kCallers * perCaller;
  auto adapter = std::make_shared<CancellableAdapter>();
  const auto plugin = makePlugin(adapter);

  std::vector<std::atomic<int>> answers(static_cast<std::size_t>(calls));
  std::atomic<std::int64_t> wrongAnswers{0};
  stress::Arrivals arrivals(static_cast<std::size_t>(calls));
  std::vector<std::thread> threads;
  for (std::int64_t c = 0; c < kCallers; ++c) {
    threads.emplace_back([&, c] {
      for (std::int64_t id = c; id < calls; id += kCallers) {
        plugin->callAsync(
            "GetProducts", R"({"productIds":[")" + std::to_string(id) + R"("]})",
            [&, id](std::string envelope) {
              if (envelope != R"({"error":{"code":"CANCELLED","message":"cancelled )" +
                                  std::to_string(id) + R"("}})") {
                ++wrongAnswers;
              }
              ++answers[static_cast<std::size_t>(id)];
              arrivals.arrive();
            });
      }
    });
  }
  // Each canceller takes its share of the ids in its own random order, so cancellations come
  // before, during and after the calls they cancel; ids no call has are cancelled too.
  for (std::int64_t k = 0; k < kCancellers; ++k) {
    threads.emplace_back([&, k] {
      std::vector<std::int64_t> ids;
      for (std::int64_t id = k; id < calls; id += kCancellers) ids.push_back(id);
      std::shuffle(ids.begin(), ids.end(), std::mt19937(static_cast<unsigned>(k)));
      for (const auto id : ids) {
        plugin->cancel(id);
        if (id % 100 == 0) plugin->cancel(-id - 1);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  ASSERT_TRUE(arrivals.waitForAll()) << arrivals.count() << " of " << calls;

  EXPECT_EQ(wrongAnswers.load(), 0);
  std::size_t answeredOnce = 0;
  for (const auto& count : answers) answeredOnce += count.load() == 1 ? 1 : 0;
  EXPECT_EQ(answeredOnce, static_cast<std::size_t>(calls));
  const auto cancelled = adapter->cancelled();
  const std::int64_t strays = (calls + 99) / 100;
  EXPECT_EQ(adapter->cancelCalls(), static_cast<std::size_t>(calls + strays));
  for (std::int64_t id = 0; id < calls; ++id) {
    const bool once = cancelled.count(id) == 1 && (id % 100 != 0 || cancelled.count(-id - 1) == 1);
    if (!once) {
      ADD_FAILURE() << "the cancellations of call " << id << " did not each arrive once";
      break;
    }
  }
}

// The whole service on a simulated store, registered anew again and again.
class RegistrationStress : public testsupport::ServiceTest {};

TEST_F(RegistrationStress, RegistrationsAnewWhileCallsAreInFlightLoseNoAnswer) {
  constexpr std::size_t kCallers = 4;
  const std::size_t perCaller = 5'000;
  const std::size_t registrations = 1'000;
  const std::vector<std::pair<std::string, std::string>> calls = {
      {"GetStorefront", "{}"},
      {"Sync", "{}"},
      {"GetProducts", R"({"productIds":[")" + testsupport::kCoins + R"("]})"},
      {"FinishTransaction", R"({"transactionId":424242})"},
      {"GetAllTransactions", "{}"},
      {"Refund", "{}"},
  };
  // What each call answers when nothing else is going on; under churn it must answer the same.
  std::vector<std::string> expected;
  for (const auto& [method, payload] : calls) expected.push_back(call(method, payload));

  auto& dispatcher = vorn::tesk::TeskBridgeDispatcher::shared();
  std::vector<std::atomic<int>> answers(kCallers * perCaller);
  std::atomic<std::size_t> wrongAnswers{0};
  stress::Arrivals arrivals(kCallers * perCaller);
  std::vector<std::thread> threads;
  for (std::size_t c = 0; c < kCallers; ++c) {
    threads.emplace_back([&, c] {
      auto inFlight = std::make_shared<std::counting_semaphore<>>(256);
      for (std::size_t i = 0; i < perCaller; ++i) {
        const std::size_t slot = c * perCaller + i;
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
    for (std::size_t r = 0; r < registrations; ++r) {
      VornTeskPaymentsAddonApple::Vorn_Tesk_AppleStoreKitService_Register();
      if (auto plugin = dispatcher.plugin("AppleStoreKitService")) {
        plugin->cancel(static_cast<std::int64_t>(r));
      }
    }
  });
  for (auto& thread : threads) thread.join();
  ASSERT_TRUE(arrivals.waitForAll()) << arrivals.count() << " of " << kCallers * perCaller;

  EXPECT_EQ(wrongAnswers.load(), 0u);
  std::size_t answeredOnce = 0;
  for (const auto& count : answers) answeredOnce += count.load() == 1 ? 1 : 0;
  EXPECT_EQ(answeredOnce, kCallers * perCaller);
}

}  // namespace
