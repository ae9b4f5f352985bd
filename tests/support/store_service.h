// The service as a host sees it: a fresh store from the sample configuration, the plug-in
// registered anew, calls through the dispatcher, update events, and the expected records.
#pragma once

#include "bridge/register_service.h"
#include "host/tesk_bridge_dispatcher.h"
#include "platform/system_version.h"
#include "appstore/local_store.h"
#include "support/store_entries.h"

#include <gtest/gtest.h>
#include <boost/algorithm/string/case_conv.hpp>
#include <boost/json.hpp>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace testsupport {

namespace json = boost::json;

inline const std::string kSampleStore = VORNTESK_SOURCE_DIR "/examples/SampleStore.storekit";
inline const std::string kCoins = "com.vorntesk.sample.coins100";
inline const std::string kRemoveAds = "com.vorntesk.sample.removeads";
inline const std::string kPro = "com.vorntesk.sample.pro.monthly";
inline const std::string kBasic = "com.vorntesk.sample.basic.monthly";

// One call through `dispatcher`, waited for generously; "<no answer>" if none comes.
inline std::string callService(vorn::tesk::TeskBridgeDispatcher& dispatcher,
                               const std::string& method, const std::string& payload = "{}") {
  auto answer = std::make_shared<std::promise<std::string>>();
  auto future = answer->get_future();
  dispatcher.callAsync("AppleStoreKitService", method, payload,
                       [answer](std::string envelope) { answer->set_value(std::move(envelope)); });
  const bool ready = future.wait_for(std::chrono::seconds(60)) == std::future_status::ready;
  return ready ? future.get() : "<no answer>";
}

// The update events the shared dispatcher delivers, in arrival order.
class EventLog {
 public:
  struct Event {
    std::string name;
    std::string payload;
  };
  ~EventLog() { vorn::tesk::TeskBridgeDispatcher::shared().removeEventListener(token_); }
  // Waits (generously) for `count` events; returns all that arrived.
  std::vector<Event> waitFor(std::size_t count) const {
    std::unique_lock lock(state_->mutex);
    state_->changed.wait_for(lock, std::chrono::seconds(60),
                             [&] { return state_->events.size() >= count; });
    return state_->events;
  }

