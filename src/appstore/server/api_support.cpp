#include "appstore/server/api_support.h"

#include <charconv>
#include <cmath>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

namespace appstore::server {
namespace json = boost::json;
namespace {

const char* messageOf(ApiError code) {
  switch (code) {
    case ApiError::generalBadRequest: return "Bad request.";
    case ApiError::invalidRequestRevision: return "Invalid request revision.";
    case ApiError::invalidTransactionId: return "Invalid transaction id.";
    case ApiError::invalidOriginalTransactionId: return "Invalid original transaction id.";
    case ApiError::invalidExtendByDays: return "Invalid extend by days value.";
    case ApiError::invalidExtendReasonCode: return "Invalid extend reason code.";
    case ApiError::invalidRequestIdentifier: return "Invalid request identifier.";
    case ApiError::startDateAfterEndDate:
      return "Invalid request. The end date precedes the start date or the dates are the same.";
    case ApiError::invalidStartDate:
      return "Invalid request. The start date is not a timestamp value represented in milliseconds.";
    case ApiError::invalidEndDate:
      return "Invalid request. The end date is not a timestamp value represented in milliseconds.";
    case ApiError::startDateTooFarInPast:
      return "Invalid request. The start date is earlier than the allowed start date.";
    case ApiError::invalidPaginationToken:
      return "Invalid request. The pagination token is invalid.";
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
    case ApiError::invalidSort: return "Invalid request. The sort parameter is invalid.";
    case ApiError::invalidProductType: return "Invalid request. The product type parameter is invalid.";
    case ApiError::invalidProductId: return "Invalid request. The product id parameter is invalid.";
    case ApiError::invalidSubscriptionGroupIdentifier:
      return "Invalid request. The subscription group identifier parameter is invalid.";
    case ApiError::invalidExcludeRevoked:
      return "Invalid request. The exclude revoked parameter is invalid.";
    case ApiError::invalidInAppOwnershipType:
      return "Invalid request. The in-app ownership type parameter is invalid.";
    case ApiError::invalidEmptyStorefrontCountryCodeList:
      return "Invalid request. If provided, the list of storefront country codes must not be empty.";
    case ApiError::invalidStorefrontCountryCode:
      return "Invalid request. A storefront country code was invalid.";
    case ApiError::invalidRevoked: return "Invalid request. The revoked parameter is invalid.";
    case ApiError::invalidStatus: return "Invalid request. The status parameter is invalid.";
    case ApiError::invalidAccountTenure: return "Invalid request. The account tenure field is invalid.";
    case ApiError::invalidAppAccountToken:
      return "Invalid request. The app account token field must contain a valid UUID or an empty "
             "string.";
    case ApiError::invalidConsumptionStatus:
      return "Invalid request. The consumption status field is invalid.";
    case ApiError::invalidCustomerConsented:
      return "Invalid request. The customer consented field is required and must indicate the "
             "customer consented.";
    case ApiError::invalidDeliveryStatus: return "Invalid request. The delivery status field is invalid.";
    case ApiError::invalidLifetimeDollarsPurchased:
      return "Invalid request. The lifetime dollars purchased field is invalid.";
    case ApiError::invalidLifetimeDollarsRefunded:
      return "Invalid request. The lifetime dollars refunded field is invalid.";
    case ApiError::invalidPlatform: return "Invalid request. The platform field is invalid.";
    case ApiError::invalidPlayTime: return "Invalid request. The playtime field is invalid.";
    case ApiError::invalidSampleContentProvided:
      return "Invalid request. The sample content provided field is invalid.";
    case ApiError::invalidUserStatus: return "Invalid request. The user status field is invalid.";
    case ApiError::invalidRefundPreference:
      return "Invalid request. The refund preference field is invalid.";
    case ApiError::invalidTransactionTypeNotSupported:
      return "Invalid request. The transaction id doesn't represent a supported in-app purchase type.";
    case ApiError::appTransactionIdNotSupported:
      return "Invalid request. App transactions aren't supported by this endpoint.";
    case ApiError::invalidAppAccountTokenUUID:
      return "Invalid request. The app account token field must be a valid UUID.";
    case ApiError::familyTransactionNotSupported:
      return "Invalid request. Family Sharing transactions aren't supported by this endpoint.";
    case ApiError::transactionIdIsNotOriginalTransactionId:
      return "Invalid request. The transaction ID provided is not an original transaction ID.";
    case ApiError::consumptionPercentageAutoRenewableSubscription:
      return "Invalid request. The consumption percentage field is not supported for "
             "auto-renewable subscription transactions.";
    case ApiError::consumptionPercentageOutOfRange:
      return "Invalid request. The consumption percentage field is outside the valid range.";
    case ApiError::undeliveredConsumptionPercentageNonZero:
      return "Invalid request. The consumption percentage field must be 0 when the delivery "
             "status isn't DELIVERED.";
    case ApiError::subscriptionExtensionIneligible:
      return "Forbidden - subscription state ineligible for extension.";
    case ApiError::subscriptionMaxExtension:
      return "Forbidden - subscription has reached maximum extension count.";
    case ApiError::familySharedSubscriptionExtensionIneligible:
      return "Subscriptions that users obtain through Family Sharing can't get a renewal date "
             "extension directly.";
    case ApiError::appNotFound: return "App not found.";
    case ApiError::originalTransactionIdNotFound: return "Original transaction id not found.";
    case ApiError::statusRequestNotFound:
      return "The server didn't find a subscription-renewal-date extension request for this "
             "requestIdentifier and productId combination.";
    case ApiError::transactionIdNotFound: return "Transaction id not found.";
    case ApiError::generalInternal: return "An unknown error occurred.";
  }
  return "An unknown error occurred.";
}

}  // namespace

ApiAnswer ApiAnswer::error(ApiError code) {
  const auto number = static_cast<long>(code);
  return {static_cast<int>(number / 10000),
          json::serialize(json::object{{"errorCode", number}, {"errorMessage", messageOf(code)}})};
}

std::optional<std::uint64_t> transactionNumber(std::string_view text) {
  std::uint64_t value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::optional<std::int64_t> integerText(std::string_view text) {
  std::int64_t value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::vector<std::string> allValues(const QueryParameters& query, const std::string& key) {
  std::vector<std::string> values;
  const auto [first, last] = query.equal_range(key);
  for (auto it = first; it != last; ++it) values.push_back(it->second);
  return values;
}

std::variant<std::monostate, std::string, ApiError> singleValue(const QueryParameters& query,
                                                              const std::string& key,
                                                              ApiError error) {
  const auto count = query.count(key);
  if (count == 0) return std::monostate{};
  if (count > 1) return error;
  return query.find(key)->second;
}

std::optional<bool> booleanText(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (lower == "true") return true;
  if (lower == "false") return false;
  return std::nullopt;
}

std::optional<json::object> jsonObject(const std::string& body) {
  json::error_code ec;
  auto parsed = json::parse(body, ec);
  if (ec || !parsed.is_object()) return std::nullopt;
  return std::move(parsed.get_object());
}

std::optional<std::int64_t> integerMember(const json::object& object, std::string_view key) {
  const auto* value = object.if_contains(key);
  if (!value) return std::nullopt;
  if (value->is_int64()) return value->get_int64();
  if (value->is_uint64()) return std::nullopt;  // beyond every field's range
  if (value->is_double()) {
    const double number = value->get_double();
    if (std::trunc(number) == number && std::abs(number) < 9.0e15) {
      return static_cast<std::int64_t>(number);
    }
  }
  return std::nullopt;
}

bool isCustomerTransaction(LocalStore& store, std::uint64_t id) {
  return store.transactionSummary(id).has_value() || std::to_string(id) == store.appTransactionID();
}

}  // namespace appstore::server
