#include "platform/openssl.h"

#include <openssl/crypto.h>
#include <openssl/pem.h>

#include <array>

namespace platform {

bool initializeOpenSSL() {
  static const bool ready = OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr) == 1;
  return ready;
}

OpenSSLOwned<X509> certificateFromDER(std::string_view der) {
  const auto* in = reinterpret_cast<const unsigned char*>(der.data());
  OpenSSLOwned<X509> cert(d2i_X509(nullptr, &in, static_cast<long>(der.size())));
  if (cert && in != reinterpret_cast<const unsigned char*>(der.data() + der.size())) cert.reset();
  return cert;
}

OpenSSLOwned<EVP_PKEY> privateKeyFromPEM(std::string_view pem) {
  OpenSSLOwned<BIO> in(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  return OpenSSLOwned<EVP_PKEY>(in ? PEM_read_bio_PrivateKey(in.get(), nullptr, nullptr, nullptr)
                                   : nullptr);
}

std::string privateKeyPEM(EVP_PKEY* key) {
  OpenSSLOwned<BIO> out(BIO_new(BIO_s_mem()));
  if (!out || PEM_write_bio_PrivateKey(out.get(), key, nullptr, nullptr, 0, nullptr, nullptr) != 1) {
    return {};
  }
  char* data = nullptr;
  const long length = BIO_get_mem_data(out.get(), &data);
  return std::string(data, static_cast<std::size_t>(length));
}

std::string signES256(EVP_PKEY* key, std::string_view signingInput) {
  OpenSSLOwned<EVP_MD_CTX> context(EVP_MD_CTX_new());
  const auto* input = reinterpret_cast<const unsigned char*>(signingInput.data());
  std::size_t length = 0;
  if (!context || EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, key) != 1 ||
      EVP_DigestSign(context.get(), nullptr, &length, input, signingInput.size()) != 1) {
    return {};
  }
  std::string der(length, '\0');
  if (EVP_DigestSign(context.get(), reinterpret_cast<unsigned char*>(der.data()), &length, input,
                     signingInput.size()) != 1) {
    return {};
  }
  const auto* in = reinterpret_cast<const unsigned char*>(der.data());
  OpenSSLOwned<ECDSA_SIG> signature(d2i_ECDSA_SIG(nullptr, &in, static_cast<long>(length)));
  std::array<unsigned char, 64> raw{};
  if (!signature || BN_bn2binpad(ECDSA_SIG_get0_r(signature.get()), raw.data(), 32) != 32 ||
      BN_bn2binpad(ECDSA_SIG_get0_s(signature.get()), raw.data() + 32, 32) != 32) {
    return {};
  }
  return std::string(reinterpret_cast<const char*>(raw.data()), raw.size());
}

bool verifyES256(EVP_PKEY* key, std::string_view signingInput, std::string_view rawSignature) {
  if (rawSignature.size() != 64) return false;
  const auto* bytes = reinterpret_cast<const unsigned char*>(rawSignature.data());
  OpenSSLOwned<ECDSA_SIG> ecdsa(ECDSA_SIG_new());
  BIGNUM* r = BN_bin2bn(bytes, 32, nullptr);
  BIGNUM* s = BN_bin2bn(bytes + 32, 32, nullptr);
  if (!ecdsa || !r || !s || ECDSA_SIG_set0(ecdsa.get(), r, s) != 1) {
    BN_free(r);
    BN_free(s);
    return false;
  }
  unsigned char* der = nullptr;
  const int derLength = i2d_ECDSA_SIG(ecdsa.get(), &der);
  OpenSSLOwned<EVP_MD_CTX> verifier(EVP_MD_CTX_new());
  const bool valid =
      derLength > 0 && verifier &&
      EVP_DigestVerifyInit(verifier.get(), nullptr, EVP_sha256(), nullptr, key) == 1 &&
      EVP_DigestVerify(verifier.get(), der, static_cast<std::size_t>(derLength),
                       reinterpret_cast<const unsigned char*>(signingInput.data()),
                       signingInput.size()) == 1;
  OPENSSL_free(der);
  return valid;
}

}  // namespace platform
