#include "storekit/jws.h"

#include <array>
#include <atomic>
#include <ctime>
#include <limits>
#include <map>
#include <mutex>
#include <stdexcept>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include "platform/base64.h"
#include "storekit/errors.h"

namespace storekit {
namespace json = boost::json;
namespace {

// The store's threads (update sequences, renewals) may still be signing or verifying while
// the process exits, and OpenSSL's clean-up at exit would free what they are using. Set up
// before anything here touches OpenSSL, so that the clean-up is never registered.
[[maybe_unused]] const bool kCryptoReady = OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr) == 1;

constexpr const char* kLeafMarkerOID = "1.2.840.113635.100.6.11.1";
constexpr const char* kIntermediateMarkerOID = "1.2.840.113635.100.6.2.1";

struct Deleter {
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
};
template <class T>
using Owned = std::unique_ptr<T, Deleter>;

[[noreturn]] void fail(const char* what) { throw std::runtime_error(std::string("JWS signing: ") + what); }

[[noreturn]] void reject(VerificationError::Code code) { throw VerificationError(code); }

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

Owned<X509> fromDER(std::string_view der) {
  const auto* in = reinterpret_cast<const unsigned char*>(der.data());
  Owned<X509> cert(d2i_X509(nullptr, &in, static_cast<long>(der.size())));
  if (cert && in != reinterpret_cast<const unsigned char*>(der.data() + der.size())) cert.reset();
  return cert;
}

// Parsing a certificate is most of what a verification costs with OpenSSL 3 (its public key
// is decoded through the provider machinery), and every token a store signs carries the
// same chain, checked against the same root. So each distinct certificate, by its exact DER
// bytes, is parsed once and then shared: a parsed certificate is only read from then on,
// which OpenSSL allows from several threads at once. The cache forgets everything when it
// is full, so tokens with ever new certificates cannot make it grow without end.
class CertificateCache {
 public:
  // Never destroyed: the store's threads may still verify while the process exits.
  static CertificateCache& shared() {
    static auto* cache = new CertificateCache();
    return *cache;
  }

  // The certificate of `der` (its own reference), or nothing when the bytes are not one
  // certificate exactly.
  Owned<X509> parse(std::string_view der) {
    {
      std::lock_guard lock(mutex_);
      if (const auto found = parsed_.find(der); found != parsed_.end()) {
        return share(found->second.get());
      }
    }
    auto cert = fromDER(der);
    if (!cert) return cert;
    std::lock_guard lock(mutex_);
    if (parsed_.size() >= kCapacity) parsed_.clear();
    parsed_.try_emplace(std::string(der), share(cert.get()));
    return cert;
  }

 private:
  static constexpr std::size_t kCapacity = 64;
  static Owned<X509> share(X509* cert) {
    X509_up_ref(cert);
    return Owned<X509>(cert);
  }
  std::mutex mutex_;
  std::map<std::string, Owned<X509>, std::less<>> parsed_;
};

// The seconds since 1970 of a certificate time; nothing when it cannot be read.
std::optional<std::time_t> secondsOf(const ASN1_TIME* time) {
  std::tm parts{};
  if (ASN1_TIME_to_tm(time, &parts) != 1) return std::nullopt;
  return timegm(&parts);
}

// Whether a chain verifies changes from one token to the next only through the validity
// periods of its certificates (the rest of the check looks at the certificates alone), and
// every token a store signs carries the same chain. So a chain (leaf, intermediate, trusted
// root, by their exact bytes) that verified once is remembered with the seconds in which all
// three are valid, a second kept clear of either end; a token checked at a time inside needs
// no second check of the chain's signatures. Anything else is checked in full, as before.
class VerifiedChains {
 public:
  static VerifiedChains& shared() {
    static auto* chains = new VerifiedChains();  // never destroyed, like the certificates
    return *chains;
  }

  // The exact bytes of leaf, intermediate and trusted root, each after its length.
  static std::string keyOf(std::string_view leaf, std::string_view intermediate,
                           std::string_view root) {
    std::string key;
    for (const std::string_view der : {leaf, intermediate, root}) {
      key += std::to_string(der.size());
      key += ':';
      key += der;
    }
    return key;
  }

  bool verifiedAt(const std::string& key, std::time_t when) {
    std::lock_guard lock(mutex_);
    const auto found = valid_.find(key);
    return found != valid_.end() && when >= found->second.first && when <= found->second.second;
  }

