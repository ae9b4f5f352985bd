// Verification of compact JWS as the device does it: the x5c chain against the root it
// trusts, Apple's marker extensions, and the ES256 signature. Pure; any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/date.h"

namespace storekit {

// Checks `jws` against the trusted root (DER): the certificate chain (with the marker
// extensions, valid at `effectiveDate` or, when absent, at the payload's "signedDate") and the
// signature. Returns the payload text; throws VerificationError (invalidEncoding,
// invalidCertificateChain, invalidSignature).
std::string verifyJWS(std::string_view jws, std::string_view trustedRootDER,
                      std::optional<platform::Date> effectiveDate = std::nullopt);

// The payload text of a compact JWS without any check; nothing if it cannot be decoded.
std::optional<std::string> decodeJWSPayload(std::string_view jws);

}  // namespace storekit
