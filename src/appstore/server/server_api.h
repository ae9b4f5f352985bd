// The App Store Server API's endpoints as functions of the store: each takes what the request
// carries (path parts, query, body) and gives the status and JSON body Apple's server answers
// with. No HTTP here (api_routes.cpp picks the endpoint, app_store_server.cpp speaks HTTP);
// any thread (the store serialises its own state). The endpoints live in files by family: transactions (server_api.cpp), history
// (api_history.cpp), consumption (api_consumption.cpp), renewal-date extensions
// (api_extensions.cpp).
#pragma once

#include <map>
#include <string>
#include <vector>

#include "appstore/local_store.h"

namespace appstore::server {

// Apple's error codes the endpoints answer with; the HTTP status is the code / 10000.
enum class ApiError : long {
  generalBadRequest = 4000000,
  invalidRequestRevision = 4000005,
  invalidTransactionId = 4000006,
  invalidOriginalTransactionId = 4000008,
  invalidExtendByDays = 4000009,
  invalidExtendReasonCode = 4000010,
  invalidRequestIdentifier = 4000011,
  startDateTooFarInPast = 4000012,
  startDateAfterEndDate = 4000013,
  invalidPaginationToken = 4000014,
  invalidStartDate = 4000015,
  invalidEndDate = 4000016,
  invalidNotificationType = 4000018,
  multipleFiltersSupplied = 4000019,
  invalidTestNotificationToken = 4000020,
  invalidSort = 4000021,
  invalidProductType = 4000022,
  invalidProductId = 4000023,
  invalidSubscriptionGroupIdentifier = 4000024,
  invalidExcludeRevoked = 4000025,
  invalidInAppOwnershipType = 4000026,
  invalidEmptyStorefrontCountryCodeList = 4000027,
  invalidStorefrontCountryCode = 4000028,
  invalidRevoked = 4000030,
  invalidStatus = 4000031,
  invalidAccountTenure = 4000032,
  invalidAppAccountToken = 4000033,
  invalidConsumptionStatus = 4000034,
  invalidCustomerConsented = 4000035,
  invalidDeliveryStatus = 4000036,
  invalidLifetimeDollarsPurchased = 4000037,
  invalidLifetimeDollarsRefunded = 4000038,
  invalidPlatform = 4000039,
  invalidPlayTime = 4000040,
  invalidSampleContentProvided = 4000041,
  invalidUserStatus = 4000042,
  invalidRefundPreference = 4000044,
  invalidTransactionTypeNotSupported = 4000047,
  appTransactionIdNotSupported = 4000048,
  invalidAppAccountTokenUUID = 4000183,
  familyTransactionNotSupported = 4000185,
  transactionIdIsNotOriginalTransactionId = 4000187,
  consumptionPercentageAutoRenewableSubscription = 4000209,
  // Apple publishes no number for these two; ours follow the one above.
  consumptionPercentageOutOfRange = 4000210,
  undeliveredConsumptionPercentageNonZero = 4000211,
  subscriptionExtensionIneligible = 4030004,
  subscriptionMaxExtension = 4030005,
  familySharedSubscriptionExtensionIneligible = 4030007,
  appNotFound = 4040003,
  originalTransactionIdNotFound = 4040005,
  serverNotificationURLNotFound = 4040007,
  testNotificationNotFound = 4040008,
  statusRequestNotFound = 4040009,
  transactionIdNotFound = 4040010,
  generalInternal = 5000000,
};

struct ApiAnswer {
  int status = 200;
  std::string body;  // JSON; empty for none
  std::string allow;  // 405 only: the methods the path takes, for the Allow header

  static ApiAnswer error(ApiError code);
};

// The query string's parameters, a key once per occurrence (lists repeat their key).
using QueryParameters = std::multimap<std::string, std::string>;

// --- Transactions -------------------------------------------------------------------------
// GET /inApps/v1/transactions/{transactionId}: {"signedTransactionInfo": ...}.
ApiAnswer transactionInfo(LocalStore& store, const std::string& transactionID);

// GET /inApps/v1/subscriptions/{anyTransactionId}[?status=N...]: every subscription of the
// customer the transaction belongs to, by group, with its status, latest transaction and
// renewal info; `statuses` (the query's "status" values) keeps only those states.
ApiAnswer allSubscriptionStatuses(LocalStore& store, const std::string& transactionID,
                                  const std::vector<std::string>& statuses);

// POST /inApps/v1/transactions/{transactionId}/finish: as the device's finish(); no body.
ApiAnswer finishTransaction(LocalStore& store, const std::string& transactionID);

// GET /inApps/v1/transactions/appTransactions/{anyTransactionId}:
// {"signedAppTransactionInfo": ...}.
ApiAnswer appTransactionInfo(LocalStore& store, const std::string& transactionID);

// PUT /inApps/v1/transactions/{originalTransactionId}/appAccountToken with
// {"appAccountToken": UUID}: 200, no body.
ApiAnswer setAppAccountToken(LocalStore& store, const std::string& originalTransactionID,
                             const std::string& body);

// GET /inApps/v1/lookup/{orderId}: {"status": 0, "signedTransactions": [...]} for an order of
// this account, {"status": 1} for any other text.
ApiAnswer lookUpOrderID(LocalStore& store, const std::string& orderID);

// --- History ------------------------------------------------------------------------------
enum class HistoryVersion { v1, v2 };
// GET /inApps/{v1|v2}/history/{anyTransactionId}: a page of the customer's purchases in the
// order of their latest change, filtered by the query. V1 leaves out finished consumables.
ApiAnswer transactionHistory(LocalStore& store, HistoryVersion version,
                             const std::string& transactionID, const QueryParameters& query);

// GET /inApps/v2/refund/lookup/{anyTransactionId}: a page of the customer's refunds.
ApiAnswer refundHistory(LocalStore& store, const std::string& transactionID,
                        const QueryParameters& query);

// --- Consumption --------------------------------------------------------------------------
enum class ConsumptionVersion { v1, v2 };
// PUT /inApps/{v1|v2}/transactions/consumption/{transactionId}: 202, no body.
ApiAnswer sendConsumptionInformation(LocalStore& store, ConsumptionVersion version,
                                     const std::string& transactionID, const std::string& body);

// --- Renewal-date extensions --------------------------------------------------------------
// PUT /inApps/v1/subscriptions/extend/{originalTransactionId}: ExtendRenewalDateResponse.
ApiAnswer extendRenewalDate(LocalStore& store, const std::string& originalTransactionID,
                            const std::string& body);
// POST /inApps/v1/subscriptions/extend/mass: {"requestIdentifier": ...}.
ApiAnswer extendRenewalDatesForAllSubscribers(LocalStore& store, const std::string& body);
// GET /inApps/v1/subscriptions/extend/mass/{productId}/{requestIdentifier}; the two path parts
// are also taken the other way round, as some clients send them.
ApiAnswer massExtensionStatus(LocalStore& store, const std::string& productID,
                              const std::string& requestIdentifier);

}  // namespace appstore::server
