// The transaction endpoints: transaction info, subscription statuses, finish, app transaction
// info and app account tokens.
#include "appstore/server/server_api.h"

#include <algorithm>
#include <variant>

#include <boost/json/serialize.hpp>

#include "appstore/order_ids.h"
#include "appstore/server/api_support.h"

namespace appstore::server {
namespace json = boost::json;
namespace {

// An app transaction id names the app's purchase, not an in-app purchase.
bool isAppTransaction(LocalStore& store, std::uint64_t id) {
  return std::to_string(id) == store.appTransactionID();
}

// The in-app purchase `transactionID` names, with its signed form; or Apple's answer for an id
// that is not a number, names the app's own purchase, or is unknown.
std::variant<SignedTransaction, ApiError> inAppPurchase(LocalStore& store,
                                                        const std::string& transactionID) {
  const auto id = transactionNumber(transactionID);
  if (!id) return ApiError::invalidTransactionId;
  if (isAppTransaction(store, *id)) return ApiError::appTransactionIdNotSupported;
  const auto jws = store.signedForm(*id);
  if (!jws || jws->empty()) return ApiError::transactionIdNotFound;
  return SignedTransaction{*id, *jws};
}

}  // namespace

ApiAnswer transactionInfo(LocalStore& store, const std::string& transactionID) {
  return guarded([&] {
    const auto found = inAppPurchase(store, transactionID);
    if (const auto* refused = std::get_if<ApiError>(&found)) return ApiAnswer::error(*refused);
    return ApiAnswer{200, json::serialize(json::object{
                              {"signedTransactionInfo", std::get<SignedTransaction>(found).jws}})};
  });
}

ApiAnswer allSubscriptionStatuses(LocalStore& store, const std::string& transactionID,
                                  const std::vector<std::string>& statuses) {
  return guarded([&] {
    const auto id = transactionNumber(transactionID);
    if (!id) return ApiAnswer::error(ApiError::invalidTransactionId);
    std::vector<int> wanted;
    for (const auto& text : statuses) {
      const auto value = integerText(text);
      if (!value || *value < 1 || *value > 5) return ApiAnswer::error(ApiError::invalidStatus);
      wanted.push_back(static_cast<int>(*value));
    }
    if (!isCustomerTransaction(store, *id)) return ApiAnswer::error(ApiError::transactionIdNotFound);
    json::array data;
    for (const auto& held : store.subscriptionStatuses()) {
      const int status = static_cast<int>(held.status);
      if (!wanted.empty() && std::find(wanted.begin(), wanted.end(), status) == wanted.end()) continue;
      json::object last{{"status", status},
                        {"originalTransactionId", std::to_string(held.originalTransactionID)},
                        {"signedTransactionInfo", held.transaction.jws},
                        {"signedRenewalInfo", held.signedRenewalInfo}};
      data.push_back({{"subscriptionGroupIdentifier", held.groupID},
                      {"lastTransactions", json::array{std::move(last)}}});
    }
    return ApiAnswer{200, json::serialize(json::object{{"environment", store.environment()},
                                                       {"bundleId", store.bundleID()},
                                                       {"data", std::move(data)}})};
  });
}

ApiAnswer lookUpOrderID(LocalStore& store, const std::string& orderID) {
  return guarded([&] {
    // A family member's purchase is an order of theirs, not of this account.
    const auto id = transactionForOrderID(orderID);
    const auto summary = id ? store.transactionSummary(*id) : std::nullopt;
    const auto jws = summary && !summary->familyShared ? store.signedForm(*id) : std::nullopt;
    if (!jws || jws->empty()) return ApiAnswer{200, R"({"status":1})"};
    return ApiAnswer{200, json::serialize(json::object{
                              {"status", 0}, {"signedTransactions", json::array{*jws}}})};
  });
}

ApiAnswer finishTransaction(LocalStore& store, const std::string& transactionID) {
  return guarded([&] {
    const auto found = inAppPurchase(store, transactionID);
    if (const auto* refused = std::get_if<ApiError>(&found)) return ApiAnswer::error(*refused);
    store.finish(std::get<SignedTransaction>(found).id);
    return ApiAnswer{200, ""};
  });
}

ApiAnswer appTransactionInfo(LocalStore& store, const std::string& transactionID) {
  return guarded([&] {
    const auto id = transactionNumber(transactionID);
    if (!id) return ApiAnswer::error(ApiError::invalidTransactionId);
    if (!isCustomerTransaction(store, *id)) return ApiAnswer::error(ApiError::transactionIdNotFound);
    return ApiAnswer{200, json::serialize(json::object{
                              {"signedAppTransactionInfo", store.signedAppTransaction()}})};
  });
}

ApiAnswer setAppAccountToken(LocalStore& store, const std::string& originalTransactionID,
                             const std::string& body) {
  return guarded([&] {
    const auto id = transactionNumber(originalTransactionID);
    if (!id) return ApiAnswer::error(ApiError::invalidTransactionId);
    if (isAppTransaction(store, *id)) return ApiAnswer::error(ApiError::appTransactionIdNotSupported);
    const auto request = jsonObject(body);
    if (!request) return ApiAnswer::error(ApiError::generalBadRequest);
    const auto* text = request->if_contains("appAccountToken");
    const auto token = text && text->is_string() ? platform::UUID::fromString(text->get_string())
                                                 : std::nullopt;
    if (!token) return ApiAnswer::error(ApiError::invalidAppAccountTokenUUID);
    const auto transaction = store.transactionSummary(*id);
    if (!transaction) return ApiAnswer::error(ApiError::originalTransactionIdNotFound);
    if (transaction->familyShared) return ApiAnswer::error(ApiError::familyTransactionNotSupported);
    if (transaction->originalID != transaction->id) {
      return ApiAnswer::error(ApiError::transactionIdIsNotOriginalTransactionId);
    }
    store.setAppAccountToken(*id, *token);
    return ApiAnswer{200, ""};
  });
}

}  // namespace appstore::server