  void remember(std::string key, X509* const (&certificates)[3]) {
    std::time_t from = std::numeric_limits<std::time_t>::min();
    std::time_t to = std::numeric_limits<std::time_t>::max();
    for (X509* certificate : certificates) {
      const auto notBefore = secondsOf(X509_get0_notBefore(certificate));
      const auto notAfter = secondsOf(X509_get0_notAfter(certificate));
      if (!notBefore || !notAfter) return;
      from = std::max(from, *notBefore + 1);
      to = std::min(to, *notAfter - 1);
    }
    std::lock_guard lock(mutex_);
    if (valid_.size() >= kCapacity) valid_.clear();
    valid_.insert_or_assign(std::move(key), std::pair{from, to});
  }

 private:
  static constexpr std::size_t kCapacity = 64;
  std::mutex mutex_;
  std::map<std::string, std::pair<std::time_t, std::time_t>, std::less<>> valid_;
};

bool hasExtension(X509* cert, const char* oid) {
  Owned<ASN1_OBJECT> object(OBJ_txt2obj(oid, 1));
  return object && X509_get_ext_by_OBJ(cert, object.get(), -1) >= 0;
}

struct Segments {
  std::string_view header, payload, signature, signingInput;
};

std::optional<Segments> split(std::string_view jws) {
  const auto first = jws.find('.');
  if (first == std::string_view::npos) return std::nullopt;
  const auto second = jws.find('.', first + 1);
  if (second == std::string_view::npos || jws.find('.', second + 1) != std::string_view::npos) {
    return std::nullopt;
  }
  return Segments{jws.substr(0, first), jws.substr(first + 1, second - first - 1),
                  jws.substr(second + 1), jws.substr(0, second)};
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
  json::object header;
  header["alg"] = "ES256";
  header["x5c"] = json::array{json::string(platform::base64Encode(authority->leafDER_)),
                              json::string(platform::base64Encode(authority->intermediateDER_)),
                              json::string(platform::base64Encode(authority->rootDER_))};
  authority->headerSegment_ = platform::base64URLEncode(json::serialize(header));
  return authority;
}

std::string SigningAuthority::sign(std::string_view payload) const {
  std::string token = headerSegment_ + "." + platform::base64URLEncode(payload);
  Owned<EVP_MD_CTX> context(EVP_MD_CTX_new());
  std::size_t length = 0;
  if (!context ||
      EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, keys_->leaf.get()) != 1 ||
      EVP_DigestSign(context.get(), nullptr, &length,
                     reinterpret_cast<const unsigned char*>(token.data()), token.size()) != 1) {
    fail("cannot sign");
  }
  std::string der(length, '\0');
  if (EVP_DigestSign(context.get(), reinterpret_cast<unsigned char*>(der.data()), &length,
                     reinterpret_cast<const unsigned char*>(token.data()), token.size()) != 1) {
    fail("cannot sign");
  }
  const auto* in = reinterpret_cast<const unsigned char*>(der.data());
  Owned<ECDSA_SIG> signature(d2i_ECDSA_SIG(nullptr, &in, static_cast<long>(length)));
  if (!signature) fail("cannot read the signature");
  // JOSE wants r and s as two fixed 32-byte big-endian integers, not the DER sequence.
  std::array<unsigned char, 64> raw{};
  if (BN_bn2binpad(ECDSA_SIG_get0_r(signature.get()), raw.data(), 32) != 32 ||
      BN_bn2binpad(ECDSA_SIG_get0_s(signature.get()), raw.data() + 32, 32) != 32) {
    fail("cannot encode the signature");
  }
  token += '.';
  token += platform::base64URLEncode(std::string_view(reinterpret_cast<const char*>(raw.data()), raw.size()));
  return token;
}

std::optional<std::string> decodeJWSPayload(std::string_view jws) {
  const auto segments = split(jws);
  if (!segments) return std::nullopt;
  return platform::base64URLDecode(segments->payload);
}

