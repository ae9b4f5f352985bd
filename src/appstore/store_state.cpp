#include "appstore/store_state.h"

#include <algorithm>
#include <cctype>
#include <stdexcept>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include "appstore/subscription_rules.h"
#include "platform/base64.h"

namespace appstore {
namespace json = boost::json;
using Kind = ConfiguredProduct::Kind;

namespace {

constexpr std::int64_t kMaxQuantity = 10;

const char* typeName(Kind kind) {
  switch (kind) {
    case Kind::consumable: return "Consumable";
    case Kind::nonConsumable: return "Non-Consumable";
    case Kind::nonRenewable: return "Non-Renewing Subscription";
    case Kind::autoRenewable: return "Auto-Renewable Subscription";
  }
  return "Consumable";
}

std::optional<platform::Date> dateIn(const json::object& payload, std::string_view key) {
  const auto* value = payload.if_contains(key);
  if (!value || !value->is_int64()) return std::nullopt;
  return platform::dateFromMillisecondsSince1970(value->get_int64());
}

// The typed columns follow the payload they describe.
void takeColumnsFromPayload(Draft& draft) {
  auto& row = draft.row;
  row.purchaseDate = dateIn(draft.payload, "purchaseDate").value_or(platform::Date{});
  row.expiresDate = dateIn(draft.payload, "expiresDate");
  row.revocationDate = dateIn(draft.payload, "revocationDate");
  const auto* upgraded = draft.payload.if_contains("isUpgraded");
  row.upgraded = upgraded && upgraded->is_bool() && upgraded->get_bool();
  const auto* ownership = draft.payload.if_contains("inAppOwnershipType");
  row.familyShared = ownership && *ownership == "FAMILY_SHARED";
}

// Requests and offers wait in the ledger as JSON, to be carried out after a relaunch.
json::object offerToJSON(const AppliedOffer& offer) {
  json::object out;
  out["type"] = offer.type;
  if (offer.id) out["id"] = *offer.id;
  out["internalID"] = offer.terms.internalID;
  if (offer.terms.offerID) out["offerID"] = *offer.terms.offerID;
  out["referenceName"] = offer.terms.referenceName;
  out["paymentMode"] = static_cast<int>(offer.terms.paymentMode);
  out["period"] = offer.terms.period.isoString();
  out["numberOfPeriods"] = offer.terms.numberOfPeriods;
  out["price"] = offer.terms.price.toString();
  return out;
}

std::string serialized(const std::optional<AppliedOffer>& offer) {
  return offer ? json::serialize(offerToJSON(*offer)) : std::string();
}

}  // namespace

std::string lowercase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

const char* paymentModeName(ConfiguredOffer::Mode mode) {
  switch (mode) {
    case ConfiguredOffer::Mode::freeTrial: return "FREE_TRIAL";
    case ConfiguredOffer::Mode::payAsYouGo: return "PAY_AS_YOU_GO";
    case ConfiguredOffer::Mode::payUpFront: return "PAY_UP_FRONT";
  }
  return "FREE_TRIAL";
}

void clearRenewalIssues(LedgerGroup& group) {
  group.status = RenewalStatus::subscribed;
  group.expirationIntent.reset();
  group.billingIssueSince.reset();
  group.gracePeriodExpires.reset();
}

std::optional<std::int64_t> milliunits(const platform::Decimal& price) {
  const auto thousandths = price.scaledByPowerOfTen(3);
  return thousandths ? thousandths->toInt64() : std::nullopt;
}

// An offer this build cannot read back (a damaged file) is taken as no offer.
std::optional<AppliedOffer> offerFromJSON(const json::value& value) try {
  if (!value.is_object()) return std::nullopt;
  const auto& in = value.get_object();
  const auto mode = in.at("paymentMode").to_number<int>();
  if (mode < 0 || mode > static_cast<int>(ConfiguredOffer::Mode::payUpFront)) return std::nullopt;
  AppliedOffer offer;
  offer.type = in.at("type").to_number<std::int64_t>();
  if (const auto* id = in.if_contains("id")) offer.id = std::string(id->as_string());
  offer.terms.internalID = std::string(in.at("internalID").as_string());
  if (const auto* id = in.if_contains("offerID")) offer.terms.offerID = std::string(id->as_string());
  offer.terms.referenceName = std::string(in.at("referenceName").as_string());
  offer.terms.paymentMode = static_cast<ConfiguredOffer::Mode>(mode);
  offer.terms.period = SubscriptionPeriod::parse(in.at("period").as_string()).value_or(SubscriptionPeriod{});
  offer.terms.numberOfPeriods = in.at("numberOfPeriods").to_number<std::int64_t>();
  offer.terms.price = platform::Decimal::parse(in.at("price").as_string()).value_or(platform::Decimal{});
  return offer;
} catch (const std::exception&) {
  return std::nullopt;
}

LocalStore::State::State(std::unique_ptr<Ledger> ledgerToUse,
                         std::shared_ptr<const SigningAuthority> preferred)
    : ledger(std::move(ledgerToUse)) {
  const auto leafKey = ledger->value("signing.leafKey");
  if (leafKey) {
    auto read = [&](const char* key) {
      return platform::base64Decode(ledger->value(key).value_or("")).value_or("");
    };
    try {
      authority = SigningAuthority::restore(
          {*leafKey, read("signing.root"), read("signing.intermediate"), read("signing.leaf")});
    } catch (const std::runtime_error& error) {
      throw LedgerError("state file " + ledger->path() + ": damaged (" + error.what() + ")");
    }
  }
  const bool newIdentity = !authority;
  if (newIdentity) authority = preferred ? preferred : SigningAuthority::generate();
  const auto device = ledger->value("device.id");
  if (const auto parsed = device ? platform::UUID::fromString(*device) : std::nullopt) {
    deviceID = *parsed;
  } else {
    deviceID = platform::UUID::random();
  }
  appTransactionID = ledger->value("device.appTransactionID").value_or("");
  if (appTransactionID.empty()) {
    const auto& bytes = deviceID.bytes();
    std::uint64_t number = 0;
    for (int i = 0; i < 6; ++i) number = (number << 8) | bytes[static_cast<std::size_t>(i)];
    appTransactionID = std::to_string(700000000000000ULL + number % 100000000000000ULL);
  }
  reload();
  if (newIdentity || !device) {
    const auto stored = authority->stored();
    commit([&](LedgerWrite& write) {
      write.putValue("signing.leafKey", stored.leafKeyPEM);
      write.putValue("signing.root", platform::base64Encode(stored.rootDER));
      write.putValue("signing.intermediate", platform::base64Encode(stored.intermediateDER));
      write.putValue("signing.leaf", platform::base64Encode(stored.leafDER));
      write.putValue("device.id", deviceID.uuidString());
      write.putValue("device.appTransactionID", appTransactionID);
      putCounters(write);
    });
  }
}

void LocalStore::State::reload() {
  auto number = [&](const char* key, std::int64_t fallback) {
    const auto text = ledger->value(key);
    try {
      return text ? static_cast<std::int64_t>(std::stoll(*text)) : fallback;
    } catch (const std::exception&) {
      return fallback;
    }
  };
  clockOffset = milliseconds(number("clock.offsetMs", 0));
  nextID = static_cast<std::uint64_t>(number("ids.nextTransaction", 1));
  nextWebOrderLineItemID = static_cast<std::uint64_t>(number("ids.nextWebOrderLineItem", 10000));
  groups.clear();
  for (auto& group : ledger->groups()) groups.emplace(group.groupID, std::move(group));
}

void LocalStore::State::putCounters(LedgerWrite& write) {
  write.putValue("clock.offsetMs", std::to_string(clockOffset.count()));
  write.putValue("ids.nextTransaction", std::to_string(nextID));
  write.putValue("ids.nextWebOrderLineItem", std::to_string(nextWebOrderLineItemID));
}

void LocalStore::State::putGroup(LedgerWrite& write, LedgerGroup group) {
  group.signedRenewalInfo = signedRenewalInfo(group);
  write.putGroup(group);
  groups.insert_or_assign(group.groupID, std::move(group));
}

Storefront LocalStore::State::storefront() const {
  return storefrontForCountry(settings.storefront).value_or(Storefront{"USA", "143441", "USD"});
}

void LocalStore::State::throwIfSimulated(StoreKitAPI api) const {
  const auto it = simulatedErrors.find(api);
  if (it != simulatedErrors.end()) throw StoreFailureError(it->second);
}

void LocalStore::State::applySettings(const StoreSettings& newSettings) {
  settings = newSettings;
  simulatedErrors.clear();
  for (const auto& [api, error] : settings.simulatedErrors) simulatedErrors.insert_or_assign(api, error);
}

CheckedRequest LocalStore::State::check(const ConfiguredProduct& product,
                                        const PurchaseRequest& request) const {
  CheckedRequest checked;
  checked.productID = product.productID;
  if (request.quantity) {
    if (*request.quantity < 1 || *request.quantity > kMaxQuantity) {
      throw StoreFailureError::purchase("invalidQuantity");
    }
    checked.quantity = *request.quantity;
  }
  checked.appAccountToken = request.appAccountToken;
  if (const auto& promo = request.promotionalOffer) {
    if (product.kind != Kind::autoRenewable) throw StoreFailureError::purchase("ineligibleForOffer");
    if (promo->offerID.empty() || promo->keyID.empty() || promo->signature.empty()) {
      throw StoreFailureError::purchase("missingOfferParameters");
    }
    if (!platform::base64Decode(promo->signature)) {
      throw StoreFailureError::purchase("invalidOfferSignature");
    }
    const auto it = std::find_if(product.promotionalOffers.begin(), product.promotionalOffers.end(),
                                 [&](const auto& offer) { return offer.offerID == promo->offerID; });
    if (it == product.promotionalOffers.end()) throw StoreFailureError::purchase("invalidOfferIdentifier");
    checked.offer = AppliedOffer{2, it->offerID, *it};
  }
  if (request.winBackOfferID) {
    const auto it = std::find_if(product.winBackOffers.begin(), product.winBackOffers.end(),
                                 [&](const auto& offer) { return offer.offerID == request.winBackOfferID; });
    if (it == product.winBackOffers.end()) throw StoreFailureError::purchase("invalidOfferIdentifier");
    checked.offer = AppliedOffer{4, it->offerID, *it};
  }
  checked.askToBuy = request.askToBuy;
  return checked;
}

void LocalStore::State::putWaitingRequest(LedgerWrite& write, std::uint64_t id,
                                          const CheckedRequest& request,
                                          TestTransaction::State state) {
  const auto* product = configuration.product(request.productID);
  LedgerTransaction row;
  row.id = id;
  row.originalID = id;
  row.productID = request.productID;
  row.productType = typeName(product ? product->kind : Kind::consumable);
  row.groupID = product && product->kind == Kind::autoRenewable ? product->subscriptionGroupID : "";
  row.state = static_cast<EntryState>(state);
  json::object waiting;
  waiting["quantity"] = request.quantity;
  if (request.appAccountToken) waiting["appAccountToken"] = request.appAccountToken->uuidString();
  if (request.offer) waiting["offer"] = offerToJSON(*request.offer);
  waiting["askToBuy"] = request.askToBuy;
  row.request = json::serialize(waiting);
  write.putTransaction(row);
}

CheckedRequest LocalStore::State::waitingRequest(const LedgerTransaction& row) const {
  CheckedRequest request;
  request.productID = row.productID;
  json::error_code ec;
  const auto parsed = json::parse(row.request, ec);
  if (ec || !parsed.is_object()) return request;
  const auto& waiting = parsed.get_object();
  if (const auto* quantity = waiting.if_contains("quantity"); quantity && quantity->is_int64()) {
    request.quantity = quantity->get_int64();
  }
  if (const auto* token = waiting.if_contains("appAccountToken"); token && token->is_string()) {
    request.appAccountToken = platform::UUID::fromString(token->get_string());
  }
  if (const auto* offer = waiting.if_contains("offer")) request.offer = offerFromJSON(*offer);
  if (const auto* ask = waiting.if_contains("askToBuy"); ask && ask->is_bool()) {
    request.askToBuy = ask->get_bool();
  }
  return request;
}

Draft LocalStore::State::newTransaction(const ConfiguredProduct& product, const CheckedRequest& request,
                                        const std::string& reason, platform::Date purchaseDate,
                                        const std::optional<AppliedOffer>& offer,
                                        const LedgerGroup* group,
                                        std::optional<std::uint64_t> presetID) {
  Draft draft;
  auto& row = draft.row;
  row.id = presetID.value_or(nextID);
  nextID = std::max(nextID, row.id + 1);
  row.originalID = group ? group->originalID : row.id;
  row.productID = product.productID;
  row.productType = typeName(product.kind);
  row.groupID = product.kind == Kind::autoRenewable ? product.subscriptionGroupID : "";
  const auto front = storefront();
  auto& p = draft.payload;
  p["transactionId"] = std::to_string(row.id);
  p["originalTransactionId"] = std::to_string(row.originalID);
  if (product.kind == Kind::autoRenewable) {
    p["webOrderLineItemId"] = std::to_string(nextWebOrderLineItemID++);
  }
  p["bundleId"] = bundleID;
  p["productId"] = product.productID;
  if (product.kind == Kind::autoRenewable) p["subscriptionGroupIdentifier"] = product.subscriptionGroupID;
  p["purchaseDate"] = platform::millisecondsSince1970(purchaseDate);
  p["originalPurchaseDate"] =
      platform::millisecondsSince1970(group ? group->originalPurchaseDate : purchaseDate);
  if (product.kind == Kind::autoRenewable) {
    const auto& period = offer ? offer->terms.period : product.period;
    p["expiresDate"] = platform::millisecondsSince1970(periodEnd(purchaseDate, period, settings.timeRate));
  }
  p["quantity"] = request.quantity;
  p["type"] = typeName(product.kind);
  if (request.appAccountToken) p["appAccountToken"] = lowercase(request.appAccountToken->uuidString());
  p["inAppOwnershipType"] = "PURCHASED";
  p["signedDate"] = platform::millisecondsSince1970(now());
  if (offer) {
    p["offerType"] = offer->type;
    if (offer->id) p["offerIdentifier"] = *offer->id;
    p["offerDiscountType"] = paymentModeName(offer->terms.paymentMode);
    auto whole = offer->terms.period;
    whole.value *= offer->terms.numberOfPeriods;
    p["offerPeriod"] = whole.isoString();
  }
  p["environment"] = environment;
  p["transactionReason"] = reason;
  p["storefront"] = front.countryCode;
  p["storefrontId"] = front.id;
  const auto unitPrice = offer ? offer->terms.price : request.unitPrice.value_or(product.price);
  const auto total = unitPrice.multipliedBy(request.quantity);
  if (const auto value = total ? milliunits(*total) : std::nullopt) p["price"] = *value;
  p["currency"] = front.currency;
  p["appTransactionId"] = appTransactionID;
  const auto nonce = platform::UUID::random();
  p["deviceVerification"] = platform::base64Encode(deviceVerificationFor(nonce, deviceID));
  p["deviceVerificationNonce"] = lowercase(nonce.uuidString());
  return draft;
}

SignedTransaction LocalStore::State::shareWithFamily(LedgerWrite& write, const ConfiguredProduct& product) {
  CheckedRequest request;
  request.productID = product.productID;
  if (product.kind != Kind::autoRenewable) {
    auto draft =
        newTransaction(product, request, "PURCHASE", now(), std::nullopt, nullptr, std::nullopt);
    draft.payload["inAppOwnershipType"] = "FAMILY_SHARED";
    putCounters(write);
    auto shared = sign(write, draft);
    notify(write, "ONE_TIME_CHARGE", "", draft.row.id);
    return shared;
  }
  // A shared subscription is held as the group's subscription, renewing with the organizer's.
  // The group keeps one subscription: while the account holds one there (its own or the
  // family's), the share is refused. After one has ended, a family share regains access on
  // the family's chain; the account's own chain, ended, gives way to a new one.
  const auto found = groups.find(product.subscriptionGroupID);
  std::optional<LedgerGroup> group;
  if (found != groups.end()) {
    group = found->second;
    if (isActive(*group) || group->status == RenewalStatus::billingRetry) {
      throw std::invalid_argument("the account already holds a subscription of group " +
                                  product.subscriptionGroupID +
                                  "; it cannot also be shared by the family");
    }
    const auto previous = ledger->transaction(group->latestID);
    if (!previous || !previous->familyShared) group.reset();
  }
  const auto purchaseDate = now();
  auto draft = newTransaction(product, request, "PURCHASE", purchaseDate, std::nullopt,
                              group ? &*group : nullptr, std::nullopt);
  draft.payload["inAppOwnershipType"] = "FAMILY_SHARED";
  auto shared = sign(write, draft);
  const char* subscribed = group ? "RESUBSCRIBE" : "INITIAL_BUY";
  putGroup(write, subscribedBy(group, product, draft.row.id, purchaseDate));
  putCounters(write);
  notify(write, "SUBSCRIBED", subscribed, draft.row.id);
  wake = true;
  return shared;
}

LedgerGroup LocalStore::State::subscribedBy(std::optional<LedgerGroup> held,
                                            const ConfiguredProduct& product,
                                            std::uint64_t transactionID,
                                            platform::Date purchaseDate) {
  LedgerGroup group;
  if (!held) {
    group.groupID = product.subscriptionGroupID;
    group.originalID = transactionID;
    group.originalPurchaseDate = purchaseDate;
    group.recentStart = purchaseDate;
  } else {
    group = std::move(*held);
    const auto previous = ledger->transaction(group.latestID);
    if (!previous || !previous->expiresDate ||
        purchaseDate - *previous->expiresDate >= std::chrono::days(60)) {
      // Back after a lapse of 60 days or more: a new run of the subscription begins.
      group.recentStart = purchaseDate;
    }
  }
  group.latestID = transactionID;
  group.autoRenew = true;
  group.pendingProductID.reset();
  group.offerPeriodsLeft = 0;
  group.continuingOffer.clear();
  clearRenewalIssues(group);
  group.priceIncreaseStatus.reset();
  group.renewalPrice.clear();
  return group;
}

bool LocalStore::State::isFamilyShare(const LedgerGroup& group) {
  const auto latest = ledger->transaction(group.latestID);
  return latest && latest->familyShared;
}

SignedTransaction LocalStore::State::sign(LedgerWrite& write, Draft& draft) {
  draft.payload["signedDate"] = platform::millisecondsSince1970(now());
  takeColumnsFromPayload(draft);
  draft.row.payload = json::serialize(draft.payload);
  draft.row.signedForm = authority->sign(draft.row.payload);
  write.putTransaction(draft.row);
  return {draft.row.id, draft.row.signedForm};
}

std::optional<Draft> LocalStore::State::draftOf(std::uint64_t id) {
  auto row = ledger->transaction(id);
  if (!row || row->state != EntryState::purchased) return std::nullopt;
  json::error_code ec;
  auto parsed = json::parse(row->payload, ec);
  if (ec || !parsed.is_object()) return std::nullopt;
  return Draft{std::move(*row), std::move(parsed.as_object())};
}

SignedTransaction LocalStore::State::completePurchase(LedgerWrite& write, const ConfiguredProduct& product,
                                                      const CheckedRequest& request,
                                                      std::optional<std::uint64_t> presetID,
                                                      bool& created) {
  created = false;
  const auto purchaseDate = now();
  auto existing = [&](std::uint64_t id) {
    return SignedTransaction{id, ledger->signedForm(id).value_or("")};
  };
  if (product.kind == Kind::nonConsumable) {
    for (const auto& row : ledger->transactions(Selection::entitlementCandidates)) {
      if (row.productID == product.productID) return existing(row.id);
    }
  }
  if (product.kind != Kind::autoRenewable) {
    if (request.offer) throw StoreFailureError::purchase("ineligibleForOffer");
    auto draft = newTransaction(product, request, "PURCHASE", purchaseDate, std::nullopt, nullptr, presetID);
    created = true;
    putCounters(write);
    auto signedTransaction = sign(write, draft);
    notify(write, "ONE_TIME_CHARGE", "", draft.row.id);
    return signedTransaction;
  }

  const auto found = groups.find(product.subscriptionGroupID);
  std::optional<LedgerGroup> group;
  // The account's own purchase never continues the family's chain: it starts its own, which
  // the group follows from then on.
  if (found != groups.end() && !isFamilyShare(found->second)) group = found->second;
  if (group && isActive(*group)) {
    auto latest = draftOf(group->latestID);
    if (!latest) return existing(group->latestID);
    if (latest->row.productID == product.productID) {
      // Buying the current product again takes back a move waiting for the next renewal.
      if (group->pendingProductID) {
        group->pendingProductID.reset();
        group->autoRenew = true;
        putGroup(write, *group);
        notify(write, "DID_CHANGE_RENEWAL_PREF", "", latest->row.id);
      }
      return existing(latest->row.id);
    }
    const auto* current = configuration.product(latest->row.productID);
    const auto currentLevel = current ? current->groupLevel : product.groupLevel;
    const bool sameDuration = !current || current->period == product.period;
    // A move to a lower tier, or across the same tier to another duration, waits for the next
    // renewal; a move up, or across to the same duration, happens at once.
    if (product.groupLevel > currentLevel || (product.groupLevel == currentLevel && !sameDuration)) {
      group->pendingProductID = product.productID;
      group->autoRenew = true;
      putGroup(write, *group);
      notify(write, request.offer ? "OFFER_REDEEMED" : "DID_CHANGE_RENEWAL_PREF", "DOWNGRADE",
             latest->row.id);
      return existing(latest->row.id);
    }
    latest->payload["isUpgraded"] = true;
    sign(write, *latest);
    // The subscription's app account token goes on unless the new purchase sets its own.
    auto carried = request;
    const auto* token = latest->payload.if_contains("appAccountToken");
    if (!carried.appAccountToken && token && token->is_string()) {
      carried.appAccountToken = platform::UUID::fromString(token->get_string());
    }
    auto draft = newTransaction(product, carried, "PURCHASE", purchaseDate, request.offer, &*group, presetID);
    const auto signedTransaction = sign(write, draft);
    group->latestID = draft.row.id;
    group->autoRenew = true;
    group->pendingProductID.reset();
    group->offerPeriodsLeft = 0;
    group->continuingOffer.clear();
    clearRenewalIssues(*group);
    group->priceIncreaseStatus.reset();
    group->renewalPrice.clear();
    putGroup(write, *group);
    putCounters(write);
    notify(write, request.offer ? "OFFER_REDEEMED" : "DID_CHANGE_RENEWAL_PREF", "UPGRADE",
           draft.row.id);
    created = true;
    wake = true;
    return signedTransaction;
  }

  auto offer = request.offer;
  if (offer && offer->type == 4 && !group) throw StoreFailureError::purchase("ineligibleForOffer");
  // The introductory offer goes with the first subscription in a group only.
  if (!offer && !group && product.introductoryOffer) {
    offer = AppliedOffer{1, std::nullopt, *product.introductoryOffer};
  }
  auto draft = newTransaction(product, request, "PURCHASE", purchaseDate, offer,
                              group ? &*group : nullptr, presetID);
  const auto signedTransaction = sign(write, draft);
  const char* subscribed = group ? "RESUBSCRIBE" : "INITIAL_BUY";
  auto subscription = subscribedBy(std::move(group), product, draft.row.id, purchaseDate);
  subscription.offerPeriodsLeft =
      offer && offer->terms.paymentMode == ConfiguredOffer::Mode::payAsYouGo
          ? offer->terms.numberOfPeriods - 1
          : 0;
  subscription.continuingOffer =
      subscription.offerPeriodsLeft > 0 ? serialized(offer) : std::string();
  putGroup(write, subscription);
  putCounters(write);
  notify(write, "SUBSCRIBED", subscribed, draft.row.id);
  created = true;
  wake = true;
  return signedTransaction;
}

LedgerGroup* LocalStore::State::groupOf(const LedgerTransaction& row) {
  if (row.groupID.empty()) return nullptr;
  const auto it = groups.find(row.groupID);
  return it == groups.end() ? nullptr : &it->second;
}

LedgerGroup* LocalStore::State::groupWithLatestProduct(const std::string& productID) {
  for (auto& [id, group] : groups) {
    const auto latest = ledger->transaction(group.latestID);
    if (latest && latest->productID == productID) return &group;
  }
  return nullptr;
}

LedgerGroup* LocalStore::State::groupWithOriginalID(std::uint64_t originalID) {
  for (auto& [id, group] : groups) {
    if (group.originalID == originalID) return &group;
  }
  return nullptr;
}

void LocalStore::State::broadcast(const std::vector<SignedTransaction>& transactions) {
  if (transactions.empty()) return;
  std::erase_if(listeners, [&](const TransactionListener& listener) { return !listener(transactions); });
}

}  // namespace appstore
