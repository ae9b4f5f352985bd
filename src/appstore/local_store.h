// LocalStore: the simulated App Store, like Xcode's StoreKit testing and the sandbox
// together. It serves the products of a .storekit configuration, turns purchases into signed
// transactions, keeps the account's history, subscriptions and unfinished set in its ledger
// (in memory, or in a state file that survives relaunches and kills), renews subscriptions on
// its own clock, and offers the controls of SKTestSession to tests and to the host driver.
// A device talks to it through the calls in the first section, in the App Store's terms:
// product listings, signed transactions and failures, never StoreKit's types.
//
// One store per process (LocalStore::shared()); tests may install another. Every member may
// be called from any thread. Every change a caller is told about is committed to the ledger
// before the call returns; a change that cannot be committed fails the call and leaves the
// store as it was. A background thread renews subscriptions when they come due.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include <boost/json/object.hpp>

#include "appstore/ledger.h"
#include "appstore/history_query.h"
#include "appstore/renewal_status.h"
#include "appstore/signing_authority.h"
#include "appstore/store_configuration.h"
#include "appstore/store_failure.h"
#include "appstore/storefronts.h"
#include "platform/date.h"
#include "platform/decimal.h"
#include "platform/uuid.h"

namespace appstore {

// A transaction as the store hands it to a device: its id and its compact JWS.
struct SignedTransaction {
  std::uint64_t id = 0;
  std::string jws;
};

// A subscription as its group's status reports it: where it stands, its latest transaction
// and the renewal info the store signed for it.
struct SubscriptionStatus {
  std::string groupID;
  std::uint64_t originalTransactionID = 0;
  RenewalStatus status = RenewalStatus::subscribed;
  SignedTransaction transaction;
  std::string signedRenewalInfo;
};

// A renewal-date extension of one subscription, as the App Store Server API asks for it.
struct RenewalExtensionRequest {
  std::uint64_t originalTransactionID = 0;
  std::int64_t extendByDays = 0;  // 1 to 90
  std::int64_t extendReasonCode = 0;  // 0 undeclared, 1 customer satisfaction, 2 other, 3 outage
  std::string requestIdentifier;  // 1 to 128 characters; the same one again changes nothing
};

struct RenewalExtensionResult {
  std::uint64_t originalTransactionID = 0;
  std::string webOrderLineItemID;
  bool success = true;
  platform::Date effectiveDate;  // the new expiry
};

// A renewal-date extension for every active subscriber of a product.
struct MassRenewalExtensionRequest {
  std::string productID;  // an auto-renewable subscription of the catalogue
  std::int64_t extendByDays = 0;
  std::int64_t extendReasonCode = 0;
  std::string requestIdentifier;  // the same one again for the same product changes nothing
  // Only subscribers of these storefronts (alpha-3 codes); none: every storefront.
  std::optional<std::vector<std::string>> storefrontCountryCodes;
};

// How a mass extension went. The store carries one out when asked, so it is complete at once.
struct MassRenewalExtensionStatus {
  std::string requestIdentifier;
  std::string productID;
  bool complete = false;
  std::optional<platform::Date> completeDate;
  std::int64_t succeededCount = 0;
  std::int64_t failedCount = 0;
};

// Why the store turns an extension down.
class RenewalExtensionRefused : public std::runtime_error {
 public:
  enum class Reason {
    invalidExtendByDays,
    invalidExtendReasonCode,
    invalidRequestIdentifier,
    invalidProductID,         // not an auto-renewable subscription of the catalogue
    emptyStorefrontList,      // a storefront filter that names none
    invalidStorefront,        // a storefront the App Store does not have
    notFound,       // no subscription with that original transaction id
    ineligible,     // not active, in billing retry or grace, or in a free offer period
    maximumReached, // two extensions already in the last 365 days
    familyShared,   // a family member's access, not a purchase of this account
  };
  RenewalExtensionRefused(Reason reason, const std::string& message)
      : std::runtime_error(message), reason_(reason) {}
  Reason reason() const { return reason_; }

