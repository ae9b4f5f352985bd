// The plug-in under load: a million calls, cancellations racing calls, registrations anew.
#include "bridge/apple_store_kit_service_plugin.h"
#include "support/scripted_adapter.h"
#include "support/store_service.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <random>
#include <semaphore>
#include <set>
#include <thread>

namespace {

using namespace VornTeskPaymentsAddonApple;
using testsupport::ScriptedAdapter;
using vorn::tesk::TeskBridgeDispatcher;

struct Call {
  std::string method, payload, answer;
};

// Thread t sends calls callFor(t * perThread + seq), at most 4096 in flight, while `alongside`
// runs; fails unless each is answered once with its answer (and, if `ordered`, in order).
void hammer(
    TeskBridgeDispatcher& dispatcher, std::size_t threads, std::size_t perThread,
    const std::function<Call(std::size_t)>& callFor, bool ordered,
    const std::function<void()>& alongside = [] {}) {
  std::vector<std::atomic<int>> answers(threads * perThread);
  std::vector<std::atomic<std::size_t>> next(threads);
  std::atomic<std::size_t> wrong{0}, outOfOrder{0}, arrived{0};
  std::vector<std::thread> senders;
  for (std::size_t t = 0; t < threads; ++t) {
    senders.emplace_back([&, t] {
      auto inFlight = std::make_shared<std::counting_semaphore<>>(4096);
      for (std::size_t seq = 0; seq < perThread; ++seq) {
        const Call call = callFor(t * perThread + seq);
        inFlight->acquire();
        dispatcher.callAsync("AppleStoreKitService", call.method, call.payload,
                             [&, t, seq, inFlight, answer = call.answer](std::string envelope) {
                               if (envelope != answer) ++wrong;
                               if (ordered && next[t].exchange(seq + 1) != seq) ++outOfOrder;
                               ++answers[t * perThread + seq];
                               inFlight->release();
                               ++arrived;
                             });
      }
    });
  }
  alongside();
  for (auto& sender : senders) sender.join();
  // Waits generously, so that a lost answer fails the test instead of hanging it.
  for (int i = 0; i < 3000 && arrived < answers.size(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  ASSERT_EQ(arrived.load(), answers.size());
  EXPECT_EQ(wrong.load(), 0u);
  EXPECT_EQ(outOfOrder.load(), 0u);
  EXPECT_EQ(std::count(answers.begin(), answers.end(), 1),
            static_cast<std::ptrdiff_t>(answers.size()));
}

// A dispatcher with the plug-in over `adapter` registered, on a queue of its own.
std::unique_ptr<TeskBridgeDispatcher> dispatcherOver(std::shared_ptr<ScriptedAdapter> adapter) {
  auto dispatcher = std::make_unique<TeskBridgeDispatcher>();
  dispatcher->registerPlugin("AppleStoreKitService",
                             std::make_shared<AppleStoreKitServicePlugin>(
                                 adapter, std::make_shared<platform::SerialQueue>("stress")));
  return dispatcher;
}

TEST(PluginStress, AMillionCallsFromEightThreadsAreEachAnsweredOnceInTheirThreadsOrder) {
  auto adapter = std::make_shared<ScriptedAdapter>();
  std::atomic<int> running{0};
  std::atomic<bool> overlapped{false};
  adapter->onFinish = [&](const auto& request) -> AppleStoreKitServiceFinishTransactionResult {
    if (running++ != 0) overlapped = true;  // operations must run one at a time
    --running;
    if (request.transactionId % 2 == 1) return TransactionNotFound{};
    return FinishTransactionResponse{};
  };
  hammer(
      *dispatcherOver(adapter), 8, 1'000'000 / 8,
      [](std::size_t n) -> Call {
        const auto id = n / 4;  // of the finish; odd ones are not found
        const Call calls[] = {
            {"GetStorefront", "{}", R"({"success":{"countryCode":"","identifier":""}})"},
            {"FinishTransaction", R"({"transactionId":)" + std::to_string(id) + "}",
             id % 2 == 1 ? R"({"outcome":{"code":"transaction_not_found","data":{}}})"
                         : R"({"success":{}})"},
            {"Sync", "[]", R"({"success":{}})"},
            {"Refund", "{}",
             R"({"error":{"code":"UNIMPLEMENTED","message":"Unknown ASYNC method: Refund"}})"}};
        return calls[n % 4];
      },
      true);
  EXPECT_FALSE(overlapped.load());
  EXPECT_EQ(adapter->operationCalls.load(), 1'000'000 / 4 * 3);  // all but the unknown method
}

TEST(PluginStress, CancellationsRacingTheirCallsReachTheAdapterOnceAndEveryCallIsAnswered) {
  // Each call waits for its own cancellation, which must reach the adapter past the queue.
  constexpr std::int64_t kCalls = 40'000;
  std::mutex mutex;
  std::condition_variable changed;
  std::multiset<std::int64_t> cancelled;
  auto adapter = std::make_shared<ScriptedAdapter>();
  adapter->onGetProducts = [&](const GetProductsRequest& request) {
    const auto id = std::stoll(request.productIds.at(0));
    std::unique_lock lock(mutex);
    const bool seen =
        changed.wait_for(lock, std::chrono::minutes(2), [&] { return cancelled.count(id) > 0; });
    return AppleStoreKitServiceGetProductsResult(
        vorn::tesk::VornError{vorn::tesk::VornErrorCode::cancelled,
                              (seen ? "cancelled " : "never cancelled ") + std::to_string(id)});
  };
  adapter->onCancelHook = [&](std::int64_t id) {
    std::lock_guard lock(mutex);
    cancelled.insert(id);
    changed.notify_all();
  };
  const auto owned = dispatcherOver(adapter);
  auto& dispatcher = *owned;
  const auto callFor = [](std::size_t n) -> Call {
    const auto id = std::to_string(n);
    return {"GetProducts", R"({"productIds":[")" + id + R"("]})",
            R"({"error":{"code":"CANCELLED","message":"cancelled )" + id + R"("}})"};
  };
  // Four cancellers take every fourth id in random order: before, during and after its call.
  hammer(dispatcher, 2, kCalls / 2, callFor, true, [&] {
    std::vector<std::thread> cancellers;
    for (std::int64_t k = 0; k < 4; ++k) {
      cancellers.emplace_back([&, k] {
        std::vector<std::int64_t> ids;
        for (std::int64_t id = k; id < kCalls; id += 4) ids.push_back(id);
        std::shuffle(ids.begin(), ids.end(), std::mt19937(static_cast<unsigned>(k)));
        for (const auto id : ids) dispatcher.plugin("AppleStoreKitService")->cancel(id);
      });
    }
    for (auto& canceller : cancellers) canceller.join();
  });
  // Every call was answered as cancelled, so as many cancellations as calls means once each.
  std::lock_guard lock(mutex);
  EXPECT_EQ(cancelled.size(), static_cast<std::size_t>(kCalls));
}

class RegistrationStress : public testsupport::ServiceTest {};

TEST_F(RegistrationStress, RegistrationsAnewWhileCallsAreInFlightLoseNoAnswer) {
  const std::vector<std::pair<std::string, std::string>> calls = {
      {"GetStorefront", "{}"},
      {"Sync", "{}"},
      {"GetProducts", R"({"productIds":[")" + testsupport::kCoins + R"("]})"},
      {"FinishTransaction", R"({"transactionId":424242})"},
      {"GetAllTransactions", "{}"},
      {"Refund", "{}"}};
  // What each call answers when nothing else goes on; under churn it must answer the same.
  std::vector<std::string> expected;
  for (const auto& [method, payload] : calls) expected.push_back(call(method, payload));
  auto& dispatcher = vorn::tesk::TeskBridgeDispatcher::shared();
  // Each registration replaces the plug-in; cancellations go to whichever is registered.
  hammer(
      dispatcher, 4, 5'000,
      [&](std::size_t n) -> Call {
        const auto& [method, payload] = calls[n % calls.size()];
        return {method, payload, expected[n % calls.size()]};
      },
      false,
      [&] {
        for (std::int64_t r = 0; r < 1'000; ++r) {
          VornTeskPaymentsAddonApple::Vorn_Tesk_AppleStoreKitService_Register();
          if (auto plugin = dispatcher.plugin("AppleStoreKitService")) plugin->cancel(r);
        }
      });
}

}  // namespace
