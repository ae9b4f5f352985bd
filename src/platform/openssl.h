// Owning pointers for the OpenSSL objects the signing and verifying code uses, and the
// process-wide set-up that keeps OpenSSL's clean-up at exit away from threads still using it.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

namespace platform {

struct OpenSSLDeleter {
  void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
  void operator()(X509* p) const { X509_free(p); }
  void operator()(X509_NAME* p) const { X509_NAME_free(p); }
  void operator()(X509_EXTENSION* p) const { X509_EXTENSION_free(p); }
  void operator()(ASN1_OBJECT* p) const { ASN1_OBJECT_free(p); }
  void operator()(ASN1_OCTET_STRING* p) const { ASN1_OCTET_STRING_free(p); }
  void operator()(EVP_MD_CTX* p) const { EVP_MD_CTX_free(p); }
  void operator()(ECDSA_SIG* p) const { ECDSA_SIG_free(p); }
  void operator()(X509_STORE* p) const { X509_STORE_free(p); }
  void operator()(X509_STORE_CTX* p) const { X509_STORE_CTX_free(p); }
  void operator()(STACK_OF(X509) * p) const { sk_X509_free(p); }
  void operator()(BIO* p) const { BIO_free(p); }
};
template <class T>
using OpenSSLOwned = std::unique_ptr<T, OpenSSLDeleter>;

// Threads that sign or verify (update sequences, renewals) may still run while the process
// exits, and OpenSSL's clean-up at exit would free what they use. Called before anything
// touches OpenSSL, so that the clean-up is never registered; true when OpenSSL is ready.
bool initializeOpenSSL();

// The certificate of exactly these DER bytes; nothing when they are not one certificate.
OpenSSLOwned<X509> certificateFromDER(std::string_view der);

// A private key from PEM (PKCS#8, or the traditional forms OpenSSL reads); null if none.
OpenSSLOwned<EVP_PKEY> privateKeyFromPEM(std::string_view pem);
// The private key as PKCS#8 PEM (what App Store Connect's .p8 files hold); empty on failure.
std::string privateKeyPEM(EVP_PKEY* key);

// ES256 as JOSE writes it: the signature of `signingInput` under a P-256 key, as the two
// 32-byte big-endian integers r and s (64 bytes); empty on failure.
std::string signES256(EVP_PKEY* key, std::string_view signingInput);
// Whether `rawSignature` (64 bytes, r then s) signs `signingInput` under `key`'s public key.
bool verifyES256(EVP_PKEY* key, std::string_view signingInput, std::string_view rawSignature);

}  // namespace platform
