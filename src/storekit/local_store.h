// LocalStore: the simulated App Store behind the StoreKit calls, like Xcode's StoreKit
// testing. It serves the products of a .storekit configuration, turns purchases into signed
// transactions, keeps the history, the unfinished set and the entitlements as StoreKit
// defines them, renews subscriptions on its own clock, and offers the controls of
// SKTestSession to tests and to the host driver.
//
// One store per process (LocalStore::shared(), which reads the file named by
// VORNTESK_STOREKIT_CONFIG on first use); tests may install another. Every member may be
// called from any thread. The store's lock is held only to read or change its state, never
// while a caller waits on a sequence. A background thread renews subscriptions when they
// come due.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <boost/json/object.hpp>

#include "platform/date.h"
#include "platform/uuid.h"
#include "storekit/app_store.h"
#include "storekit/errors.h"
#include "storekit/jws.h"
#include "storekit/product.h"
#include "storekit/store_configuration.h"
#include "storekit/transaction.h"

namespace storekit {

// SKTestSession.TimeRate raw values the store understands.
namespace time_rate {
constexpr int kRealTime = 0;
constexpr int kMonthlyRenewalEveryHour = 10;
constexpr int kMonthlyRenewalEveryThirtyMinutes = 11;
constexpr int kMonthlyRenewalEveryFifteenMinutes = 12;
constexpr int kMonthlyRenewalEveryFiveMinutes = 13;
constexpr int kMonthlyRenewalEveryThirtySeconds = 15;
constexpr int kOneRenewalEveryFifteenMinutes = 1000;
constexpr int kOneRenewalEveryFiveMinutes = 1001;
constexpr int kOneRenewalEveryMinute = 1002;
constexpr int kOneRenewalEveryThirtySeconds = 1003;
constexpr int kOneRenewalEveryTenSeconds = 1004;
constexpr int kOneRenewalEveryTwoSeconds = 1005;
}  // namespace time_rate

// The end of a subscription period that starts at `start`, on a store running at `timeRate`.
platform::Date periodEnd(platform::Date start, const SubscriptionPeriod& period, int timeRate);

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
  bool autoRenewingEnabled = false;  // auto-renewable subscriptions that will renew
  std::optional<std::uint64_t> originalTransactionIdentifier;
  std::optional<platform::Date> purchaseDate;
  std::optional<platform::Date> expirationDate;
  std::optional<Transaction> transaction;  // absent until purchased
  std::string jwsRepresentation;           // empty until purchased
};

class LocalStore : public std::enable_shared_from_this<LocalStore> {
 public:
  // What the next purchase answers instead of going through.
  enum class NextPurchaseResult { userCancelled, unrecognized };

  // The process's store: on first use made from VORNTESK_STOREKIT_CONFIG if that is set
  // (a file that cannot be loaded is reported on stderr and an empty store is used).
  static std::shared_ptr<LocalStore> shared();
  // Installs `store` as the process's store and returns the one it replaces. Passing null
  // makes the next shared() load afresh.
  static std::shared_ptr<LocalStore> setShared(std::shared_ptr<LocalStore> store);

  static std::shared_ptr<LocalStore> create(
      StoreConfiguration configuration = {},
      std::shared_ptr<const SigningAuthority> authority = SigningAuthority::shared());
  // Throws ConfigurationError.
  static std::shared_ptr<LocalStore> createFromFile(const std::string& path);

  ~LocalStore();
  LocalStore(const LocalStore&) = delete;
  LocalStore& operator=(const LocalStore&) = delete;

  // --- What the StoreKit calls use --------------------------------------------------------
  std::vector<Product> products(const std::vector<std::string>& ids);
  PurchaseResult purchase(const std::string& productID, const std::vector<PurchaseOption>& options);
  void finish(std::uint64_t transactionID);
  void sync();
  std::optional<Storefront> currentStorefront();
  // The first updates sequence made from a store also yields, once, what was left unfinished.
  TransactionSequence updates();
  TransactionSequence all();
  TransactionSequence currentEntitlements();
  TransactionSequence unfinished();

  // Waits until every live `updates` sequence has handed out all it holds and its consumer
  // has come back for more (so whatever it did with the last element is done), after first
  // waiting for at least `minimumListeners` sequences to exist. False when `timeout` passes
  // first, for instance because a sequence is not being read at all.
  bool waitUntilUpdatesDelivered(std::chrono::milliseconds timeout,
                                 std::size_t minimumListeners = 0);

