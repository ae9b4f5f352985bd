// Store objects into records: one purchase seen on every system version that changes what
// the record is made from, store values outside the known cases, every verification error,
// and the checked 32-bit narrowings.
#include "adapter/conversions.h"
#include "support/store_service.h"

#include <gtest/gtest.h>

#include <climits>
#include <functional>

namespace {

using namespace testsupport;
using namespace VornTeskPaymentsAddonApple;
using platform::OperatingSystemVersion;
using platform::SystemVersion;

TEST_F(ServiceTest, TheSamePurchaseGivesWhatEachSystemVersionCanRead) {
  // Three months of Basic at 0.99 each, the introductory offer.
  const auto intro = purchase(kBasic);
  auto payload = storedTransaction(*store, intro).transaction->payload();
  ASSERT_EQ(payload.at("price"), 990);
  // The same purchase again, as a win-back offer with an identifier.
  payload["transactionId"] = "5000";
  payload["offerType"] = 4;
  payload["offerIdentifier"] = "trailclub.winback";
  store->insertTransaction(payload);
  const storekit::SubscriptionOffer winBackOffer{"trailclub.winback",
                                                 storekit::SubscriptionOffer::OfferType{"winBack"},
                                                 *platform::Decimal::parse("0.99"),
                                                 "$0.99",
                                                 {1, storekit::SubscriptionPeriod::Unit::month},
                                                 3,
                                                 storekit::OfferPaymentMode::payAsYouGo()};

  struct System {
    OperatingSystemVersion version;
    bool knowsWinBack;         // 18.0
    bool hasAppTransactionId;  // 18.4
  };
  for (const System& system :
       {System{{17, 0}, false, false}, System{{17, 1}, false, false}, System{{17, 2}, false, false},
        System{{18, 0}, true, false}, System{{18, 4}, true, true}}) {
    SCOPED_TRACE(SystemVersion::toString(system.version));
    SystemVersion::set(system.version);
    const auto data = success("GetAllTransactions");
    if (data.is_null()) continue;
    const auto& records = data.at("transactions").as_array();
    ASSERT_EQ(records.size(), 2u);
    for (const auto& record : records) {
      // Before 17.2 these come from the signed payload, the price in thousandths.
      EXPECT_EQ(json::serialize(record.at("price")), R"("0.99")");
      EXPECT_EQ(json::serialize(record.at("currency")), R"("USD")");
      EXPECT_EQ(json::serialize(record.at("offerPaymentModeStringRepresentation")),
                R"("PAY_AS_YOU_GO")");
      EXPECT_EQ(json::serialize(record.at("offerPeriod")), R"("P3M")");
    }
    expectRecordOf(*store, records[0], {1, 0, system.hasAppTransactionId});
    auto winBack =
        expectedRecord(storedTransaction(*store, 5000), {1, 0, system.hasAppTransactionId});
    winBack["offerType"] = system.knowsWinBack ? 4 : 0;
    EXPECT_EQ(json::serialize(records[1]), json::serialize(winBack));
    EXPECT_EQ(makeOffer(winBackOffer).type,
              system.knowsWinBack ? AppleOfferType::winBack : AppleOfferType::unspecified);
  }
}

json::object minimalPayload() {
  return {{"transactionId", "7"},  {"originalTransactionId", "7"},
          {"productId", "p"},      {"bundleId", "b"},
          {"purchaseDate", 0},     {"originalPurchaseDate", 0},
          {"signedDate", 0},       {"type", "Consumable"},
          {"environment", "Xcode"}};
}

AppleTransaction convert(const json::object& payload) {
  return makeAppleTransaction(storekit::Transaction::fromPayload(payload), "jws",
                              AppleVerificationStatus::verified,
                              AppleVerificationError::unspecified);
}

TEST(Conversions, StoreValuesMapByTheirTablesAndUnknownOnesToUnspecified) {
  using Field = std::function<std::int64_t(const AppleTransaction&)>;
  const Field environment = [](const auto& t) { return rawValue(t.environment); };
  const Field ownership = [](const auto& t) { return rawValue(t.ownershipType); };
  const Field type = [](const auto& t) { return rawValue(t.productType); };
  const Field reason = [](const auto& t) { return rawValue(t.transactionReason); };
  const Field revocation = [](const auto& t) { return rawValue(t.revocationReason); };
  const Field offer = [](const auto& t) { return rawValue(t.offerType); };
  struct Row {
    const char* key;
    json::value value;
    Field field;
    std::int64_t expected;
  };
  const std::vector<Row> rows = {
      {"environment", "Production", environment, 1},
      {"environment", "Sandbox", environment, 2},
      {"environment", "LocalTesting", environment, 0},
      {"inAppOwnershipType", "FAMILY_SHARED", ownership, 2},
      {"inAppOwnershipType", "GIFTED", ownership, 0},
      {"type", "Non-Consumable", type, 2},
      {"type", "Non-Renewing Subscription", type, 4},
      {"type", "Bundle", type, 0},
      {"transactionReason", "RENEWAL", reason, 2},
      {"transactionReason", "UPGRADE", reason, 0},
      {"revocationReason", 0, revocation, 2},
      {"revocationReason", 1, revocation, 1},
      {"revocationReason", 7, revocation, 0},
      {"offerType", 3, offer, 3},
      {"offerType", 9, offer, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.key) + " " + json::serialize(row.value));
    auto payload = minimalPayload();
    payload[row.key] = row.value;
    EXPECT_EQ(row.field(convert(payload)), row.expected);
  }
  const auto plain = convert(minimalPayload());
  EXPECT_EQ(plain.revocationReason, AppleRevocationReason::unspecified);
  EXPECT_EQ(plain.offerType, AppleOfferType::unspecified);
  EXPECT_FALSE(plain.offerId || plain.offerPaymentModeStringRepresentation || plain.offerPeriod ||
               plain.price || plain.signedRenewalInfo);
  EXPECT_EQ(plain.appBundleId, plain.bundleId);
}

