// The ledger's history queries: pages of purchases in the order of their latest change, and of
// refunds by revocation date, each with its signed form; and how every query of the ledger
// reads a transaction's typed columns. Private to the ledger's files; runs within the ledger's
// own calls (its caller serialises).
#pragma once

#include <memory>
#include <optional>
#include <vector>

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>

#include "appstore/ledger.h"

namespace appstore::ledger_history {

// The typed columns of the transactions table "t", in the order typedTransaction() reads them
// (13 columns, from index 0).
extern const char* const kTypedColumns;
LedgerTransaction typedTransaction(const SQLite::Statement& row);

class History {
 public:
  explicit History(SQLite::Database& database);
  ~History();

  std::vector<LedgerTransaction> page(const HistoryQuery& query);
  std::vector<LedgerTransaction> refunds(std::optional<RefundPosition> after, std::size_t limit);

 private:
  // The rows `query` steps through, each with its signed form.
  std::vector<LedgerTransaction> rowsWithSignedForms(SQLite::Statement& query);

  struct Statements;
  std::unique_ptr<Statements> statements_;
};

}  // namespace appstore::ledger_history
