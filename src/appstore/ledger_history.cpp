#include "appstore/ledger_history.h"
#include "appstore/ledger_signed_forms.h"
#include "appstore/ledger_sql.h"

#include <boost/json/array.hpp>
#include <boost/json/serialize.hpp>

namespace appstore::ledger_history {
using namespace ledger_sql;
namespace {

// A list filter travels as one JSON array, so that one prepared statement serves every list
// length; an empty list is no filter (left unbound: NULL).
void bindList(SQLite::Statement& statement, int index, const std::vector<std::string>& values) {
  if (values.empty()) return;
  boost::json::array list;
  for (const auto& value : values) list.emplace_back(value);
  statement.bind(index, boost::json::serialize(list));
}

// Purchased entries only: a request waiting for approval, declined or interrupted was never
// bought.
constexpr const char* kHistoryFilter =
    " FROM transactions AS t WHERE t.state = 0"
    " AND (?1 IS NULL OR t.purchase_date >= ?1)"
    " AND (?2 IS NULL OR t.purchase_date < ?2)"
    " AND (?3 IS NULL OR t.product_id IN (SELECT value FROM json_each(?3)))"
    " AND (?4 IS NULL OR t.product_type IN (SELECT value FROM json_each(?4)))"
    " AND (?5 IS NULL OR t.group_id IN (SELECT value FROM json_each(?5)))"
    " AND (?6 IS NULL OR t.family_shared = ?6)"
    " AND (?7 IS NULL OR (t.revocation_date IS NOT NULL) = ?7)"
    " AND (?8 = 1 OR t.product_type <> 'Consumable' OR t.finished = 0"
    "      OR t.revocation_date IS NOT NULL)";

}  // namespace

const char* const kTypedColumns =
    "t.id, t.original_id, t.product_id, t.product_type, t.group_id, t.state, t.purchase_date, "
    "t.expires_date, t.revocation_date, t.upgraded, t.finished, t.revision, t.family_shared";

LedgerTransaction typedTransaction(const SQLite::Statement& row) {
  LedgerTransaction transaction;
  transaction.id = static_cast<std::uint64_t>(row.getColumn(0).getInt64());
  transaction.originalID = static_cast<std::uint64_t>(row.getColumn(1).getInt64());
  transaction.productID = row.getColumn(2).getString();
  transaction.productType = row.getColumn(3).getString();
  transaction.groupID = row.getColumn(4).getString();
  transaction.state = static_cast<EntryState>(row.getColumn(5).getInt());
  transaction.purchaseDate = platform::dateFromMillisecondsSince1970(row.getColumn(6).getInt64());
  transaction.expiresDate = optionalDate(row.getColumn(7));
  transaction.revocationDate = optionalDate(row.getColumn(8));
  transaction.upgraded = row.getColumn(9).getInt() != 0;
  transaction.finished = row.getColumn(10).getInt() != 0;
  transaction.revision = static_cast<std::uint64_t>(row.getColumn(11).getInt64());
  transaction.familyShared = row.getColumn(12).getInt() != 0;
  return transaction;
}

// The pages are chosen from the typed rows alone and their signed forms (kilobytes each) read
// afterwards by id: joined into the query, every candidate's signed form went through the
// sort before the limit dropped all but a page of them.
struct History::Statements {
  explicit Statements(SQLite::Database& database)
      : oldestFirst(database, std::string("SELECT ") + kTypedColumns + kHistoryFilter +
                                  " AND (?9 IS NULL OR t.revision > ?9) ORDER BY t.revision LIMIT ?10"),
        newestFirst(database, std::string("SELECT ") + kTypedColumns + kHistoryFilter +
                                  " AND (?9 IS NULL OR t.revision < ?9) "
                                  "ORDER BY t.revision DESC LIMIT ?10"),
        refunds(database, std::string("SELECT ") + kTypedColumns +
                              " FROM transactions AS t WHERE t.state = 0 AND t.family_shared = 0 "
                              "AND t.revocation_date IS NOT NULL AND (?1 IS NULL OR "
                              "t.revocation_date > ?1 OR (t.revocation_date = ?1 AND t.id > ?2)) "
                              "ORDER BY t.revocation_date, t.id LIMIT ?3"),
        signedForm(database, std::string("SELECT ") + ledger_signed_forms::kColumns +
                                 " FROM transaction_texts AS x" + ledger_signed_forms::kJoin +
                                 " WHERE x.id = ?1") {}

  SQLite::Statement oldestFirst, newestFirst, refunds, signedForm;
};

History::History(SQLite::Database& database)
    : statements_(std::make_unique<Statements>(database)) {}
History::~History() = default;

std::vector<LedgerTransaction> History::rowsWithSignedForms(SQLite::Statement& query) {
  std::vector<LedgerTransaction> rows;
  while (query.executeStep()) rows.push_back(typedTransaction(query));
  query.reset();
  // Written in the same commit as its typed row, a signed form is never missing; a row without
  // one is left out rather than handed out empty.
  std::vector<LedgerTransaction> found;
  found.reserve(rows.size());
  for (auto& row : rows) {
    auto& signedForm = fresh(statements_->signedForm);
    signedForm.bind(1, static_cast<std::int64_t>(row.id));
    if (!signedForm.executeStep()) continue;
    row.signedForm = ledger_signed_forms::signedForm(signedForm, 0);
    found.push_back(std::move(row));
  }
  statements_->signedForm.reset();
  return found;
}

std::vector<LedgerTransaction> History::page(const HistoryQuery& query) {
  auto& statement = fresh(query.newestFirst ? statements_->newestFirst : statements_->oldestFirst);
  if (query.start) statement.bind(1, milliseconds(*query.start));
  if (query.end) statement.bind(2, milliseconds(*query.end));
  bindList(statement, 3, query.productIDs);
  bindList(statement, 4, query.productTypes);
  bindList(statement, 5, query.groupIDs);
  if (query.familyShared) statement.bind(6, *query.familyShared ? 1 : 0);
  if (query.revoked) statement.bind(7, *query.revoked ? 1 : 0);
  statement.bind(8, query.withFinishedConsumables ? 1 : 0);
  if (query.after) statement.bind(9, static_cast<std::int64_t>(*query.after));
  statement.bind(10, static_cast<std::int64_t>(query.limit));
  return rowsWithSignedForms(statement);
}

std::vector<LedgerTransaction> History::refunds(std::optional<RefundPosition> after,
                                                std::size_t limit) {
  auto& statement = fresh(statements_->refunds);
  if (after) {
    statement.bind(1, milliseconds(after->revoked));
    statement.bind(2, static_cast<std::int64_t>(after->id));
  }
  statement.bind(3, static_cast<std::int64_t>(limit));
  return rowsWithSignedForms(statement);
}

}  // namespace appstore::ledger_history