 private:
  Reason reason_;
};

// What a developer's server is told of one purchased transaction before it acts on it.
struct TransactionSummary {
  std::uint64_t id = 0;
  std::uint64_t originalID = 0;
  std::string productID;
  std::string productType;  // the App Store's type name ("Consumable", ...)
  bool familyShared = false;
  bool revoked = false;
};

// A page of the purchase history, and the revision the next page continues from.
struct HistoryPage {
  std::vector<SignedTransaction> transactions;
  std::uint64_t position = 0;
  bool hasMore = false;
};

// A page of refunds, and where the next page continues from (none before the first refund).
struct RefundPage {
  std::vector<SignedTransaction> transactions;
  std::optional<RefundPosition> position;
  bool hasMore = false;
};

// How one attempt to deliver a notification went.
struct DeliveryResult {
  std::uint64_t sequence = 0;        // the notification's
  std::size_t earlierAttempts = 0;   // made before this one
  std::string result;  // Apple's name for it: "SUCCESS", "TIMED_OUT", "NO_RESPONSE", ...
};

// What a device asks to buy, with the options of its purchase call.
struct PurchaseRequest {
  struct PromotionalOffer {
    std::string offerID;
    std::string keyID;
    platform::UUID nonce;
    std::string signature;  // Base64
    std::int64_t timestamp = 0;
  };

  std::string productID;
  std::optional<std::int64_t> quantity;
  std::optional<platform::UUID> appAccountToken;
  std::optional<PromotionalOffer> promotionalOffer;
  std::optional<std::string> winBackOfferID;
  bool askToBuy = false;
};

struct PurchaseOutcome {
  enum class Kind { success, pending, userCancelled, unrecognized };
  Kind kind = Kind::success;
  SignedTransaction transaction;  // success only
};

// What a device needs to describe products: the configured entries asked for (in the
// store's order, repeated as asked), their groups, and the account's locale and storefront.
struct ProductListing {
  std::vector<ConfiguredProduct> products;
  std::vector<ConfiguredGroup> groups;
  std::string locale;
  Storefront storefront;
};

// One entry of the store's history as SKTestTransaction shows it.
struct TestTransaction {
  enum class State { purchased, pendingAskToBuy, declined, interrupted };

  std::uint64_t identifier = 0;
  std::string productIdentifier;
  State state = State::purchased;
  bool pendingAskToBuyConfirmation = false;
  bool hasPurchaseIssue = false;
  bool finished = false;
  bool revoked = false;
  bool upgraded = false;      // replaced at once by a higher tier of its group
  bool familyShared = false;  // a family member's purchase shared with this account
  bool autoRenewingEnabled = false;  // auto-renewable subscriptions that will renew
  std::optional<std::uint64_t> originalTransactionIdentifier;
  std::optional<platform::Date> purchaseDate;
  std::optional<platform::Date> expirationDate;
  std::string jwsRepresentation;  // empty until purchased
};

class LocalStore : public std::enable_shared_from_this<LocalStore> {
 public:
  // What the next purchase answers instead of going through.
  enum class NextPurchaseResult { userCancelled, unrecognized };
  // Which transactions a device lists.
  enum class Listing { all, currentEntitlements, unfinished };
  // Told about transactions made or changed, with the store's lock held (so it must not
  // call the store). It answers false once it wants no more.
  using TransactionListener = std::function<bool(const std::vector<SignedTransaction>&)>;

  // The process's store, made on first use: the configuration named by
  // VORNTESK_STOREKIT_CONFIG, the state file named by VORNTESK_STOREKIT_STATE (a file that
  // cannot be used is reported on stderr, and the store then keeps its ledger in memory).
  static std::shared_ptr<LocalStore> shared();
  // Installs `store` as the process's store and returns the one it replaces. Passing null
  // makes the next shared() load afresh.
  static std::shared_ptr<LocalStore> setShared(std::shared_ptr<LocalStore> store);

  // A store whose ledger is in memory, signing with `authority` (default: the process's).
  static std::shared_ptr<LocalStore> create(StoreConfiguration configuration = {},
                                            std::shared_ptr<const SigningAuthority> authority = {});
  // A store whose ledger is the state file at `statePath`, created when missing; it signs
  // with the identity the file keeps. Throws LedgerError (naming the file) for a file it
  // cannot own or read, ConfigurationError for settings it cannot honour.
  static std::shared_ptr<LocalStore> open(const std::string& statePath,
                                          StoreConfiguration configuration = {});
  // In memory, with the configuration file at `path`. Throws ConfigurationError.
  static std::shared_ptr<LocalStore> createFromFile(const std::string& path);

