// The result of each adapter operation: a tagged union whose alternatives keep the case
// order success, unknown, failure, then the operation's own outcomes. Nothing is ever thrown
// across the adapter interface; every failure travels inside the result. Plain values.
#pragma once

#include "host/vorn_error.h"
#include "records/service_records.h"

#include <string>
#include <variant>

namespace VornTeskPaymentsAddonApple {

// An outcome the adapter could not classify: an outcome code and the data as raw JSON text.
struct Unknown {
  std::string code;
  std::string rawJson;
};

// Outcomes without payload.
struct UserCanceled {};
struct Pending {};
struct AlreadyStarted {};
struct TransactionNotFound {};

// success(Response), unknown, failure(VornError), then the operation's own cases.
template <class Response, class... OwnCases>
using AdapterResult = std::variant<Response, Unknown, vorn::tesk::VornError, OwnCases...>;

using AppleStoreKitServiceGetProductsResult = AdapterResult<GetProductsResponse>;
using AppleStoreKitServicePurchaseResult = AdapterResult<PurchaseResponse, UserCanceled, Pending>;
using AppleStoreKitServiceStartTransactionObserverResult =
    AdapterResult<StartTransactionObserverResponse, AlreadyStarted>;
using AppleStoreKitServiceStopTransactionObserverResult =
    AdapterResult<StopTransactionObserverResponse>;
using AppleStoreKitServiceGetCurrentEntitlementsResult =
    AdapterResult<GetCurrentEntitlementsResponse>;
using AppleStoreKitServiceGetAllTransactionsResult = AdapterResult<GetAllTransactionsResponse>;
using AppleStoreKitServiceGetUnfinishedTransactionsResult =
    AdapterResult<GetUnfinishedTransactionsResponse>;
using AppleStoreKitServiceFinishTransactionResult =
    AdapterResult<FinishTransactionResponse, TransactionNotFound>;
using AppleStoreKitServiceSyncResult = AdapterResult<SyncResponse, UserCanceled>;
using AppleStoreKitServiceGetStorefrontResult = AdapterResult<GetStorefrontResponse>;

}  // namespace VornTeskPaymentsAddonApple
