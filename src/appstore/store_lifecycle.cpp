// The subscription lifecycle on the store clock: renewals, renewals that fail for a billing
// issue, the billing grace period, billing retry, recovery and expiry, and the renewal info
// the store signs for each subscription as it stands.
#include <algorithm>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include "appstore/store_state.h"
#include "appstore/subscription_rules.h"

namespace appstore {
namespace json = boost::json;
using Kind = ConfiguredProduct::Kind;

namespace {

// Steps taken for one subscription in one go; a store left alone for ages at a fast time rate
// would otherwise produce an unbounded history.
constexpr int kMaxStepsPerCatchUp = 1000;

constexpr int kIntentCancelled = 1, kIntentBillingError = 2, kIntentPriceIncrease = 3,
              kIntentUnavailable = 4;

json::object payloadOf(const LedgerTransaction& row) {
  json::error_code ec;
  auto parsed = json::parse(row.payload, ec);
  return !ec && parsed.is_object() ? std::move(parsed.get_object()) : json::object{};
}

}  // namespace

bool LocalStore::State::isActive(const LedgerGroup& group) {
  if (group.status == RenewalStatus::gracePeriod) return true;
  if (group.status != RenewalStatus::subscribed) return false;
  const auto latest = ledger->transaction(group.latestID);
  if (!latest || latest->revocationDate || latest->upgraded) return false;
  return latest->expiresDate && *latest->expiresDate > now();
}

std::optional<SignedTransaction> LocalStore::State::renew(LedgerWrite& write, LedgerGroup& group,
                                                          platform::Date purchaseDate) {
  const auto latest = ledger->transaction(group.latestID);
  if (!latest) return std::nullopt;
  const auto* product = configuration.product(group.pendingProductID.value_or(latest->productID));
  if (!product || product->kind != Kind::autoRenewable) {
    group.autoRenew = false;
    group.expirationIntent = kIntentUnavailable;
    putGroup(write, group);
    return std::nullopt;
  }
  CheckedRequest request;
  request.productID = product->productID;
  const auto payload = payloadOf(*latest);
  if (const auto* token = payload.if_contains("appAccountToken"); token && token->is_string()) {
    request.appAccountToken = platform::UUID::fromString(token->get_string());
  }
  std::optional<AppliedOffer> offer;
  if (group.offerPeriodsLeft > 0 && !group.continuingOffer.empty()) {
    json::error_code ec;
    offer = offerFromJSON(json::parse(group.continuingOffer, ec));
    if (ec || (offer && offer->terms.paymentMode != ConfiguredOffer::Mode::payAsYouGo)) offer.reset();
    if (offer) {
      // A renewal bills one discounted period at a time.
      offer->terms.numberOfPeriods = 1;
      --group.offerPeriodsLeft;
    }
  }
  // A price increase applies from the renewal it was announced for, and stays.
  if (!group.renewalPrice.empty() && product->productID == latest->productID) {
    request.unitPrice = platform::Decimal::parse(group.renewalPrice);
  }
  group.priceIncreaseStatus.reset();
  auto draft = newTransaction(*product, request, "RENEWAL", purchaseDate, offer, &group, std::nullopt);
  // A family member's access renews with the organizer's subscription, shared as before.
  if (latest->familyShared) draft.payload["inAppOwnershipType"] = "FAMILY_SHARED";
  const auto signedTransaction = sign(write, draft);
  group.latestID = draft.row.id;
  group.pendingProductID.reset();
  clearRenewalIssues(group);
  putGroup(write, group);
  putCounters(write);
  return signedTransaction;
}

std::vector<SignedTransaction> LocalStore::State::renewDue(LedgerWrite& write) {
  std::vector<SignedTransaction> renewed;
  const auto current = now();
  for (auto& [id, cached] : groups) {
    auto group = cached;
    bool changed = false;
    for (int step = 0; step < kMaxStepsPerCatchUp; ++step) {
      const auto latest = ledger->transaction(group.latestID);
      if (!latest || latest->upgraded) break;
      if (latest->revocationDate) {
        changed |= group.status != RenewalStatus::revoked;
        group.status = RenewalStatus::revoked;
        break;
      }
      if (group.status == RenewalStatus::subscribed) {
        if (!latest->expiresDate || *latest->expiresDate > current) break;
        const auto due = *latest->expiresDate;
        changed = true;
        if (!group.autoRenew || group.priceIncreaseStatus == 0) {
          // Cancelled, or a price increase the customer never agreed to: the period ends.
          group.status = RenewalStatus::expired;
          if (group.priceIncreaseStatus == 0) {
            group.expirationIntent = kIntentPriceIncrease;
            group.autoRenew = false;
          }
          if (!group.expirationIntent) group.expirationIntent = kIntentCancelled;
          putGroup(write, group);
          notify(write, "EXPIRED", expirySubtype(group.expirationIntent), group.latestID, due);
          changed = false;
          break;
        }
        // The organizer pays for a family share: this account's billing issues do not touch it.
        if (settings.shouldEnterBillingRetryOnRenewal && !latest->familyShared) {
          group.billingIssueSince = due;
          if (settings.billingGracePeriodIsEnabled) {
            const auto* product = configuration.product(latest->productID);
            const auto period = product ? product->period : SubscriptionPeriod{};
            group.status = RenewalStatus::gracePeriod;
            group.gracePeriodExpires = due + gracePeriodLength(period, settings.timeRate);
          } else {
            group.status = RenewalStatus::billingRetry;
          }
          putGroup(write, group);
          notify(write, "DID_FAIL_TO_RENEW",
                 group.status == RenewalStatus::gracePeriod ? "GRACE_PERIOD" : "", group.latestID, due);
          changed = false;
          continue;
        }
        auto renewal = renew(write, group, due);
        if (!renewal) continue;  // no longer for sale: expires on the next step
        notify(write, "DID_RENEW", "", renewal->id, due);
        changed = false;
        renewed.push_back(std::move(*renewal));
      } else if (group.status == RenewalStatus::gracePeriod) {
        if (!group.gracePeriodExpires || *group.gracePeriodExpires > current) break;
        const auto ended = *group.gracePeriodExpires;
        group.status = RenewalStatus::billingRetry;
        group.gracePeriodExpires.reset();
        putGroup(write, group);
        notify(write, "GRACE_PERIOD_EXPIRED", "", group.latestID, ended);
        changed = false;
      } else if (group.status == RenewalStatus::billingRetry) {
        const auto since = group.billingIssueSince.value_or(current);
        if (since + billingRetryLength(settings.timeRate) > current) break;
        group.status = RenewalStatus::expired;
        group.expirationIntent = kIntentBillingError;
        group.billingIssueSince.reset();
        putGroup(write, group);
        notify(write, "EXPIRED", expirySubtype(group.expirationIntent), group.latestID,
               since + billingRetryLength(settings.timeRate));
        changed = false;
        break;
      } else {
        break;
      }
    }
    if (changed) putGroup(write, group);
  }
  return renewed;
}

std::optional<platform::Date> LocalStore::State::nextRenewal() {
  std::optional<platform::Date> next;
  const auto consider = [&](platform::Date date) {
    if (!next || date < *next) next = date;
  };
  for (const auto& [id, group] : groups) {
    switch (group.status) {
      case RenewalStatus::subscribed: {
        const auto latest = ledger->transaction(group.latestID);
        if (!latest || latest->revocationDate || latest->upgraded) break;
        if (latest->expiresDate) consider(*latest->expiresDate);
        break;
      }
      case RenewalStatus::gracePeriod:
        if (group.gracePeriodExpires) consider(*group.gracePeriodExpires);
        break;
      case RenewalStatus::billingRetry:
        consider(group.billingIssueSince.value_or(now()) + billingRetryLength(settings.timeRate));
        break;
      case RenewalStatus::expired:
      case RenewalStatus::revoked:
        break;
    }
  }
  return next;
}

std::optional<SignedTransaction> LocalStore::State::recoverBillingIssue(LedgerWrite& write,
                                                                        std::uint64_t latestID) {
  for (auto& [id, cached] : groups) {
    if (cached.latestID != latestID) continue;
    if (cached.status != RenewalStatus::gracePeriod && cached.status != RenewalStatus::billingRetry) {
      return std::nullopt;
    }
    auto group = cached;
    // Within the grace period the customer never lost access: the period renews from when it
    // was due. Once in billing retry the paid time paused, and it starts again now.
    const auto start = group.status == RenewalStatus::gracePeriod
                           ? group.billingIssueSince.value_or(now())
                           : now();
    auto renewal = renew(write, group, start);
    if (renewal) notify(write, "DID_RENEW", "BILLING_RECOVERY", renewal->id);
    return renewal;
  }
  return std::nullopt;
}

void LocalStore::State::checkExtensionTerms(std::int64_t extendByDays,
                                            std::int64_t extendReasonCode,
                                            const std::string& requestIdentifier) {
  using Reason = RenewalExtensionRefused::Reason;
  if (extendByDays < 1 || extendByDays > 90) {
    throw RenewalExtensionRefused(Reason::invalidExtendByDays, "extendByDays must be 1 to 90");
  }
  if (extendReasonCode < 0 || extendReasonCode > 3) {
    throw RenewalExtensionRefused(Reason::invalidExtendReasonCode, "extendReasonCode must be 0 to 3");
  }
  if (requestIdentifier.empty() || requestIdentifier.size() > 128) {
    throw RenewalExtensionRefused(Reason::invalidRequestIdentifier,
                                  "requestIdentifier must be 1 to 128 characters");
  }
}

RenewalExtensionResult LocalStore::State::extendRenewalDate(LedgerWrite& write,
                                                           const RenewalExtensionRequest& request,
                                                           bool withOrganizer) {
  using Reason = RenewalExtensionRefused::Reason;
  const auto refuse = [](Reason reason, const std::string& why) {
    throw RenewalExtensionRefused(reason, why);
  };
  checkExtensionTerms(request.extendByDays, request.extendReasonCode, request.requestIdentifier);
  const auto* found = groupWithOriginalID(request.originalTransactionID);
  if (!found) {
    const auto row = ledger->transaction(request.originalTransactionID);
    if (row && row->familyShared) {
      refuse(Reason::familyShared, "a family member's access cannot be extended directly");
    }
    refuse(Reason::notFound, "no subscription " + std::to_string(request.originalTransactionID));
  }
  if (!withOrganizer && isFamilyShare(*found)) {
    refuse(Reason::familyShared, "a family member's access cannot be extended directly");
  }
  auto group = *found;
  const auto current = now();
  json::error_code ec;
  auto granted = json::parse(group.extensions.empty() ? "[]" : group.extensions, ec);
  if (ec || !granted.is_array()) granted = json::array{};
  auto latest = draftOf(group.latestID);
  if (!latest) refuse(Reason::notFound, "no subscription " + std::to_string(request.originalTransactionID));
  const auto* webOrder = latest->payload.if_contains("webOrderLineItemId");
  const std::string webOrderLineItemID = webOrder && webOrder->is_string() ? std::string(webOrder->get_string()) : "";
  // The same request again answers as the first time did.
  for (const auto& entry : granted.as_array()) {
    const auto* id = entry.is_object() ? entry.as_object().if_contains("request") : nullptr;
    if (id && id->is_string() && id->get_string() == request.requestIdentifier) {
      const auto effective = entry.as_object().if_contains("effective");
      return {group.originalID, webOrderLineItemID, true,
              platform::dateFromMillisecondsSince1970(effective ? effective->to_number<std::int64_t>() : 0)};
    }
  }
  const auto* offer = latest->payload.if_contains("offerDiscountType");
  if (!isActive(group) || group.status != RenewalStatus::subscribed ||
      (offer && *offer == "FREE_TRIAL")) {
    refuse(Reason::ineligible, "the subscription is not active in a paid period");
  }
  int recent = 0;
  for (const auto& entry : granted.as_array()) {
    const auto* date = entry.is_object() ? entry.as_object().if_contains("date") : nullptr;
    if (date && platform::dateFromMillisecondsSince1970(date->to_number<std::int64_t>()) >
                    current - std::chrono::days(365)) {
      ++recent;
    }
  }
  if (recent >= 2) refuse(Reason::maximumReached, "two extensions were granted in the last 365 days");

  const auto effective = *latest->row.expiresDate + scaledDays(request.extendByDays, settings.timeRate);
  latest->payload["expiresDate"] = platform::millisecondsSince1970(effective);
  sign(write, *latest);
  granted.as_array().push_back({{"request", request.requestIdentifier},
                                {"date", platform::millisecondsSince1970(current)},
                                {"days", request.extendByDays},
                                {"reason", request.extendReasonCode},
                                {"effective", platform::millisecondsSince1970(effective)}});
  group.extensions = json::serialize(granted);
  putGroup(write, group);
  notify(write, "RENEWAL_EXTENDED", "", group.latestID);
  return {group.originalID, webOrderLineItemID, true, effective};
}

std::string LocalStore::State::signedRenewalInfo(const LedgerGroup& group) {
  const auto latest = ledger->transaction(group.latestID);
  if (!latest) return {};
  const auto transaction = payloadOf(*latest);
  const auto& renewingID = group.pendingProductID.value_or(latest->productID);
  const auto* renewing = configuration.product(renewingID);

  json::object p;
  p["originalTransactionId"] = std::to_string(group.originalID);
  p["productId"] = latest->productID;
  p["autoRenewProductId"] = renewingID;
  p["autoRenewStatus"] = group.autoRenew ? 1 : 0;
  if (group.status == RenewalStatus::expired && group.expirationIntent) {
    p["expirationIntent"] = *group.expirationIntent;
  }
  p["isInBillingRetryPeriod"] =
      group.status == RenewalStatus::billingRetry || group.status == RenewalStatus::gracePeriod;
  if (group.status == RenewalStatus::gracePeriod && group.gracePeriodExpires) {
    p["gracePeriodExpiresDate"] = platform::millisecondsSince1970(*group.gracePeriodExpires);
  }
  if (group.priceIncreaseStatus) p["priceIncreaseStatus"] = *group.priceIncreaseStatus;
  // The offer the next renewal is billed at, while a pay-as-you-go offer lasts.
  std::optional<AppliedOffer> offer;
  if (group.offerPeriodsLeft > 0 && !group.continuingOffer.empty()) {
    json::error_code ec;
    offer = offerFromJSON(json::parse(group.continuingOffer, ec));
    if (offer) {
      p["offerType"] = offer->type;
      if (offer->id) p["offerIdentifier"] = *offer->id;
      p["offerDiscountType"] = paymentModeName(offer->terms.paymentMode);
      p["offerPeriod"] = offer->terms.period.isoString();
    }
  }
  p["signedDate"] = platform::millisecondsSince1970(now());
  p["environment"] = environment;
  p["recentSubscriptionStartDate"] =
      platform::millisecondsSince1970(group.recentStart.value_or(group.originalPurchaseDate));
  if (latest->expiresDate) p["renewalDate"] = platform::millisecondsSince1970(*latest->expiresDate);
  auto price = renewing ? std::optional(renewing->price) : std::nullopt;
  if (!group.renewalPrice.empty()) price = platform::Decimal::parse(group.renewalPrice);
  if (offer) price = offer->terms.price;
  if (const auto value = price ? milliunits(*price) : std::nullopt) {
    p["renewalPrice"] = *value;
    p["currency"] = storefront().currency;
  }
  if (const auto* token = transaction.if_contains("appAccountToken")) p["appAccountToken"] = *token;
  // An expired subscriber can come back with the product's win-back offers.
  if (group.status == RenewalStatus::expired && renewing && !renewing->winBackOffers.empty()) {
    json::array ids;
    for (const auto& offer : renewing->winBackOffers) {
      if (offer.offerID) ids.push_back(json::string(*offer.offerID));
    }
    if (!ids.empty()) p["eligibleWinBackOfferIds"] = std::move(ids);
  }
  p["appTransactionId"] = appTransactionID;
  return authority->sign(json::serialize(p));
}

}  // namespace appstore
