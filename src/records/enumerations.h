// The ten closed vocabularies that travel inside the records. Each case's raw value is its
// position (0 is always `unspecified`); on the wire a case is a bare JSON integer. Reading
// is lenient: an integer that names no case becomes `unspecified`, so an unknown value never
// fails a whole record. `fromRawValue` stays strict for code that must tell the two apart.
#pragma once

#include "host/json_coding.h"

#include <cstdint>
#include <optional>

namespace VornTeskPaymentsAddonApple {

enum class AppleEnvironment : std::int64_t { unspecified, production, sandbox, xcode };
enum class AppleOfferType : std::int64_t { unspecified, introductory, promotional, code, winBack };
enum class AppleOwnershipType : std::int64_t { unspecified, purchased, familyShared };
enum class ApplePaymentMode : std::int64_t { unspecified, payAsYouGo, payUpFront, freeTrial };
enum class ApplePeriodUnit : std::int64_t { unspecified, day, week, month, year };
enum class AppleProductType : std::int64_t {
  unspecified,
  consumable,
  nonConsumable,
  autoRenewable,
  nonRenewable,
};
enum class AppleRevocationReason : std::int64_t { unspecified, developerIssue, other };
enum class AppleTransactionReason : std::int64_t { unspecified, purchase, renewal };
enum class AppleVerificationError : std::int64_t {
  unspecified,
  invalidSignature,
  revokedCertificate,
  invalidDeviceVerification,
  invalidCertificateChain,
  invalidEncoding,
  missingRequiredProperties,
};
enum class AppleVerificationStatus : std::int64_t { unspecified, verified, unverified };

// Number of cases of each enumeration; also what marks a type as a wire enumeration.
template <class E>
struct WireEnumerationCaseCount;
template <> struct WireEnumerationCaseCount<AppleEnvironment> { static constexpr std::int64_t value = 4; };
template <> struct WireEnumerationCaseCount<AppleOfferType> { static constexpr std::int64_t value = 5; };
template <> struct WireEnumerationCaseCount<AppleOwnershipType> { static constexpr std::int64_t value = 3; };
template <> struct WireEnumerationCaseCount<ApplePaymentMode> { static constexpr std::int64_t value = 4; };
template <> struct WireEnumerationCaseCount<ApplePeriodUnit> { static constexpr std::int64_t value = 5; };
template <> struct WireEnumerationCaseCount<AppleProductType> { static constexpr std::int64_t value = 5; };
template <> struct WireEnumerationCaseCount<AppleRevocationReason> { static constexpr std::int64_t value = 3; };
template <> struct WireEnumerationCaseCount<AppleTransactionReason> { static constexpr std::int64_t value = 3; };
template <> struct WireEnumerationCaseCount<AppleVerificationError> { static constexpr std::int64_t value = 7; };
template <> struct WireEnumerationCaseCount<AppleVerificationStatus> { static constexpr std::int64_t value = 3; };

template <class E>
concept WireEnumeration = requires { WireEnumerationCaseCount<E>::value; };

template <WireEnumeration E>
constexpr std::int64_t rawValue(E value) {
  return static_cast<std::int64_t>(value);
}

// The case with this raw value, or nothing for a negative one or one past the last case.
template <WireEnumeration E>
constexpr std::optional<E> fromRawValue(std::int64_t raw) {
  if (raw < 0 || raw >= WireEnumerationCaseCount<E>::value) return std::nullopt;
  return static_cast<E>(raw);
}

}  // namespace VornTeskPaymentsAddonApple

namespace vorn::tesk {

template <VornTeskPaymentsAddonApple::WireEnumeration E>
struct Coding<E> {
  static void encode(Encoder& encoder, E value) {
    encoder.encode(VornTeskPaymentsAddonApple::rawValue(value));
  }
  // Taken as unsigned, a negative integer is past every case, so both fall to unspecified.
  static E decode(const Decoder& decoder) {
    const auto raw = static_cast<std::uint64_t>(decoder.decodeInt64());
    constexpr auto kCount =
        static_cast<std::uint64_t>(VornTeskPaymentsAddonApple::WireEnumerationCaseCount<E>::value);
    return raw < kCount ? static_cast<E>(raw) : E::unspecified;
  }
};

}  // namespace vorn::tesk
