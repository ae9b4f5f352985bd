// Ledger: the App Store's durable memory, one SQLite database. It holds the account's
// transactions (typed columns the store queries, with the signed form stored once beside
// them), the subscription of each group, and named values (id counters, the clock's offset,
// the device and the signing identity). All of the store's SQL lives here.
//
// Without a path the database is in memory; with one it lives in that file, in WAL mode,
// owned by this Ledger alone (a second Ledger on the same file, in this process or another,
// is refused). A file that is not a ledger this build can read is refused and left exactly as
// it was. Opening reads the typed tables, not the signed texts: damage among those is found
// when a damaged text is read, or before the file's first change is written, which it refuses.
//
// Every change goes through write(): one SQLite transaction, committed before write()
// returns, or rolled back as a whole when anything in it fails. Not thread-safe: the store
// calls it with its own lock held.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "appstore/history_query.h"
#include "appstore/renewal_status.h"
#include "platform/date.h"

namespace appstore {

// A ledger that cannot be opened or a change that cannot be committed. The message is one
// line naming the file and the cause.
class LedgerError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// What became of a purchase request.
enum class EntryState : int { purchased = 0, pendingAskToBuy = 1, declined = 2, interrupted = 3 };

struct LedgerTransaction {
  std::uint64_t id = 0;
  std::uint64_t originalID = 0;
  std::string productID;
  // The App Store's type name: "Consumable", "Non-Consumable", "Non-Renewing Subscription",
  // "Auto-Renewable Subscription".
  std::string productType;
  std::string groupID;  // auto-renewable subscriptions only
  EntryState state = EntryState::purchased;
  platform::Date purchaseDate;
  std::optional<platform::Date> expiresDate;
  std::optional<platform::Date> revocationDate;
  bool upgraded = false;
  bool finished = false;
  bool familyShared = false;  // a family member's purchase shared with this account
  // The order of the entry's latest change among all entries; the ledger sets it on every put.
  std::uint64_t revision = 0;
  // Read only by transaction(id); left empty by the list queries.
  std::string payload;     // the JSON text the store signed (purchased entries)
  std::string request;     // what a pending or interrupted request will buy (JSON text)
  std::string signedForm;  // the compact JWS handed out (purchased entries)
};

// The subscription an account holds in one group.
struct LedgerGroup {
  std::string groupID;
  std::uint64_t originalID = 0;
  platform::Date originalPurchaseDate;
  std::uint64_t latestID = 0;
  bool autoRenew = true;
  std::optional<std::string> pendingProductID;  // a downgrade waiting for the next renewal
  std::int64_t offerPeriodsLeft = 0;
  std::string continuingOffer;  // JSON text of the offer later renewals keep; empty for none
  RenewalStatus status = RenewalStatus::subscribed;
  // Why it expired, or will at the end of its period: 1 cancelled, 2 billing error, 3 a price
  // increase not consented to, 4 product no longer for sale.
  std::optional<int> expirationIntent;
  std::optional<platform::Date> billingIssueSince;   // when the renewal that failed was due
  std::optional<platform::Date> gracePeriodExpires;  // while in the grace period
  std::optional<int> priceIncreaseStatus;            // 0 asked and unanswered, 1 consented
  std::string renewalPrice;  // the next renewal's price (decimal text) when it is not the product's
  std::string signedRenewalInfo;  // the compact JWS of the renewal info, current after every change
  // The renewal-date extensions granted, as JSON: [{"request", "date", "days", "effective"}].
  std::string extensions;
  // When the current run of the subscription began: a purchase after a lapse of 60 days or
  // more starts a new one. Absent in files of the first version (then: originalPurchaseDate).
  std::optional<platform::Date> recentStart;
};

// One attempt to deliver a notification: when, and Apple's name for how it went ("SUCCESS",
// "NO_RESPONSE", "UNSUCCESSFUL_HTTP_RESPONSE_CODE", ...).
struct LedgerSendAttempt {
  platform::Date date;
  std::string result;
};

// A notification in the outbox: signed once when the change it tells of is committed, then
// sent until delivered or given up.
struct LedgerNotification {
  std::uint64_t sequence = 0;  // the order of creation; the ledger sets it
  std::string uuid;
  std::string type;
  std::string subtype;  // empty for none
  // The subscription or purchase it tells of; none for a test or a summary.
  std::optional<std::uint64_t> originalTransactionID;
  platform::Date created;
  // When it is next due to be sent; none once delivered or given up.
  std::optional<platform::Date> nextAttempt;
  std::optional<std::string> testToken;  // a test notification's token
  std::string signedPayload;
  std::vector<LedgerSendAttempt> attempts;  // oldest first
};

// A renewal-date extension a developer's server asked for every active subscriber of a
// product; carried out when asked, so complete from the start.
struct LedgerMassExtension {
  std::string requestIdentifier;
  std::string productID;
  std::string request;  // what was asked, as JSON text
  platform::Date created;
  std::optional<platform::Date> completeDate;
  std::int64_t succeeded = 0;
  std::int64_t failed = 0;
};

// Which notifications a history page answers, in creation order.
struct NotificationQuery {
  platform::Date start;  // created at or after
  platform::Date end;    // created before
  std::optional<std::string> type;
  std::optional<std::string> subtype;
  bool onlyWithTransaction = false;  // leaves out tests and summaries
  bool onlyFailures = false;         // attempted, and no attempt succeeded
  std::uint64_t afterSequence = 0;
  std::size_t limit = 20;
};

// Which transactions a list query answers, in id order.
enum class Selection {
  everything,         // every entry, whatever its state
  history,            // purchased, except finished consumables
  unfinished,         // purchased and not finished
  entitlementCandidates,  // purchased, not revoked, not consumable
};

// The changes of one write. Only valid inside the write() call that made it.
class LedgerWrite {
 public:
  virtual ~LedgerWrite() = default;
  // Inserts or replaces the entry with this id, every column including the signed form.
  virtual void putTransaction(const LedgerTransaction& transaction) = 0;
  virtual void setFinished(std::uint64_t id) = 0;
  virtual void removeTransaction(std::uint64_t id) = 0;
  // Every transaction and every group.
  virtual void removeHistory() = 0;
  virtual void putGroup(const LedgerGroup& group) = 0;
  virtual void removeGroup(std::string_view groupID) = 0;
  virtual void putValue(std::string_view key, std::string_view value) = 0;
  // Adds a notification to the outbox (its sequence is set).
  virtual void putNotification(LedgerNotification& notification) = 0;
  // Records an attempt to send notification `sequence`; `nextAttempt` is when it is due again,
  // none when delivered or given up.
  virtual void recordSendAttempt(std::uint64_t sequence, const LedgerSendAttempt& attempt,
                                 std::optional<platform::Date> nextAttempt) = 0;
  // Keeps the consumption information a developer's server sent for a transaction (JSON
  // text), replacing any sent before; a consumption request already recorded stays as it was.
  virtual void putConsumptionInformation(std::uint64_t transactionID,
                                         std::string_view information) = 0;
  virtual void putMassExtension(const LedgerMassExtension& extension) = 0;
};

class Ledger {
 public:
  static constexpr int kSchemaVersion = 4;

