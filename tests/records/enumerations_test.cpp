#include "records/enumerations.h"

#include "support/json_coding_helpers.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <typeinfo>
#include <vector>

namespace VornTeskPaymentsAddonApple {
namespace {

using testsupport::decoded;
using testsupport::encoded;

// `cases` lists every case in wire order, so case k must be written and read as k.
template <class E>
void checkEnumeration(const std::vector<E>& cases) {
  SCOPED_TRACE(typeid(E).name());
  const auto count = static_cast<std::int64_t>(cases.size());
  for (std::int64_t raw = 0; raw < count; ++raw) {
    const E value = cases[static_cast<std::size_t>(raw)];
    EXPECT_EQ(encoded(value), std::to_string(raw));
    EXPECT_EQ(decoded<E>(std::to_string(raw)), value);
    EXPECT_EQ(fromRawValue<E>(raw), value);
  }
  // Out of range: strict construction yields nothing, decoding falls to unspecified.
  for (const std::int64_t raw : {count, std::int64_t{-1}, std::numeric_limits<std::int64_t>::min(),
                                 std::numeric_limits<std::int64_t>::max()}) {
    EXPECT_EQ(fromRawValue<E>(raw), std::nullopt) << raw;
    EXPECT_EQ(decoded<E>(std::to_string(raw)), E::unspecified) << raw;
  }
  // Anything but an integer is the decoder's error.
  for (const char* text : {R"("1")", "null", "true", "1.5"}) {
    EXPECT_NE(testsupport::decodingError<E>(text), "") << text;
  }
}

TEST(EnumerationsTest, CasesKeepTheirOrderAndDecodeLeniently) {
  using Env = AppleEnvironment;
  checkEnumeration<Env>({Env::unspecified, Env::production, Env::sandbox, Env::xcode});
  using Offer = AppleOfferType;
  checkEnumeration<Offer>(
      {Offer::unspecified, Offer::introductory, Offer::promotional, Offer::code, Offer::winBack});
  using Own = AppleOwnershipType;
  checkEnumeration<Own>({Own::unspecified, Own::purchased, Own::familyShared});
  using Pay = ApplePaymentMode;
  checkEnumeration<Pay>({Pay::unspecified, Pay::payAsYouGo, Pay::payUpFront, Pay::freeTrial});
  using Unit = ApplePeriodUnit;
  checkEnumeration<Unit>({Unit::unspecified, Unit::day, Unit::week, Unit::month, Unit::year});
  using Type = AppleProductType;
  checkEnumeration<Type>({Type::unspecified, Type::consumable, Type::nonConsumable,
                          Type::autoRenewable, Type::nonRenewable});
  using Revoke = AppleRevocationReason;
  checkEnumeration<Revoke>({Revoke::unspecified, Revoke::developerIssue, Revoke::other});
  using Reason = AppleTransactionReason;
  checkEnumeration<Reason>({Reason::unspecified, Reason::purchase, Reason::renewal});
  using VError = AppleVerificationError;
  checkEnumeration<VError>({VError::unspecified, VError::invalidSignature,
                            VError::revokedCertificate, VError::invalidDeviceVerification,
                            VError::invalidCertificateChain, VError::invalidEncoding,
                            VError::missingRequiredProperties});
  using Status = AppleVerificationStatus;
  checkEnumeration<Status>({Status::unspecified, Status::verified, Status::unverified});
}

}  // namespace
}  // namespace VornTeskPaymentsAddonApple
