#include "records/apple_transaction.h"

#include "record_samples.h"
#include "support/json_coding_helpers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include <string>

namespace VornTeskPaymentsAddonApple {
namespace {

using samples::kMinimalTransactionJSON;
using samples::minimalTransaction;
using testsupport::decoded;
using testsupport::encoded;

platform::Date at(std::int64_t millisecondsSince1970) {
  return platform::dateFromMillisecondsSince1970(millisecondsSince1970);
}

// The minimal sample with `key` set to the JSON text `value`, or removed when it is empty.
std::string minimalWith(std::string_view key, std::string_view value) {
  boost::json::object object = boost::json::parse(kMinimalTransactionJSON).as_object();
  if (value.empty()) {
    object.erase(key);
  } else {
    object[key] = boost::json::parse(value);
  }
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
      R"("originalPurchaseDate":"2026-01-02T03:04:05.000Z","expirationDate":"2026-12-27T10:15:30.007Z",)"
      R"("revocationDate":"2026-11-28T00:00:00.999Z","revocationReason":1,"webOrderLineItemId":"wo",)"
      R"("subscriptionGroupId":"g","appAccountToken":"tok","quantity":3,"transactionReason":2,)"
      R"("signedDate":"2026-11-27T10:15:31.250Z","environment":3,"ownershipType":2,)"
      R"("jwsRepresentation":"h.p.s","verificationStatus":2,"verificationError":6,"bundleId":"app",)"
      R"("appBundleId":"app2","isUpgraded":true,"offerType":4,"offerId":"back",)"
      R"("offerPaymentModeStringRepresentation":"freeTrial","offerPeriod":"P1M","price":"-12.345",)"
      R"("currency":"EUR","storefrontCountryCode":"FRA","deviceVerification":"dv==",)"
      R"("deviceVerificationNonce":"n","appTransactionId":"704","signedRenewalInfo":"r.i.s"})";
  EXPECT_EQ(encoded(full), fullJSON);
  const auto back = decoded<AppleTransaction>(fullJSON);
  EXPECT_EQ(back.id, 18446744073709551615u);
  EXPECT_EQ(back.price, platform::Decimal::parse("-12.345"));
  EXPECT_EQ(back.revocationDate, at(1'795'824'000'999));
  EXPECT_EQ(encoded(back), fullJSON);

  EXPECT_EQ(encoded(minimalTransaction()), kMinimalTransactionJSON);
  EXPECT_EQ(encoded(decoded<AppleTransaction>(kMinimalTransactionJSON)), kMinimalTransactionJSON);
}

TEST(AppleTransactionTest, ReadsNullOptionalsUnknownKeysAndUnknownCasesLeniently) {
  // Each changes nothing on the way back out, apart from the unknown cases read as 0.
  const std::pair<const char*, const char*> cases[] = {
      {"appTransactionId", "null"},    {"price", "null"},           {"expirationDate", "null"},
      {"unknownKey", R"({"id":"x"})"}, {"verificationStatus", "9"}, {"ownershipType", "-1"}};
  for (const auto& [key, value] : cases) {
    AppleTransaction expected = minimalTransaction();
    if (std::string_view(value) == "9") expected.verificationStatus = {};
    if (std::string_view(value) == "-1") expected.ownershipType = {};
    EXPECT_EQ(encoded(decoded<AppleTransaction>(minimalWith(key, value))), encoded(expected))
        << key;
  }
  EXPECT_EQ(decoded<AppleTransaction>(minimalWith("price", R"("0.99")")).price,
            platform::Decimal::parse("0.99"));
  EXPECT_EQ(
      decoded<AppleTransaction>(minimalWith("purchaseDate", R"("2025-06-01T14:00:00.0015+02:00")"))
          .purchaseDate,
      at(1'748'779'200'001));
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
      {"quantity", "2147483648", "typeMismatch at quantity:"},
      {"productId", "null", "valueNotFound at productId:"},
      {"productType", "null", "valueNotFound at productType:"},
      {"environment", R"("sandbox")", "typeMismatch at environment:"},
      {"isUpgraded", "0", "typeMismatch at isUpgraded:"},
      {"purchaseDate", R"("2025-06-01")", "dataCorrupted at purchaseDate:"},
      {"expirationDate", "1748779200000", "typeMismatch at expirationDate:"},
      {"price", "0.99", "typeMismatch at price:"},
      {"storefrontCountryCode", "", R"(keyNotFound: "storefrontCountryCode")"},
      {"verificationError", "", R"(keyNotFound: "verificationError")"},
  };
  for (const Case& c : cases) {
    EXPECT_THAT(testsupport::decodingError<AppleTransaction>(minimalWith(c.key, c.value)),
                testing::StartsWith(c.description))
        << c.key << " = " << c.value;
  }
}

}  // namespace
}  // namespace VornTeskPaymentsAddonApple