  // When what opening writes (a new file's schema, a migration) is committed: at once, or
  // only at finishOpening(), for an owner that may still refuse what it reads.
  enum class Opening { committed, untilFinished };

  // In memory when `path` is empty; otherwise the file, created when missing (or empty).
  // Throws LedgerError, naming the file: not a SQLite database, a SQLite database of
  // something else, damaged or truncated, a newer schema version than this build's, in use
  // by another ledger, or not creatable.
  static std::unique_ptr<Ledger> open(const std::string& path,
                                      Opening opening = Opening::committed);

  virtual ~Ledger() = default;

  // The file, or empty in memory.
  virtual const std::string& path() const = 0;

  virtual std::optional<LedgerTransaction> transaction(std::uint64_t id) = 0;
  virtual std::vector<LedgerTransaction> transactions(Selection selection) = 0;
  virtual std::optional<std::string> signedForm(std::uint64_t id) = 0;
  virtual std::size_t transactionCount() = 0;
  virtual std::vector<LedgerGroup> groups() = 0;
  virtual std::optional<std::string> value(std::string_view key) = 0;

  // A page of the purchase history (signedForm filled in), at most query.limit rows.
  virtual std::vector<LedgerTransaction> history(const HistoryQuery& query) = 0;
  // Revoked purchases of this account (not family members' shared ones), by revocation date,
  // after `after`, at most `limit` (signedForm filled in).
  virtual std::vector<LedgerTransaction> refunds(std::optional<RefundPosition> after,
                                                 std::size_t limit) = 0;
  // What a developer's server asked for: the consumption information of a transaction (JSON
  // text), a mass renewal-date extension.
  virtual std::optional<std::string> consumptionInformation(std::uint64_t transactionID) = 0;
  virtual std::optional<LedgerMassExtension> massExtension(std::string_view requestIdentifier,
                                                           std::string_view productID) = 0;

  // The outbox. notifications() reads the attempts too; due() answers those due at `now`,
  // oldest first, at most `limit`; nextDue() is the earliest time one is due.
  virtual std::vector<LedgerNotification> notifications(const NotificationQuery& query) = 0;
  virtual std::vector<LedgerNotification> dueNotifications(platform::Date now,
                                                           std::size_t limit) = 0;
  virtual std::optional<platform::Date> nextNotificationDue() = 0;
  virtual std::optional<LedgerNotification> testNotification(std::string_view token) = 0;

  // Commits what opening wrote: a new file's schema, a migration to this build's schema, and
  // every write() made before this call. Until then nothing of it is in the file, so a ledger
  // its owner refuses after opening (and destroys) leaves the file exactly as it was.
  virtual void finishOpening() = 0;

  // Applies `changes` in one SQLite transaction and commits it. When `changes` throws, or
  // the commit fails, nothing of it stays and the error goes to the caller (a failed commit
  // as LedgerError).
  virtual void write(const std::function<void(LedgerWrite&)>& changes) = 0;
};

}  // namespace appstore
