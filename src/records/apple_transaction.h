// The service's flat picture of one store transaction: the payload of a purchase answer,
// the element of the three transaction lists and the payload of every update event.
// A plain value; 34 fields whose JSON keys are their names, written in this order.
#pragma once

#include "host/json_coding.h"
#include "platform/date.h"
#include "platform/decimal.h"
#include "records/enumerations.h"

#include <cstdint>
#include <optional>
#include <string>

namespace VornTeskPaymentsAddonApple {

struct AppleTransaction {
  std::uint64_t id = 0;
  std::uint64_t originalId = 0;
  std::string productId;
  AppleProductType productType = AppleProductType::unspecified;
  platform::Date purchaseDate;
  platform::Date originalPurchaseDate;
  std::optional<platform::Date> expirationDate;
  std::optional<platform::Date> revocationDate;
  AppleRevocationReason revocationReason = AppleRevocationReason::unspecified;
  std::optional<std::string> webOrderLineItemId;
  std::optional<std::string> subscriptionGroupId;
  std::optional<std::string> appAccountToken;
  std::int32_t quantity = 0;
  AppleTransactionReason transactionReason = AppleTransactionReason::unspecified;
  platform::Date signedDate;
  AppleEnvironment environment = AppleEnvironment::unspecified;
  AppleOwnershipType ownershipType = AppleOwnershipType::unspecified;
  std::string jwsRepresentation;
  AppleVerificationStatus verificationStatus = AppleVerificationStatus::unspecified;
  AppleVerificationError verificationError = AppleVerificationError::unspecified;
  std::string bundleId;
  std::optional<std::string> appBundleId;
  bool isUpgraded = false;
  AppleOfferType offerType = AppleOfferType::unspecified;
  std::optional<std::string> offerId;
  std::optional<std::string> offerPaymentModeStringRepresentation;
  std::optional<std::string> offerPeriod;
  // Coded through the host's OptionalDecimalValue: left out when absent.
  std::optional<platform::Decimal> price;
  std::optional<std::string> currency;
  std::string storefrontCountryCode;
  std::string deviceVerification;
  std::string deviceVerificationNonce;
  std::optional<std::string> appTransactionId;
  std::optional<std::string> signedRenewalInfo;

  void encode(vorn::tesk::Encoder& encoder) const;
  static AppleTransaction decode(const vorn::tesk::Decoder& decoder);
};

}  // namespace VornTeskPaymentsAddonApple
