// Shared helpers for the store tests: a fresh LocalStore per test installed as the process's
// store, and readers for the transaction sequences.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "platform/system_version.h"
#include "platform/task.h"
#include "storekit/local_store.h"

namespace storekit::testing {

inline std::string dataFile(const std::string& name) {
  return std::string(VORNTESK_SOURCE_DIR) + "/tests/storekit/data/" + name;
}
inline std::string sampleFile() {
  return std::string(VORNTESK_SOURCE_DIR) + "/examples/SampleStore.storekit";
}

inline std::vector<std::uint64_t> ids(TransactionSequence sequence) {
  std::vector<std::uint64_t> result;
  while (auto element = sequence.next()) result.push_back(element->unsafePayloadValue().id());
  return result;
}

// Reads up to `count` elements of `sequence` inside a task, giving up after `wait`.
inline std::vector<VerificationResult<Transaction>> take(
    TransactionSequence& sequence, std::size_t count,
    std::chrono::milliseconds wait = std::chrono::milliseconds(2000)) {
  auto promise = std::make_shared<std::promise<std::vector<VerificationResult<Transaction>>>>();
  auto future = promise->get_future();
  auto task = platform::Task::run([&sequence, count, promise] {
    std::vector<VerificationResult<Transaction>> got;
    while (got.size() < count) {
      auto element = sequence.next();
      if (!element) break;
      got.push_back(std::move(*element));
    }
    promise->set_value(std::move(got));
  });
  if (future.wait_for(wait) != std::future_status::ready) task.cancel();
  return future.get();
}

using IDs = std::vector<std::uint64_t>;

// What the three listings show, in their order.
inline void expectLists(const IDs& all, const IDs& unfinished, const IDs& entitlements) {
  EXPECT_EQ(ids(Transaction::all()), all) << "all";
  EXPECT_EQ(ids(Transaction::unfinished()), unfinished) << "unfinished";
  EXPECT_EQ(ids(Transaction::currentEntitlements()), entitlements) << "currentEntitlements";
}

inline std::vector<std::uint64_t> idsOf(const std::vector<VerificationResult<Transaction>>& results) {
  std::vector<std::uint64_t> result;
  for (const auto& element : results) result.push_back(element.unsafePayloadValue().id());
  return result;
}

class StoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform::SystemVersion::set(platform::SystemVersion::kDefault);
    store_ = LocalStore::createFromFile(sampleFile());
    previous_ = LocalStore::setShared(store_);
  }
  void TearDown() override {
    LocalStore::setShared(previous_);
    platform::SystemVersion::set(platform::SystemVersion::kDefault);
  }

  std::uint64_t buy(const std::string& productID, std::vector<PurchaseOption> options = {}) {
    const auto result = Product::products({productID}).at(0).purchase(options);
    return std::get<PurchaseResult::Success>(result.value).verification.unsafePayloadValue().id();
  }

  std::shared_ptr<LocalStore> store_;
  std::shared_ptr<LocalStore> previous_;
};

inline const std::string kCoins = "com.vorntesk.sample.coins100";
inline const std::string kRemoveAds = "com.vorntesk.sample.removeads";
inline const std::string kSeasonPass = "com.vorntesk.sample.seasonpass";
inline const std::string kPro = "com.vorntesk.sample.pro.monthly";
inline const std::string kBasic = "com.vorntesk.sample.basic.monthly";

}  // namespace storekit::testing
