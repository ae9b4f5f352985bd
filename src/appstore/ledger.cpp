// The SQLite ledger: the prepared statements of every query, write()'s transaction, and
// opening (the file's checks, schema and migrations are in ledger_file.cpp).
#include "appstore/ledger.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Exception.h>
#include <SQLiteCpp/Statement.h>
#include <SQLiteCpp/Transaction.h>

#include "appstore/ledger_file.h"
#include "appstore/ledger_groups.h"
#include "appstore/ledger_history.h"
#include "appstore/ledger_outbox.h"
#include "appstore/ledger_sql.h"
#include "appstore/ledger_requests.h"
#include "appstore/ledger_signed_forms.h"
#include "appstore/wal_checkpointer.h"

#include <array>
#include <cerrno>
#include <compare>
#include <cstring>
#include <mutex>
#include <set>
#include <utility>

namespace appstore {
using namespace ledger_file;
using namespace ledger_sql;
using ledger_history::kTypedColumns;
using ledger_history::typedTransaction;
namespace {

// The statements of every query and change, prepared once: a purchase runs a handful of them
// and preparing costs more than running.
struct Statements {
  explicit Statements(SQLite::Database& database)
      : putTransaction(database,
                       "INSERT OR REPLACE INTO transactions (id, original_id, product_id, "
                       "product_type, group_id, state, purchase_date, expires_date, "
                       "revocation_date, upgraded, finished, revision, family_shared) "
                       "VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13)"),
        putTexts(database,
                 "INSERT OR REPLACE INTO transaction_texts (id, payload, request, signed_form, "
                 "header_id) VALUES (?1, ?2, ?3, ?4, ?5)"),
        setFinished(database, "UPDATE transactions SET finished = 1 WHERE id = ?1"),
        removeTransaction(database, "DELETE FROM transactions WHERE id = ?1"),
        removeTexts(database, "DELETE FROM transaction_texts WHERE id = ?1"),
        putGroup(database, std::string("INSERT OR REPLACE INTO subscription_groups (") +
                               ledger_groups::kGroupColumns +
                               ") VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13, "
                               "?14, ?15, ?16, ?17)"),
        removeGroup(database, "DELETE FROM subscription_groups WHERE group_id = ?1"),
        putValue(database, "INSERT OR REPLACE INTO named_values (key, value) VALUES (?1, ?2)"),
        transaction(database, std::string("SELECT ") + kTypedColumns + ", x.request, " +
                                  ledger_signed_forms::kColumns +
                                  " FROM transactions AS t "
                                  "LEFT JOIN transaction_texts AS x ON x.id = t.id" +
                                  ledger_signed_forms::kJoin + " WHERE t.id = ?1"),
        lists{list(database, ""),
              list(database,
                   "WHERE state = 0 AND NOT (product_type = 'Consumable' AND "
                   "finished = 1)"),
              list(database, "WHERE state = 0 AND finished = 0"),
              list(database,
                   "WHERE state = 0 AND revocation_date IS NULL AND "
                   "product_type <> 'Consumable'")},
        signedForm(database, std::string("SELECT ") + ledger_signed_forms::kColumns +
                                 " FROM transaction_texts AS x" + ledger_signed_forms::kJoin +
                                 " WHERE x.id = ?1"),
        count(database, "SELECT count(*) FROM transactions"),
        groups(database, std::string("SELECT ") + ledger_groups::kGroupColumns +
                             " FROM subscription_groups ORDER BY group_id"),
        value(database, "SELECT value FROM named_values WHERE key = ?1") {}

  static SQLite::Statement list(SQLite::Database& database, const char* filter) {
    return SQLite::Statement(database, std::string("SELECT ") + kTypedColumns +
                                           " FROM transactions AS t " + filter + " ORDER BY id");
  }

