// Product.SubscriptionInfo.Status and what it holds: where a subscription stands
// (RenewalState), its latest transaction, and the renewal info the App Store signed for it,
// both checked by the device as it hands them out. Values; any thread. status() blocks and is
// meant to run in a task.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <boost/json/object.hpp>

#include "platform/date.h"
#include "platform/decimal.h"
#include "platform/uuid.h"
#include "storekit/transaction.h"
#include "storekit/verification_result.h"

namespace storekit {

// Product.SubscriptionInfo.RenewalState.
struct RenewalState {
  std::int64_t rawValue = 1;

  static RenewalState subscribed() { return {1}; }
  static RenewalState expired() { return {2}; }
  static RenewalState inBillingRetryPeriod() { return {3}; }
  static RenewalState inGracePeriod() { return {4}; }
  static RenewalState revoked() { return {5}; }

  friend bool operator==(const RenewalState&, const RenewalState&) = default;
};

// Product.SubscriptionInfo.RenewalInfo, read from the signed renewal info's payload.
struct RenewalInfo {
  std::uint64_t originalTransactionID = 0;
  std::string currentProductID;
  std::optional<std::string> autoRenewPreference;  // the product the next period renews to
  bool willAutoRenew = false;
  // 1 cancelled, 2 billing error, 3 price increase not consented to, 4 product unavailable.
  std::optional<std::int64_t> expirationReason;
  bool isInBillingRetry = false;
  std::optional<platform::Date> gracePeriodExpirationDate;
  std::optional<std::int64_t> priceIncreaseStatus;  // 0 not yet answered, 1 agreed
  std::optional<platform::Date> renewalDate;
  std::optional<platform::Decimal> renewalPrice;
  std::optional<std::string> currency;
  std::optional<platform::Date> recentSubscriptionStartDate;
  std::optional<platform::UUID> appAccountToken;
  std::string environment;
  platform::Date signedDate;
  std::string jsonRepresentation;  // the payload's text

  // Throws VerificationError: missingRequiredProperties or invalidEncoding.
  static RenewalInfo fromPayload(const std::string& payloadText);
};

// Product.SubscriptionInfo.Status.
struct SubscriptionStatus {
  RenewalState state;
  VerificationResult<Transaction> transaction;
  VerificationResult<RenewalInfo> renewalInfo;

  // The statuses of the subscription group `groupID` the account holds (none or one). Throws
  // StoreKitError for what the store answers instead.
  static std::vector<SubscriptionStatus> status(const std::string& groupID);
};

}  // namespace storekit
