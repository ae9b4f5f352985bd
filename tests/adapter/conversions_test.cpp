// Store objects into records: one purchase seen on every system version that changes what
// the record is made from, store values outside the known cases, and the checked 32-bit
// narrowings. (Verification errors: tests/integration/fault_injection_test.cpp.)
#include "adapter/conversions.h"
#include "support/store_service.h"

#include <gtest/gtest.h>

#include <climits>

namespace {

using namespace testsupport;
using namespace VornTeskPaymentsAddonApple;
using platform::SystemVersion;
using Unit = storekit::SubscriptionPeriod::Unit;

TEST_F(ServiceTest, TheSamePurchaseGivesWhatEachSystemVersionCanRead) {
  // Three months of Basic at 0.99 each, the introductory offer.
  auto payload = storedTransaction(*store, purchase(kBasic)).transaction->payload();
  ASSERT_EQ(payload.at("price"), 990);
  // The same purchase again, as a win-back offer with an identifier.
  payload["transactionId"] = "5000";
  payload["offerType"] = 4;
  payload["offerIdentifier"] = "trailclub.winback";
  store->insertTransaction(payload);
  const storekit::SubscriptionOffer winBackOffer{"trailclub.winback",
                                                 storekit::SubscriptionOffer::OfferType{"winBack"},
                                                 platform::Decimal::fromInteger(1),
                                                 "$0.99",
                                                 {1, Unit::month},
                                                 3,
                                                 storekit::OfferPaymentMode::payAsYouGo()};

  for (const auto& [major, minor] : {std::pair{17, 0}, {17, 1}, {17, 2}, {18, 0}, {18, 4}}) {
    SCOPED_TRACE(std::to_string(major) + "." + std::to_string(minor));
    SystemVersion::set({major, minor});
    const bool knowsWinBack = major >= 18, hasAppTransactionId = minor == 4;
    const auto data = success("GetAllTransactions");
    if (data.is_null()) continue;
    const auto& records = data.at("transactions").as_array();
    ASSERT_EQ(records.size(), 2u);
    for (const auto& record : records) {
      // Before 17.2 these come from the signed payload, the price in thousandths.
      EXPECT_EQ(record.at("price"), "0.99");
      EXPECT_EQ(record.at("currency"), "USD");
      EXPECT_EQ(record.at("offerPaymentModeStringRepresentation"), "PAY_AS_YOU_GO");
      EXPECT_EQ(record.at("offerPeriod"), "P3M");
    }
    expectRecordOf(*store, records[0], 1, 0, hasAppTransactionId);
    auto winBack = expectedRecord(storedTransaction(*store, 5000), 1, 0, hasAppTransactionId);
    winBack["offerType"] = knowsWinBack ? 4 : 0;
    EXPECT_EQ(json::serialize(records[1]), json::serialize(winBack));
    EXPECT_EQ(makeOffer(winBackOffer).type,
              knowsWinBack ? AppleOfferType::winBack : AppleOfferType::unspecified);
  }
}

TEST_F(ServiceTest, StoreValuesOutsideTheKnownCasesBecomeUnspecified) {
  const auto base = storedTransaction(*store, purchase(kCoins)).transaction->payload();
  // Members replacing the purchase's own, one transaction each.
  const auto rows = json::parse(R"([{"environment":"Production"}, {"environment":"Sandbox"},
      {"environment":"LocalTesting"}, {"inAppOwnershipType":"FAMILY_SHARED"},
      {"inAppOwnershipType":"GIFTED"}, {"type":"Non-Consumable"}, {"type":"Bundle"},
      {"type":"Non-Renewing Subscription"}, {"transactionReason":"RENEWAL"},
      {"transactionReason":"UPGRADE"}, {"revocationReason":0}, {"revocationReason":1},
      {"revocationReason":7}, {"offerType":3}, {"offerType":9,"offerDiscountType":"HALF_OFF"},
      {"isUpgraded":true,"quantity":2147483647}])");
  for (std::size_t i = 0; i < rows.as_array().size(); ++i) {
    auto payload = base;
    payload["transactionId"] = std::to_string(9000 + i);
    for (const auto& member : rows.at(i).as_object()) payload[member.key()] = member.value();
    store->insertTransaction(payload);
  }
  // The first is the plain purchase; each record as the payload's tables say.
  const auto data = success("GetAllTransactions");
  ASSERT_FALSE(data.is_null());
  ASSERT_EQ(data.at("transactions").as_array().size(), rows.as_array().size() + 1);
  for (const auto& record : data.at("transactions").as_array()) {
    SCOPED_TRACE(json::serialize(record.at("id")));
    expectRecordOf(*store, record);
  }
}

TEST(ConversionsDeathTest, NarrowingsOutsideThe32BitRangeEndTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto withQuantity = [](std::int64_t quantity) {
    const json::object payload{{"transactionId", "7"},   {"originalTransactionId", "7"},
                               {"productId", "p"},       {"bundleId", "b"},
                               {"purchaseDate", 0},      {"originalPurchaseDate", 0},
                               {"signedDate", 0},        {"type", "Consumable"},
                               {"environment", "Xcode"}, {"quantity", quantity}};
    return makeAppleTransaction(storekit::Transaction::fromPayload(payload), "jws",
                                AppleVerificationStatus::verified,
                                AppleVerificationError::unspecified);
  };
  EXPECT_EQ(withQuantity(INT32_MAX).quantity, INT32_MAX);
  EXPECT_EQ(withQuantity(INT32_MIN).quantity, INT32_MIN);
  EXPECT_DEATH(withQuantity(INT32_MAX + 1LL), "Not enough bits");
  EXPECT_DEATH(withQuantity(INT32_MIN - 1LL), "Not enough bits");

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
}

}  // namespace
