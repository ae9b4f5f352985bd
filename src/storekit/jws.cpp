#include "storekit/jws.h"

#include <ctime>
#include <limits>
#include <map>
#include <mutex>

#include <boost/json/parse.hpp>
#include <openssl/bn.h>
#include <openssl/objects.h>

#include "appstore/signing_authority.h"
#include "platform/base64.h"
#include "platform/openssl.h"
#include "storekit/errors.h"

namespace storekit {
namespace json = boost::json;
namespace {

template <class T>
using Owned = platform::OpenSSLOwned<T>;
using appstore::kIntermediateMarkerOID;
using appstore::kLeafMarkerOID;

[[maybe_unused]] const bool kCryptoReady = platform::initializeOpenSSL();

[[noreturn]] void reject(VerificationError::Code code) { throw VerificationError(code); }

// Parsing a certificate is most of what a verification costs with OpenSSL 3 (its public key
// is decoded through the provider machinery), and every token a store signs carries the
// same chain, checked against the same root. So each distinct certificate, by its exact DER
// bytes, is parsed once and then shared. Reading its fields and its key is safe from several
// threads at once; checking a chain is not (it fills caches inside the certificates), so
// full chain checks take turns (verifyJWS). The cache forgets everything when it
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
    auto cert = platform::certificateFromDER(der);
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
    // Checking a chain fills caches inside the certificates it reads (their names' canonical
    // encodings among them), and the certificates are shared between threads: one full check
    // at a time. Only a chain not yet remembered, or a time outside its window, gets here.
    static std::mutex fullCheck;
    std::lock_guard lock(fullCheck);
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

  if (!platform::verifyES256(X509_get0_pubkey(chain[0].get()), segments->signingInput, *signature)) {
    reject(Code::invalidSignature);
  }
  return std::move(*payload);
}

}  // namespace storekit
