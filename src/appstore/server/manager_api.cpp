#include "appstore/server/manager_api.h"

#include <chrono>
#include <exception>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include "appstore/order_ids.h"
#include "appstore/store_controls.h"

namespace appstore::server {
namespace json = boost::json;
namespace {

std::int64_t milliseconds(platform::Date date) { return platform::millisecondsSince1970(date); }

const char* kindName(ConfiguredProduct::Kind kind) {
  switch (kind) {
    case ConfiguredProduct::Kind::consumable: return "Consumable";
    case ConfiguredProduct::Kind::nonConsumable: return "Non-Consumable";
    case ConfiguredProduct::Kind::nonRenewable: return "Non-Renewing Subscription";
    case ConfiguredProduct::Kind::autoRenewable: return "Auto-Renewable Subscription";
  }
  return "";
}

const char* stateName(TestTransaction::State state) {
  switch (state) {
    case TestTransaction::State::purchased: return "purchased";
    case TestTransaction::State::pendingAskToBuy: return "pending ask-to-buy";
    case TestTransaction::State::declined: return "declined";
    case TestTransaction::State::interrupted: return "interrupted";
  }
  return "";
}

json::object offerOf(const ConfiguredOffer& offer, const char* kind) {
  json::object out{{"kind", kind}, {"reference", offer.referenceName}, {"price", offer.price.toString()},
                   {"period", offer.period.isoString()}, {"periods", offer.numberOfPeriods}};
  if (offer.offerID) out["id"] = *offer.offerID;
  return out;
}

json::array products(const StoreConfiguration& configuration) {
  json::array out;
  for (const auto& product : configuration.products) {
    json::object entry{{"id", product.productID},
                       {"reference", product.referenceName},
                       {"type", kindName(product.kind)},
                       {"price", product.price.toString()},
                       {"familyShareable", product.familyShareable}};
    if (product.kind == ConfiguredProduct::Kind::autoRenewable) {
      entry["group"] = product.subscriptionGroupID;
      entry["level"] = product.groupLevel;
      entry["period"] = product.period.isoString();
    }
    json::array offers;
    if (product.introductoryOffer) offers.push_back(offerOf(*product.introductoryOffer, "introductory"));
    for (const auto& offer : product.promotionalOffers) offers.push_back(offerOf(offer, "promotional"));
    for (const auto& offer : product.codeOffers) offers.push_back(offerOf(offer, "offer code"));
    for (const auto& offer : product.winBackOffers) offers.push_back(offerOf(offer, "win-back"));
    entry["offers"] = std::move(offers);
    out.push_back(std::move(entry));
  }
  return out;
}

json::array transactions(LocalStore& store) {
  json::array out;
  for (const auto& entry : store.allTransactions()) {
    json::object row{{"id", entry.identifier},
                     {"productId", entry.productIdentifier},
                     {"state", stateName(entry.state)},
                     {"finished", entry.finished},
                     {"revoked", entry.revoked},
                     {"upgraded", entry.upgraded},
                     {"ownership", entry.familyShared ? "FAMILY_SHARED" : "PURCHASED"},
                     {"autoRenewing", entry.autoRenewingEnabled}};
    if (entry.state == TestTransaction::State::purchased && !entry.familyShared) {
      row["orderId"] = orderIDForTransaction(entry.identifier);
    }
    if (entry.originalTransactionIdentifier) row["originalId"] = *entry.originalTransactionIdentifier;
    if (entry.purchaseDate) row["purchaseDate"] = milliseconds(*entry.purchaseDate);
    if (entry.expirationDate) row["expiresDate"] = milliseconds(*entry.expirationDate);
    if (!entry.jwsRepresentation.empty()) row["jws"] = entry.jwsRepresentation;
    out.push_back(std::move(row));
  }
  return out;
}

json::array subscriptions(LocalStore& store) {
  json::array out;
  for (const auto& held : store.subscriptionStatuses()) {
    out.push_back({{"group", held.groupID},
                   {"originalId", held.originalTransactionID},
                   {"status", static_cast<int>(held.status)},
                   {"transactionId", held.transaction.id},
                   {"renewalInfo", held.signedRenewalInfo}});
  }
  return out;
}

json::array notifications(LocalStore& store) {
  NotificationQuery everything;
  everything.start = platform::dateFromMillisecondsSince1970(0);
  everything.end = platform::dateFromMillisecondsSince1970(253402300799999);
  everything.limit = 500;  // the page shows the latest few hundred
  json::array out;
  for (const auto& made : store.notificationHistory(everything)) {
    json::array attempts;
    for (const auto& attempt : made.attempts) {
      attempts.push_back({{"date", milliseconds(attempt.date)}, {"result", attempt.result}});
    }
    json::object entry{{"uuid", made.uuid},      {"type", made.type},
                       {"subtype", made.subtype}, {"created", milliseconds(made.created)},
                       {"attempts", std::move(attempts)}, {"payload", made.signedPayload}};
    if (made.nextAttempt) entry["nextAttempt"] = milliseconds(*made.nextAttempt);
    out.push_back(std::move(entry));
  }
  return out;
}

}  // namespace

ApiAnswer managerState(LocalStore& store) {
  try {
    const auto now = store.now();
    const auto system = platform::now();
    json::object settings{{"now", milliseconds(now)},
                          {"offsetMs", milliseconds(now) - milliseconds(system)},
                          {"timeRate", store.timeRate()},
                          {"storefront", store.storefront()},
                          {"locale", store.locale()},
                          {"askToBuy", store.askToBuyEnabled()},
                          {"interruptedPurchases", store.interruptedPurchasesEnabled()},
                          {"billingRetryOnRenewal", store.shouldEnterBillingRetryOnRenewal()},
                          {"gracePeriod", store.billingGracePeriodIsEnabled()},
                          {"environment", store.environment()},
                          {"bundleId", store.bundleID()},
                          {"notificationsURL", store.notificationsURL()}};
    json::object state{{"store", std::move(settings)},
                       {"products", products(store.configuration())},
                       {"transactions", transactions(store)},
                       {"subscriptions", subscriptions(store)},
                       {"notifications", notifications(store)}};
    return {200, json::serialize(state)};
  } catch (const std::exception& error) {
    return {500, json::serialize(json::object{{"error", error.what()}})};
  }
}

ApiAnswer managerControl(LocalStore& store, const std::string& body) {
  const auto refuse = [](const std::string& message) {
    return ApiAnswer{400, json::serialize(json::object{{"error", message}})};
  };
  json::error_code ec;
  const auto parsed = json::parse(body, ec);
  if (ec || !parsed.is_object()) return refuse("the request is not a JSON object");
  const auto* name = parsed.as_object().if_contains("control");
  if (!name || !name->is_string()) return refuse("\"control\" must name a control");
  try {
    auto result = runStoreControl(store, name->get_string(), parsed.as_object());
    json::object answer{{"ok", true}};
    for (auto& [key, value] : result) answer[key] = std::move(value);
    return {200, json::serialize(answer)};
  } catch (const std::exception& error) {
    return refuse(error.what());
  }
}

}  // namespace appstore::server
