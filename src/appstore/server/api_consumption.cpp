// Send Consumption Information (v1 and v2): the developer's answer to a consumption request,
// checked field by field as Apple's server checks it, then kept by the store beside the
// transaction as {"version": 1|2, "information": <the body>}.
#include <array>
#include <string_view>

#include <boost/json/serialize.hpp>

#include "appstore/server/api_support.h"

namespace appstore::server {
namespace json = boost::json;
namespace {

constexpr std::int64_t kWholePercentage = 100000;  // milliunits

bool isTrue(const json::object& body, std::string_view key) {
  const auto* value = body.if_contains(key);
  return value && value->is_bool() && value->get_bool();
}

bool isBoolean(const json::object& body, std::string_view key) {
  const auto* value = body.if_contains(key);
  return value && value->is_bool();
}

// A string member that is one of `allowed`; nothing otherwise.
template <std::size_t N>
std::optional<std::string> oneOf(const json::object& body, std::string_view key,
                                 const std::array<std::string_view, N>& allowed) {
  const auto* value = body.if_contains(key);
  if (!value || !value->is_string()) return std::nullopt;
  const std::string text(value->get_string());
  for (const auto candidate : allowed) {
    if (candidate == text) return text;
  }
  return std::nullopt;
}

bool inRange(const json::object& body, std::string_view key, std::int64_t last) {
  const auto value = integerMember(body, key);
  return value && *value >= 0 && *value <= last;
}

// The v2 body's own rules; nothing when it passes.
std::optional<ApiError> checkVersionTwo(const json::object& body) {
  if (!isTrue(body, "customerConsented")) return ApiError::invalidCustomerConsented;
  const auto delivery =
      oneOf(body, "deliveryStatus",
            std::array<std::string_view, 5>{"DELIVERED", "UNDELIVERED_QUALITY_ISSUE",
                                            "UNDELIVERED_WRONG_ITEM", "UNDELIVERED_SERVER_OUTAGE",
                                            "UNDELIVERED_OTHER"});
  if (!delivery) return ApiError::invalidDeliveryStatus;
  if (!isBoolean(body, "sampleContentProvided")) return ApiError::invalidSampleContentProvided;
  std::optional<std::string> preference;
  if (body.contains("refundPreference")) {
    preference = oneOf(body, "refundPreference",
                       std::array<std::string_view, 3>{"DECLINE", "GRANT_FULL", "GRANT_PRORATED"});
    if (!preference) return ApiError::invalidRefundPreference;
  }
  if (body.contains("consumptionPercentage")) {
    const auto percentage = integerMember(body, "consumptionPercentage");
    if (!percentage || *percentage < 0 || *percentage > kWholePercentage) {
      return ApiError::consumptionPercentageOutOfRange;
    }
    if (*delivery != "DELIVERED" && *percentage != 0) {
      return ApiError::undeliveredConsumptionPercentageNonZero;
    }
    // A prorated refund needs a part consumed and a part not.
    if (preference == "GRANT_PRORATED" && (*percentage == 0 || *percentage == kWholePercentage)) {
      return ApiError::consumptionPercentageOutOfRange;
    }
  }
  return std::nullopt;
}

// The v1 body: every field but refundPreference is required; 0 declines to answer.
std::optional<ApiError> checkVersionOne(const json::object& body) {
  if (!isTrue(body, "customerConsented")) return ApiError::invalidCustomerConsented;
  if (!inRange(body, "consumptionStatus", 3)) return ApiError::invalidConsumptionStatus;
  if (!inRange(body, "platform", 2)) return ApiError::invalidPlatform;
  if (!isBoolean(body, "sampleContentProvided")) return ApiError::invalidSampleContentProvided;
  if (!inRange(body, "deliveryStatus", 5)) return ApiError::invalidDeliveryStatus;
  const auto* token = body.if_contains("appAccountToken");
  if (!token || !token->is_string() ||
      (!token->get_string().empty() && !platform::UUID::fromString(token->get_string()))) {
    return ApiError::invalidAppAccountToken;
  }
  if (!inRange(body, "accountTenure", 7)) return ApiError::invalidAccountTenure;
  if (!inRange(body, "playTime", 7)) return ApiError::invalidPlayTime;
  if (!inRange(body, "lifetimeDollarsRefunded", 7)) return ApiError::invalidLifetimeDollarsRefunded;
  if (!inRange(body, "lifetimeDollarsPurchased", 7)) return ApiError::invalidLifetimeDollarsPurchased;
  if (!inRange(body, "userStatus", 4)) return ApiError::invalidUserStatus;
  if (body.contains("refundPreference") && !inRange(body, "refundPreference", 3)) {
    return ApiError::invalidRefundPreference;
  }
  return std::nullopt;
}

}  // namespace

ApiAnswer sendConsumptionInformation(LocalStore& store, ConsumptionVersion version,
                                     const std::string& transactionID, const std::string& body) {
  return guarded([&] {
    const auto id = transactionNumber(transactionID);
    if (!id) return ApiAnswer::error(ApiError::invalidTransactionId);
    if (std::to_string(*id) == store.appTransactionID()) {
      return ApiAnswer::error(ApiError::appTransactionIdNotSupported);
    }
    const auto information = jsonObject(body);
    if (!information) return ApiAnswer::error(ApiError::generalBadRequest);
    const bool v1 = version == ConsumptionVersion::v1;
    if (const auto refused = v1 ? checkVersionOne(*information) : checkVersionTwo(*information)) {
      return ApiAnswer::error(*refused);
    }
    const auto transaction = store.transactionSummary(*id);
    if (!transaction) return ApiAnswer::error(ApiError::transactionIdNotFound);
    if (transaction->familyShared) return ApiAnswer::error(ApiError::familyTransactionNotSupported);
    if (v1 && transaction->productType == "Non-Renewing Subscription") {
      return ApiAnswer::error(ApiError::invalidTransactionTypeNotSupported);
    }
    // The App Store works out how much of a subscription was used from its dates.
    if (!v1 && transaction->productType == "Auto-Renewable Subscription" &&
        information->contains("consumptionPercentage")) {
      return ApiAnswer::error(ApiError::consumptionPercentageAutoRenewableSubscription);
    }
    store.recordConsumptionInformation(
        *id, json::serialize(json::object{{"version", v1 ? 1 : 2}, {"information", *information}}));
    return ApiAnswer{202, ""};
  });
}

}  // namespace appstore::server
