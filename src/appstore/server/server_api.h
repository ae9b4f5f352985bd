// The App Store Server API's endpoints as functions of the store: each takes what the request
// carries and gives the status and JSON body Apple's server answers with. No HTTP here (see
// app_store_server.cpp); any thread (the store serialises its own state).
#pragma once

#include <string>

#include "appstore/local_store.h"

namespace appstore::server {

// Apple's error codes the endpoints answer with; the HTTP status is the code / 10000.
enum class ApiError : long {
  invalidTransactionId = 4000006,
  appNotFound = 4040003,
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

}  // namespace appstore::server