  SQLite::Statement putTransaction;
  SQLite::Statement putTexts;
  SQLite::Statement setFinished;
  SQLite::Statement removeTransaction;
  SQLite::Statement removeTexts;
  SQLite::Statement putGroup;
  SQLite::Statement removeGroup;
  SQLite::Statement putValue;
  SQLite::Statement transaction;
  std::array<SQLite::Statement, 4> lists;  // by Selection
  SQLite::Statement signedForm;
  SQLite::Statement count;
  SQLite::Statement groups;
  SQLite::Statement value;
};

class SQLiteLedger final : public Ledger {
 public:
  // `opening` is the transaction of the schema's creation or migration, if any: writes join
  // it until finishOpening() commits it.
  SQLiteLedger(std::string path, std::string label, std::unique_ptr<SQLite::Database> database,
               int lockFd, FileKey file, bool textsUnchecked,
               std::unique_ptr<SQLite::Transaction> opening)
      : path_(std::move(path)),
        label_(std::move(label)),
        lockFd_(lockFd),
        file_(file),
        database_(std::move(database)),
        opening_(std::move(opening)),
        statements_(std::make_unique<Statements>(*database_)),
        outbox_(std::make_unique<ledger_outbox::Outbox>(*database_)),
        history_(std::make_unique<ledger_history::History>(*database_)),
        requests_(std::make_unique<ledger_requests::Requests>(*database_)),
        headers_(std::make_unique<ledger_signed_forms::Headers>(*database_)),
        textsUnchecked_(textsUnchecked),
        nextRevision_(static_cast<std::uint64_t>(
            database_->execAndGet("SELECT ifnull(max(revision), 0) + 1 FROM transactions")
                .getInt64())) {}

  // SQLite's connection is closed, and has checkpointed the WAL, before the file is given up
  // to the next owner; the statements go first because a connection with live statements
  // does not close.
  ~SQLiteLedger() override {
    checkpointer_.reset();
    statements_.reset();
    outbox_.reset();
    history_.reset();
    requests_.reset();
    headers_.reset();
    opening_.reset();  // not finished: rolled back, the file as it was
    statements_.reset();
    database_.reset();
    if (lockFd_ >= 0) {
      std::lock_guard lock(heldFilesMutex());
      heldFiles().erase(file_);
      ::close(lockFd_);
    }
  }

  const std::string& path() const override { return path_; }

  std::optional<LedgerTransaction> transaction(std::uint64_t id) override {
    return read([&]() -> std::optional<LedgerTransaction> {
      auto& query = fresh(statements_->transaction);
      bindId(query, 1, id);
      if (!query.executeStep()) return std::nullopt;
      auto found = typedTransaction(query);
      found.request = query.getColumn(13).getString();
      found.payload = query.getColumn(14).getString();
      found.signedForm = ledger_signed_forms::signedForm(query, 14);
      query.reset();
      return found;
    });
  }

  std::vector<LedgerTransaction> transactions(Selection selection) override {
    return read([&] {
      auto& query = fresh(statements_->lists.at(static_cast<std::size_t>(selection)));
      std::vector<LedgerTransaction> found;
      while (query.executeStep()) found.push_back(typedTransaction(query));
      return found;
    });
  }

  std::optional<std::string> signedForm(std::uint64_t id) override {
    return read([&]() -> std::optional<std::string> {
      auto& query = fresh(statements_->signedForm);
      bindId(query, 1, id);
      if (!query.executeStep()) return std::nullopt;
      std::string text = ledger_signed_forms::signedForm(query, 0);
      query.reset();
      if (text.empty()) return std::nullopt;
      return text;
    });
  }

  std::size_t transactionCount() override {
    return read([&] {
      auto& query = fresh(statements_->count);
      query.executeStep();
      const auto count = static_cast<std::size_t>(query.getColumn(0).getInt64());
      query.reset();
      return count;
    });
  }

  std::vector<LedgerGroup> groups() override {
    return read([&] {
      auto& query = fresh(statements_->groups);
      std::vector<LedgerGroup> found;
      while (query.executeStep()) found.push_back(ledger_groups::readGroup(query));
      return found;
    });
  }

  std::optional<std::string> value(std::string_view key) override {
    return read([&]() -> std::optional<std::string> {
      auto& query = fresh(statements_->value);
      query.bind(1, std::string(key));
      if (!query.executeStep()) return std::nullopt;
      std::string text = query.getColumn(0).getString();
      query.reset();
      return text;
    });
  }

