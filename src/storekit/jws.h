// Compact JWS signing and verification as the App Store does it: ES256 over P-256 with the
// raw 64-byte r||s signature, and an "x5c" header carrying a leaf, an intermediate and a root
// certificate. The SigningAuthority is a locally generated chain (the leaf and intermediate
// carry Apple's marker extensions, so Apple's own verifier accepts it when given our root).
// A SigningAuthority is immutable once made and may sign from any thread.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/date.h"

namespace storekit {

class SigningAuthority {
 public:
  // One chain per process, made on first use.
  static std::shared_ptr<const SigningAuthority> shared();
  // A new chain: fresh keys and certificates valid from 2000 to 2099.
  static std::shared_ptr<const SigningAuthority> generate();

  ~SigningAuthority();
  SigningAuthority(const SigningAuthority&) = delete;
  SigningAuthority& operator=(const SigningAuthority&) = delete;

  // The compact JWS of `payload` (JSON text), signed with the leaf key.
  std::string sign(std::string_view payload) const;

  // DER certificates.
  const std::string& rootCertificate() const { return rootDER_; }
  const std::string& intermediateCertificate() const { return intermediateDER_; }
  const std::string& leafCertificate() const { return leafDER_; }

 private:
  SigningAuthority() = default;
  struct Keys;
  std::unique_ptr<Keys> keys_;
  std::string rootDER_;
  std::string intermediateDER_;
  std::string leafDER_;
  std::string headerSegment_;  // base64url of the header, the same for every token
};

// Checks `jws` against the trusted root (DER): the certificate chain (with the marker
// extensions, valid at `effectiveDate` or, when absent, at the payload's "signedDate") and the
// signature. Returns the payload text; throws VerificationError (invalidEncoding,
// invalidCertificateChain, invalidSignature).
std::string verifyJWS(std::string_view jws, std::string_view trustedRootDER,
                      std::optional<platform::Date> effectiveDate = std::nullopt);

// The payload text of a compact JWS without any check; nothing if it cannot be decoded.
std::optional<std::string> decodeJWSPayload(std::string_view jws);

// SHA-384 of `bytes`, raw.
std::string sha384(std::string_view bytes);

}  // namespace storekit