  ~LocalStore();
  LocalStore(const LocalStore&) = delete;
  LocalStore& operator=(const LocalStore&) = delete;

  // --- What a device calls ----------------------------------------------------------------
  // These throw StoreFailureError for what the store refuses or a session simulates, and
  // LedgerError when a change cannot be committed.
  ProductListing products(const std::vector<std::string>& ids);
  PurchaseOutcome purchase(const PurchaseRequest& request);
  void finish(std::uint64_t transactionID);
  void sync();
  std::optional<Storefront> currentStorefront();
  // The ids of the transactions a listing holds, oldest first.
  std::vector<std::uint64_t> transactionIDs(Listing listing);
  // The signed form a transaction is handed out with; nothing for an unknown id.
  std::optional<std::string> signedForm(std::uint64_t transactionID);
  // Registers `listener` for every later change. With `replayUnfinished`, it first hears of
  // every unfinished transaction, in the same step, so that nothing is missed or told twice.
  void addTransactionListener(TransactionListener listener, bool replayUnfinished);
  // The subscriptions of a group the account holds (none, or one), as they stand now; with
  // no group, those of every group, in group order.
  std::vector<SubscriptionStatus> subscriptionStatuses(const std::string& groupID);
  std::vector<SubscriptionStatus> subscriptionStatuses();
  // The failure a session forces on verifying this transaction, if any. A device asks for
  // every token it hands out; until a failure is first forced it answers without the lock.
  std::optional<StoreFailure> verificationFailure(std::uint64_t transactionID);
  // Fixed when the store is made (read from its state file, else new); no lock.
  platform::UUID deviceIdentifier() const { return deviceID_; }
  // The root certificate (DER) the store's chain ends in.
  const std::string& rootCertificate() const { return authority_->rootCertificate(); }
  const SigningAuthority& signingAuthority() const { return *authority_; }

  // The account's app transaction (the app's purchase), signed; the same identifier for
  // ever (appTransactionID()).
  std::string signedAppTransaction();
  std::string appTransactionID() const;

  // --- What a developer's server asks (the App Store Server API) --------------------------
  // A purchased transaction; nothing for an unknown id or a request never bought.
  std::optional<TransactionSummary> transactionSummary(std::uint64_t transactionID);
  // The page of the purchase history `query` asks for (its limit included).
  HistoryPage transactionHistory(const HistoryQuery& query);
  // This account's refunded purchases after `after`, by revocation date, at most `limit`.
  RefundPage refundHistory(std::optional<RefundPosition> after, std::size_t limit);
  // Sets the app account token of a purchase: signs it again with the token. For an
  // auto-renewable subscription, the current period's transaction instead, whose renewal
  // info and later renewals keep it. Throws std::invalid_argument for an id that is not the
  // original transaction of a purchase of this account.
  void setAppAccountToken(std::uint64_t originalTransactionID, const platform::UUID& token);
  // Keeps the consumption information (JSON text) a developer's server sent for a purchased
  // transaction, replacing what it sent before. Throws std::invalid_argument for an unknown id.
  void recordConsumptionInformation(std::uint64_t transactionID, const std::string& information);
  std::optional<std::string> consumptionInformation(std::uint64_t transactionID);
  // Extends every active subscription whose current product is request.productID (of the
  // storefronts asked for), each as extendRenewalDate does; one that is not eligible counts as
  // failed. A family member's shared subscription is extended with the organizer's. Throws
  // RenewalExtensionRefused for terms it cannot carry out.
  MassRenewalExtensionStatus extendRenewalDatesForAllSubscribers(
      const MassRenewalExtensionRequest& request);
  std::optional<MassRenewalExtensionStatus> massRenewalExtension(
      const std::string& productID, const std::string& requestIdentifier);

  // --- Configuration and identity ---------------------------------------------------------
  // The catalogue and the settings as loaded (the controls change the settings in use).
  StoreConfiguration configuration() const;
  // Replaces the products and the settings; the history stays. Throws ConfigurationError for
  // settings the store cannot honour (an unknown storefront).
  void loadConfiguration(StoreConfiguration configuration);
  std::string bundleID() const;
  void setBundleID(std::string bundleID);
  // The environment written into everything the store signs from now on: "Xcode" by
  // default, or "Sandbox". Throws std::invalid_argument for another name.
  void setEnvironment(const std::string& environment);
  std::string environment() const;
  // The state file, or empty when the ledger is in memory.
  std::string statePath() const;
  // Where the store is served over HTTP ("http://HOST:PORT"), once a server says so; else empty.
  void setServerURL(std::string url);
  std::string serverURL() const;