std::string verifyJWS(std::string_view jws, std::string_view trustedRootDER,
                      std::optional<platform::Date> effectiveDate) {
  using Code = VerificationError::Code;
  const auto segments = split(jws);
  if (!segments) reject(Code::invalidEncoding);
  const auto headerText = platform::base64URLDecode(segments->header);
  auto payload = platform::base64URLDecode(segments->payload);
  const auto signature = platform::base64URLDecode(segments->signature);
  if (!headerText || !payload || !signature) reject(Code::invalidEncoding);

  json::error_code ec;
  const auto header = json::parse(*headerText, ec);
  const auto payloadValue = ec ? json::value() : json::parse(*payload, ec);
  if (ec || !header.is_object() || !payloadValue.is_object()) reject(Code::invalidEncoding);
  const auto* alg = header.as_object().if_contains("alg");
  if (!alg || !alg->is_string() || alg->get_string() != "ES256") reject(Code::invalidEncoding);
  const auto* x5c = header.as_object().if_contains("x5c");
  if (!x5c || !x5c->is_array()) reject(Code::invalidCertificateChain);
  std::vector<Owned<X509>> chain;
  std::vector<std::string> chainDER;
  for (const auto& entry : x5c->get_array()) {
    if (!entry.is_string()) reject(Code::invalidEncoding);
    auto der = platform::base64Decode(entry.get_string());
    if (!der) reject(Code::invalidEncoding);
    auto cert = CertificateCache::shared().parse(*der);
    if (!cert) reject(Code::invalidEncoding);
    chain.push_back(std::move(cert));
    chainDER.push_back(std::move(*der));
  }
  if (chain.size() != 3) reject(Code::invalidCertificateChain);
  auto root = CertificateCache::shared().parse(trustedRootDER);
  if (!root) reject(Code::invalidCertificateChain);
  if (!hasExtension(chain[0].get(), kLeafMarkerOID) ||
      !hasExtension(chain[1].get(), kIntermediateMarkerOID)) {
    reject(Code::invalidCertificateChain);
  }

  if (!effectiveDate) {
    const auto* signedDate = payloadValue.as_object().if_contains("signedDate");
    if (signedDate && signedDate->is_int64()) {
      effectiveDate = platform::dateFromMillisecondsSince1970(signedDate->get_int64());
    }
  }
  // The time the chain is checked at: the effective date, else (as OpenSSL does) now.
  const std::time_t checkedAt =
      effectiveDate ? static_cast<time_t>(platform::millisecondsSince1970(*effectiveDate) / 1000)
                    : std::time(nullptr);
  auto chainKey = VerifiedChains::keyOf(chainDER[0], chainDER[1], trustedRootDER);
  if (!VerifiedChains::shared().verifiedAt(chainKey, checkedAt)) {
    Owned<X509_STORE> store(X509_STORE_new());
    Owned<STACK_OF(X509)> untrusted(sk_X509_new_null());
    Owned<X509_STORE_CTX> context(X509_STORE_CTX_new());
    if (!store || !untrusted || !context || X509_STORE_add_cert(store.get(), root.get()) != 1 ||
        sk_X509_push(untrusted.get(), chain[1].get()) <= 0 ||
        X509_STORE_CTX_init(context.get(), store.get(), chain[0].get(), untrusted.get()) != 1) {
      reject(Code::invalidCertificateChain);
    }
    if (effectiveDate) X509_STORE_CTX_set_time(context.get(), 0, checkedAt);
    if (X509_verify_cert(context.get()) != 1) reject(Code::invalidCertificateChain);
    VerifiedChains::shared().remember(std::move(chainKey),
                                      {chain[0].get(), chain[1].get(), root.get()});
  }

  if (signature->size() != 64) reject(Code::invalidSignature);
  const auto* bytes = reinterpret_cast<const unsigned char*>(signature->data());
  Owned<ECDSA_SIG> ecdsa(ECDSA_SIG_new());
  BIGNUM* r = BN_bin2bn(bytes, 32, nullptr);
  BIGNUM* s = BN_bin2bn(bytes + 32, 32, nullptr);
  if (!ecdsa || !r || !s || ECDSA_SIG_set0(ecdsa.get(), r, s) != 1) {
    BN_free(r);
    BN_free(s);
    reject(Code::invalidSignature);
  }
  unsigned char* der = nullptr;
  const int derLength = i2d_ECDSA_SIG(ecdsa.get(), &der);
  Owned<EVP_MD_CTX> verifier(EVP_MD_CTX_new());
  const bool valid =
      derLength > 0 && verifier &&
      EVP_DigestVerifyInit(verifier.get(), nullptr, EVP_sha256(), nullptr,
                           X509_get0_pubkey(chain[0].get())) == 1 &&
      EVP_DigestVerify(verifier.get(), der, static_cast<std::size_t>(derLength),
                       reinterpret_cast<const unsigned char*>(segments->signingInput.data()),
                       segments->signingInput.size()) == 1;
  OPENSSL_free(der);
  if (!valid) reject(Code::invalidSignature);
  return std::move(*payload);
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

}  // namespace storekit
