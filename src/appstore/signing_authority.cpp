#include "appstore/signing_authority.h"

#include <array>
#include <cctype>
#include <atomic>
#include <stdexcept>

#include <boost/json/serialize.hpp>
#include <openssl/bn.h>
#include <openssl/objects.h>
#include <openssl/pem.h>

#include "platform/base64.h"
#include "platform/openssl.h"

namespace appstore {
namespace json = boost::json;
namespace {

template <class T>
using Owned = platform::OpenSSLOwned<T>;

[[maybe_unused]] const bool kCryptoReady = platform::initializeOpenSSL();

[[noreturn]] void fail(const char* what) { throw std::runtime_error(std::string("JWS signing: ") + what); }

Owned<X509_NAME> makeName(const char* commonName) {
  Owned<X509_NAME> name(X509_NAME_new());
  auto add = [&](const char* field, const char* value) {
    if (X509_NAME_add_entry_by_txt(name.get(), field, MBSTRING_UTF8,
                                   reinterpret_cast<const unsigned char*>(value), -1, -1, 0) != 1) {
      fail("cannot build a certificate name");
    }
  };
  add("CN", commonName);
  add("OU", "VornTesk Local App Store");
  add("O", "VornTesk");
  add("C", "US");
  return name;
}

void addExtension(X509* cert, X509V3_CTX* context, int nid, const char* value) {
  Owned<X509_EXTENSION> extension(X509V3_EXT_conf_nid(nullptr, context, nid, value));
  if (!extension || X509_add_ext(cert, extension.get(), -1) != 1) fail("cannot add an extension");
}

// Apple marks its certificates with private extensions whose value is an ASN.1 NULL.
void addMarker(X509* cert, const char* oid) {
  Owned<ASN1_OBJECT> object(OBJ_txt2obj(oid, 1));
  Owned<ASN1_OCTET_STRING> value(ASN1_OCTET_STRING_new());
  static const unsigned char kNull[] = {0x05, 0x00};
  if (!object || !value || ASN1_OCTET_STRING_set(value.get(), kNull, 2) != 1) fail("marker");
  Owned<X509_EXTENSION> extension(X509_EXTENSION_create_by_OBJ(nullptr, object.get(), 0, value.get()));
  if (!extension || X509_add_ext(cert, extension.get(), -1) != 1) fail("cannot add a marker");
}

Owned<X509> makeCertificate(EVP_PKEY* key, const char* commonName, X509* issuer, EVP_PKEY* issuerKey,
                            bool authority, const char* marker, long serial) {
  Owned<X509> cert(X509_new());
  X509_set_version(cert.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), serial);
  auto name = makeName(commonName);
  X509_set_subject_name(cert.get(), name.get());
  X509_set_issuer_name(cert.get(), issuer ? X509_get_subject_name(issuer) : name.get());
  // Wide validity: the store clock can be moved far ahead by tests and renewals.
  if (ASN1_TIME_set_string_X509(X509_getm_notBefore(cert.get()), "20000101000000Z") != 1 ||
      ASN1_TIME_set_string_X509(X509_getm_notAfter(cert.get()), "20991231235959Z") != 1) {
    fail("cannot set the validity");
  }
  X509_set_pubkey(cert.get(), key);
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, issuer ? issuer : cert.get(), cert.get(), nullptr, nullptr, 0);
  addExtension(cert.get(), &context, NID_basic_constraints,
               authority ? "critical,CA:TRUE" : "critical,CA:FALSE");
  addExtension(cert.get(), &context, NID_key_usage,
               authority ? "critical,keyCertSign,cRLSign" : "critical,digitalSignature");
  addExtension(cert.get(), &context, NID_subject_key_identifier, "hash");
  addExtension(cert.get(), &context, NID_authority_key_identifier, "keyid:always");
  if (marker) addMarker(cert.get(), marker);
  if (X509_sign(cert.get(), issuerKey, EVP_sha256()) <= 0) fail("cannot sign a certificate");
  return cert;
}

std::string toDER(X509* cert) {
  const int length = i2d_X509(cert, nullptr);
  if (length <= 0) fail("cannot encode a certificate");
  std::string der(static_cast<std::size_t>(length), '\0');
  auto* out = reinterpret_cast<unsigned char*>(der.data());
  i2d_X509(cert, &out);
  return der;
}
}  // namespace

struct SigningAuthority::Keys {
  Owned<EVP_PKEY> root, intermediate, leaf;
};

SigningAuthority::~SigningAuthority() = default;

