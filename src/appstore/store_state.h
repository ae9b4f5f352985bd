// The state behind a LocalStore and the rules that change it: purchases, upgrades and
// downgrades, renewals, the payloads the store signs, and the single path by which every
// change reaches the ledger. Private to the store's own files; every member runs with the
// store's lock held.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <boost/json/object.hpp>

#include "appstore/ledger.h"
#include "appstore/local_store.h"

namespace appstore {

// An offer a transaction is bought with.
struct AppliedOffer {
  std::int64_t type = 0;  // the signed payload's offerType: 1 introductory ... 4 win-back
  std::optional<std::string> id;
  ConfiguredOffer terms;
};

// A purchase the store will carry out, checked against the catalogue.
struct CheckedRequest {
  std::string productID;
  std::int64_t quantity = 1;
  std::optional<platform::UUID> appAccountToken;
  std::optional<AppliedOffer> offer;
  bool askToBuy = false;
  std::optional<platform::Decimal> unitPrice;  // instead of the product's (a price increase)
};

// Texts shared by the files of the store.
std::string lowercase(std::string text);
const char* paymentModeName(ConfiguredOffer::Mode mode);  // "FREE_TRIAL", ...
std::optional<std::int64_t> milliunits(const platform::Decimal& price);
// An offer as the ledger keeps it (JSON); nothing when it cannot be read back.
std::optional<AppliedOffer> offerFromJSON(const boost::json::value& value);

// A subscription subscribed again, with no expiry, billing issue or grace pending.
void clearRenewalIssues(LedgerGroup& group);

// A transaction being made or changed: its row and the payload the store signs.
struct Draft {
  LedgerTransaction row;
  boost::json::object payload;
};

class LocalStore::State {
 public:
  using milliseconds = std::chrono::milliseconds;

  // Reads what the ledger keeps; a ledger without a signing identity is given `authority`
  // (or a new one when null) and keeps it from then on.
  State(std::unique_ptr<Ledger> ledger, std::shared_ptr<const SigningAuthority> authority);

  // The one way a change reaches the ledger: `change` writes through the LedgerWrite and may
  // update the caches below; it is committed before this returns. When anything fails the
  // caches are read back from the ledger, so the store is as it was, and the error goes on.
  template <class Change>
  void commit(Change&& change) {
    try {
      ledger->write([&](LedgerWrite& write) { change(write); });
    } catch (...) {
      reload();
      throw;
    }
    changed();
  }

  platform::Date now() const { return platform::now() + clockOffset; }
  Storefront storefront() const;
  void throwIfSimulated(StoreKitAPI api) const;
  void applySettings(const StoreSettings& newSettings);

  CheckedRequest check(const ConfiguredProduct& product, const PurchaseRequest& request) const;
  // Turns a request into a transaction (or finds the one that already covers it). Sets
  // `created` when a new transaction was made. Writes through `write`.
  SignedTransaction completePurchase(LedgerWrite& write, const ConfiguredProduct& product,
                                     const CheckedRequest& request,
                                     std::optional<std::uint64_t> presetID, bool& created);
  // Access a family member's purchase of `product` gives this account: a transaction of its
  // own, owned as family shared. Writes through `write`.
  SignedTransaction shareWithFamily(LedgerWrite& write, const ConfiguredProduct& product);
  // A purchase that waits (ask to buy) or failed in the app (interrupted).
  void putWaitingRequest(LedgerWrite& write, std::uint64_t id, const CheckedRequest& request,
                         TestTransaction::State state);
  CheckedRequest waitingRequest(const LedgerTransaction& row) const;

