#include "adapter/conversions.h"

#include "platform/base64.h"
#include "platform/system_version.h"

#include <cstdio>
#include <cstdlib>
#include <limits>

namespace VornTeskPaymentsAddonApple {

using platform::SystemVersion;

std::int32_t checkedInt32(std::int64_t value) {
  if (value < std::numeric_limits<std::int32_t>::min() ||
      value > std::numeric_limits<std::int32_t>::max()) {
    std::fprintf(stderr, "Fatal error: Not enough bits to represent the passed value %lld\n",
                 static_cast<long long>(value));
    std::abort();
  }
  return static_cast<std::int32_t>(value);
}

AppleProductType appleProductType(const storekit::ProductType& type) {
  if (type == storekit::ProductType::consumable()) return AppleProductType::consumable;
  if (type == storekit::ProductType::nonConsumable()) return AppleProductType::nonConsumable;
  if (type == storekit::ProductType::autoRenewable()) return AppleProductType::autoRenewable;
  if (type == storekit::ProductType::nonRenewable()) return AppleProductType::nonRenewable;
  return AppleProductType::unspecified;
}

AppleEnvironment appleEnvironment(const storekit::Environment& environment) {
  if (environment == storekit::Environment::production()) return AppleEnvironment::production;
  if (environment == storekit::Environment::sandbox()) return AppleEnvironment::sandbox;
  if (environment == storekit::Environment::xcode()) return AppleEnvironment::xcode;
  return AppleEnvironment::unspecified;
}

AppleOwnershipType appleOwnershipType(const storekit::Transaction::OwnershipType& ownership) {
  using Ownership = storekit::Transaction::OwnershipType;
  if (ownership == Ownership::purchased()) return AppleOwnershipType::purchased;
  if (ownership == Ownership::familyShared()) return AppleOwnershipType::familyShared;
  return AppleOwnershipType::unspecified;
}

AppleRevocationReason appleRevocationReason(
    const std::optional<storekit::Transaction::RevocationReason>& reason) {
  using Reason = storekit::Transaction::RevocationReason;
  if (!reason) return AppleRevocationReason::unspecified;
  if (*reason == Reason::developerIssue()) return AppleRevocationReason::developerIssue;
  if (*reason == Reason::other()) return AppleRevocationReason::other;
  return AppleRevocationReason::unspecified;
}

AppleTransactionReason appleTransactionReason(const storekit::Transaction::Reason& reason) {
  using Reason = storekit::Transaction::Reason;
  if (reason == Reason::purchase()) return AppleTransactionReason::purchase;
  if (reason == Reason::renewal()) return AppleTransactionReason::renewal;
  return AppleTransactionReason::unspecified;
}

AppleOfferType appleOfferType(const storekit::Transaction::OfferType& type) {
  using OfferType = storekit::Transaction::OfferType;
  // The win-back case exists only from 18.0 on; reading it earlier is not possible.
  if (SystemVersion::atLeast(18, 0) && type.rawValue == OfferType::winBack().rawValue) {
    return AppleOfferType::winBack;
  }
  if (type == OfferType::introductory()) return AppleOfferType::introductory;
  if (type == OfferType::promotional()) return AppleOfferType::promotional;
  if (type == OfferType::code()) return AppleOfferType::code;
  return AppleOfferType::unspecified;
}

AppleOfferType appleOfferType(const storekit::SubscriptionOffer::OfferType& type) {
  using OfferType = storekit::SubscriptionOffer::OfferType;
  if (SystemVersion::atLeast(18, 0) && type.rawValue == OfferType::winBack().rawValue) {
    return AppleOfferType::winBack;
  }
  if (type == OfferType::introductory()) return AppleOfferType::introductory;
  if (type == OfferType::promotional()) return AppleOfferType::promotional;
  return AppleOfferType::unspecified;
}

ApplePaymentMode applePaymentMode(const storekit::OfferPaymentMode& mode) {
  if (mode == storekit::OfferPaymentMode::payAsYouGo()) return ApplePaymentMode::payAsYouGo;
  if (mode == storekit::OfferPaymentMode::payUpFront()) return ApplePaymentMode::payUpFront;
  if (mode == storekit::OfferPaymentMode::freeTrial()) return ApplePaymentMode::freeTrial;
  return ApplePaymentMode::unspecified;
}

ApplePeriodUnit applePeriodUnit(storekit::SubscriptionPeriod::Unit unit) {
  using Unit = storekit::SubscriptionPeriod::Unit;
  switch (unit) {
    case Unit::day: return ApplePeriodUnit::day;
    case Unit::week: return ApplePeriodUnit::week;
    case Unit::month: return ApplePeriodUnit::month;
    case Unit::year: return ApplePeriodUnit::year;
  }
  return ApplePeriodUnit::unspecified;
}

AppleVerificationError appleVerificationError(const storekit::VerificationError& error) {
  using Code = storekit::VerificationError::Code;
  switch (error.code()) {
    case Code::invalidSignature: return AppleVerificationError::invalidSignature;
    case Code::revokedCertificate: return AppleVerificationError::revokedCertificate;
    case Code::invalidDeviceVerification: return AppleVerificationError::invalidDeviceVerification;
    case Code::invalidCertificateChain: return AppleVerificationError::invalidCertificateChain;
    case Code::invalidEncoding: return AppleVerificationError::invalidEncoding;
    case Code::missingRequiredProperties: return AppleVerificationError::missingRequiredProperties;
  }
  return AppleVerificationError::unspecified;
}

Period makePeriod(const storekit::SubscriptionPeriod& period) {
  return Period{checkedInt32(period.value), applePeriodUnit(period.unit)};
}

Offer makeOffer(const storekit::SubscriptionOffer& offer) {
  return Offer{offer.id,
               appleOfferType(offer.type),
               offer.price,
               offer.displayPrice,
               makePeriod(offer.period),
               checkedInt32(offer.periodCount),
               applePaymentMode(offer.paymentMode)};
}

SubscriptionInfo makeSubscriptionInfo(const storekit::SubscriptionInfo& info) {
  SubscriptionInfo record;
  record.subscriptionGroupId = info.subscriptionGroupID;
  record.subscriptionPeriod = makePeriod(info.subscriptionPeriod);
  if (info.introductoryOffer) record.introductoryOffer = makeOffer(*info.introductoryOffer);
  record.promotionalOffers.reserve(info.promotionalOffers.size());
  for (const auto& offer : info.promotionalOffers) {
    record.promotionalOffers.push_back(makeOffer(offer));
  }
  return record;
}

AppleProduct makeAppleProduct(const storekit::Product& product) {
  AppleProduct record;
  record.id = product.id;
  record.displayName = product.displayName;
  record.description = product.description;
  record.displayPrice = product.displayPrice;
  record.price = product.price;
  record.priceLocale = product.priceFormatStyle.locale;
  record.productType = appleProductType(product.type);
  if (product.subscription) record.subscription = makeSubscriptionInfo(*product.subscription);
  record.isFamilyShareable = product.isFamilyShareable;
  return record;
}

std::pair<AppleVerificationStatus, AppleVerificationError> verificationOutcome(
    const storekit::VerificationResult<storekit::Transaction>& result) {
  if (result.isVerified()) {
    return {AppleVerificationStatus::verified, AppleVerificationError::unspecified};
  }
  return {AppleVerificationStatus::unverified,
          appleVerificationError(*result.verificationError())};
}

AppleTransaction makeAppleTransaction(
    const storekit::VerificationResult<storekit::Transaction>& result) {
  const auto [status, error] = verificationOutcome(result);
  return makeAppleTransaction(result.unsafePayloadValue(), result.jwsRepresentation(), status,
                              error);
}

AppleTransaction makeAppleTransaction(const storekit::Transaction& transaction,
                                      std::string jwsRepresentation,
                                      AppleVerificationStatus verificationStatus,
                                      AppleVerificationError verificationError) {
  AppleTransaction record;
  record.id = transaction.id();
  record.originalId = transaction.originalID();
  record.productId = transaction.productID();
  record.productType = appleProductType(transaction.productType());
  record.purchaseDate = transaction.purchaseDate();
  record.originalPurchaseDate = transaction.originalPurchaseDate();
  record.expirationDate = transaction.expirationDate();
  record.revocationDate = transaction.revocationDate();
  record.revocationReason = appleRevocationReason(transaction.revocationReason());
  record.webOrderLineItemId = transaction.webOrderLineItemID();
  record.subscriptionGroupId = transaction.subscriptionGroupID();
  if (const auto token = transaction.appAccountToken()) record.appAccountToken = token->uuidString();
  record.quantity = checkedInt32(transaction.purchasedQuantity());
  record.transactionReason = appleTransactionReason(transaction.reason());
  record.signedDate = transaction.signedDate();
  record.environment = appleEnvironment(transaction.environment());
  record.ownershipType = appleOwnershipType(transaction.ownershipType());
  record.jwsRepresentation = std::move(jwsRepresentation);
  record.verificationStatus = verificationStatus;
  record.verificationError = verificationError;
  record.bundleId = transaction.appBundleID();
  record.appBundleId = record.bundleId;
  record.isUpgraded = transaction.isUpgraded();

  if (SystemVersion::atLeast(17, 2)) {
    if (const auto offer = transaction.offer()) {
      record.offerType = appleOfferType(offer->type);
      record.offerId = offer->id;
      if (offer->paymentMode) record.offerPaymentModeStringRepresentation = offer->paymentMode->rawValue;
    }
    record.price = transaction.price();
    record.currency = transaction.currency();
  } else {
    if (const auto type = transaction.offerType()) record.offerType = appleOfferType(*type);
    record.offerId = transaction.offerID();
    record.offerPaymentModeStringRepresentation = transaction.backingString("offerDiscountType");
    // The signed payload holds thousandths of the currency unit.
    if (const auto thousandths = transaction.backingNumber("price")) {
      record.price = thousandths->scaledByPowerOfTen(-3);
    }
    record.currency = transaction.backingString("currency");
  }
  if (SystemVersion::atLeast(18, 4)) {
    record.offerPeriod = transaction.offerPeriodStringRepresentation();
    record.appTransactionId = transaction.appTransactionID();
  } else {
    record.offerPeriod = transaction.backingString("offerPeriod");
  }

  record.storefrontCountryCode = transaction.storefront().countryCode;
  record.deviceVerification = platform::base64Encode(transaction.deviceVerification());
  record.deviceVerificationNonce = transaction.deviceVerificationNonce().uuidString();
  return record;
}

}  // namespace VornTeskPaymentsAddonApple