  // --- SKTestSession's controls -----------------------------------------------------------
  bool askToBuyEnabled() const;
  void setAskToBuyEnabled(bool enabled);
  bool interruptedPurchasesEnabled() const;
  void setInterruptedPurchasesEnabled(bool enabled);
  bool failTransactionsEnabled() const;
  void setFailTransactionsEnabled(bool enabled);
  bool shouldEnterBillingRetryOnRenewal() const;
  void setShouldEnterBillingRetryOnRenewal(bool enabled);
  bool billingGracePeriodIsEnabled() const;
  void setBillingGracePeriodIsEnabled(bool enabled);
  int timeRate() const;
  void setTimeRate(std::int64_t rate);  // throws std::invalid_argument for an unknown rate
  std::string storefront() const;
  void setStorefront(const std::string& countryCode);  // throws std::invalid_argument
  std::string locale() const;
  void setLocale(const std::string& locale);

  std::vector<TestTransaction> allTransactions() const;
  void clearTransactions();
  void deleteTransaction(std::uint64_t identifier);
  // Settings back to those of the configuration; history, simulated errors and every other
  // control cleared.
  void resetToDefaultState();

  // A purchase made outside the app (another device, the App Store); delivered to the
  // listeners. The request may name a promotional offer. Throws like purchase().
  SignedTransaction buyProduct(const PurchaseRequest& request);
  SignedTransaction buyProduct(const std::string& productID);
  // An offer code redeemed outside the app; delivered to the listeners.
  SignedTransaction redeemOfferCode(const std::string& productID, const std::string& offerID);

  // The controls below throw std::invalid_argument for an identifier they cannot act on.
  void approveAskToBuyTransaction(std::uint64_t identifier);
  void declineAskToBuyTransaction(std::uint64_t identifier);
  void resolveIssueForTransaction(std::uint64_t identifier);
  // `reason` is the revocation reason's raw value (0 other, 1 a developer issue).
  void refundTransaction(std::uint64_t identifier, std::int64_t reason = 0);
  // The customer asks for a refund in the app, for a reason by Apple's name
  // ("UNINTENDED_PURCHASE", "FULFILLMENT_ISSUE", "UNSATISFIED_WITH_PURCHASE", "LEGAL", "OTHER"):
  // Apple asks the developer's server for consumption information, and a subscription's
  // renewal is turned off. Apple then grants it (refundTransaction) or declines it.
  void requestRefund(std::uint64_t identifier, const std::string& reason);
  void declineRefund(std::uint64_t identifier);
  // A granted refund reversed after a dispute: the transaction is reinstated (through the
  // update stream); a subscription keeps its renewal date.
  void reverseRefund(std::uint64_t identifier);
  void expireSubscription(const std::string& productID);
  void forceRenewalOfSubscription(const std::string& productID);
  void disableAutoRenewForTransaction(std::uint64_t identifier);
  void enableAutoRenewForTransaction(std::uint64_t identifier);
  // A price increase, to `newPrice`, for the subscription `identifier` belongs to, from its
  // next renewal. When it needs the customer's consent it waits for consentToPriceIncrease or
  // declinePriceIncrease; declined, or still unanswered when the period ends, the
  // subscription expires (expiration intent 3). Without consent needed it simply applies.
  void requestPriceIncreaseConsentForTransaction(std::uint64_t identifier,
                                                 const platform::Decimal& newPrice,
                                                 bool consentRequired = true);
  void consentToPriceIncrease(std::uint64_t identifier);
  void declinePriceIncrease(std::uint64_t identifier);
  // A family member shares a family-shareable product with this account: a transaction owned
  // as family shared, delivered through the update stream. A shared auto-renewable
  // subscription is held as its group's subscription and renews with the organizer's (never
  // failing for this account's billing); the member cannot turn its renewal off or answer a
  // price increase. Sharing into a group where the account holds a subscription is refused
  // (std::invalid_argument). Revoking it (the purchaser left the family, or stopped sharing)
  // revokes that transaction, also through the updates, and ends a shared subscription.
  SignedTransaction shareWithFamily(const std::string& productID);
  void revokeFamilySharing(std::uint64_t identifier);
  // Moves the subscription's expiry on by the request's days (scaled by the time rate as its
  // periods are) and signs its latest transaction again. Throws RenewalExtensionRefused.
  RenewalExtensionResult extendRenewalDate(const RenewalExtensionRequest& request);

