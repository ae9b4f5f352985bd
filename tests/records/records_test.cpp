// The wire records: exact bytes, read back as written, lenient or strict naming the key.
#include "records/service_records.h"

#include "record_samples.h"
#include "support/json_coding_helpers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include <string>
#include <typeinfo>

namespace VornTeskPaymentsAddonApple {
namespace {

using samples::kCoinsJSON;
using samples::kMinimalTransactionJSON;
using testing::StartsWith;
using testsupport::decoded;
using testsupport::decodingError;
using testsupport::encoded;

platform::Date at(std::int64_t millisecondsSince1970) {
  return platform::dateFromMillisecondsSince1970(millisecondsSince1970);
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
  // (The minimal record's bytes: every transaction answer in tests/bridge.)
}

TEST(AppleTransactionTest, ReadsOptionalsLenientlyAndRejectsBadValuesNamingTheKey) {
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
  for (const Case& c : cases) {  // the minimal sample with `key` set to `value`, or removed
    boost::json::object object = boost::json::parse(kMinimalTransactionJSON).as_object();
    if (*c.value) object[c.key] = boost::json::parse(c.value);
    if (!*c.value) object.erase(c.key);
    EXPECT_THAT(decodingError<AppleTransaction>(boost::json::serialize(object)),
                StartsWith(c.description))
        << c.key << " = " << c.value;
  }
  // Null optionals and unknown keys change nothing on the way back out.
  boost::json::object object = boost::json::parse(kMinimalTransactionJSON).as_object();
  for (const char* key : {"appTransactionId", "price", "expirationDate"}) object[key] = nullptr;
  object["unknownKey"] = boost::json::parse(R"({"id":"x"})");
  EXPECT_EQ(encoded(decoded<AppleTransaction>(boost::json::serialize(object))),
            kMinimalTransactionJSON);
  EXPECT_EQ(encoded(decoded<PurchaseRequest>(R"({"productId":"p","options":null})")),
            R"({"productId":"p"})");
}

platform::Decimal decimal(const char* text) { return *platform::Decimal::parse(text); }

TEST(AppleProductTest, WritesExactBytesReadsThemBackAndNamesThePathOfAnError) {
  SubscriptionInfo subscription{"g", Period{1, ApplePeriodUnit::month}, std::nullopt, {}};
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
  // Errors deep in the nesting name the whole path.
  const auto errorWith = [&](std::string_view from, std::string_view to) {
    std::string text = proJSON;
    return decodingError<AppleProduct>(text.replace(text.find(from), from.size(), to));
  };
  EXPECT_THAT(errorWith(R"("unit":1})", R"("unit":"day"})"),
              StartsWith("typeMismatch at subscription.promotionalOffers[0].period.unit:"));
  EXPECT_THAT(errorWith(R"("price":"-0.05",)", ""),
              StartsWith(R"(keyNotFound at subscription.promotionalOffers[0]: "price")"));
}

// The last case travels as its raw value; past it, strict construction fails, decoding is lenient.
template <class E>
void checkEnumeration(E last) {
  SCOPED_TRACE(typeid(E).name());
  EXPECT_EQ(encoded(last), std::to_string(rawValue(last)));
  EXPECT_EQ(decoded<E>(std::to_string(rawValue(last))), last);
  EXPECT_EQ(fromRawValue<E>(rawValue(last)), last);
  for (const std::int64_t bad : {rawValue(last) + 1, std::int64_t{-1}, INT64_MAX}) {
    EXPECT_EQ(fromRawValue<E>(bad), std::nullopt) << bad;
    EXPECT_EQ(decoded<E>(std::to_string(bad)), E::unspecified) << bad;
  }
  for (const char* text : {R"("1")", "null", "1.5"}) EXPECT_NE(decodingError<E>(text), "") << text;
}

TEST(EnumerationsTest, CasesKeepTheirCountAndDecodeLeniently) {
  [](auto... lasts) { (checkEnumeration(lasts), ...); }(
      AppleEnvironment::xcode, AppleOfferType::winBack, AppleOwnershipType::familyShared,
      ApplePaymentMode::freeTrial, ApplePeriodUnit::year, AppleProductType::nonRenewable,
      AppleRevocationReason::other, AppleTransactionReason::renewal,
      AppleVerificationError::missingRequiredProperties, AppleVerificationStatus::unverified);
}

}  // namespace
}  // namespace VornTeskPaymentsAddonApple
