// The transaction a store entry or a signed transaction carries, read from its signed form
// without verification (the tests that need verification go through the device).
#pragma once

#include <optional>

#include "appstore/local_store.h"
#include "storekit/jws.h"
#include "storekit/transaction.h"

namespace testsupport {

inline storekit::Transaction transactionOf(const appstore::SignedTransaction& signedTransaction) {
  return storekit::Transaction::fromJSON(storekit::decodeJWSPayload(signedTransaction.jws).value());
}

// Nothing for an entry not purchased (a pending or declined request).
inline std::optional<storekit::Transaction> transactionOf(const appstore::TestTransaction& entry) {
  if (entry.jwsRepresentation.empty()) return std::nullopt;
  return transactionOf(appstore::SignedTransaction{entry.identifier, entry.jwsRepresentation});
}

}  // namespace testsupport
