// The App Store's signing identity and its compact JWS: ES256 over P-256 with the raw 64-byte
// r||s signature, and an "x5c" header carrying a leaf, an intermediate and a root
// certificate. The chain is made locally (the leaf and intermediate carry Apple's marker
// extensions, so Apple's own verifier accepts it when given our root) and can be stored and
// restored, so that tokens stay valid across launches. A SigningAuthority is immutable once
// made and may sign from any thread.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/uuid.h"

namespace appstore {

// Apple's marker extensions on the leaf and intermediate certificates.
constexpr const char* kLeafMarkerOID = "1.2.840.113635.100.6.11.1";
constexpr const char* kIntermediateMarkerOID = "1.2.840.113635.100.6.2.1";

class SigningAuthority {
 public:
  // One chain per process, made on first use.
  static std::shared_ptr<const SigningAuthority> shared();
  // A new chain: fresh keys and certificates valid from 2000 to 2099.
  static std::shared_ptr<const SigningAuthority> generate();

  // What signing needs to go on after a relaunch: the leaf's private key (PKCS#8 PEM) and the
  // three certificates (DER).
  struct Stored {
    std::string leafKeyPEM;
    std::string rootDER;
    std::string intermediateDER;
    std::string leafDER;
  };
  Stored stored() const;
  // Throws std::runtime_error when the key or a certificate cannot be read, or the key is
  // not the leaf's.
  static std::shared_ptr<const SigningAuthority> restore(const Stored& stored);

  ~SigningAuthority();
  SigningAuthority(const SigningAuthority&) = delete;
  SigningAuthority& operator=(const SigningAuthority&) = delete;

  // The compact JWS of `payload` (JSON text), signed with the leaf key.
  std::string sign(std::string_view payload) const;

  // DER certificates.
  const std::string& rootCertificate() const { return rootDER_; }
  const std::string& intermediateCertificate() const { return intermediateDER_; }
  const std::string& leafCertificate() const { return leafDER_; }
  // The root certificate as PEM, for a server that pins it.
  std::string rootCertificatePEM() const;

 private:
  SigningAuthority() = default;
  void makeHeader();
  struct Keys;
  std::unique_ptr<Keys> keys_;
  std::string rootDER_;
  std::string intermediateDER_;
  std::string leafDER_;
  std::string headerSegment_;  // base64url of the header, the same for every token
};

// SHA-384 of `bytes`, raw.
std::string sha384(std::string_view bytes);

// A transaction's deviceVerification (raw bytes): SHA-384 of the nonce and the device's
// identifier, both lower-case, which the device recomputes to tell the token is its own.
std::string deviceVerificationFor(const platform::UUID& nonce, const platform::UUID& device);

}  // namespace appstore