  // The subscription lifecycle (store_lifecycle.cpp). renew() makes the next period's
  // transaction, starting at `purchaseDate`; renewDue() moves every subscription along to the
  // store clock's now (renewals, failed renewals, grace, billing retry, expiry) and returns the
  // transactions it made; nextRenewal() is when it next has something to do.
  std::optional<SignedTransaction> renew(LedgerWrite& write, LedgerGroup& group,
                                         platform::Date purchaseDate);
  std::vector<SignedTransaction> renewDue(LedgerWrite& write);
  std::optional<platform::Date> nextRenewal();
  // Subscribed or in the grace period, and not past its end.
  bool isActive(const LedgerGroup& group);
  // The group's subscription after a purchase (or a family share) of `product` made it
  // `transactionID`: `held` carried on, or a new chain when there is none; renewing, with no
  // pending change, billing issue, price increase or offer periods left.
  LedgerGroup subscribedBy(std::optional<LedgerGroup> held, const ConfiguredProduct& product,
                           std::uint64_t transactionID, platform::Date purchaseDate);
  // The group's subscription is the family's (shared by the organizer), not the account's own.
  bool isFamilyShare(const LedgerGroup& group);
  // The billing issue of the subscription whose latest transaction is `latestID` resolved: the
  // renewal that failed happens now. Nothing when there is no such issue.
  std::optional<SignedTransaction> recoverBillingIssue(LedgerWrite& write, std::uint64_t latestID);
  // A family share is refused (a member's access is not extended directly) unless
  // `withOrganizer`: a mass extension reaches the organizer, and the member's access with it.
  RenewalExtensionResult extendRenewalDate(LedgerWrite& write,
                                           const RenewalExtensionRequest& request,
                                           bool withOrganizer = false);
  // Throws RenewalExtensionRefused for days, a reason or a request identifier out of range.
  static void checkExtensionTerms(std::int64_t extendByDays, std::int64_t extendReasonCode,
                                  const std::string& requestIdentifier);
  // The renewal info the store signs for `group` as it stands.
  std::string signedRenewalInfo(const LedgerGroup& group);

  // Signs the draft's payload (with a fresh signedDate) and stores it.
  SignedTransaction sign(LedgerWrite& write, Draft& draft);
  // The stored transaction with its payload, ready to change and sign again.
  std::optional<Draft> draftOf(std::uint64_t id);
  // Stores the group with its renewal info signed anew.
  void putGroup(LedgerWrite& write, LedgerGroup group);
  void putCounters(LedgerWrite& write);
  LedgerGroup* groupOf(const LedgerTransaction& row);
  LedgerGroup* groupWithLatestProduct(const std::string& productID);
  LedgerGroup* groupWithOriginalID(std::uint64_t originalID);

  void broadcast(const std::vector<SignedTransaction>& transactions);

  // Server Notifications (store_notifications.cpp). Each is signed and added to the outbox in
  // the write that makes the change it tells of, dated `at` (the store clock's now when
  // absent); nothing is made while no notifications URL is set. notify() tells of transaction
  // `transactionID` (after this write's changes), with its subscription's renewal info and
  // status when it is an auto-renewable one.
  void notify(LedgerWrite& write, std::string_view type, std::string_view subtype,
              std::uint64_t transactionID, std::optional<platform::Date> at = std::nullopt);
  // A notification whose body is `body` ("data" or "summary" with its members); answers it.
  LedgerNotification notifyWith(LedgerWrite& write, std::string_view type, std::string_view subtype,
                                boost::json::object body, std::optional<std::uint64_t> originalID,
                                std::optional<platform::Date> at = std::nullopt);
  // What every notification's data carries about the app.
  boost::json::object appData() const;
  // The expiry notification's subtype for an expiration intent.
  static const char* expirySubtype(std::optional<int> expirationIntent);

  std::shared_ptr<const SigningAuthority> authority;
  std::unique_ptr<Ledger> ledger;

  StoreConfiguration configuration;
  StoreSettings settings;
  std::string bundleID = "com.vorntesk.example";
  std::string environment = "Xcode";
  std::map<StoreKitAPI, StoreFailure> simulatedErrors;
  std::map<std::uint64_t, StoreFailure> verificationFailures;
  bool storefrontAvailable = true;
  std::optional<NextPurchaseResult> nextPurchase;
  std::vector<TransactionListener> listeners;
  bool wake = false;
  std::string notificationsURL;  // empty: no notifications are made
  std::string serverURL;
  // Told, with the store's lock held, of every change committed and every setting changed.
  std::map<std::uint64_t, std::function<void()>> changeListeners;
  std::uint64_t nextChangeListener = 1;
  void changed() {
    for (const auto& [id, listener] : changeListeners) listener();
  }

  // What the ledger keeps, cached; reload() reads it back.
  platform::UUID deviceID{platform::UUID::Bytes{}};
  std::string appTransactionID;
  milliseconds clockOffset{0};
  std::uint64_t nextID = 1;
  std::uint64_t nextWebOrderLineItemID = 10000;
  std::map<std::string, LedgerGroup> groups;

 private:
  void reload();
  Draft newTransaction(const ConfiguredProduct& product, const CheckedRequest& request,
                       const std::string& reason, platform::Date purchaseDate,
                       const std::optional<AppliedOffer>& offer, const LedgerGroup* group,
                       std::optional<std::uint64_t> presetID);
};

}  // namespace appstore
