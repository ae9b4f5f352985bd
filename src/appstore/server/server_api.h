// The App Store Server API's endpoints as functions of the store: each takes what the request
// carries and gives the status and JSON body Apple's server answers with. No HTTP here (see
// app_store_server.cpp); any thread (the store serialises its own state).
#pragma once

#include <string>
#include <vector>

#include "appstore/local_store.h"

namespace appstore::server {

// Apple's error codes the endpoints answer with; the HTTP status is the code / 10000.
enum class ApiError : long {
  generalBadRequest = 4000000,
  invalidTransactionId = 4000006,
  startDateTooFarInPast = 4000012,
  startDateAfterEndDate = 4000013,
  invalidPaginationToken = 4000014,
  invalidStartDate = 4000015,
  invalidEndDate = 4000016,
  invalidNotificationType = 4000018,
  multipleFiltersSupplied = 4000019,
  invalidTestNotificationToken = 4000020,
  invalidStatus = 4000031,
  appNotFound = 4040003,
  serverNotificationURLNotFound = 4040007,
  testNotificationNotFound = 4040008,
  transactionIdNotFound = 4040010,
  generalInternal = 5000000,
};

struct ApiAnswer {
  int status = 200;
  std::string body;  // JSON; empty for none

  static ApiAnswer error(ApiError code);
};

// GET /inApps/v1/transactions/{transactionId}: {"signedTransactionInfo": ...}.
ApiAnswer transactionInfo(LocalStore& store, const std::string& transactionID);

// GET /inApps/v1/subscriptions/{anyTransactionId}[?status=N...]: every subscription of the
// customer the transaction belongs to, by group, with its status, latest transaction and
// renewal info; `statuses` (the query's "status" values) keeps only those states.
ApiAnswer allSubscriptionStatuses(LocalStore& store, const std::string& transactionID,
                                  const std::vector<std::string>& statuses);

// POST /inApps/v1/transactions/{transactionId}/finish: as the device's finish(); no body.
ApiAnswer finishTransaction(LocalStore& store, const std::string& transactionID);

}  // namespace appstore::server
