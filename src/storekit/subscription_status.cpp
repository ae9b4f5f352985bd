#include "storekit/subscription_status.h"

#include <boost/json/parse.hpp>

#include "storekit/device.h"
#include "storekit/jws.h"
#include "storekit/payload_fields.h"

namespace storekit {
using namespace payload;

RenewalInfo RenewalInfo::fromPayload(const std::string& payloadText) {
  boost::json::error_code ec;
  const auto parsed = boost::json::parse(payloadText, ec);
  if (ec || !parsed.is_object()) badEncoding();
  const auto& p = parsed.get_object();
  RenewalInfo info;
  info.originalTransactionID = requiredIdentifier(p, "originalTransactionId");
  info.currentProductID = requiredString(p, "productId");
  info.autoRenewPreference = optionalString(p, "autoRenewProductId");
  info.willAutoRenew = optionalInteger(p, "autoRenewStatus").value_or(0) == 1;
  info.expirationReason = optionalInteger(p, "expirationIntent");
  info.isInBillingRetry = optionalBool(p, "isInBillingRetryPeriod").value_or(false);
  info.gracePeriodExpirationDate = optionalDate(p, "gracePeriodExpiresDate");
  info.priceIncreaseStatus = optionalInteger(p, "priceIncreaseStatus");
  info.renewalDate = optionalDate(p, "renewalDate");
  if (const auto price = optionalInteger(p, "renewalPrice")) {
    // Milliunits of the currency.
    info.renewalPrice = platform::Decimal::parse(std::to_string(*price))->scaledByPowerOfTen(-3);
  }
  info.currency = optionalString(p, "currency");
  info.recentSubscriptionStartDate = optionalDate(p, "recentSubscriptionStartDate");
  info.appAccountToken = optionalUUID(p, "appAccountToken");
  info.environment = requiredString(p, "environment");
  info.signedDate = requiredDate(p, "signedDate");
  info.jsonRepresentation = payloadText;
  return info;
}

std::vector<SubscriptionStatus> SubscriptionStatus::status(const std::string& groupID) {
  const auto device = Device::current();
  const auto store = device->store();
  std::vector<SubscriptionStatus> statuses;
  for (const auto& held : askStore([&] { return store->subscriptionStatuses(groupID); })) {
    const auto& jws = held.signedRenewalInfo;
    auto renewalInfo = [&] {
      try {
        return VerificationResult<RenewalInfo>::verified(
            RenewalInfo::fromPayload(verifyJWS(jws, store->rootCertificate())), jws);
      } catch (const VerificationError& error) {
        // Unverified, with what the token claims (nothing readable is an encoding fault).
        const auto claimed = decodeJWSPayload(jws);
        if (!claimed) throw;
        return VerificationResult<RenewalInfo>::unverified(RenewalInfo::fromPayload(*claimed), error, jws);
      }
    }();
    statuses.push_back({RenewalState{static_cast<std::int64_t>(held.status)},
                        device->verify(held.transaction), std::move(renewalInfo)});
  }
  return statuses;
}

}  // namespace storekit