  // Makes `api` fail with `error` until cleared with nothing. Throws std::invalid_argument
  // for an error that cannot be simulated for that call (StoreFailure::fits).
  void setSimulatedError(StoreKitAPI api, std::optional<StoreFailure> error);
  // Makes one transaction come out unverified with `error`, a verification failure (nothing
  // clears it).
  void setVerificationFailure(std::uint64_t identifier, std::optional<StoreFailure> error);
  // Without a storefront, a device's current storefront is nothing.
  void setStorefrontAvailable(bool available);
  void setNextPurchaseResult(std::optional<NextPurchaseResult> result);

  // The store clock: the system clock plus every advanceTime.
  platform::Date now() const;
  // Moves the store clock ahead; subscriptions that come due renew before this returns.
  void advanceTime(std::chrono::milliseconds amount);
  void advanceTime(double seconds);

  // --- Server Notifications -----------------------------------------------------------------
  // Where notifications go. From when it is set, every change Apple notifies about is signed
  // into a notification and kept in the outbox (in the same commit as the change) until it is
  // delivered or given up; empty (the default) makes none.
  void setNotificationsURL(std::string url);
  std::string notificationsURL() const;
  // Told of every change committed to the ledger (a notification made, the clock moved, ...)
  // and every setting changed, with the store's lock held: it may only wake someone who then
  // calls the store. Answers the id that removes it.
  std::uint64_t addChangeListener(std::function<void()> listener);
  void removeChangeListener(std::uint64_t id);
  // The notifications due at the store clock's now, oldest first, with their attempts.
  std::vector<LedgerNotification> dueNotifications(std::size_t limit);
  std::optional<platform::Date> nextNotificationDue();
  // Records attempts to deliver notifications as due from dueNotifications. A failure is
  // tried again 1, 12, 24, 48 and 72 hours (store clock) after the attempt before it, then
  // given up.
  void recordSendAttempts(const std::vector<DeliveryResult>& results);
  std::vector<LedgerNotification> notificationHistory(const NotificationQuery& query);
  // A TEST notification; its token, or nothing when no notifications URL is set.
  std::optional<std::string> requestTestNotification();
  std::optional<LedgerNotification> testNotification(const std::string& token);

  // --- For tests ---------------------------------------------------------------------------
  // Signs `payload` (App Store transaction JSON) and adds it to the history as purchased and
  // unfinished; nothing is delivered. Throws std::invalid_argument when the payload lacks a
  // usable transactionId, productId, type or purchaseDate.
  SignedTransaction insertTransaction(boost::json::object payload);
  // Replaces the signed form a transaction is handed out with (to hand out tampered tokens).
  void replaceSignedTransaction(std::uint64_t identifier, std::string jws);
  // The payload the store signed for a transaction, whatever its signed form says now.
  std::optional<std::string> signedPayload(std::uint64_t identifier);
  // The transaction's payload signed again with another environment (e.g. "Sandbox").
  std::string resignedTransaction(std::uint64_t identifier, const std::string& environment);

 private:
  class State;

  LocalStore(std::unique_ptr<State> state, std::shared_ptr<const SigningAuthority> authority);
  void renewalLoop(std::stop_token stop);
  void wakeRenewals();
  // Catches up what came due while nothing ran, then starts the thread that renews on the
  // store clock. Called by the factories once the catalogue is loaded.
  void startRenewals();
  void enableAutoRenew(std::uint64_t identifier, bool enabled);

  // Notes that a verification failure may be forced from now on (never cleared): before it,
  // verificationFailure has nothing to find and does not wait for the lock, which purchases
  // hold while they sign.
  void allowVerificationFailures();

  std::shared_ptr<const SigningAuthority> authority_;
  const platform::UUID deviceID_;
  std::atomic<bool> verificationFailuresPossible_{false};
  mutable std::mutex mutex_;
  std::condition_variable_any timerChanged_;
  std::unique_ptr<State> state_;  // guarded by mutex_
  // Last member: stopped and joined before anything it reads is destroyed.
  std::jthread renewalThread_;
};

}  // namespace appstore
