#include "appstore/server/server_api.h"

#include <algorithm>
#include <charconv>
#include <optional>

#include <boost/json/serialize.hpp>

namespace appstore::server {
namespace json = boost::json;
namespace {

const char* messageOf(ApiError code) {
  switch (code) {
    case ApiError::generalBadRequest: return "Bad request.";
    case ApiError::invalidTransactionId: return "Invalid transaction id.";
    case ApiError::startDateTooFarInPast:
      return "Invalid request. The start date is earlier than the allowed start date.";
    case ApiError::startDateAfterEndDate:
      return "Invalid request. The end date precedes the start date or the dates are the same.";
    case ApiError::invalidPaginationToken:
      return "Invalid request. The pagination token is invalid.";
    case ApiError::invalidStartDate:
      return "Invalid request. The start date is not a timestamp value represented in milliseconds.";
    case ApiError::invalidEndDate:
      return "Invalid request. The end date is not a timestamp value represented in milliseconds.";
    case ApiError::invalidNotificationType:
      return "Invalid request. The notification type or subtype is invalid.";
    case ApiError::multipleFiltersSupplied:
      return "Invalid request. Supply either a transaction id or a notification type, but not both.";
    case ApiError::invalidTestNotificationToken:
      return "Invalid request. The test notification token is invalid.";
    case ApiError::serverNotificationURLNotFound:
      return "No App Store Server Notification URL found for provided app. Check that a URL is "
             "configured in App Store Connect for this environment.";
    case ApiError::testNotificationNotFound:
      return "Either the test notification token is expired or the notification and status are "
             "not yet available.";
    case ApiError::invalidStatus: return "Invalid request. The status parameter is invalid.";
    case ApiError::appNotFound: return "App not found.";
    case ApiError::transactionIdNotFound: return "Transaction id not found.";
    case ApiError::generalInternal: return "An unknown error occurred.";
  }
  return "An unknown error occurred.";
}

// Transaction ids are decimal digits, as Apple writes them.
std::optional<std::uint64_t> transactionNumber(const std::string& text) {
  std::uint64_t value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

template <class Answer>
ApiAnswer guarded(Answer&& answer) {
  try {
    return answer();
  } catch (const std::exception&) {
    // A ledger that cannot be read: Apple's answer for its own trouble.
    return ApiAnswer::error(ApiError::generalInternal);
  }
}

}  // namespace

ApiAnswer ApiAnswer::error(ApiError code) {
  const auto number = static_cast<long>(code);
  return {static_cast<int>(number / 10000),
          json::serialize(json::object{{"errorCode", number}, {"errorMessage", messageOf(code)}})};
}

ApiAnswer transactionInfo(LocalStore& store, const std::string& transactionID) {
  return guarded([&] {
    const auto id = transactionNumber(transactionID);
    if (!id) return ApiAnswer::error(ApiError::invalidTransactionId);
    const auto jws = store.signedForm(*id);
    if (!jws || jws->empty()) return ApiAnswer::error(ApiError::transactionIdNotFound);
    return ApiAnswer{200, json::serialize(json::object{{"signedTransactionInfo", *jws}})};
  });
}

ApiAnswer allSubscriptionStatuses(LocalStore& store, const std::string& transactionID,
                                  const std::vector<std::string>& statuses) {
  return guarded([&] {
    const auto id = transactionNumber(transactionID);
    if (!id) return ApiAnswer::error(ApiError::invalidTransactionId);
    std::vector<int> wanted;
    for (const auto& text : statuses) {
      int value = 0;
      const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
      if (text.empty() || ec != std::errc() || end != text.data() + text.size() || value < 1 || value > 5) {
        return ApiAnswer::error(ApiError::invalidStatus);
      }
      wanted.push_back(value);
    }
    const auto jws = store.signedForm(*id);
    if (!jws || jws->empty()) return ApiAnswer::error(ApiError::transactionIdNotFound);
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

ApiAnswer finishTransaction(LocalStore& store, const std::string& transactionID) {
  return guarded([&] {
    const auto id = transactionNumber(transactionID);
    if (!id) return ApiAnswer::error(ApiError::invalidTransactionId);
    const auto jws = store.signedForm(*id);
    if (!jws || jws->empty()) return ApiAnswer::error(ApiError::transactionIdNotFound);
    store.finish(*id);
    return ApiAnswer{200, ""};
  });
}

}  // namespace appstore::server
