#include <gtest/gtest.h>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include "platform/base64.h"
#include "storekit/errors.h"
#include "storekit/jws.h"

namespace storekit {
namespace {

namespace json = boost::json;
using Code = VerificationError::Code;

std::vector<std::string> segments(const std::string& jws) {
  std::vector<std::string> parts;
  std::size_t start = 0;
  for (auto dot = jws.find('.'); dot != std::string::npos; dot = jws.find('.', start)) {
    parts.push_back(jws.substr(start, dot - start));
    start = dot + 1;
  }
  parts.push_back(jws.substr(start));
  return parts;
}

Code rejection(const std::string& jws, const std::string& root) {
  try {
    verifyJWS(jws, root);
  } catch (const VerificationError& error) {
    return error.code();
  }
  return static_cast<Code>(-1);
}

X509* certificate(const std::string& der) {
  const auto* in = reinterpret_cast<const unsigned char*>(der.data());
  return d2i_X509(nullptr, &in, static_cast<long>(der.size()));
}

TEST(JWS, SignsWithTheChainInTheHeaderAndARawSignature) {
  const auto authority = SigningAuthority::generate();
  const std::string payload = R"({"transactionId":"1","signedDate":1700000000000})";
  const auto jws = authority->sign(payload);
  const auto parts = segments(jws);
  ASSERT_EQ(parts.size(), 3u);
  const auto header = json::parse(*platform::base64URLDecode(parts[0])).as_object();
  EXPECT_EQ(header.at("alg"), "ES256");
  const auto& x5c = header.at("x5c").as_array();
  ASSERT_EQ(x5c.size(), 3u);
  EXPECT_EQ(*platform::base64Decode(x5c[0].as_string()), authority->leafCertificate());
  EXPECT_EQ(*platform::base64Decode(x5c[1].as_string()), authority->intermediateCertificate());
  EXPECT_EQ(*platform::base64Decode(x5c[2].as_string()), authority->rootCertificate());
  EXPECT_EQ(*platform::base64URLDecode(parts[1]), payload);
  EXPECT_EQ(platform::base64URLDecode(parts[2])->size(), 64u);
  EXPECT_EQ(verifyJWS(jws, authority->rootCertificate()), payload);
  EXPECT_EQ(decodeJWSPayload(jws), payload);

  // What Apple's verifier looks for: marker extensions, a CA intermediate, names that chain.
  X509* leaf = certificate(authority->leafCertificate());
  X509* intermediate = certificate(authority->intermediateCertificate());
  X509* root = certificate(authority->rootCertificate());
  ASSERT_TRUE(leaf && intermediate && root);
  auto hasOID = [](X509* cert, const char* oid) {
    ASN1_OBJECT* object = OBJ_txt2obj(oid, 1);
    const bool found = X509_get_ext_by_OBJ(cert, object, -1) >= 0;
    ASN1_OBJECT_free(object);
    return found;
  };
  EXPECT_TRUE(hasOID(leaf, "1.2.840.113635.100.6.11.1"));
  EXPECT_TRUE(hasOID(intermediate, "1.2.840.113635.100.6.2.1"));
  EXPECT_EQ(X509_check_ca(intermediate), 1);
  EXPECT_EQ(X509_check_ca(leaf), 0);
  EXPECT_EQ(X509_check_issued(intermediate, leaf), X509_V_OK);
  EXPECT_EQ(X509_check_issued(root, intermediate), X509_V_OK);
  X509_free(leaf);
  X509_free(intermediate);
  X509_free(root);
}

TEST(JWS, RejectsTamperingForeignChainsAndGarbage) {
  const auto authority = SigningAuthority::generate();
  const auto other = SigningAuthority::generate();
  const auto jws = authority->sign(R"({"quantity":1,"signedDate":1700000000000})");
  const auto parts = segments(jws);
  const auto& root = authority->rootCertificate();

  const auto alteredPayload =
      parts[0] + "." + platform::base64URLEncode(R"({"quantity":2,"signedDate":1700000000000})") + "." + parts[2];
  EXPECT_EQ(rejection(alteredPayload, root), Code::invalidSignature);
  auto signature = *platform::base64URLDecode(parts[2]);
  signature[10] = static_cast<char>(signature[10] ^ 1);
  EXPECT_EQ(rejection(parts[0] + "." + parts[1] + "." + platform::base64URLEncode(signature), root),
            Code::invalidSignature);
  EXPECT_EQ(rejection(parts[0] + "." + parts[1] + "." + platform::base64URLEncode(signature.substr(0, 63)), root),
            Code::invalidSignature);
  // Signed by another chain: valid in itself, but not under our root.
  EXPECT_EQ(rejection(other->sign(R"({"signedDate":1700000000000})"), root), Code::invalidCertificateChain);
  // A header whose chain is cut short.
  auto header = json::parse(*platform::base64URLDecode(parts[0])).as_object();
  header["x5c"].as_array().pop_back();
  EXPECT_EQ(rejection(platform::base64URLEncode(json::serialize(header)) + "." + parts[1] + "." + parts[2], root),
            Code::invalidCertificateChain);
  // Certificates outside their validity at the signing date, after and before it (also once
  // the same chain has verified at other dates).
  const auto late = authority->sign(R"({"signedDate":4200000000000})");
  EXPECT_EQ(rejection(late, root), Code::invalidCertificateChain);
  EXPECT_EQ(rejection(authority->sign(R"({"signedDate":900000000000})"), root),
            Code::invalidCertificateChain);
  EXPECT_EQ(verifyJWS(late, root, platform::dateFromMillisecondsSince1970(1700000000000)),
            R"({"signedDate":4200000000000})");
  for (const std::string& garbage : std::vector<std::string>{"", "a.b", "a.b.c.d", "!!.??.**", parts[0] + ".bm90IGpzb24." + parts[2]}) {
    EXPECT_EQ(rejection(garbage, root), Code::invalidEncoding) << garbage;
  }
  EXPECT_FALSE(decodeJWSPayload("nodots"));
}

}  // namespace
}  // namespace storekit
