#include "appstore/ledger_requests.h"
#include "appstore/ledger_sql.h"

#include <SQLiteCpp/Statement.h>

namespace appstore::ledger_requests {
using namespace ledger_sql;
struct Requests::Statements {
  explicit Statements(SQLite::Database& database)
      // Information sent without a consumption request of the App Store's keeps the request's
      // columns empty: no reason, requested at 0.
      : putConsumption(database,
                       "INSERT INTO consumption_requests (transaction_id, reason, requested, "
                       "information) VALUES (?1, '', 0, ?2) ON CONFLICT (transaction_id) "
                       "DO UPDATE SET information = excluded.information"),
        consumption(database,
                    "SELECT information FROM consumption_requests WHERE transaction_id = ?1"),
        putMass(database,
                "INSERT OR REPLACE INTO mass_extensions (request_identifier, product_id, request, "
                "created, complete_date, succeeded, failed) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7)"),
        mass(database,
             "SELECT request_identifier, product_id, request, created, complete_date, succeeded, "
             "failed FROM mass_extensions WHERE request_identifier = ?1 AND product_id = ?2") {}

  SQLite::Statement putConsumption, consumption, putMass, mass;
};

Requests::Requests(SQLite::Database& database)
    : statements_(std::make_unique<Statements>(database)) {}
Requests::~Requests() = default;

void Requests::putConsumptionInformation(std::uint64_t transactionID,
                                         std::string_view information) {
  auto& row = fresh(statements_->putConsumption);
  row.bind(1, static_cast<std::int64_t>(transactionID));
  row.bind(2, std::string(information));
  row.exec();
}

std::optional<std::string> Requests::consumptionInformation(std::uint64_t transactionID) {
  auto& query = fresh(statements_->consumption);
  query.bind(1, static_cast<std::int64_t>(transactionID));
  std::optional<std::string> found;
  if (query.executeStep()) found = query.getColumn(0).getString();
  query.reset();
  if (found && found->empty()) return std::nullopt;  // a request not yet answered
  return found;
}

void Requests::putMassExtension(const LedgerMassExtension& extension) {
  auto& row = fresh(statements_->putMass);
  row.bind(1, extension.requestIdentifier);
  row.bind(2, extension.productID);
  row.bind(3, extension.request);
  row.bind(4, milliseconds(extension.created));
  if (extension.completeDate) row.bind(5, milliseconds(*extension.completeDate));
  row.bind(6, extension.succeeded);
  row.bind(7, extension.failed);
  row.exec();
}

std::optional<LedgerMassExtension> Requests::massExtension(std::string_view requestIdentifier,
                                                           std::string_view productID) {
  auto& query = fresh(statements_->mass);
  query.bind(1, std::string(requestIdentifier));
  query.bind(2, std::string(productID));
  std::optional<LedgerMassExtension> found;
  if (query.executeStep()) {
    LedgerMassExtension extension;
    extension.requestIdentifier = query.getColumn(0).getString();
    extension.productID = query.getColumn(1).getString();
    extension.request = query.getColumn(2).getString();
    extension.created = platform::dateFromMillisecondsSince1970(query.getColumn(3).getInt64());
    if (!query.getColumn(4).isNull()) {
      extension.completeDate = platform::dateFromMillisecondsSince1970(query.getColumn(4).getInt64());
    }
    extension.succeeded = query.getColumn(5).getInt64();
    extension.failed = query.getColumn(6).getInt64();
    found = std::move(extension);
  }
  query.reset();
  return found;
}

}  // namespace appstore::ledger_requests
