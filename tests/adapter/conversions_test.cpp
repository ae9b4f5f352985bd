// Store objects into records: one purchase seen on every system version that changes what
// the record is made from, store values outside the known cases, the checked narrowing.
#include "adapter/conversions.h"
#include "support/store_service.h"

#include <gtest/gtest.h>

namespace {

using namespace testsupport;
using namespace VornTeskPaymentsAddonApple;

TEST_F(ServiceTest, TheSamePurchaseGivesWhatEachSystemVersionCanRead) {
  // Three months of Basic at 0.99 each, the introductory offer.
  auto payload = transactionOf(storedTransaction(*store, purchase(kBasic)))->payload();
  ASSERT_EQ(payload.at("price"), 990);
  // The same purchase again, as a win-back offer with an identifier.
  payload["transactionId"] = "5000";
  payload["offerType"] = 4;
  payload["offerIdentifier"] = "trailclub.winback";
  store->insertTransaction(payload);
  const storekit::SubscriptionOffer winBackOffer{.type = {"winBack"}};

  for (const auto& [major, minor] : {std::pair{17, 0}, {17, 1}, {17, 2}, {18, 0}, {18, 4}}) {
    SCOPED_TRACE(std::to_string(major) + "." + std::to_string(minor));
    platform::SystemVersion::set({major, minor});
    const bool knowsWinBack = major >= 18, hasAppTransactionId = minor == 4;
    const auto data = success("GetAllTransactions");
    if (data.is_null()) continue;
    const auto& records = data.at("transactions").as_array();
    ASSERT_EQ(records.size(), 2u);
    // Before 17.2 the offer fields come from the signed payload, the price in thousandths.
    expectRecordOf(*store, records[0], 1, 0, hasAppTransactionId);
    auto winBack = expectedRecord(storedTransaction(*store, 5000), 1, 0, hasAppTransactionId);
    winBack["offerType"] = knowsWinBack ? 4 : 0;
    EXPECT_EQ(json::serialize(records[1]), json::serialize(winBack));
    EXPECT_EQ(makeOffer(winBackOffer).type,
              knowsWinBack ? AppleOfferType::winBack : AppleOfferType::unspecified);
  }
}

TEST_F(ServiceTest, StoreValuesOutsideTheKnownCasesBecomeUnspecified) {
  const auto base = transactionOf(storedTransaction(*store, purchase(kCoins)))->payload();
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

TEST(ConversionsDeathTest, AQuantityBeyond32BitsEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto payload = json::parse(R"({"transactionId":"7","originalTransactionId":"7",
      "productId":"p","bundleId":"b","purchaseDate":0,"originalPurchaseDate":0,"signedDate":0,
      "type":"Consumable","environment":"Xcode","quantity":2147483648})");
  EXPECT_DEATH(
      makeAppleTransaction(storekit::Transaction::fromPayload(payload.as_object()), "",
                           AppleVerificationStatus::verified, AppleVerificationError::unspecified),
      "Not enough bits");
}

}  // namespace
