// The ledger's record of what a developer's server asked the App Store for: consumption
// information about transactions and renewal-date extensions for every subscriber of a
// product. Private to the ledger's files; runs within the ledger's own calls (its caller
// serialises).
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <SQLiteCpp/Database.h>

#include "appstore/ledger.h"

namespace appstore::ledger_requests {

class Requests {
 public:
  explicit Requests(SQLite::Database& database);
  ~Requests();

  void putConsumptionInformation(std::uint64_t transactionID, std::string_view information);
  std::optional<std::string> consumptionInformation(std::uint64_t transactionID);
  void putMassExtension(const LedgerMassExtension& extension);
  std::optional<LedgerMassExtension> massExtension(std::string_view requestIdentifier,
                                                   std::string_view productID);

 private:
  struct Statements;
  std::unique_ptr<Statements> statements_;
};

}  // namespace appstore::ledger_requests