std::shared_ptr<const SigningAuthority> SigningAuthority::shared() {
  // Never destroyed: stores made while the process exits still need it.
  static const auto* authority = new std::shared_ptr<const SigningAuthority>(generate());
  return *authority;
}

std::shared_ptr<const SigningAuthority> SigningAuthority::generate() {
  static std::atomic<long> serial{1};
  std::shared_ptr<SigningAuthority> authority(new SigningAuthority());
  authority->keys_ = std::make_unique<Keys>();
  auto& keys = *authority->keys_;
  keys.root.reset(EVP_EC_gen("P-256"));
  keys.intermediate.reset(EVP_EC_gen("P-256"));
  keys.leaf.reset(EVP_EC_gen("P-256"));
  if (!keys.root || !keys.intermediate || !keys.leaf) fail("cannot generate keys");
  auto root = makeCertificate(keys.root.get(), "VornTesk Local Root CA", nullptr, keys.root.get(),
                              true, nullptr, serial++);
  auto intermediate =
      makeCertificate(keys.intermediate.get(), "VornTesk Local Worldwide Developer Relations",
                      root.get(), keys.root.get(), true, kIntermediateMarkerOID, serial++);
  auto leaf = makeCertificate(keys.leaf.get(), "VornTesk Local App Store Signing", intermediate.get(),
                              keys.intermediate.get(), false, kLeafMarkerOID, serial++);
  authority->rootDER_ = toDER(root.get());
  authority->intermediateDER_ = toDER(intermediate.get());
  authority->leafDER_ = toDER(leaf.get());
  authority->makeHeader();
  return authority;
}

std::shared_ptr<const SigningAuthority> SigningAuthority::restore(const Stored& stored) {
  auto leafKey = platform::privateKeyFromPEM(stored.leafKeyPEM);
  auto leaf = platform::certificateFromDER(stored.leafDER);
  if (!leafKey || !leaf || !platform::certificateFromDER(stored.intermediateDER) || !platform::certificateFromDER(stored.rootDER) ||
      X509_check_private_key(leaf.get(), leafKey.get()) != 1) {
    throw std::runtime_error("the stored signing identity cannot be read");
  }
  std::shared_ptr<SigningAuthority> authority(new SigningAuthority());
  authority->keys_ = std::make_unique<Keys>();
  authority->keys_->leaf = std::move(leafKey);
  authority->rootDER_ = stored.rootDER;
  authority->intermediateDER_ = stored.intermediateDER;
  authority->leafDER_ = stored.leafDER;
  authority->makeHeader();
  return authority;
}

SigningAuthority::Stored SigningAuthority::stored() const {
  auto keyPEM = platform::privateKeyPEM(keys_->leaf.get());
  if (keyPEM.empty()) fail("cannot write the signing key");
  return {std::move(keyPEM), rootDER_, intermediateDER_, leafDER_};
}

std::string SigningAuthority::rootCertificatePEM() const {
  Owned<BIO> out(BIO_new(BIO_s_mem()));
  auto root = platform::certificateFromDER(rootDER_);
  if (!out || !root || PEM_write_bio_X509(out.get(), root.get()) != 1) {
    fail("cannot write the root certificate");
  }
  char* data = nullptr;
  const long length = BIO_get_mem_data(out.get(), &data);
  return std::string(data, static_cast<std::size_t>(length));
}

void SigningAuthority::makeHeader() {
  json::object header;
  header["alg"] = "ES256";
  header["x5c"] = json::array{json::string(platform::base64Encode(leafDER_)),
                              json::string(platform::base64Encode(intermediateDER_)),
                              json::string(platform::base64Encode(rootDER_))};
  headerSegment_ = platform::base64URLEncode(json::serialize(header));
}

std::string SigningAuthority::sign(std::string_view payload) const {
  std::string token = headerSegment_ + "." + platform::base64URLEncode(payload);
  const auto raw = platform::signES256(keys_->leaf.get(), token);
  if (raw.empty()) fail("cannot sign");
  token += '.';
  token += platform::base64URLEncode(raw);
  return token;
}

std::string sha384(std::string_view bytes) {
  std::string digest(48, '\0');
  unsigned int length = 0;
  if (EVP_Digest(bytes.data(), bytes.size(), reinterpret_cast<unsigned char*>(digest.data()),
                 &length, EVP_sha384(), nullptr) != 1) {
    fail("cannot hash");
  }
  digest.resize(length);
  return digest;
}

std::string deviceVerificationFor(const platform::UUID& nonce, const platform::UUID& device) {
  auto lower = [](std::string text) {
    for (auto& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
  };
  return sha384(lower(nonce.uuidString()) + lower(device.uuidString()));
}

}  // namespace appstore
