// The wire records: exact bytes written, read back as written, lenient where reading must
// be (optional keys null or missing, unknown keys, unknown enumeration cases) and strict
// elsewhere, naming the key. Responses as the plug-in answers them: tests/bridge.
#include "records/service_records.h"

#include "record_samples.h"
#include "support/json_coding_helpers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include <initializer_list>
#include <limits>
#include <string>
#include <typeinfo>

namespace VornTeskPaymentsAddonApple {
namespace {

using samples::kCoinsJSON;
using samples::kMinimalTransactionJSON;
using samples::minimalTransaction;
using testing::StartsWith;
using testsupport::decoded;
using testsupport::decodingError;
using testsupport::encoded;

platform::Date at(std::int64_t millisecondsSince1970) {
  return platform::dateFromMillisecondsSince1970(millisecondsSince1970);
}

// The minimal sample with `key` set to the JSON text `value`, or removed when it is empty.
std::string minimalWith(std::string_view key, std::string_view value) {
  boost::json::object object = boost::json::parse(kMinimalTransactionJSON).as_object();
  if (value.empty()) object.erase(key);
  if (!value.empty()) object[key] = boost::json::parse(value);
  return boost::json::serialize(object);
}

TEST(AppleTransactionTest, FullAndMinimalRecordsHaveExactBytesAndReadBack) {
  // Every field set, by position, so a field declared out of order shows in the bytes too.
  // clang-format off
  const AppleTransaction full{18446744073709551615u, 2000000000000001, "pro.monthly",
      AppleProductType::autoRenewable, at(1'795'774'530'007), at(1'767'323'045'000),
      at(1'798'366'530'007), at(1'795'824'000'999), AppleRevocationReason::developerIssue, "wo",
      "g", "tok", 3, AppleTransactionReason::renewal, at(1'795'774'531'250),
      AppleEnvironment::xcode, AppleOwnershipType::familyShared, "h.p.s",
      AppleVerificationStatus::unverified, AppleVerificationError::missingRequiredProperties,
      "app", "app2", true, AppleOfferType::winBack, "back", "freeTrial", "P1M",
      platform::Decimal::parse("-12.345"), "EUR", "FRA", "dv==", "n", "704", "r.i.s"};
  // clang-format on
  const std::string fullJSON =
      R"({"id":18446744073709551615,"originalId":2000000000000001,"productId":"pro.monthly",)"
      R"("productType":3,"purchaseDate":"2026-11-27T10:15:30.007Z",)"
      R"("originalPurchaseDate":"2026-01-02T03:04:05.000Z",)"
      R"("expirationDate":"2026-12-27T10:15:30.007Z","revocationDate":"2026-11-28T00:00:00.999Z",)"
      R"("revocationReason":1,"webOrderLineItemId":"wo","subscriptionGroupId":"g",)"
      R"("appAccountToken":"tok","quantity":3,"transactionReason":2,)"
      R"("signedDate":"2026-11-27T10:15:31.250Z","environment":3,"ownershipType":2,)"
      R"("jwsRepresentation":"h.p.s","verificationStatus":2,"verificationError":6,)"
      R"("bundleId":"app","appBundleId":"app2","isUpgraded":true,"offerType":4,"offerId":"back",)"
      R"("offerPaymentModeStringRepresentation":"freeTrial","offerPeriod":"P1M","price":"-12.345",)"
      R"("currency":"EUR","storefrontCountryCode":"FRA","deviceVerification":"dv==",)"
      R"("deviceVerificationNonce":"n","appTransactionId":"704","signedRenewalInfo":"r.i.s"})";
  EXPECT_EQ(encoded(full), fullJSON);
  EXPECT_EQ(encoded(decoded<AppleTransaction>(fullJSON)), fullJSON);
  EXPECT_EQ(encoded(minimalTransaction()), kMinimalTransactionJSON);
  EXPECT_EQ(encoded(decoded<AppleTransaction>(kMinimalTransactionJSON)), kMinimalTransactionJSON);
}

TEST(AppleTransactionTest, ReadsNullOptionalsAndUnknownKeysLeniently) {
  // None changes anything on the way back out (unknown enumeration cases: EnumerationsTest).
  boost::json::object object = boost::json::parse(kMinimalTransactionJSON).as_object();
  for (const char* key : {"appTransactionId", "price", "expirationDate"}) object[key] = nullptr;
  object["unknownKey"] = boost::json::parse(R"({"id":"x"})");
  EXPECT_EQ(encoded(decoded<AppleTransaction>(boost::json::serialize(object))),
            kMinimalTransactionJSON);
}

TEST(AppleTransactionTest, RejectsMissingNullAndMistypedValuesNamingTheKey) {
  struct Case {
    const char *key, *value, *description;
  };
  const Case cases[] = {
      {"id", "-1",
       "typeMismatch at id: expected an unsigned 64-bit integer but found the number -1"},
      {"quantity", R"("1")",
       "typeMismatch at quantity: expected a 32-bit integer but found a string"},
      {"productId", "null", "valueNotFound at productId:"},
      {"isUpgraded", "0", "typeMismatch at isUpgraded:"},
      {"purchaseDate", R"("2025-06-01")", "dataCorrupted at purchaseDate:"},
      {"expirationDate", "1748779200000", "typeMismatch at expirationDate:"},
      {"price", "0.99", "typeMismatch at price:"},
      {"price", R"("0,99")", "dataCorrupted at price:"},
      {"storefrontCountryCode", "", R"(keyNotFound: "storefrontCountryCode")"},
  };
  for (const Case& c : cases) {
    EXPECT_THAT(decodingError<AppleTransaction>(minimalWith(c.key, c.value)),
                StartsWith(c.description))
        << c.key << " = " << c.value;
  }
}

platform::Decimal decimal(const char* text) { return *platform::Decimal::parse(text); }

TEST(AppleProductTest, WritesExactBytesWithOptionalKeysLeftOutAndReadsThemBack) {
  SubscriptionInfo subscription{"g", Period{1, ApplePeriodUnit::month}, std::nullopt, {}};
  EXPECT_EQ(encoded(subscription), R"({"subscriptionGroupId":"g","subscriptionPeriod":)"
                                   R"({"value":1,"unit":3},"promotionalOffers":[]})");
  // clang-format off
  subscription.introductoryOffer = Offer{std::nullopt, AppleOfferType::introductory, decimal("0"),
      "Free", Period{1, ApplePeriodUnit::week}, 1, ApplePaymentMode::freeTrial};
  subscription.promotionalOffers = {Offer{"promo", AppleOfferType::promotional, decimal("-0.5e-1"),
      "x", Period{3, ApplePeriodUnit::day}, 2, ApplePaymentMode::payAsYouGo}};
  const AppleProduct pro{"pro", "Pro", "", "1 234,50 €", decimal("1234.5"), "fr_FR",
      AppleProductType::autoRenewable, subscription, true};
  // clang-format on
  const std::string proJSON =
      R"({"id":"pro","displayName":"Pro","description":"","displayPrice":"1 234,50 €",)"
      R"("price":"1234.5","priceLocale":"fr_FR","productType":3,"subscription":)"
      R"({"subscriptionGroupId":"g","subscriptionPeriod":{"value":1,"unit":3},)"
      R"("introductoryOffer":{"type":1,"price":"0","displayPrice":"Free",)"
      R"("period":{"value":1,"unit":2},"periodCount":1,"paymentMode":3},)"
      R"("promotionalOffers":[{"id":"promo","type":2,"price":"-0.05","displayPrice":"x",)"
      R"("period":{"value":3,"unit":1},"periodCount":2,"paymentMode":1}]},)"
      R"("isFamilyShareable":true})";
  EXPECT_EQ(encoded(pro), proJSON);
  EXPECT_EQ(encoded(samples::coinsProduct()), kCoinsJSON);
  for (const std::string_view text : {std::string_view(proJSON), kCoinsJSON}) {
    EXPECT_EQ(encoded(decoded<AppleProduct>(text)), text);
  }
}

TEST(AppleProductTest, RejectsMissingNullAndMistypedValuesAnywhereInTheNesting) {
  const auto withOffers = [](const std::string& offers) {
    return R"({"id":"a","displayName":"","description":"","displayPrice":"","price":"1",)"
           R"("priceLocale":"","productType":3,"isFamilyShareable":false,"subscription":)"
           R"({"subscriptionGroupId":"g","subscriptionPeriod":{"value":1,"unit":3},)"
           R"("promotionalOffers":)" +
           offers + "}}";
  };
  const std::string offer = R"({"type":1,"price":"1","displayPrice":"",)"
                            R"("period":{"value":1,"unit":3},"periodCount":1,"paymentMode":1})";
  ASSERT_EQ(decodingError<AppleProduct>(withOffers("[" + offer + "]")), "");
  const std::pair<std::string, const char*> cases[] = {
      {withOffers("null"), "valueNotFound at subscription.promotionalOffers:"},
      {withOffers("[" + offer + R"(,{"type":1}])"),
       R"(keyNotFound at subscription.promotionalOffers[1]: "price")"},
      {withOffers(R"([{"type":1,"price":1}])"),
       "typeMismatch at subscription.promotionalOffers[0].price:"},
      {withOffers(
           R"([{"type":1,"price":"1","displayPrice":"","period":{"value":1,"unit":"month"}}])"),
       "typeMismatch at subscription.promotionalOffers[0].period.unit:"},
  };
  for (const auto& [text, description] : cases) {
    EXPECT_THAT(decodingError<AppleProduct>(text), StartsWith(description)) << text;
  }
}

// `cases` lists every case in wire order, so case k must be written and read as k; past the
// last, strict construction yields nothing and decoding falls to unspecified.
template <class E>
void checkEnumeration(std::initializer_list<E> cases) {
  SCOPED_TRACE(typeid(E).name());
  std::int64_t raw = 0;
  for (const E value : cases) {
    EXPECT_EQ(encoded(value), std::to_string(raw));
    EXPECT_EQ(decoded<E>(std::to_string(raw)), value);
    EXPECT_EQ(fromRawValue<E>(raw++), value);
  }
  for (const std::int64_t bad : {raw, std::int64_t{-1}, std::numeric_limits<std::int64_t>::max()}) {
    EXPECT_EQ(fromRawValue<E>(bad), std::nullopt) << bad;
    EXPECT_EQ(decoded<E>(std::to_string(bad)), E::unspecified) << bad;
  }
  for (const char* text : {R"("1")", "null", "1.5"}) {
    EXPECT_NE(decodingError<E>(text), "") << text;
  }
}

TEST(EnumerationsTest, CasesKeepTheirOrderAndDecodeLeniently) {
  using Env = AppleEnvironment;
  checkEnumeration({Env::unspecified, Env::production, Env::sandbox, Env::xcode});
  using Offer = AppleOfferType;
  checkEnumeration(
      {Offer::unspecified, Offer::introductory, Offer::promotional, Offer::code, Offer::winBack});
  using Own = AppleOwnershipType;
  checkEnumeration({Own::unspecified, Own::purchased, Own::familyShared});
  using Pay = ApplePaymentMode;
  checkEnumeration({Pay::unspecified, Pay::payAsYouGo, Pay::payUpFront, Pay::freeTrial});
  using Unit = ApplePeriodUnit;
  checkEnumeration({Unit::unspecified, Unit::day, Unit::week, Unit::month, Unit::year});
  using Type = AppleProductType;
  checkEnumeration({Type::unspecified, Type::consumable, Type::nonConsumable, Type::autoRenewable,
                    Type::nonRenewable});
  using Revoke = AppleRevocationReason;
  checkEnumeration({Revoke::unspecified, Revoke::developerIssue, Revoke::other});
  using Reason = AppleTransactionReason;
  checkEnumeration({Reason::unspecified, Reason::purchase, Reason::renewal});
  using Error = AppleVerificationError;
  checkEnumeration({Error::unspecified, Error::invalidSignature, Error::revokedCertificate,
                    Error::invalidDeviceVerification, Error::invalidCertificateChain,
                    Error::invalidEncoding, Error::missingRequiredProperties});
  using Status = AppleVerificationStatus;
  checkEnumeration({Status::unspecified, Status::verified, Status::unverified});
}

TEST(ServiceRecordsTest, RecordsReadBackAsWrittenAndLeaveOptionsOutWhenNotGiven) {
  const std::string transaction(kMinimalTransactionJSON), list = "[" + transaction + "]";
  const auto roundTrip = [](auto record, const std::string& text) {
    EXPECT_EQ(encoded(decoded<decltype(record)>(text)), text);
  };
  roundTrip(PurchaseRequest{},
            R"({"productId":"p","options":{"appAccountToken":"t","quantity":2}})");
  roundTrip(PurchaseRequest{}, R"({"productId":"p","options":{}})");
  roundTrip(GetProductsRequest{}, R"({"productIds":["a","b"]})");
  roundTrip(FinishTransactionRequest{}, R"({"transactionId":18446744073709551615})");
  roundTrip(GetProductsResponse{}, "{\"products\":[" + std::string(kCoinsJSON) + "]}");
  roundTrip(PurchaseResponse{}, "{\"transaction\":" + transaction + "}");
  roundTrip(GetCurrentEntitlementsResponse{}, "{\"transactions\":" + list + "}");
  roundTrip(GetAllTransactionsResponse{}, R"({"transactions":[]})");
  roundTrip(GetUnfinishedTransactionsResponse{}, "{\"transactions\":" + list + "}");
  roundTrip(GetStorefrontResponse{}, R"({"countryCode":"FRA","identifier":"143442"})");
  EXPECT_EQ(encoded(decoded<PurchaseRequest>(R"({"productId":"p","options":null})")),
            R"({"productId":"p"})");
}

}  // namespace
}  // namespace VornTeskPaymentsAddonApple
