// The ledger's outbox: the SQL of the notifications table and of their send attempts.
// Private to the ledger's files; runs within the ledger's own calls (its caller serialises).
#pragma once

#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include <SQLiteCpp/Database.h>

#include "appstore/ledger.h"

namespace appstore::ledger_outbox {

class Outbox {
 public:
  explicit Outbox(SQLite::Database& database);
  ~Outbox();

  void put(LedgerNotification& notification);
  void recordAttempt(std::uint64_t sequence, const LedgerSendAttempt& attempt,
                     std::optional<platform::Date> nextAttempt);
  std::vector<LedgerNotification> find(const NotificationQuery& query);
  std::vector<LedgerNotification> due(platform::Date now, std::size_t limit);
  std::optional<platform::Date> nextDue();
  std::optional<LedgerNotification> byTestToken(std::string_view token);

 private:
  struct Statements;
  std::vector<LedgerNotification> rows(SQLite::Statement& query);
  SQLite::Database& database_;
  std::unique_ptr<Statements> statements_;
};

}  // namespace appstore::ledger_outbox
