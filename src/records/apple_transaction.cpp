#include "records/apple_transaction.h"

namespace VornTeskPaymentsAddonApple {

void AppleTransaction::encode(vorn::tesk::Encoder& encoder) const {
  auto c = encoder.keyedContainer();
  c.encode("id", id);
  c.encode("originalId", originalId);
  c.encode("productId", productId);
  c.encode("productType", productType);
  c.encode("purchaseDate", purchaseDate);
  c.encode("originalPurchaseDate", originalPurchaseDate);
  c.encodeIfPresent("expirationDate", expirationDate);
  c.encodeIfPresent("revocationDate", revocationDate);
  c.encode("revocationReason", revocationReason);
  c.encodeIfPresent("webOrderLineItemId", webOrderLineItemId);
  c.encodeIfPresent("subscriptionGroupId", subscriptionGroupId);
  c.encodeIfPresent("appAccountToken", appAccountToken);
  c.encode("quantity", quantity);
  c.encode("transactionReason", transactionReason);
  c.encode("signedDate", signedDate);
  c.encode("environment", environment);
  c.encode("ownershipType", ownershipType);
  c.encode("jwsRepresentation", jwsRepresentation);
  c.encode("verificationStatus", verificationStatus);
  c.encode("verificationError", verificationError);
  c.encode("bundleId", bundleId);
  c.encodeIfPresent("appBundleId", appBundleId);
  c.encode("isUpgraded", isUpgraded);
  c.encode("offerType", offerType);
  c.encodeIfPresent("offerId", offerId);
  c.encodeIfPresent("offerPaymentModeStringRepresentation", offerPaymentModeStringRepresentation);
  c.encodeIfPresent("offerPeriod", offerPeriod);
  c.encode("price", vorn::tesk::OptionalDecimalValue{price});
  c.encodeIfPresent("currency", currency);
  c.encode("storefrontCountryCode", storefrontCountryCode);
  c.encode("deviceVerification", deviceVerification);
  c.encode("deviceVerificationNonce", deviceVerificationNonce);
  c.encodeIfPresent("appTransactionId", appTransactionId);
  c.encodeIfPresent("signedRenewalInfo", signedRenewalInfo);
}

AppleTransaction AppleTransaction::decode(const vorn::tesk::Decoder& decoder) {
  const auto c = decoder.keyedContainer();
  AppleTransaction t;
  t.id = c.decode<std::uint64_t>("id");
  t.originalId = c.decode<std::uint64_t>("originalId");
  t.productId = c.decode<std::string>("productId");
  t.productType = c.decode<AppleProductType>("productType");
  t.purchaseDate = c.decode<platform::Date>("purchaseDate");
  t.originalPurchaseDate = c.decode<platform::Date>("originalPurchaseDate");
  t.expirationDate = c.decodeIfPresent<platform::Date>("expirationDate");
  t.revocationDate = c.decodeIfPresent<platform::Date>("revocationDate");
  t.revocationReason = c.decode<AppleRevocationReason>("revocationReason");
  t.webOrderLineItemId = c.decodeIfPresent<std::string>("webOrderLineItemId");
  t.subscriptionGroupId = c.decodeIfPresent<std::string>("subscriptionGroupId");
  t.appAccountToken = c.decodeIfPresent<std::string>("appAccountToken");
  t.quantity = c.decode<std::int32_t>("quantity");
  t.transactionReason = c.decode<AppleTransactionReason>("transactionReason");
  t.signedDate = c.decode<platform::Date>("signedDate");
  t.environment = c.decode<AppleEnvironment>("environment");
  t.ownershipType = c.decode<AppleOwnershipType>("ownershipType");
  t.jwsRepresentation = c.decode<std::string>("jwsRepresentation");
  t.verificationStatus = c.decode<AppleVerificationStatus>("verificationStatus");
  t.verificationError = c.decode<AppleVerificationError>("verificationError");
  t.bundleId = c.decode<std::string>("bundleId");
  t.appBundleId = c.decodeIfPresent<std::string>("appBundleId");
  t.isUpgraded = c.decode<bool>("isUpgraded");
  t.offerType = c.decode<AppleOfferType>("offerType");
  t.offerId = c.decodeIfPresent<std::string>("offerId");
  t.offerPaymentModeStringRepresentation =
      c.decodeIfPresent<std::string>("offerPaymentModeStringRepresentation");
  t.offerPeriod = c.decodeIfPresent<std::string>("offerPeriod");
  t.price = c.decode<vorn::tesk::OptionalDecimalValue>("price").value;
  t.currency = c.decodeIfPresent<std::string>("currency");
  t.storefrontCountryCode = c.decode<std::string>("storefrontCountryCode");
  t.deviceVerification = c.decode<std::string>("deviceVerification");
  t.deviceVerificationNonce = c.decode<std::string>("deviceVerificationNonce");
  t.appTransactionId = c.decodeIfPresent<std::string>("appTransactionId");
  t.signedRenewalInfo = c.decodeIfPresent<std::string>("signedRenewalInfo");
  return t;
}

}  // namespace VornTeskPaymentsAddonApple
