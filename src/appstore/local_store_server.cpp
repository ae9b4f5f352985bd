// What the LocalStore answers a developer's server: the purchase and refund history, the app
// transaction, app account tokens, consumption information and renewal-date extensions for
// every subscriber of a product.
#include <algorithm>
#include <stdexcept>

#include <boost/json/serialize.hpp>

#include "appstore/local_store.h"
#include "appstore/store_state.h"
#include "platform/base64.h"

namespace appstore {
namespace json = boost::json;

namespace {

[[noreturn]] void invalid(const std::string& message) { throw std::invalid_argument(message); }

// The app's versions as the sandbox reports them: it knows no build of the app.
constexpr const char* kApplicationVersion = "1.0";
constexpr const char* kOriginalPlatform = "iOS";
constexpr const char* kAppPurchaseDateKey = "device.appPurchaseDate";

MassRenewalExtensionStatus statusOf(const LedgerMassExtension& extension) {
  return {extension.requestIdentifier, extension.productID, extension.completeDate.has_value(),
          extension.completeDate,      extension.succeeded, extension.failed};
}

}  // namespace

std::string LocalStore::appTransactionID() const {
  std::lock_guard lock(mutex_);
  return state_->appTransactionID;
}

std::string LocalStore::signedAppTransaction() {
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  // The app was bought (downloaded) when the account first asked for its app transaction; the
  // date is kept, so that every later one agrees.
  auto purchased = state.ledger->value(kAppPurchaseDateKey);
  if (!purchased) {
    purchased = std::to_string(platform::millisecondsSince1970(state.now()));
    state.commit([&](LedgerWrite& write) { write.putValue(kAppPurchaseDateKey, *purchased); });
  }
  std::int64_t originalPurchase = 0;
  try {
    originalPurchase = std::stoll(*purchased);
  } catch (const std::exception&) {
    // A damaged value: the app counts as bought at the epoch rather than failing every call.
  }
  const auto now = platform::millisecondsSince1970(state.now());
  json::object p;
  p["receiptType"] = state.environment;
  p["bundleId"] = state.bundleID;
  p["applicationVersion"] = kApplicationVersion;
  p["versionExternalIdentifier"] = 0;
  p["receiptCreationDate"] = now;
  if (state.environment == "Xcode") p["requestDate"] = now;
  p["originalPurchaseDate"] = originalPurchase;
  p["originalApplicationVersion"] = kApplicationVersion;
  const auto nonce = platform::UUID::random();
  p["deviceVerification"] = platform::base64Encode(deviceVerificationFor(nonce, state.deviceID));
  p["deviceVerificationNonce"] = lowercase(nonce.uuidString());
  p["appTransactionId"] = state.appTransactionID;
  p["originalPlatform"] = kOriginalPlatform;
  return state.authority->sign(json::serialize(p));
}

std::optional<TransactionSummary> LocalStore::transactionSummary(std::uint64_t transactionID) {
  std::lock_guard lock(mutex_);
  const auto row = state_->ledger->transaction(transactionID);
  if (!row || row->state != EntryState::purchased) return std::nullopt;
  return TransactionSummary{row->id,          row->originalID,   row->productID,
                            row->productType, row->familyShared, row->revocationDate.has_value()};
}

HistoryPage LocalStore::transactionHistory(const HistoryQuery& query) {
  auto oneMore = query;
  ++oneMore.limit;  // tells whether another page follows
  std::vector<LedgerTransaction> rows;
  {
    std::lock_guard lock(mutex_);
    rows = state_->ledger->history(oneMore);
  }
  HistoryPage page;
  page.hasMore = rows.size() > query.limit;
  if (page.hasMore) rows.resize(query.limit);
  page.position = rows.empty() ? query.after.value_or(0) : rows.back().revision;
  for (auto& row : rows) page.transactions.push_back({row.id, std::move(row.signedForm)});
  return page;
}

RefundPage LocalStore::refundHistory(std::optional<RefundPosition> after, std::size_t limit) {
  std::vector<LedgerTransaction> rows;
  {
    std::lock_guard lock(mutex_);
    rows = state_->ledger->refunds(after, limit + 1);
  }
  RefundPage page;
  page.hasMore = rows.size() > limit;
  if (page.hasMore) rows.resize(limit);
  page.position = after;
  if (!rows.empty()) page.position = RefundPosition{*rows.back().revocationDate, rows.back().id};
  for (auto& row : rows) page.transactions.push_back({row.id, std::move(row.signedForm)});
  return page;
}

void LocalStore::setAppAccountToken(std::uint64_t originalTransactionID,
                                    const platform::UUID& token) {
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  const auto row = state.ledger->transaction(originalTransactionID);
  if (!row || row->state != EntryState::purchased || row->originalID != row->id ||
      row->familyShared) {
    invalid("no original purchase " + std::to_string(originalTransactionID));
  }
  // A subscription's earlier periods keep the token they had; the current one takes it, and
  // renewals copy it from there.
  const auto* group = state.groupOf(*row);
  if (group && group->originalID != originalTransactionID) group = nullptr;
  auto draft = state.draftOf(group ? group->latestID : originalTransactionID);
  if (!draft) invalid("no original purchase " + std::to_string(originalTransactionID));
  draft->payload["appAccountToken"] = lowercase(token.uuidString());
  state.commit([&](LedgerWrite& write) {
    state.sign(write, *draft);
    if (group) state.putGroup(write, *group);  // its renewal info carries the token too
  });
}

void LocalStore::recordConsumptionInformation(std::uint64_t transactionID,
                                              const std::string& information) {
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  const auto row = state.ledger->transaction(transactionID);
  if (!row || row->state != EntryState::purchased) {
    invalid("no transaction " + std::to_string(transactionID));
  }
  state.commit([&](LedgerWrite& write) { write.putConsumptionInformation(transactionID, information); });
}

std::optional<std::string> LocalStore::consumptionInformation(std::uint64_t transactionID) {
  std::lock_guard lock(mutex_);
  return state_->ledger->consumptionInformation(transactionID);
}

MassRenewalExtensionStatus LocalStore::extendRenewalDatesForAllSubscribers(
    const MassRenewalExtensionRequest& request) {
  using Reason = RenewalExtensionRefused::Reason;
  State::checkExtensionTerms(request.extendByDays, request.extendReasonCode,
                             request.requestIdentifier);
  std::vector<std::string> storefronts;
  if (request.storefrontCountryCodes) {
    if (request.storefrontCountryCodes->empty()) {
      throw RenewalExtensionRefused(Reason::emptyStorefrontList, "no storefront named");
    }
    for (const auto& code : *request.storefrontCountryCodes) {
      const auto known = storefrontForCountry(code);
      if (!known) throw RenewalExtensionRefused(Reason::invalidStorefront, "unknown storefront " + code);
      storefronts.push_back(known->countryCode);
    }
  }
  std::lock_guard lock(mutex_);
  auto& state = *state_;
  const auto* product = state.configuration.product(request.productID);
  if (!product || product->kind != ConfiguredProduct::Kind::autoRenewable) {
    throw RenewalExtensionRefused(Reason::invalidProductID,
                                  "no auto-renewable subscription " + request.productID);
  }
  // Sent again (after a time-out, say): the first request stands.
  if (const auto earlier = state.ledger->massExtension(request.requestIdentifier, request.productID)) {
    return statusOf(*earlier);
  }
  LedgerMassExtension record;
  record.requestIdentifier = request.requestIdentifier;
  record.productID = request.productID;
  json::object asked{{"extendByDays", request.extendByDays},
                     {"extendReasonCode", request.extendReasonCode}};
  if (request.storefrontCountryCodes) {
    json::array codes;
    for (const auto& code : storefronts) codes.emplace_back(code);
    asked["storefrontCountryCodes"] = std::move(codes);
  }
  record.request = json::serialize(asked);
  record.created = state.now();
  record.completeDate = record.created;
  // The account is in one storefront: its subscribers are all of it, or none.
  const auto accountStorefront = state.storefront().countryCode;
  const bool inStorefronts =
      storefronts.empty() ||
      std::find(storefronts.begin(), storefronts.end(), accountStorefront) != storefronts.end();
  std::vector<std::uint64_t> subscribers;
  for (const auto& [groupID, group] : state.groups) {
    const auto latest = state.ledger->transaction(group.latestID);
    if (inStorefronts && latest && latest->productID == request.productID && state.isActive(group)) {
      subscribers.push_back(group.originalID);
    }
  }
  state.commit([&](LedgerWrite& write) {
    for (const auto originalID : subscribers) {
      try {
        state.extendRenewalDate(write,
                                {originalID, request.extendByDays, request.extendReasonCode,
                                 request.requestIdentifier},
                                true);
        ++record.succeeded;
      } catch (const RenewalExtensionRefused&) {
        ++record.failed;
        if (const auto* group = state.groupWithOriginalID(originalID)) {
          state.notify(write, "RENEWAL_EXTENSION", "FAILURE", group->latestID);
        }
      }
    }
    if (!state.notificationsURL.empty()) {
      json::object summary{{"environment", state.environment},
                           {"bundleId", state.bundleID},
                           {"productId", request.productID},
                           {"requestIdentifier", request.requestIdentifier},
                           {"succeededCount", record.succeeded},
                           {"failedCount", record.failed}};
      if (request.storefrontCountryCodes) {
        json::array codes;
        for (const auto& code : storefronts) codes.emplace_back(code);
        summary["storefrontCountryCodes"] = std::move(codes);
      }
      state.notifyWith(write, "RENEWAL_EXTENSION", "SUMMARY", {{"summary", std::move(summary)}},
                       std::nullopt);
    }
    write.putMassExtension(record);
  });
  wakeRenewals();
  return statusOf(record);
}

std::optional<MassRenewalExtensionStatus> LocalStore::massRenewalExtension(
    const std::string& productID, const std::string& requestIdentifier) {
  std::lock_guard lock(mutex_);
  const auto found = state_->ledger->massExtension(requestIdentifier, productID);
  if (!found) return std::nullopt;
  return statusOf(*found);
}

}  // namespace appstore
