// Renewal-date extensions: one subscription, every active subscriber of a product, and the
// status of the latter. The store checks the terms and the subscription's eligibility; here
// the body is read and the store's refusals become Apple's errors.
#include <boost/json/serialize.hpp>

#include "appstore/server/api_support.h"

namespace appstore::server {
namespace json = boost::json;
namespace {

using Reason = RenewalExtensionRefused::Reason;

ApiError errorFor(Reason reason) {
  switch (reason) {
    case Reason::invalidExtendByDays: return ApiError::invalidExtendByDays;
    case Reason::invalidExtendReasonCode: return ApiError::invalidExtendReasonCode;
    case Reason::invalidRequestIdentifier: return ApiError::invalidRequestIdentifier;
    case Reason::invalidProductID: return ApiError::invalidProductId;
    case Reason::emptyStorefrontList: return ApiError::invalidEmptyStorefrontCountryCodeList;
    case Reason::invalidStorefront: return ApiError::invalidStorefrontCountryCode;
    case Reason::notFound: return ApiError::originalTransactionIdNotFound;
    case Reason::ineligible: return ApiError::subscriptionExtensionIneligible;
    case Reason::maximumReached: return ApiError::subscriptionMaxExtension;
    case Reason::familyShared: return ApiError::familySharedSubscriptionExtensionIneligible;
  }
  return ApiError::generalInternal;
}

constexpr std::size_t kMaxRequestIdentifier = 128;

// The terms both requests share; a member of the wrong type is an invalid value of it.
struct Terms {
  std::int64_t extendByDays = 0;
  std::int64_t extendReasonCode = 0;
  std::string requestIdentifier;
};

std::variant<Terms, ApiError> termsOf(const json::object& body) {
  Terms terms;
  const auto days = integerMember(body, "extendByDays");
  if (!days) return ApiError::invalidExtendByDays;
  const auto reason = integerMember(body, "extendReasonCode");
  if (!reason) return ApiError::invalidExtendReasonCode;
  const auto* identifier = body.if_contains("requestIdentifier");
  if (!identifier || !identifier->is_string()) return ApiError::invalidRequestIdentifier;
  return Terms{*days, *reason, std::string(identifier->get_string())};
}

json::object statusAnswer(const MassRenewalExtensionStatus& status) {
  json::object answer{{"requestIdentifier", status.requestIdentifier},
                      {"complete", status.complete},
                      {"succeededCount", status.succeededCount},
                      {"failedCount", status.failedCount}};
  if (status.completeDate) answer["completeDate"] = platform::millisecondsSince1970(*status.completeDate);
  return answer;
}

}  // namespace

ApiAnswer extendRenewalDate(LocalStore& store, const std::string& originalTransactionID,
                            const std::string& body) {
  return guarded([&] {
    const auto id = transactionNumber(originalTransactionID);
    if (!id) return ApiAnswer::error(ApiError::invalidOriginalTransactionId);
    const auto request = jsonObject(body);
    if (!request) return ApiAnswer::error(ApiError::generalBadRequest);
    const auto terms = termsOf(*request);
    if (const auto* refused = std::get_if<ApiError>(&terms)) return ApiAnswer::error(*refused);
    const auto& asked = std::get<Terms>(terms);
    try {
      const auto result = store.extendRenewalDate(
          {*id, asked.extendByDays, asked.extendReasonCode, asked.requestIdentifier});
      return ApiAnswer{
          200, json::serialize(json::object{
                   {"originalTransactionId", std::to_string(result.originalTransactionID)},
                   {"webOrderLineItemId", result.webOrderLineItemID},
                   {"success", result.success},
                   {"effectiveDate", platform::millisecondsSince1970(result.effectiveDate)}})};
    } catch (const RenewalExtensionRefused& refused) {
      return ApiAnswer::error(errorFor(refused.reason()));
    }
  });
}

ApiAnswer extendRenewalDatesForAllSubscribers(LocalStore& store, const std::string& body) {
  return guarded([&] {
    const auto request = jsonObject(body);
    if (!request) return ApiAnswer::error(ApiError::generalBadRequest);
    const auto terms = termsOf(*request);
    if (const auto* refused = std::get_if<ApiError>(&terms)) return ApiAnswer::error(*refused);
    const auto& asked = std::get<Terms>(terms);
    MassRenewalExtensionRequest mass;
    mass.extendByDays = asked.extendByDays;
    mass.extendReasonCode = asked.extendReasonCode;
    mass.requestIdentifier = asked.requestIdentifier;
    const auto* product = request->if_contains("productId");
    if (!product || !product->is_string()) return ApiAnswer::error(ApiError::invalidProductId);
    mass.productID = std::string(product->get_string());
    if (const auto* codes = request->if_contains("storefrontCountryCodes"); codes && !codes->is_null()) {
      if (!codes->is_array()) return ApiAnswer::error(ApiError::invalidStorefrontCountryCode);
      mass.storefrontCountryCodes.emplace();
      for (const auto& code : codes->get_array()) {
        if (!code.is_string()) return ApiAnswer::error(ApiError::invalidStorefrontCountryCode);
        mass.storefrontCountryCodes->emplace_back(code.get_string());
      }
    }
    try {
      const auto status = store.extendRenewalDatesForAllSubscribers(mass);
      return ApiAnswer{200, json::serialize(json::object{{"requestIdentifier", status.requestIdentifier}})};
    } catch (const RenewalExtensionRefused& refused) {
      return ApiAnswer::error(errorFor(refused.reason()));
    }
  });
}

ApiAnswer massExtensionStatus(LocalStore& store, const std::string& productID,
                              const std::string& requestIdentifier) {
  return guarded([&] {
    // Taken either way round, the request is malformed only when neither part can be one.
    if (productID.size() > kMaxRequestIdentifier && requestIdentifier.size() > kMaxRequestIdentifier) {
      return ApiAnswer::error(ApiError::invalidRequestIdentifier);
    }
    auto found = store.massRenewalExtension(productID, requestIdentifier);
    if (!found) found = store.massRenewalExtension(requestIdentifier, productID);
    if (!found) return ApiAnswer::error(ApiError::statusRequestNotFound);
    return ApiAnswer{200, json::serialize(statusAnswer(*found))};
  });
}

}  // namespace appstore::server