  // Checks a signed transaction as the device would. Throws VerificationError
  // (invalidEncoding) only when no transaction can be read from it at all.
  VerificationResult<Transaction> verifyTransaction(std::string_view jws);

  // --- Configuration and identity ---------------------------------------------------------
  // Replaces the products and the settings; the history stays. Throws ConfigurationError for
  // settings the store cannot honour (an unknown storefront).
  void loadConfiguration(StoreConfiguration configuration);
  std::string bundleID() const;
  void setBundleID(std::string bundleID);
  platform::UUID deviceIdentifier() const;
  const SigningAuthority& signingAuthority() const { return *authority_; }
  // The trusted root certificate (DER) that verification checks against.
  const std::string& rootCertificate() const { return authority_->rootCertificate(); }

  // --- SKTestSession's controls -----------------------------------------------------------
  bool askToBuyEnabled() const;
  void setAskToBuyEnabled(bool enabled);
  bool interruptedPurchasesEnabled() const;
  void setInterruptedPurchasesEnabled(bool enabled);
  bool failTransactionsEnabled() const;
  void setFailTransactionsEnabled(bool enabled);
  int timeRate() const;
  void setTimeRate(int rate);
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

  // A purchase made outside the app (another device, the App Store); delivered through
  // updates. Options may name a promotional offer. Throws like purchase().
  Transaction buyProduct(const std::string& productID,
                         const std::vector<PurchaseOption>& options = {});
  // An offer code redeemed outside the app; delivered through updates.
  Transaction redeemOfferCode(const std::string& productID, const std::string& offerID);

  // The controls below throw std::invalid_argument for an identifier they cannot act on.
  void approveAskToBuyTransaction(std::uint64_t identifier);
  void declineAskToBuyTransaction(std::uint64_t identifier);
  void resolveIssueForTransaction(std::uint64_t identifier);
  void refundTransaction(std::uint64_t identifier,
                         Transaction::RevocationReason reason = Transaction::RevocationReason::other());
  void expireSubscription(const std::string& productID);
  void forceRenewalOfSubscription(const std::string& productID);
  void disableAutoRenewForTransaction(std::uint64_t identifier);
  void enableAutoRenewForTransaction(std::uint64_t identifier);

  // Makes `api` fail with `error` until cleared with nothing. Verification takes only
  // VerificationError (every transaction handed out comes out unverified with it); purchase
  // takes StoreKitError or PurchaseError; the others StoreKitError. Throws
  // std::invalid_argument for another combination.
  void setSimulatedError(StoreKitAPI api, std::optional<SimulatedError> error);
  // Makes one transaction come out unverified with `error` (nothing clears it).
  void setVerificationFailure(std::uint64_t identifier, std::optional<VerificationError> error);
  // Without a storefront, Storefront::current() answers nothing.
  void setStorefrontAvailable(bool available);
  void setNextPurchaseResult(std::optional<NextPurchaseResult> result);

  // The store clock: the system clock plus every advanceTime.
  platform::Date now() const;
  // Moves the store clock ahead; subscriptions that come due renew before this returns.
  void advanceTime(std::chrono::milliseconds amount);
  void advanceTime(double seconds);

  // --- For tests ---------------------------------------------------------------------------
  // Signs `payload` (App Store transaction JSON) and adds it to the history as purchased and
  // unfinished; nothing is delivered. Throws VerificationError when the payload is unusable.
  Transaction insertTransaction(boost::json::object payload);
  // Replaces the signed form a transaction is handed out with (to hand out tampered tokens).
  void replaceSignedTransaction(std::uint64_t identifier, std::string jws);
  // The transaction's payload signed again with another environment (e.g. Sandbox).
  std::string signedTransaction(std::uint64_t identifier, const Environment& environment);

 private:
  struct State;
  struct Entry;
  class SnapshotSource;
  class UpdatesSource;
  struct UpdateQueue;

  LocalStore(StoreConfiguration configuration, std::shared_ptr<const SigningAuthority> authority);

  VerificationResult<Transaction> deliver(const Entry& entry);
  TransactionSequence snapshot(int which);
  void renewalLoop(std::stop_token stop);

  std::shared_ptr<const SigningAuthority> authority_;
  mutable std::mutex mutex_;
  std::condition_variable_any timerChanged_;
  std::unique_ptr<State> state_;  // guarded by mutex_
  // Last member: stopped and joined before anything it reads is destroyed.
  std::jthread renewalThread_;
};

}  // namespace storekit