  std::vector<LedgerNotification> notifications(const NotificationQuery& query) override {
    return read([&] { return outbox_->find(query); });
  }
  std::vector<LedgerNotification> dueNotifications(platform::Date now, std::size_t limit) override {
    return read([&] { return outbox_->due(now, limit); });
  }
  std::optional<platform::Date> nextNotificationDue() override {
    return read([&] { return outbox_->nextDue(); });
  }
  std::optional<LedgerNotification> testNotification(std::string_view token) override {
    return read([&] { return outbox_->byTestToken(token); });
  }

  std::vector<LedgerTransaction> history(const HistoryQuery& query) override {
    return read([&] { return history_->page(query); });
  }
  std::vector<LedgerTransaction> refunds(std::optional<RefundPosition> after,
                                         std::size_t limit) override {
    return read([&] { return history_->refunds(after, limit); });
  }
  std::optional<std::string> consumptionInformation(std::uint64_t transactionID) override {
    return read([&] { return requests_->consumptionInformation(transactionID); });
  }
  std::optional<LedgerMassExtension> massExtension(std::string_view requestIdentifier,
                                                   std::string_view productID) override {
    return read([&] { return requests_->massExtension(requestIdentifier, productID); });
  }

  void write(const std::function<void(LedgerWrite&)>& changes) override;
  void finishOpening() override;

 private:
  class Changes;

  template <typename Query>
  auto read(Query query) -> decltype(query()) {
    try {
      return query();
    } catch (const SQLite::Exception& error) {
      if (isDamage(error)) throw LedgerError(label_ + ": damaged (" + error.what() + ")");
      throw LedgerError(label_ + ": cannot read: " + error.what());
    }
  }

  LedgerError commitFailure(const SQLite::Exception& error) const {
    if (isDamage(error)) return LedgerError(label_ + ": damaged (" + error.what() + ")");
    return LedgerError(label_ + ": cannot commit: " + error.what());
  }

  std::string path_;
  std::string label_;  // how errors name the ledger
  int lockFd_;         // holds the flock that makes this ledger the file's only owner
  FileKey file_;
  std::unique_ptr<SQLite::Database> database_;
  std::unique_ptr<SQLite::Transaction> opening_;
  std::unique_ptr<Statements> statements_;
  std::unique_ptr<ledger_outbox::Outbox> outbox_;
  std::unique_ptr<ledger_history::History> history_;
  std::unique_ptr<ledger_requests::Requests> requests_;
  std::unique_ptr<ledger_signed_forms::Headers> headers_;
  bool inWAL_ = false;
  bool textsUnchecked_;  // see checkExistingFile
  std::uint64_t nextRevision_;  // a revision number spent by a rolled-back write is not reused
  std::unique_ptr<WalCheckpointer> checkpointer_;  // state files, once in WAL
};

class SQLiteLedger::Changes final : public LedgerWrite {
 public:
  explicit Changes(SQLiteLedger& ledger) : ledger_(ledger), statements_(*ledger.statements_) {}

  void putTransaction(const LedgerTransaction& transaction) override {
    apply([&] {
      auto& row = fresh(statements_.putTransaction);
      bindId(row, 1, transaction.id);
      bindId(row, 2, transaction.originalID);
      row.bind(3, transaction.productID);
      row.bind(4, transaction.productType);
      row.bind(5, transaction.groupID);
      row.bind(6, static_cast<int>(transaction.state));
      bindDate(row, 7, transaction.purchaseDate);
      bindDate(row, 8, transaction.expiresDate);
      bindDate(row, 9, transaction.revocationDate);
      row.bind(10, transaction.upgraded ? 1 : 0);
      row.bind(11, transaction.finished ? 1 : 0);
      bindId(row, 12, ledger_.nextRevision_++);
      row.bind(13, transaction.familyShared ? 1 : 0);
      row.exec();
      const auto stored = ledger_.headers_->store(transaction.payload, transaction.signedForm);
      auto& texts = fresh(statements_.putTexts);
      bindId(texts, 1, transaction.id);
      texts.bindNoCopy(2, transaction.payload);
      texts.bindNoCopy(3, transaction.request);
      texts.bindNoCopy(4, stored.text);
      if (stored.headerID) texts.bind(5, *stored.headerID);
      texts.exec();
    });
  }