 private:
  struct State {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Event> events;
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
  vorn::tesk::TeskBridgeDispatcher::ListenerToken token_ =
      vorn::tesk::TeskBridgeDispatcher::shared().addEventListener(
          [state = state_](const std::string& name, const std::string& payload) {
            std::lock_guard lock(state->mutex);
            state->events.push_back({name, payload});
            state->changed.notify_all();
          });
};

// The AppleTransaction a transaction should give, key by key in the record's order, derived
// from the App Store payload the store signed for it (appTransactionId: 18.4 and later).
inline json::object expectedRecord(const appstore::TestTransaction& stored, int status = 1,
                                   int error = 0, bool appTransactionId = true) {
  const auto transaction = transactionOf(stored);
  const json::object& p = transaction->payload();
  auto text = [&](const char* key) { return std::string(p.at(key).as_string()); };
  auto has = [&](const char* key) { return p.contains(key) && !p.at(key).is_null(); };
  auto number = [&](const char* key) { return has(key) ? p.at(key).as_int64() : -1; };
  auto date = [&](const char* key) {  // RFC 3339 with milliseconds
    const std::int64_t ms = p.at(key).as_int64();
    const std::time_t seconds = static_cast<std::time_t>(ms / 1000);
    std::tm utc{};
    char buffer[32];
    std::strftime(buffer, sizeof buffer, "%FT%T.", gmtime_r(&seconds, &utc));
    return buffer + std::to_string(1000 + ms % 1000).substr(1) + "Z";
  };
  auto upper = [&](const char* key) { return boost::algorithm::to_upper_copy(text(key)); };
  // Position (from 1) in `names`, 0 for any other value.
  auto code = [](const std::string& value, std::vector<std::string> names) {
    const auto found = std::find(names.begin(), names.end(), value);
    return found == names.end() ? std::int64_t{0} : found - names.begin() + 1;
  };
  json::object r;
  auto copy = [&](const char* from, const char* to) {
    if (has(from)) r[to] = text(from);
  };
  r["id"] = std::stoull(text("transactionId"));
  r["originalId"] = std::stoull(text("originalTransactionId"));
  r["productId"] = text("productId");
  r["productType"] = code(
      text("type"),
      {"Consumable", "Non-Consumable", "Auto-Renewable Subscription", "Non-Renewing Subscription"});
  r["purchaseDate"] = date("purchaseDate");
  r["originalPurchaseDate"] = date("originalPurchaseDate");
  if (has("expiresDate")) r["expirationDate"] = date("expiresDate");
  if (has("revocationDate")) r["revocationDate"] = date("revocationDate");
  // The payload's 0 is "other" (2 in the record), 1 "developer issue" (1).
  const auto reason = number("revocationReason");
  r["revocationReason"] = reason == 1 ? 1 : reason == 0 ? 2 : 0;
  copy("webOrderLineItemId", "webOrderLineItemId");
  copy("subscriptionGroupIdentifier", "subscriptionGroupId");
  if (has("appAccountToken")) r["appAccountToken"] = upper("appAccountToken");
  r["quantity"] = has("quantity") ? p.at("quantity").as_int64() : 1;
  r["transactionReason"] = code(text("transactionReason"), {"PURCHASE", "RENEWAL"});
  r["signedDate"] = date("signedDate");
  r["environment"] = code(text("environment"), {"Production", "Sandbox", "Xcode"});
  r["ownershipType"] = code(text("inAppOwnershipType"), {"PURCHASED", "FAMILY_SHARED"});
  r["jwsRepresentation"] = stored.jwsRepresentation;
  r["verificationStatus"] = status;
  r["verificationError"] = error;
  r["bundleId"] = text("bundleId");
  r["appBundleId"] = text("bundleId");
  r["isUpgraded"] = has("isUpgraded") && p.at("isUpgraded").as_bool();
  r["offerType"] = number("offerType") >= 1 && number("offerType") <= 4 ? number("offerType") : 0;
  copy("offerIdentifier", "offerId");
  copy("offerDiscountType", "offerPaymentModeStringRepresentation");
  copy("offerPeriod", "offerPeriod");
  if (has("price")) {  // thousandths of a unit as plain decimal text: 990 -> "0.99"
    std::string fraction = std::to_string(1000 + p.at("price").as_int64() % 1000).substr(1);
    while (!fraction.empty() && fraction.back() == '0') fraction.pop_back();
    r["price"] =
        std::to_string(p.at("price").as_int64() / 1000) + (fraction.empty() ? "" : "." + fraction);
  }
  copy("currency", "currency");
  r["storefrontCountryCode"] = text("storefront");
  r["deviceVerification"] = text("deviceVerification");
  r["deviceVerificationNonce"] = upper("deviceVerificationNonce");
  if (appTransactionId) r["appTransactionId"] = text("appTransactionId");
  return r;
}

// The store's own entry for transaction `id`.
inline appstore::TestTransaction storedTransaction(appstore::LocalStore& store, std::uint64_t id) {
  for (auto& entry : store.allTransactions()) {
    if (entry.identifier == id && !entry.jwsRepresentation.empty()) return entry;
  }
  ADD_FAILURE() << "the store has no purchased transaction " << id;
  return {};
}

// Checks a record's whole text against what the store signed for it.
inline void expectRecordOf(appstore::LocalStore& store, const json::value& record, int status = 1,
                           int error = 0, bool appTransactionId = true) {
  const auto stored = storedTransaction(store, record.at("id").to_number<std::uint64_t>());
  if (stored.jwsRepresentation.empty()) return;
  EXPECT_EQ(json::serialize(record),
            json::serialize(expectedRecord(stored, status, error, appTransactionId)));
}

// Per test: a fresh sample store as the process's store, the service registered anew.
class ServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform::SystemVersion::set(platform::SystemVersion::kDefault);
    previous_ = appstore::LocalStore::setShared(store);
    VornTeskPaymentsAddonApple::Vorn_Tesk_AppleStoreKitService_Register();
  }
  void TearDown() override {
    call("StopTransactionObserver");
    vorn::tesk::TeskBridgeDispatcher::shared().removeAllPlugins();
    appstore::LocalStore::setShared(previous_);
    platform::SystemVersion::set(platform::SystemVersion::kDefault);
  }

  std::string call(const std::string& method, const std::string& payload = "{}") {
    return callService(vorn::tesk::TeskBridgeDispatcher::shared(), method, payload);
  }
  // The success answer's data, parsed; null (and a failure) for any other answer.
  json::value success(const std::string& method, const std::string& payload = "{}") {
    const auto envelope = call(method, payload);
    const auto parsed = json::parse(envelope);
    if (const auto* data = parsed.as_object().if_contains("success")) return *data;
    ADD_FAILURE() << method << " answered " << envelope;
    return nullptr;
  }
  std::uint64_t purchase(const std::string& productId) {
    const auto data = success("Purchase", R"({"productId":")" + productId + R"("})");
    return data.is_null() ? 0 : data.at("transaction").at("id").to_number<std::uint64_t>();
  }

  std::shared_ptr<appstore::LocalStore> store = appstore::LocalStore::createFromFile(kSampleStore);

 private:
  std::shared_ptr<appstore::LocalStore> previous_;
};

}  // namespace testsupport
