// SKTestSession's controls of the LocalStore, and the hooks tests use to plant transactions.
#include <algorithm>
#include <stdexcept>

#include <boost/json/serialize.hpp>

#include "appstore/local_store.h"
#include "appstore/store_state.h"
#include "appstore/subscription_rules.h"

namespace appstore {
namespace json = boost::json;

namespace {
[[noreturn]] void invalid(const std::string& message) { throw std::invalid_argument(message); }

std::string idText(std::uint64_t id) { return std::to_string(id); }

// The organizer manages a family share's subscription; the member cannot change its renewal.
template <class State>
void refuseFamilyShare(State& state, const LedgerGroup& group, std::uint64_t identifier) {
  if (state.isFamilyShare(group)) {
    invalid("transaction " + idText(identifier) +
            " is a family share: only the family organizer can manage its subscription");
  }
}
}  // namespace

bool LocalStore::askToBuyEnabled() const {
  std::lock_guard lock(mutex_);
  return state_->settings.askToBuyEnabled;
}
void LocalStore::setAskToBuyEnabled(bool enabled) {
  std::lock_guard lock(mutex_);
  state_->settings.askToBuyEnabled = enabled;
  state_->changed();
}
bool LocalStore::interruptedPurchasesEnabled() const {
  std::lock_guard lock(mutex_);
  return state_->settings.interruptedPurchasesEnabled;
}
void LocalStore::setInterruptedPurchasesEnabled(bool enabled) {
  std::lock_guard lock(mutex_);
  state_->settings.interruptedPurchasesEnabled = enabled;
  state_->changed();
}
bool LocalStore::failTransactionsEnabled() const {
  std::lock_guard lock(mutex_);
  return state_->settings.failTransactionsEnabled;
}
void LocalStore::setFailTransactionsEnabled(bool enabled) {
  std::lock_guard lock(mutex_);
  state_->settings.failTransactionsEnabled = enabled;
  state_->changed();
}
bool LocalStore::shouldEnterBillingRetryOnRenewal() const {
  std::lock_guard lock(mutex_);
  return state_->settings.shouldEnterBillingRetryOnRenewal;
}
void LocalStore::setShouldEnterBillingRetryOnRenewal(bool enabled) {
  std::lock_guard lock(mutex_);
  state_->settings.shouldEnterBillingRetryOnRenewal = enabled;
  state_->changed();
}
bool LocalStore::billingGracePeriodIsEnabled() const {
  std::lock_guard lock(mutex_);
  return state_->settings.billingGracePeriodIsEnabled;
}
void LocalStore::setBillingGracePeriodIsEnabled(bool enabled) {
  std::lock_guard lock(mutex_);
  state_->settings.billingGracePeriodIsEnabled = enabled;
  state_->changed();
}
int LocalStore::timeRate() const {
  std::lock_guard lock(mutex_);
  return state_->settings.timeRate;
}
void LocalStore::setTimeRate(std::int64_t rate) {
  if (!isKnownTimeRate(rate)) throw std::invalid_argument(unknownTimeRateMessage(rate));
  std::lock_guard lock(mutex_);
  state_->settings.timeRate = static_cast<int>(rate);
  state_->changed();
  wakeRenewals();
}
std::string LocalStore::storefront() const {
  std::lock_guard lock(mutex_);
  return state_->settings.storefront;
}
void LocalStore::setStorefront(const std::string& countryCode) {
  const auto known = storefrontForCountry(countryCode);
  if (!known) invalid("unknown storefront \"" + countryCode + "\"");
  std::lock_guard lock(mutex_);
  state_->settings.storefront = known->countryCode;
  state_->changed();
}
std::string LocalStore::locale() const {
  std::lock_guard lock(mutex_);
  return state_->settings.locale;
}
void LocalStore::setLocale(const std::string& locale) {
  std::lock_guard lock(mutex_);
  state_->settings.locale = locale;
  state_->changed();
}

std::vector<TestTransaction> LocalStore::allTransactions() const {
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  std::vector<TestTransaction> result;
  for (const auto& row : state.ledger->transactions(Selection::everything)) {
    TestTransaction entry;
    entry.identifier = row.id;
    entry.productIdentifier = row.productID;
    entry.state = static_cast<TestTransaction::State>(row.state);
    entry.pendingAskToBuyConfirmation = row.state == EntryState::pendingAskToBuy;
    entry.hasPurchaseIssue = row.state == EntryState::interrupted;
    entry.finished = row.finished;
    entry.revoked = row.revocationDate.has_value();
    entry.upgraded = row.upgraded;
    entry.familyShared = row.familyShared;
    if (row.state == EntryState::purchased) {
      entry.jwsRepresentation = state.ledger->signedForm(row.id).value_or("");
      entry.purchaseDate = row.purchaseDate;
      entry.expirationDate = row.expiresDate;
      entry.originalTransactionIdentifier = row.originalID;
      if (const auto* group = state.groupOf(row)) {
        entry.autoRenewingEnabled = group->autoRenew && group->latestID == row.id;
      }
    }
    result.push_back(std::move(entry));
  }
  return result;
}

void LocalStore::clearTransactions() {
  std::lock_guard lock(mutex_);
  state_->commit([&](LedgerWrite& write) {
    write.removeHistory();
    state_->groups.clear();
  });
  state_->verificationFailures.clear();
  wakeRenewals();
}

void LocalStore::deleteTransaction(std::uint64_t identifier) {
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  if (!state.ledger->transaction(identifier)) invalid("no transaction " + idText(identifier));
  state.commit([&](LedgerWrite& write) {
    write.removeTransaction(identifier);
    for (auto it = state.groups.begin(); it != state.groups.end();) {
      if (it->second.latestID == identifier) {
        write.removeGroup(it->first);
        it = state.groups.erase(it);
      } else {
        ++it;
      }
    }
  });
  wakeRenewals();
}

void LocalStore::resetToDefaultState() {
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  state.commit([&](LedgerWrite& write) {
    write.removeHistory();
    state.groups.clear();
    state.clockOffset = std::chrono::milliseconds(0);
    state.putCounters(write);
  });
  state.applySettings(state.configuration.settings);
  state.verificationFailures.clear();
  state.storefrontAvailable = true;
  state.nextPurchase.reset();
  wakeRenewals();
}

SignedTransaction LocalStore::buyProduct(const PurchaseRequest& request) {
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  const auto* product = state.configuration.product(request.productID);
  if (!product) throw StoreFailureError::purchase("productUnavailable");
  const auto checked = state.check(*product, request);
  bool created = false;
  SignedTransaction made;
  state.commit([&](LedgerWrite& write) {
    made = state.completePurchase(write, *product, checked, std::nullopt, created);
  });
  if (created) state.broadcast({made});
  // A purchase that changes a subscription's schedule has set the renewal thread's wake flag;
  // any other leaves the thread asleep (woken, it would only wait for this lock and sleep again).
  if (state.wake) timerChanged_.notify_all();
  return made;
}

SignedTransaction LocalStore::buyProduct(const std::string& productID) {
  PurchaseRequest request;
  request.productID = productID;
  return buyProduct(request);
}

SignedTransaction LocalStore::redeemOfferCode(const std::string& productID, const std::string& offerID) {
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  const auto* product = state.configuration.product(productID);
  if (!product) throw StoreFailureError::purchase("productUnavailable");
  const auto it = std::find_if(product->codeOffers.begin(), product->codeOffers.end(), [&](const auto& offer) {
    return offer.offerID == offerID || offer.referenceName == offerID || offer.internalID == offerID;
  });
  if (it == product->codeOffers.end()) throw StoreFailureError::purchase("invalidOfferIdentifier");
  CheckedRequest request;
  request.productID = productID;
  request.offer = AppliedOffer{3, it->offerID.value_or(offerID), *it};
  bool created = false;
  SignedTransaction made;
  state.commit([&](LedgerWrite& write) {
    made = state.completePurchase(write, *product, request, std::nullopt, created);
  });
  if (created) state.broadcast({made});
  wakeRenewals();
  return made;
}

namespace {
// Carries out a purchase that waited (ask to buy) or was interrupted, under its own id.
template <class State>
void completeWaiting(State& state, std::uint64_t identifier, EntryState expected, const char* what) {
  const auto row = state.ledger->transaction(identifier);
  if (!row || row->state != expected) invalid(std::string("no ") + what + " " + idText(identifier));
  const auto request = state.waitingRequest(*row);
  const auto* product = state.configuration.product(request.productID);
  if (!product) invalid("the product of " + std::string(what) + " " + idText(identifier) + " is gone");
  bool created = false;
  SignedTransaction made;
  state.commit([&](LedgerWrite& write) {
    write.removeTransaction(identifier);
    made = state.completePurchase(write, *product, request, identifier, created);
  });
  if (created) state.broadcast({made});
}
}  // namespace

void LocalStore::approveAskToBuyTransaction(std::uint64_t identifier) {
  std::lock_guard lock(mutex_);
  completeWaiting(*state_, identifier, EntryState::pendingAskToBuy, "pending ask-to-buy request");
  wakeRenewals();
}

void LocalStore::declineAskToBuyTransaction(std::uint64_t identifier) {
  std::lock_guard lock(mutex_);
  auto row = state_->ledger->transaction(identifier);
  if (!row || row->state != EntryState::pendingAskToBuy) {
    invalid("no pending ask-to-buy request " + idText(identifier));
  }
  row->state = EntryState::declined;
  state_->commit([&](LedgerWrite& write) { write.putTransaction(*row); });
}

void LocalStore::resolveIssueForTransaction(std::uint64_t identifier) {
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  // A subscription's billing issue, or else an interrupted purchase.
  std::optional<SignedTransaction> recovered;
  state.commit([&](LedgerWrite& write) { recovered = state.recoverBillingIssue(write, identifier); });
  if (recovered) {
    state.broadcast({*recovered});
  } else {
    completeWaiting(state, identifier, EntryState::interrupted, "interrupted purchase or billing issue");
  }
  wakeRenewals();
}

void LocalStore::expireSubscription(const std::string& productID) {
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  auto* group = state.groupWithLatestProduct(productID);
  if (!group || !state.isActive(*group)) invalid("no active subscription to " + productID);
  auto latest = state.draftOf(group->latestID);
  if (!latest) invalid("no active subscription to " + productID);
  latest->payload["expiresDate"] = platform::millisecondsSince1970(state.now());
  auto changed = *group;
  changed.autoRenew = false;
  state.commit([&](LedgerWrite& write) {
    state.sign(write, *latest);
    state.putGroup(write, changed);
  });
  wakeRenewals();
}

void LocalStore::forceRenewalOfSubscription(const std::string& productID) {
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  auto* group = state.groupWithLatestProduct(productID);
  if (!group) invalid("no subscription to " + productID);
  auto changed = *group;
  std::optional<SignedTransaction> renewal;
  state.commit([&](LedgerWrite& write) {
    renewal = state.renew(write, changed, state.now());
    if (!renewal) return;
    changed.autoRenew = true;
    state.putGroup(write, changed);
    state.notify(write, "DID_RENEW", "", renewal->id);
  });
  if (!renewal) invalid(productID + " can no longer renew");
  state.broadcast({*renewal});
  wakeRenewals();
}

void LocalStore::disableAutoRenewForTransaction(std::uint64_t identifier) {
  enableAutoRenew(identifier, false);
}

void LocalStore::enableAutoRenewForTransaction(std::uint64_t identifier) {
  enableAutoRenew(identifier, true);
}

void LocalStore::enableAutoRenew(std::uint64_t identifier, bool enabled) {
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  const auto row = state.ledger->transaction(identifier);
  auto* group = row ? state.groupOf(*row) : nullptr;
  if (!group) invalid("transaction " + idText(identifier) + " is not an auto-renewable subscription");
  refuseFamilyShare(state, *group, identifier);
  auto changed = *group;
  if (changed.autoRenew == enabled) return;
  changed.autoRenew = enabled;
  state.commit([&](LedgerWrite& write) {
    state.putGroup(write, changed);
    state.notify(write, "DID_CHANGE_RENEWAL_STATUS",
                 enabled ? "AUTO_RENEW_ENABLED" : "AUTO_RENEW_DISABLED", changed.latestID);
  });
  wakeRenewals();
}

namespace {
// The subscription group that transaction `identifier` belongs to.
template <class State>
LedgerGroup subscriptionOf(State& state, std::uint64_t identifier) {
  const auto row = state.ledger->transaction(identifier);
  auto* group = row ? state.groupOf(*row) : nullptr;
  if (!group) invalid("transaction " + idText(identifier) + " is not an auto-renewable subscription");
  refuseFamilyShare(state, *group, identifier);
  return *group;
}
constexpr int kIntentPriceIncrease = 3;
}  // namespace

void LocalStore::requestPriceIncreaseConsentForTransaction(std::uint64_t identifier,
                                                           const platform::Decimal& newPrice,
                                                           bool consentRequired) {
  if (newPrice.isNegative()) invalid("a price cannot be negative");
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  auto group = subscriptionOf(state, identifier);
  group.renewalPrice = newPrice.toString();
  group.priceIncreaseStatus = consentRequired ? 0 : 1;
  state.commit([&](LedgerWrite& write) {
    state.putGroup(write, group);
    state.notify(write, "PRICE_INCREASE", consentRequired ? "PENDING" : "ACCEPTED", group.latestID);
  });
}

void LocalStore::consentToPriceIncrease(std::uint64_t identifier) {
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  auto group = subscriptionOf(state, identifier);
  if (group.priceIncreaseStatus != 0) invalid("no price increase waits for consent on " + idText(identifier));
  group.priceIncreaseStatus = 1;
  if (group.expirationIntent == kIntentPriceIncrease) {
    // Consent after declining: the subscription renews again.
    group.expirationIntent.reset();
    group.autoRenew = true;
  }
  state.commit([&](LedgerWrite& write) {
    state.putGroup(write, group);
    state.notify(write, "PRICE_INCREASE", "ACCEPTED", group.latestID);
  });
  wakeRenewals();
}

void LocalStore::declinePriceIncrease(std::uint64_t identifier) {
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  auto group = subscriptionOf(state, identifier);
  if (group.priceIncreaseStatus != 0) invalid("no price increase waits for consent on " + idText(identifier));
  group.autoRenew = false;
  group.expirationIntent = kIntentPriceIncrease;
  state.commit([&](LedgerWrite& write) {
    state.putGroup(write, group);
    state.notify(write, "DID_CHANGE_RENEWAL_STATUS", "AUTO_RENEW_DISABLED", group.latestID);
  });
  wakeRenewals();
}

SignedTransaction LocalStore::shareWithFamily(const std::string& productID) {
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  const auto* product = state.configuration.product(productID);
  if (!product) invalid("no product " + productID);
  if (!product->familyShareable) invalid(productID + " is not family shareable");
  if (product->kind == ConfiguredProduct::Kind::consumable) invalid("consumables cannot be shared");
  SignedTransaction shared;
  state.commit([&](LedgerWrite& write) { shared = state.shareWithFamily(write, *product); });
  state.broadcast({shared});
  wakeRenewals();
  return shared;
}

void LocalStore::revokeFamilySharing(std::uint64_t identifier) {
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  auto draft = state.draftOf(identifier);
  if (!draft || !draft->row.familyShared) {
    invalid("transaction " + idText(identifier) + " is not shared by the family");
  }
  if (draft->row.revocationDate) invalid("transaction " + idText(identifier) + " is already revoked");
  draft->payload["revocationDate"] = platform::millisecondsSince1970(state.now());
  draft->payload["revocationReason"] = 0;
  draft->payload["revocationType"] = "FAMILY_REVOKE";
  SignedTransaction revoked;
  state.commit([&](LedgerWrite& write) {
    revoked = state.sign(write, *draft);
    // Revoking the current period of a shared subscription ends it: it renews no more.
    if (auto* group = state.groupOf(draft->row); group && group->latestID == identifier) {
      auto changed = *group;
      changed.autoRenew = false;
      changed.status = RenewalStatus::revoked;
      state.putGroup(write, changed);
    }
    state.notify(write, "REVOKE", "", identifier);
  });
  state.broadcast({revoked});
  wakeRenewals();
}

RenewalExtensionResult LocalStore::extendRenewalDate(const RenewalExtensionRequest& request) {
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  RenewalExtensionResult result;
  state.commit([&](LedgerWrite& write) { result = state.extendRenewalDate(write, request); });
  wakeRenewals();
  return result;
}

void LocalStore::setSimulatedError(StoreKitAPI api, std::optional<StoreFailure> error) {
  if (error && !error->fits(api)) invalid("this error cannot be simulated for that call");
  if (error && api == StoreKitAPI::verification) allowVerificationFailures();
  std::lock_guard lock(mutex_);
  if (error) {
    state_->simulatedErrors.insert_or_assign(api, std::move(*error));
  } else {
    state_->simulatedErrors.erase(api);
  }
}

void LocalStore::setVerificationFailure(std::uint64_t identifier, std::optional<StoreFailure> error) {
  if (error && error->family != StoreFailure::Family::verification) {
    invalid("only a verification error can make a transaction fail verification");
  }
  if (error) allowVerificationFailures();
  std::lock_guard lock(mutex_);
  if (error) {
    state_->verificationFailures.insert_or_assign(identifier, std::move(*error));
  } else {
    state_->verificationFailures.erase(identifier);
  }
}

void LocalStore::setStorefrontAvailable(bool available) {
  std::lock_guard lock(mutex_);
  state_->storefrontAvailable = available;
}

void LocalStore::setNextPurchaseResult(std::optional<NextPurchaseResult> result) {
  std::lock_guard lock(mutex_);
  state_->nextPurchase = result;
}

// --- For tests --------------------------------------------------------------------------------

SignedTransaction LocalStore::insertTransaction(json::object payload) {
  auto text = [&](const char* key) -> std::string {
    const auto* value = payload.if_contains(key);
    if (!value || !value->is_string()) invalid(std::string("the payload has no ") + key);
    return std::string(value->get_string());
  };
  auto number = [](const std::string& digits) -> std::uint64_t {
    try {
      std::size_t used = 0;
      const auto value = std::stoull(digits, &used);
      if (used == digits.size()) return value;
    } catch (const std::exception&) {
    }
    invalid("\"" + digits + "\" is not a transaction identifier");
  };
  Draft draft;
  draft.row.id = number(text("transactionId"));
  const auto* original = payload.if_contains("originalTransactionId");
  draft.row.originalID = original && original->is_string() ? number(std::string(original->get_string())) : draft.row.id;
  draft.row.productID = text("productId");
  draft.row.productType = text("type");
  if (const auto* group = payload.if_contains("subscriptionGroupIdentifier"); group && group->is_string()) {
    draft.row.groupID = std::string(group->get_string());
  }
  const auto* purchased = payload.if_contains("purchaseDate");
  if (!purchased || !purchased->is_int64()) invalid("the payload has no purchaseDate");
  draft.payload = std::move(payload);
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  SignedTransaction inserted;
  state.commit([&](LedgerWrite& write) {
    // Signed as given, signedDate included.
    draft.row.payload = json::serialize(draft.payload);
    draft.row.signedForm = authority_->sign(draft.row.payload);
    const auto* expires = draft.payload.if_contains("expiresDate");
    draft.row.purchaseDate = platform::dateFromMillisecondsSince1970(purchased->get_int64());
    if (expires && expires->is_int64()) {
      draft.row.expiresDate = platform::dateFromMillisecondsSince1970(expires->get_int64());
    }
    write.putTransaction(draft.row);
    state.nextID = std::max(state.nextID, draft.row.id + 1);
    state.putCounters(write);
    inserted = {draft.row.id, draft.row.signedForm};
  });
  return inserted;
}

void LocalStore::replaceSignedTransaction(std::uint64_t identifier, std::string jws) {
  std::lock_guard lock(mutex_);
  auto row = state_->ledger->transaction(identifier);
  if (!row || row->state != EntryState::purchased) invalid("no transaction " + idText(identifier));
  row->signedForm = std::move(jws);
  state_->commit([&](LedgerWrite& write) { write.putTransaction(*row); });
}

std::optional<std::string> LocalStore::signedPayload(std::uint64_t identifier) {
  std::lock_guard lock(mutex_);
  const auto row = state_->ledger->transaction(identifier);
  if (!row || row->payload.empty()) return std::nullopt;
  return row->payload;
}

std::string LocalStore::resignedTransaction(std::uint64_t identifier, const std::string& environment) {
  std::lock_guard lock(mutex_);
  auto draft = state_->draftOf(identifier);
  if (!draft) invalid("no transaction " + idText(identifier));
  draft->payload["environment"] = environment;
  return authority_->sign(json::serialize(draft->payload));
}

}  // namespace appstore