  void setFinished(std::uint64_t id) override {
    apply([&] {
      auto& row = fresh(statements_.setFinished);
      bindId(row, 1, id);
      row.exec();
    });
  }

  void removeTransaction(std::uint64_t id) override {
    apply([&] {
      for (auto* statement : {&statements_.removeTransaction, &statements_.removeTexts}) {
        bindId(fresh(*statement), 1, id);
        statement->exec();
      }
    });
  }

  void removeHistory() override {
    apply([&] {
      ledger_.database_->exec(
          "DELETE FROM transactions; DELETE FROM transaction_texts; "
          "DELETE FROM subscription_groups;");
    });
  }

  void putGroup(const LedgerGroup& group) override {
    apply([&] {
      auto& row = fresh(statements_.putGroup);
      ledger_groups::bindGroup(row, group);
      row.exec();
    });
  }

  void removeGroup(std::string_view groupID) override {
    apply([&] {
      auto& row = fresh(statements_.removeGroup);
      row.bind(1, std::string(groupID));
      row.exec();
    });
  }

  void putValue(std::string_view key, std::string_view value) override {
    apply([&] {
      auto& row = fresh(statements_.putValue);
      row.bind(1, std::string(key));
      row.bind(2, std::string(value));
      row.exec();
    });
  }

  void putNotification(LedgerNotification& notification) override {
    apply([&] { ledger_.outbox_->put(notification); });
  }

  void recordSendAttempt(std::uint64_t sequence, const LedgerSendAttempt& attempt,
                         std::optional<platform::Date> nextAttempt) override {
    apply([&] { ledger_.outbox_->recordAttempt(sequence, attempt, nextAttempt); });
  }

  void putConsumptionInformation(std::uint64_t transactionID,
                                 std::string_view information) override {
    apply([&] { ledger_.requests_->putConsumptionInformation(transactionID, information); });
  }

  void putMassExtension(const LedgerMassExtension& extension) override {
    apply([&] { ledger_.requests_->putMassExtension(extension); });
  }

  // The failure a change met. The write fails with it even when the caller's code caught it
  // and went on: after some failures SQLite has already ended the transaction, and later
  // changes would be committed one by one.
  const std::optional<LedgerError>& failure() const { return failure_; }

 private:
  template <typename Change>
  void apply(Change change) {
    if (failure_) throw *failure_;
    try {
      // A file's first change waits until its texts are known to be sound: a damaged file is
      // refused, and keeps every byte it had.
      if (ledger_.textsUnchecked_) {
        const std::string verdict = ledger_.database_->execAndGet(kTextsCheck).getString();
        if (verdict != "ok") {
          failure_.emplace(ledger_.label_ + ": damaged (" + oneLine(verdict) + ")");
          throw *failure_;
        }
        ledger_.textsUnchecked_ = false;
      }
      change();
    } catch (const SQLite::Exception& error) {
      failure_.emplace(ledger_.commitFailure(error));
      throw *failure_;
    }
  }

