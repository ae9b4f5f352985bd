#include "appstore/ledger_outbox.h"
#include "appstore/ledger_sql.h"

#include <SQLiteCpp/Statement.h>

namespace appstore::ledger_outbox {
using namespace ledger_sql;
namespace {

constexpr const char* kColumns =
    "sequence, uuid, notification_type, subtype, original_transaction_id, created, "
    "next_attempt, test_token, signed_payload";


}  // namespace

struct Outbox::Statements {
  explicit Statements(SQLite::Database& database)
      : put(database,
            "INSERT INTO notifications (uuid, notification_type, subtype, "
            "original_transaction_id, created, next_attempt, test_token, signed_payload) "
            "VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)"),
        addAttempt(database,
                   "INSERT INTO send_attempts (notification, attempt_date, result) "
                   "VALUES (?1, ?2, ?3)"),
        setNext(database, "UPDATE notifications SET next_attempt = ?2 WHERE sequence = ?1"),
        attempts(database,
                 "SELECT attempt_date, result FROM send_attempts WHERE notification = ?1 "
                 "ORDER BY rowid"),
        find(database, std::string("SELECT ") + kColumns +
                           " FROM notifications WHERE created >= ?1 AND created < ?2 "
                           "AND (?3 IS NULL OR notification_type = ?3) "
                           "AND (?4 IS NULL OR subtype = ?4) "
                           "AND (?5 = 0 OR original_transaction_id IS NOT NULL) "
                           "AND (?6 = 0 OR (EXISTS (SELECT 1 FROM send_attempts AS a "
                           "  WHERE a.notification = sequence) AND NOT EXISTS (SELECT 1 FROM "
                           "  send_attempts AS a WHERE a.notification = sequence AND "
                           "  a.result = 'SUCCESS'))) "
                           "AND sequence > ?7 ORDER BY sequence LIMIT ?8"),
        due(database, std::string("SELECT ") + kColumns +
                          " FROM notifications WHERE next_attempt IS NOT NULL AND "
                          "next_attempt <= ?1 ORDER BY next_attempt, sequence LIMIT ?2"),
        nextDue(database, "SELECT min(next_attempt) FROM notifications"),
        byToken(database, std::string("SELECT ") + kColumns +
                              " FROM notifications WHERE test_token = ?1") {}

  SQLite::Statement put, addAttempt, setNext, attempts, find, due, nextDue, byToken;
};

Outbox::Outbox(SQLite::Database& database)
    : database_(database), statements_(std::make_unique<Statements>(database)) {}
Outbox::~Outbox() = default;

void Outbox::put(LedgerNotification& notification) {
  auto& row = fresh(statements_->put);
  row.bind(1, notification.uuid);
  row.bind(2, notification.type);
  row.bind(3, notification.subtype);
  if (notification.originalTransactionID) {
    row.bind(4, static_cast<std::int64_t>(*notification.originalTransactionID));
  }
  row.bind(5, milliseconds(notification.created));
  if (notification.nextAttempt) row.bind(6, milliseconds(*notification.nextAttempt));
  if (notification.testToken) row.bind(7, *notification.testToken);
  row.bind(8, notification.signedPayload);
  row.exec();
  notification.sequence = static_cast<std::uint64_t>(database_.getLastInsertRowid());
}

void Outbox::recordAttempt(std::uint64_t sequence, const LedgerSendAttempt& attempt,
                           std::optional<platform::Date> nextAttempt) {
  auto& row = fresh(statements_->addAttempt);
  row.bind(1, static_cast<std::int64_t>(sequence));
  row.bind(2, milliseconds(attempt.date));
  row.bind(3, attempt.result);
  row.exec();
  auto& next = fresh(statements_->setNext);
  next.bind(1, static_cast<std::int64_t>(sequence));
  if (nextAttempt) next.bind(2, milliseconds(*nextAttempt));
  next.exec();
}

std::vector<LedgerNotification> Outbox::rows(SQLite::Statement& query) {
  std::vector<LedgerNotification> found;
  while (query.executeStep()) {
    LedgerNotification notification;
    notification.sequence = static_cast<std::uint64_t>(query.getColumn(0).getInt64());
    notification.uuid = query.getColumn(1).getString();
    notification.type = query.getColumn(2).getString();
    notification.subtype = query.getColumn(3).getString();
    if (!query.getColumn(4).isNull()) {
      notification.originalTransactionID = static_cast<std::uint64_t>(query.getColumn(4).getInt64());
    }
    notification.created = platform::dateFromMillisecondsSince1970(query.getColumn(5).getInt64());
    if (!query.getColumn(6).isNull()) {
      notification.nextAttempt = platform::dateFromMillisecondsSince1970(query.getColumn(6).getInt64());
    }
    if (!query.getColumn(7).isNull()) notification.testToken = query.getColumn(7).getString();
    notification.signedPayload = query.getColumn(8).getString();
    found.push_back(std::move(notification));
  }
  query.reset();
  for (auto& notification : found) {
    auto& attempts = fresh(statements_->attempts);
    attempts.bind(1, static_cast<std::int64_t>(notification.sequence));
    while (attempts.executeStep()) {
      notification.attempts.push_back(
          {platform::dateFromMillisecondsSince1970(attempts.getColumn(0).getInt64()),
           attempts.getColumn(1).getString()});
    }
    attempts.reset();
  }
  return found;
}

std::vector<LedgerNotification> Outbox::find(const NotificationQuery& query) {
  auto& statement = fresh(statements_->find);
  statement.bind(1, milliseconds(query.start));
  statement.bind(2, milliseconds(query.end));
  if (query.type) statement.bind(3, *query.type);
  if (query.subtype) statement.bind(4, *query.subtype);
  statement.bind(5, query.onlyWithTransaction ? 1 : 0);
  statement.bind(6, query.onlyFailures ? 1 : 0);
  statement.bind(7, static_cast<std::int64_t>(query.afterSequence));
  statement.bind(8, static_cast<std::int64_t>(query.limit));
  return rows(statement);
}

std::vector<LedgerNotification> Outbox::due(platform::Date now, std::size_t limit) {
  auto& statement = fresh(statements_->due);
  statement.bind(1, milliseconds(now));
  statement.bind(2, static_cast<std::int64_t>(limit));
  return rows(statement);
}

std::optional<platform::Date> Outbox::nextDue() {
  auto& statement = fresh(statements_->nextDue);
  std::optional<platform::Date> next;
  if (statement.executeStep() && !statement.getColumn(0).isNull()) {
    next = platform::dateFromMillisecondsSince1970(statement.getColumn(0).getInt64());
  }
  statement.reset();
  return next;
}

std::optional<LedgerNotification> Outbox::byTestToken(std::string_view token) {
  auto& statement = fresh(statements_->byToken);
  statement.bind(1, std::string(token));
  auto found = rows(statement);
  if (found.empty()) return std::nullopt;
  return std::move(found.front());
}

}  // namespace appstore::ledger_outbox