TEST(Conversions, EachVerificationErrorKeepsItsMeaning) {
  using Code = storekit::VerificationError::Code;
  const auto transaction = storekit::Transaction::fromPayload(minimalPayload());
  const std::vector<std::pair<Code, AppleVerificationError>> rows = {
      {Code::invalidSignature, AppleVerificationError::invalidSignature},
      {Code::revokedCertificate, AppleVerificationError::revokedCertificate},
      {Code::invalidDeviceVerification, AppleVerificationError::invalidDeviceVerification},
      {Code::invalidCertificateChain, AppleVerificationError::invalidCertificateChain},
      {Code::invalidEncoding, AppleVerificationError::invalidEncoding},
      {Code::missingRequiredProperties, AppleVerificationError::missingRequiredProperties},
      {static_cast<Code>(40), AppleVerificationError::unspecified},
  };
  for (const auto& [code, expected] : rows) {
    const auto result = storekit::VerificationResult<storekit::Transaction>::unverified(
        transaction, storekit::VerificationError(code), "header.payload.signature");
    const auto record = makeAppleTransaction(result);
    EXPECT_EQ(record.verificationStatus, AppleVerificationStatus::unverified);
    EXPECT_EQ(record.verificationError, expected) << static_cast<int>(code);
    EXPECT_EQ(record.jwsRepresentation, "header.payload.signature");
  }
}

TEST(ConversionsDeathTest, NarrowingsOutsideThe32BitRangeEndTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto withQuantity = [](std::int64_t quantity) {
    auto payload = minimalPayload();
    payload["quantity"] = quantity;
    return payload;
  };
  EXPECT_EQ(convert(withQuantity(INT32_MAX)).quantity, INT32_MAX);
  EXPECT_EQ(convert(withQuantity(INT32_MIN)).quantity, INT32_MIN);
  EXPECT_DEATH(convert(withQuantity(INT32_MAX + 1LL)), "Not enough bits");
  EXPECT_DEATH(convert(withQuantity(INT32_MIN - 1LL)), "Not enough bits");

  using Unit = storekit::SubscriptionPeriod::Unit;
  storekit::SubscriptionOffer offer{std::nullopt,
                                    storekit::SubscriptionOffer::OfferType::introductory(),
                                    platform::Decimal::fromInteger(1),
                                    "$1.00",
                                    {1, Unit::week},
                                    INT32_MAX,
                                    storekit::OfferPaymentMode::payAsYouGo()};
  EXPECT_EQ(makeOffer(offer).periodCount, INT32_MAX);
  offer.periodCount = INT32_MAX + 1LL;
  EXPECT_DEATH(makeOffer(offer), "Not enough bits");

  EXPECT_EQ(makePeriod({INT32_MAX, Unit::day}).value, INT32_MAX);
  EXPECT_DEATH(makePeriod({INT32_MAX + 1LL, Unit::day}), "Not enough bits");
  storekit::SubscriptionInfo info;
  info.subscriptionPeriod = {1LL << 40, Unit::year};
  EXPECT_DEATH(makeSubscriptionInfo(info), "Not enough bits");
}

}  // namespace
