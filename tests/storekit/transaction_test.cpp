// The signed transactions of the store: ES256 JWS signing and verification, reading App
// Store payloads, members that only newer systems have, and the errors.
#include <gtest/gtest.h>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include "appstore/signing_authority.h"
#include "platform/base64.h"
#include "platform/system_version.h"
#include "storekit/jws.h"
#include "storekit/product.h"
#include "storekit/transaction.h"

namespace storekit {
namespace {

using appstore::SigningAuthority;

namespace json = boost::json;
using Code = VerificationError::Code;
using platform::base64URLDecode;
using platform::base64URLEncode;

Code rejection(const std::string& jws, const std::string& root) {
  try {
    verifyJWS(jws, root);
  } catch (const VerificationError& error) {
    return error.code();
  }
  return static_cast<Code>(-1);
}

// (The header's form, the chain in x5c and a raw ES256 signature, as Apple's own verifier
// reads them with the chain's marker extensions: tests/interop.)
TEST(JWS, VerifiesWhatItSignedAndRejectsAnyChange) {
  const auto authority = SigningAuthority::generate();
  const std::string payload = R"({"quantity":1,"signedDate":1700000000000})";
  const auto jws = authority->sign(payload);
  const auto& root = authority->rootCertificate();
  const auto dot1 = jws.find('.'), dot2 = jws.rfind('.');
  const auto header64 = jws.substr(0, dot1), signature64 = jws.substr(dot2 + 1);
  ASSERT_EQ(jws.find('.', dot1 + 1), dot2);
  EXPECT_EQ(verifyJWS(jws, root), payload);
  EXPECT_EQ(decodeJWSPayload(jws), payload);

  const auto altered = base64URLEncode(R"({"quantity":2,"signedDate":1700000000000})");
  EXPECT_EQ(rejection(header64 + "." + altered + "." + signature64, root), Code::invalidSignature);
  auto signature = *base64URLDecode(signature64);
  signature[10] = static_cast<char>(signature[10] ^ 1);
  const auto signed64 = jws.substr(0, dot2 + 1);
  EXPECT_EQ(rejection(signed64 + base64URLEncode(signature), root), Code::invalidSignature);
  // Signed by another chain: valid in itself, but not under our root.
  EXPECT_EQ(rejection(SigningAuthority::generate()->sign(payload), root),
            Code::invalidCertificateChain);
  // A header whose chain is cut short.
  auto header = json::parse(*base64URLDecode(header64)).as_object();
  header["x5c"].as_array().pop_back();
  EXPECT_EQ(rejection(base64URLEncode(json::serialize(header)) + jws.substr(dot1), root),
            Code::invalidCertificateChain);
  // Certificates outside their validity at the signing date, after and before it.
  const auto late = authority->sign(R"({"signedDate":4200000000000})");
  EXPECT_EQ(rejection(late, root), Code::invalidCertificateChain);
  EXPECT_EQ(rejection(authority->sign(R"({"signedDate":900000000000})"), root),
            Code::invalidCertificateChain);
  EXPECT_EQ(verifyJWS(late, root, platform::dateFromMillisecondsSince1970(1700000000000)),
            R"({"signedDate":4200000000000})");
  EXPECT_EQ(rejection(header64 + ".bm90IGpzb24." + signature64, root), Code::invalidEncoding);
  // Only ES256 is accepted, whatever the rest of the token says: a header naming another
  // algorithm, or none, is refused before any signature is checked.
  for (const json::value& alg : {json::value("ES384"), json::value("none"), json::value("es256"),
                                json::value(256), json::value(nullptr)}) {
    auto other = json::parse(*base64URLDecode(header64)).as_object();
    other["alg"] = alg;
    if (alg.is_null()) other.erase("alg");
    EXPECT_EQ(rejection(base64URLEncode(json::serialize(other)) + jws.substr(dot1), root),
              Code::invalidEncoding)
        << json::serialize(alg);
  }
}

json::object payload(std::string_view extra = "") {
  std::string text = R"({"transactionId":"42","originalTransactionId":"40","bundleId":"b",
    "productId":"p","purchaseDate":1700000000000,"originalPurchaseDate":1690000000000,
    "signedDate":1700000000500,"type":"Consumable","environment":"Xcode")";
  text += extra;
  text += "}";
  return json::parse(text).as_object();
}

// (Values outside the known cases, prices and offers as records read them: tests/adapter.)
TEST(Transaction, ReadsPayloadsAndRefusesThoseMissingPropertiesOrOfTheWrongKind) {
  const auto t = Transaction::fromPayload(payload(R"(,"offerDiscountType":"PAY_AS_YOU_GO")"));
  EXPECT_EQ(t.id(), 42u);
  EXPECT_EQ(t.originalID(), 40u);
  // Without a reason in the payload, differing ids mean a renewal.
  EXPECT_EQ(t.reason(), Transaction::Reason::renewal());
  // Keyed access gives nothing for a missing key or another kind of value.
  EXPECT_EQ(t.backingString("offerDiscountType"), "PAY_AS_YOU_GO");
  EXPECT_FALSE(t.backingString("purchaseDate"));
  EXPECT_EQ(Transaction::fromJSON(t.jsonRepresentation()).id(), 42u);
  const auto plain = Transaction::fromPayload(payload());
  EXPECT_EQ(plain.purchasedQuantity(), 1);
  EXPECT_FALSE(plain.offer() || plain.offerType() || plain.price() || plain.currency() ||
               plain.revocationReason() || plain.appAccountToken() || plain.isUpgraded());
  auto code = [](json::object object) {
    try {
      Transaction::fromPayload(std::move(object));
    } catch (const VerificationError& error) {
      return error.code();
    }
    return static_cast<Code>(-1);
  };
  for (const char* key :
       {"transactionId", "productId", "bundleId", "purchaseDate", "signedDate", "type"}) {
    auto object = payload();
    object.erase(key);
    EXPECT_EQ(code(object), Code::missingRequiredProperties) << key;
  }
  for (const char* wrong :
       {R"(,"quantity":"3")", R"(,"appAccountToken":"x")", R"(,"transactionId":"12x")"}) {
    EXPECT_EQ(code(payload(wrong)), Code::invalidEncoding) << wrong;
  }
  EXPECT_THROW(Transaction::fromJSON("[1]"), VerificationError);
}

// (Each member at its threshold: the record conversions in tests/adapter.)
TEST(Availability, NewerMembersAbortBelowTheirSystem) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto t = Transaction::fromPayload(payload(R"(,"offerType":1,"offerPeriod":"P1W")"));
  platform::SystemVersion::set({18, 3});
  const auto offer = t.offer();
  EXPECT_DEATH(offer->period(), "Transaction.Offer.period");
  EXPECT_DEATH(t.appTransactionID(), "Transaction.appTransactionID");
  platform::SystemVersion::set({16, 9});
  EXPECT_DEATH(t.reason(), "Transaction.reason");
  // The older forms stay readable everywhere.
  EXPECT_EQ(t.offerType(), Transaction::OfferType::introductory());
  EXPECT_EQ(t.backingString("offerPeriod"), "P1W");
  platform::SystemVersion::set(platform::SystemVersion::kDefault);
}

}  // namespace
}  // namespace storekit
