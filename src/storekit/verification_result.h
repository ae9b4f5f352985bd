// VerificationResult<T>: a signed value as StoreKit hands it out, with the outcome of
// checking its JWS. Either verified, or unverified with the VerificationError that the check
// found; the payload is readable either way. A plain value; share freely.
#pragma once

#include <optional>
#include <string>
#include <utility>

#include "storekit/errors.h"

namespace storekit {

template <class T>
class VerificationResult {
 public:
  static VerificationResult verified(T value, std::string jwsRepresentation) {
    return VerificationResult(std::move(value), std::move(jwsRepresentation), std::nullopt);
  }
  static VerificationResult unverified(T value, VerificationError error,
                                       std::string jwsRepresentation) {
    return VerificationResult(std::move(value), std::move(jwsRepresentation), std::move(error));
  }

  bool isVerified() const { return !error_.has_value(); }
  // The error of an unverified result; nothing when verified.
  const std::optional<VerificationError>& verificationError() const { return error_; }

  // The payload without regard to the outcome.
  const T& unsafePayloadValue() const { return value_; }
  // The payload of a verified result; throws the VerificationError otherwise.
  const T& payloadValue() const {
    if (error_) throw *error_;
    return value_;
  }

  // The compact JWS the payload came from.
  const std::string& jwsRepresentation() const { return jws_; }

 private:
  VerificationResult(T value, std::string jws, std::optional<VerificationError> error)
      : value_(std::move(value)), jws_(std::move(jws)), error_(std::move(error)) {}

  T value_;
  std::string jws_;
  std::optional<VerificationError> error_;
};

}  // namespace storekit
