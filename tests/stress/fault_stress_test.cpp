// Faults of the simulated store switched on and off at random while calls flow: each call is
// answered exactly once, with either its answer without faults or the exact answer of a
// fault that may have been on while it ran, and nothing else.
#include "stress/stress.h"
#include "support/store_service.h"

#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <set>
#include <thread>

namespace {

using namespace testsupport;
using storekit::StoreKitAPI;
using storekit::StoreKitError;

std::string errorEnvelope(const std::string& code, const std::string& message,
                          const std::string& externalCode = "") {
  json::object error{{"code", code}, {"message", message}};
  if (!externalCode.empty()) error["externalCode"] = externalCode;
  return json::serialize(json::object{{"error", error}});
}

// A purchase answer's verification status and error; nothing for any other answer.
std::optional<std::pair<std::int64_t, std::int64_t>> verificationOf(const std::string& envelope) {
  json::error_code ec;
  const auto parsed = json::parse(envelope, ec);
  const auto* success =
      ec || !parsed.is_object() ? nullptr : parsed.as_object().if_contains("success");
  const auto* record =
      success && success->is_object() ? success->as_object().if_contains("transaction") : nullptr;
  if (!record || !record->is_object()) return std::nullopt;
  const auto& fields = record->as_object();
  return std::pair(fields.at("verificationStatus").as_int64(),
                   fields.at("verificationError").as_int64());
}

class FaultStress : public ServiceTest {};

TEST_F(FaultStress, EveryCallIsAnsweredOnceWithItsOwnAnswerOrAFaultsExactAnswer) {
  const std::size_t perCaller = 1'000;
  constexpr std::size_t kCallers = 4;
  const std::string products = R"({"productIds":[")" + kCoins + R"("]})";
  const std::string notEntitled = errorEnvelope(
      "PERMISSION_DENIED", "The app is not entitled to perform this StoreKit operation.");
  const std::string restricted =
      errorEnvelope("UNAVAILABLE", "The product is not available in the current storefront.",
                    "STOREFRONT_RESTRICTED");
  const storekit::URLError offline(storekit::URLError::kNotConnectedToInternet);
  const std::string network =
      errorEnvelope("UNAVAILABLE", "A network error occurred: " + offline.localizedDescription(),
                    "NETWORK_ERROR");
  const std::string noStorefront =
      errorEnvelope("UNAVAILABLE", "The current storefront is unavailable.");

  struct Call {
    std::string method;
    std::string payload;
    std::set<std::string> answers;  // every answer it may get; a purchase's success aside
  };
  const std::vector<Call> calls = {
      {"GetProducts", products, {call("GetProducts", products), notEntitled}},
      {"Sync", "{}", {R"({"success":{}})", network}},
      {"GetStorefront", "{}", {call("GetStorefront"), noStorefront}},
      // The product lookup comes first, so its fault shows here too.
      {"Purchase", R"({"productId":")" + kCoins + R"("})", {notEntitled, restricted}},
  };

  std::atomic<bool> faulting{true};
  std::thread faults([&] {
    std::mt19937 random(99);
    while (faulting.load()) {
      const bool on = random() % 2 == 0;
      switch (random() % 5) {
        case 0:
          store->setSimulatedError(StoreKitAPI::loadProducts,
                                   on ? std::optional(StoreKitError::notEntitled()) : std::nullopt);
          break;
        case 1:
          store->setSimulatedError(
              StoreKitAPI::purchase,
              on ? std::optional(StoreKitError::notAvailableInStorefront()) : std::nullopt);
          break;
        case 2:
          store->setSimulatedError(
              StoreKitAPI::appStoreSync,
              on ? std::optional(StoreKitError::networkError(offline)) : std::nullopt);
          break;
        case 3:
          store->setSimulatedError(StoreKitAPI::verification,
                                   on ? std::optional(storekit::VerificationError(
                                            storekit::VerificationError::Code::revokedCertificate))
                                      : std::nullopt);
          break;
        default:
          store->setStorefrontAvailable(!on);
      }
      // Only pacing, so that the switching does not take a core from the calls.
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  });

  std::atomic<std::size_t> wrong{0};
  std::vector<std::atomic<int>> answered(kCallers * perCaller);
  stress::Arrivals arrivals(kCallers * perCaller);
  auto& dispatcher = vorn::tesk::TeskBridgeDispatcher::shared();
  std::vector<std::thread> callers;
  for (std::size_t c = 0; c < kCallers; ++c) {
    callers.emplace_back([&, c] {
      for (std::size_t i = 0; i < perCaller; ++i) {
        const std::size_t slot = c * perCaller + i;
        const auto& kind = calls[slot % calls.size()];
        dispatcher.callAsync(
            "AppleStoreKitService", kind.method, kind.payload, [&, slot](std::string envelope) {
              const auto& kind = calls[slot % calls.size()];
              bool expected = kind.answers.count(envelope) == 1;
              if (!expected && kind.method == "Purchase") {
                // Verified, or unverified with the fault's own error.
                const auto verification = verificationOf(envelope);
                expected = verification == std::pair<std::int64_t, std::int64_t>(1, 0) ||
                           verification == std::pair<std::int64_t, std::int64_t>(2, 2);
              }
              if (!expected) ++wrong;
              ++answered[slot];
              arrivals.arrive();
            });
      }
    });
  }
  for (auto& caller : callers) caller.join();
  const bool allArrived = arrivals.waitForAll();
  faulting = false;
  faults.join();
  ASSERT_TRUE(allArrived) << arrivals.count() << " of " << kCallers * perCaller;

  EXPECT_EQ(wrong.load(), 0u);
  std::size_t once = 0;
  for (const auto& count : answered) once += count.load() == 1 ? 1 : 0;
  EXPECT_EQ(once, kCallers * perCaller);
}

}  // namespace
