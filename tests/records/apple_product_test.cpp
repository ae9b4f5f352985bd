#include "records/apple_product.h"

#include "support/json_coding_helpers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace VornTeskPaymentsAddonApple {
namespace {

using testing::StartsWith;
using testsupport::decoded;
using testsupport::decodingError;
using testsupport::encoded;

platform::Decimal decimal(const char* text) { return *platform::Decimal::parse(text); }

constexpr std::string_view kCoinsJSON =
    R"({"id":"coins","displayName":"100 Coins","description":"A \"pile\"","displayPrice":"$0.99",)"
    R"("price":"0.99","priceLocale":"en_US","productType":1,"isFamilyShareable":false})";

TEST(AppleProductTest, WritesExactBytesWithOptionalKeysLeftOut) {
  EXPECT_EQ(encoded(AppleProduct{"coins", "100 Coins", "A \"pile\"", "$0.99", decimal("0.99"),
                                 "en_US", AppleProductType::consumable, std::nullopt, false}),
            kCoinsJSON);

  AppleProduct pro{"pro",
                   "Pro",
                   "",
                   "1 234,50 €",
                   decimal("1234.5"),
                   "fr_FR",
                   AppleProductType::autoRenewable,
                   SubscriptionInfo{"g", Period{1, ApplePeriodUnit::month}, std::nullopt, {}},
                   true};
  EXPECT_EQ(encoded(pro),
            R"({"id":"pro","displayName":"Pro","description":"","displayPrice":"1 234,50 €",)"
            R"("price":"1234.5","priceLocale":"fr_FR","productType":3,"subscription":)"
            R"({"subscriptionGroupId":"g","subscriptionPeriod":{"value":1,"unit":3},)"
            R"("promotionalOffers":[]},"isFamilyShareable":true})");

  pro.subscription->introductoryOffer = Offer{std::nullopt,
                                              AppleOfferType::introductory,
                                              decimal("0"),
                                              "Free",
                                              Period{1, ApplePeriodUnit::week},
                                              1,
                                              ApplePaymentMode::freeTrial};
  pro.subscription->promotionalOffers = {
      Offer{"promo", AppleOfferType::promotional, decimal("-0.5e-1"), "x",
            Period{3, ApplePeriodUnit::day}, 2, ApplePaymentMode::payAsYouGo}};
  const std::string subscription =
      R"({"subscriptionGroupId":"g","subscriptionPeriod":{"value":1,"unit":3},)"
      R"("introductoryOffer":{"type":1,"price":"0","displayPrice":"Free",)"
      R"("period":{"value":1,"unit":2},"periodCount":1,"paymentMode":3},)"
      R"("promotionalOffers":[{"id":"promo","type":2,"price":"-0.05","displayPrice":"x",)"
      R"("period":{"value":3,"unit":1},"periodCount":2,"paymentMode":1}]})";
  EXPECT_EQ(encoded(*pro.subscription), subscription);
  EXPECT_EQ(encoded(decoded<AppleProduct>(encoded(pro))), encoded(pro));
}

TEST(AppleProductTest, ReadsNullOptionalsAndUnknownCasesLeniently) {
  const auto product = decoded<AppleProduct>(
      R"({"id":"coins","displayName":"100 Coins","description":"A \"pile\"","displayPrice":"$0.99",)"
      R"("price":"9.9e-1","priceLocale":"en_US","productType":1,"subscription":null,)"
      R"("isFamilyShareable":false,"newKey":[]})");
  EXPECT_EQ(encoded(product), kCoinsJSON);
  const auto offer = decoded<Offer>(
      R"({"id":null,"type":7,"price":"1","displayPrice":"","period":{"value":6,"unit":9},)"
      R"("periodCount":1,"paymentMode":-3})");
  EXPECT_FALSE(offer.id.has_value());
  EXPECT_EQ(offer.type, AppleOfferType::unspecified);
  EXPECT_EQ(offer.paymentMode, ApplePaymentMode::unspecified);
  EXPECT_EQ(offer.period.unit, ApplePeriodUnit::unspecified);
  EXPECT_EQ(offer.period.value, 6);
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
  std::string coinsWithoutPrice(kCoinsJSON);
  coinsWithoutPrice.erase(coinsWithoutPrice.find(R"("price")"), 15);

  const std::pair<std::string, const char*> cases[] = {
      {coinsWithoutPrice, R"(keyNotFound: "price")"},
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

}  // namespace
}  // namespace VornTeskPaymentsAddonApple
