// Conversion of store objects into the service's records. The records never hold store
// objects; everything the host sees is copied here. Values the store reports outside the
// known cases become `unspecified`; members that only newer systems have are read only
// when platform::SystemVersion says they exist, with the older systems' fallbacks (mostly
// the transaction's signed payload) otherwise. Pure functions; any thread.
//
// The three narrowings to 32 bits (quantity, offer period count, period value) are checked:
// a value out of range ends the process rather than being clamped.
#pragma once

#include "records/apple_product.h"
#include "records/apple_transaction.h"
#include "storekit/product.h"
#include "storekit/transaction.h"

#include <cstdint>
#include <string>
#include <utility>

namespace VornTeskPaymentsAddonApple {

AppleProduct makeAppleProduct(const storekit::Product& product);
SubscriptionInfo makeSubscriptionInfo(const storekit::SubscriptionInfo& info);
Offer makeOffer(const storekit::SubscriptionOffer& offer);
Period makePeriod(const storekit::SubscriptionPeriod& period);

AppleTransaction makeAppleTransaction(const storekit::Transaction& transaction,
                                      std::string jwsRepresentation,
                                      AppleVerificationStatus verificationStatus,
                                      AppleVerificationError verificationError);
AppleTransaction makeAppleTransaction(
    const storekit::VerificationResult<storekit::Transaction>& result);

// verified + unspecified, or unverified + the mapped verification error.
std::pair<AppleVerificationStatus, AppleVerificationError> verificationOutcome(
    const storekit::VerificationResult<storekit::Transaction>& result);

AppleProductType appleProductType(const storekit::ProductType& type);
AppleEnvironment appleEnvironment(const storekit::Environment& environment);
AppleOwnershipType appleOwnershipType(const storekit::Transaction::OwnershipType& ownership);
AppleRevocationReason appleRevocationReason(
    const std::optional<storekit::Transaction::RevocationReason>& reason);
AppleTransactionReason appleTransactionReason(const storekit::Transaction::Reason& reason);
AppleOfferType appleOfferType(const storekit::Transaction::OfferType& type);
AppleOfferType appleOfferType(const storekit::SubscriptionOffer::OfferType& type);
ApplePaymentMode applePaymentMode(const storekit::OfferPaymentMode& mode);
ApplePeriodUnit applePeriodUnit(storekit::SubscriptionPeriod::Unit unit);
AppleVerificationError appleVerificationError(const storekit::VerificationError& error);

// The checked narrowing: out of range prints a fatal error and aborts.
std::int32_t checkedInt32(std::int64_t value);

}  // namespace VornTeskPaymentsAddonApple