  SQLiteLedger& ledger_;
  Statements& statements_;
  std::optional<LedgerError> failure_;
};

void SQLiteLedger::finishOpening() {
  if (!opening_) return;
  try {
    opening_->commit();
    opening_.reset();
    headers_->committed();
  } catch (const SQLite::Exception& error) {
    throw commitFailure(error);
  }
}

void SQLiteLedger::write(const std::function<void(LedgerWrite&)>& changes) {
  if (opening_) {
    // Within the opening's transaction: a savepoint, so that a failed change leaves the rest.
    try {
      database_->exec("SAVEPOINT change");
      try {
        Changes writes(*this);
        changes(writes);
        if (writes.failure()) throw *writes.failure();
      } catch (...) {
        headers_->rolledBack();
        database_->exec("ROLLBACK TO change");
        database_->exec("RELEASE change");
        throw;
      }
      database_->exec("RELEASE change");
    } catch (const SQLite::Exception& error) {
      throw commitFailure(error);
    }
    return;
  }
  try {
    if (!inWAL_) {
      database_->exec("PRAGMA journal_mode = WAL");
      inWAL_ = true;
      try {
        if (!path_.empty()) {
          checkpointer_ = std::make_unique<WalCheckpointer>(path_, database_->getHandle());
        }
      } catch (const SQLite::Exception&) {
        // Then SQLite checkpoints inside the commits, as it does by default.
      }
    }
    SQLite::Transaction transaction(*database_, SQLite::TransactionBehavior::IMMEDIATE);
    Changes writes(*this);
    changes(writes);
    if (writes.failure()) throw *writes.failure();
    transaction.commit();
    headers_->committed();
  } catch (const SQLite::Exception& error) {
    // Leaving the block without commit() has rolled back, also after a COMMIT that failed and
    // that SQLite had already rolled back itself (SQLite::Transaction ignores the second
    // ROLLBACK's "no transaction is active").
    headers_->rolledBack();
    throw commitFailure(error);
  } catch (...) {
    headers_->rolledBack();
    throw;
  }
}

std::unique_ptr<Ledger> openInMemory() {
  const std::string label = "state ledger in memory";
  try {
    auto database = std::make_unique<SQLite::Database>(
        ":memory:", SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
    configure(*database);
    SQLite::Transaction creation(*database, SQLite::TransactionBehavior::IMMEDIATE);
    upgrade(*database);
    creation.commit();
    return std::make_unique<SQLiteLedger>("", label, std::move(database), -1, FileKey{}, false,
                                          nullptr);
  } catch (const SQLite::Exception& error) {
    throw LedgerError(label + ": cannot create: " + error.what());
  }
}

}  // namespace

namespace {
std::unique_ptr<Ledger> openUnfinished(const std::string& path);
}  // namespace

std::unique_ptr<Ledger> Ledger::open(const std::string& path, Opening opening) {
  auto ledger = openUnfinished(path);
  if (opening == Opening::committed) ledger->finishOpening();
  return ledger;
}

namespace {

std::unique_ptr<Ledger> openUnfinished(const std::string& path) {
  if (path.empty()) return openInMemory();
  const std::string label = "state file " + path;
  const std::string inUse = label + ": in use by another process";

  std::lock_guard lock(heldFilesMutex());
  struct stat info {};
  const bool existed = ::stat(path.c_str(), &info) == 0;
  if (existed && heldFiles().contains(FileKey{info.st_dev, info.st_ino})) throw LedgerError(inUse);
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) {
    throw LedgerError(label + (existed ? ": cannot open: " : ": cannot create: ") +
                      std::strerror(errno));
  }
  // The lock comes before any check, so that no other ledger can change the file between the
  // checks and the opening. The kernel drops it with the descriptor, also when killed.
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0 || ::fstat(fd, &info) != 0) {
    const int cause = errno;
    ::close(fd);
    if (cause == EWOULDBLOCK) throw LedgerError(inUse);
    throw LedgerError(label + ": cannot lock: " + std::strerror(cause));
  }
  const bool creating = info.st_size == 0;
  const FileKey file{info.st_dev, info.st_ino};
  try {
    heldFiles().insert(file);
    const bool textsUnchecked = !creating && checkExistingFile(path, label, fd);
    try {
      auto database = std::make_unique<SQLite::Database>(path, SQLite::OPEN_READWRITE);
      configure(*database);
      // A new file has no bytes to keep, and its schema is better committed in WAL: a kill
      // during a commit in rollback mode leaves a hot journal, which the read-only checks of
      // the next open cannot roll back.
      if (creating) database->exec("PRAGMA journal_mode = WAL");
      std::unique_ptr<SQLite::Transaction> opening;
      if (needsUpgrade(*database)) {
        opening = std::make_unique<SQLite::Transaction>(*database, SQLite::TransactionBehavior::IMMEDIATE);
        upgrade(*database);
      }
      // The last step: from here on the ledger owns the descriptor.
      return std::make_unique<SQLiteLedger>(path, label, std::move(database), fd, file,
                                            textsUnchecked, std::move(opening));
    } catch (const SQLite::Exception& error) {
      if (creating) throw LedgerError(label + ": cannot create: " + error.what());
      throw openFailure(label, error);
    }
  } catch (...) {
    heldFiles().erase(file);
    // A file this call created and could not make a ledger of is not left behind.
    if (!existed) ::unlink(path.c_str());
    ::close(fd);
    throw;
  }
}

}  // namespace

}  // namespace appstore
