#include <gtest/gtest.h>

#include "store_fixture.h"
#include "storekit/price_format.h"
#include "storekit/storefronts.h"

namespace storekit::testing {
namespace {

using Unit = SubscriptionPeriod::Unit;

platform::Decimal dec(const char* text) { return *platform::Decimal::parse(text); }

// Loads `file` as the process's store and returns its products in file order.
class FormatTest : public ::testing::Test {
 protected:
  std::vector<Product> load(const std::string& file, std::vector<std::string> ids) {
    store_ = LocalStore::createFromFile(dataFile(file));
    previous_ = LocalStore::setShared(store_);
    return Product::products(ids);
  }
  void TearDown() override { LocalStore::setShared(previous_); }
  std::shared_ptr<LocalStore> store_, previous_;
};

TEST_F(FormatTest, Version1WithNullIntroductoryOfferAndEmptySettings) {
  const auto products = load("format_1_1.storekit", {"lessons.monthly", "hints.10", "lessons.year"});
  ASSERT_EQ(products.size(), 3u);
  // The store's order, not the request's.
  EXPECT_EQ(products[0].id, "hints.10");
  EXPECT_EQ(products[1].id, "lessons.year");
  EXPECT_EQ(products[2].id, "lessons.monthly");
  EXPECT_EQ(products[0].type, ProductType::consumable());
  EXPECT_EQ(products[1].type, ProductType::nonRenewable());
  EXPECT_EQ(products[1].price, dec("29"));
  EXPECT_EQ(products[1].displayPrice, "$29.00");
  EXPECT_FALSE(products[1].subscription.has_value());
  const auto& sub = *products[2].subscription;
  EXPECT_EQ(sub.subscriptionGroupID, "G100");
  EXPECT_EQ(sub.subscriptionPeriod, (SubscriptionPeriod{1, Unit::month}));
  EXPECT_FALSE(sub.introductoryOffer.has_value());
  EXPECT_TRUE(sub.promotionalOffers.empty());
  EXPECT_EQ(sub.groupDisplayName, "Lessons");
  EXPECT_EQ(products[2].priceFormatStyle, (PriceFormatStyle{"en_US", "USD"}));
  EXPECT_EQ(Storefront::current()->id, "143441");
}

TEST_F(FormatTest, Version2LocalizesForItsLocaleAndStorefront) {
  const auto products = load("format_2_0.storekit", {"album.full", "photo.monthly"});
  ASSERT_EQ(products.size(), 2u);
  EXPECT_EQ(products[0].displayName, "Album complet");
  EXPECT_EQ(products[0].displayPrice, "3,49\xC2\xA0\xE2\x82\xAC");
  EXPECT_EQ(products[0].priceFormatStyle, (PriceFormatStyle{"fr_FR", "EUR"}));
  EXPECT_TRUE(products[0].isFamilyShareable);
  const auto& sub = *products[1].subscription;
  EXPECT_EQ(sub.groupDisplayName, "Photo Plus (FR)");
  ASSERT_TRUE(sub.introductoryOffer);
  EXPECT_EQ(sub.introductoryOffer->paymentMode, OfferPaymentMode::freeTrial());
  EXPECT_EQ(sub.introductoryOffer->period, (SubscriptionPeriod{3, Unit::day}));
  EXPECT_TRUE(sub.introductoryOffer->price.isZero());
  EXPECT_FALSE(sub.introductoryOffer->id.has_value());
  ASSERT_EQ(sub.promotionalOffers.size(), 1u);
  const auto& promo = sub.promotionalOffers[0];
  EXPECT_EQ(promo.id, "photo.winter");
  EXPECT_EQ(promo.type, SubscriptionOffer::OfferType::promotional());
  EXPECT_EQ(promo.paymentMode, OfferPaymentMode::payAsYouGo());
  EXPECT_EQ(promo.periodCount, 2);
  EXPECT_EQ(promo.price, dec("1.49"));
  EXPECT_EQ(promo.displayPrice, "1,49\xC2\xA0\xE2\x82\xAC");
  EXPECT_EQ(Storefront::current(), (Storefront{"FRA", "143442", "EUR"}));
}

TEST_F(FormatTest, Version3ReadsAskToBuyAndYen) {
  const auto products = load("format_3_1.storekit", {"guild.yearly", "gems.bundle"});
  ASSERT_EQ(products.size(), 2u);
  EXPECT_EQ(products[0].price, dec("120"));
  EXPECT_EQ(products[0].displayPrice, "\xEF\xBF\xA5" "120");
  const auto& intro = *products[1].subscription->introductoryOffer;
  EXPECT_EQ(intro.paymentMode, OfferPaymentMode::payUpFront());
  EXPECT_EQ(intro.period, (SubscriptionPeriod{1, Unit::year}));
  EXPECT_EQ(intro.price, dec("4800"));
  EXPECT_EQ(products[1].displayName, "Guild Yearly");  // no localization: the reference name
  EXPECT_TRUE(store_->askToBuyEnabled());
  EXPECT_EQ(store_->storefront(), "JPN");
}

TEST_F(FormatTest, Version4SimulatesErrorsAndCarriesWinBackOffers) {
  EXPECT_THROW(
      {
        try {
          load("format_4_0.storekit", {"reader.monthly"});
        } catch (const StoreKitError& error) {
          EXPECT_EQ(error.code(), StoreKitError::Code::networkError);
          throw;
        }
      },
      StoreKitError);
  store_->setSimulatedError(StoreKitAPI::loadProducts, std::nullopt);
  const auto products = Product::products({"reader.monthly"});
  ASSERT_EQ(products.size(), 1u);
  EXPECT_EQ(products[0].displayName, "Leser");  // same language, other region
  EXPECT_EQ(products[0].displayPrice, "7,99\xC2\xA0\xE2\x82\xAC");
  const auto& sub = *products[0].subscription;
  EXPECT_EQ(sub.groupLevel, 2);
  EXPECT_EQ(sub.groupDisplayName, "Lesezirkel");
  ASSERT_EQ(sub.winBackOffers().size(), 1u);
  EXPECT_EQ(sub.winBackOffers()[0].type, SubscriptionOffer::OfferType::winBack());
  EXPECT_EQ(sub.winBackOffers()[0].periodCount, 3);
  // Verification was switched to fail by the file as well.
  const auto bought = store_->buyProduct("reader.monthly");
  auto all = Transaction::all();
  const auto element = all.next();
  ASSERT_TRUE(element);
  EXPECT_EQ(element->verificationError()->code(), VerificationError::Code::invalidSignature);
  EXPECT_EQ(element->unsafePayloadValue().id(), bought.id());
}

TEST_F(FormatTest, Versions5And6ReadPeriodsOffersListsAndTimeRates) {
  auto products = load("format_5_0.storekit", {"arcade.weekly", "life.one"});
  ASSERT_EQ(products.size(), 2u);
  EXPECT_EQ(products[0].displayPrice, "\xC2\xA3" "0.49");
  EXPECT_EQ(products[1].subscription->subscriptionPeriod, (SubscriptionPeriod{1, Unit::week}));
  EXPECT_EQ(store_->timeRate(), time_rate::kMonthlyRenewalEveryThirtySeconds);
  LocalStore::setShared(previous_);

  products = load("format_6_3.storekit", {"studio.bimonthly"});
  ASSERT_EQ(products.size(), 1u);
  const auto& sub = *products[0].subscription;
  EXPECT_EQ(sub.subscriptionPeriod, (SubscriptionPeriod{2, Unit::month}));
  ASSERT_TRUE(sub.introductoryOffer);
  EXPECT_EQ(sub.introductoryOffer->paymentMode, OfferPaymentMode::payAsYouGo());
  EXPECT_EQ(sub.introductoryOffer->periodCount, 2);
  EXPECT_EQ(sub.introductoryOffer->displayPrice, "CA$5.99");
  EXPECT_EQ(store_->timeRate(), time_rate::kOneRenewalEveryTenSeconds);
}

TEST(StoreConfiguration, RefusesBrokenFilesNamingThePlace) {
  const std::string product =
      R"({"productID":"a","type":"Consumable","displayPrice":"1.00","localizations":[]})";
  auto sub = [](const std::string& extra) {
    return R"({"subscriptionGroups":[{"id":"G","subscriptions":[{"productID":"s","type":"RecurringSubscription","displayPrice":"1","recurringSubscriptionPeriod":"P1M")" +
           extra + "}]}]}";
  };
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"{\n  \"products\": [\n    {,]}", "bad.storekit: line 3, column 6: not valid JSON"},
      {R"({"products":[{"productID":"a","type":"Consumable","displayPrice":"1,99"}]})",
       "bad.storekit: products[0].displayPrice: not a decimal price"},
      {R"({"products":[{"productID":"a","type":"Consumable"}]})",
       "bad.storekit: products[0].displayPrice: missing"},
      {R"({"products":[)" + product + R"(,{"productID":"b","type":"Gift","displayPrice":"1"}]})",
       "bad.storekit: products[1].type: unknown product type \"Gift\""},
      {R"({"products":[)" + product + "," + product + "]}", "product id \"a\" is used twice"},
      {sub(R"(,"recurringSubscriptionPeriod":"P1X")"),
       "bad.storekit: subscriptionGroups[0].subscriptions[0].recurringSubscriptionPeriod: not a "
       "subscription period"},
      {sub(R"(,"introductoryOffer":{"paymentMode":"free","subscriptionPeriod":"P99999999Y"})"),
       "subscriptions[0].introductoryOffer.subscriptionPeriod: not a subscription period"},
      {sub(R"(,"adHocOffers":[{"offerID":"o","paymentMode":"payAsYouGo","subscriptionPeriod":"P1M","numberOfPeriods":5000,"displayPrice":"1"}])"),
       "subscriptions[0].adHocOffers[0].numberOfPeriods: must be between 1 and 999"},
      {sub(R"(,"introductoryOffer":{"paymentMode":"halfOff","subscriptionPeriod":"P1W"})"),
       "subscriptions[0].introductoryOffer.paymentMode: unknown payment mode \"halfOff\""},
      {sub(R"(,"adHocOffers":[{"paymentMode":"free","subscriptionPeriod":"P1W"}])"),
       "subscriptions[0].adHocOffers[0].offerID: missing"},
      {R"({"settings":{"_storeKitErrors":[{"name":"Purchase","enabled":true,"current":"invalidEncoding"}]}})",
       "settings._storeKitErrors[0].current: \"invalidEncoding\" cannot be simulated"},
      {R"({"version":{"major":"six"}})", "bad.storekit: version.major: expected a whole number"},
  };
  for (const auto& [text, message] : cases) {
    try {
      StoreConfiguration::parse(text, "bad.storekit");
      ADD_FAILURE() << "accepted: " << text;
    } catch (const ConfigurationError& error) {
      EXPECT_NE(std::string(error.what()).find(message), std::string::npos)
          << error.what() << "\n  expected: " << message;
    }
  }
  // A recurring period parses, then an unknown storefront is refused by the store.
  auto config = StoreConfiguration::parse(R"({"settings":{"_storefront":"XYZ"}})", "s.storekit");
  EXPECT_THROW(LocalStore::create(config), ConfigurationError);
  EXPECT_THROW(StoreConfiguration::load(dataFile("missing.storekit")), ConfigurationError);
}

TEST(StoreConfiguration, StorefrontTableAndPriceFormatting) {
  EXPECT_GE(knownStorefronts().size(), 20u);
  for (const auto& storefront : knownStorefronts()) {
    EXPECT_EQ(storefront.countryCode.size(), 3u);
    EXPECT_EQ(storefront.currency.size(), 3u);
    EXPECT_EQ(storefrontForCountry(storefront.countryCode), storefront);
    // Every currency of the table is one ICU can format.
    EXPECT_TRUE(formatPrice(dec("1"), "en_US", storefront.currency)) << storefront.currency;
  }
  EXPECT_EQ(storefrontForCountry("gbr")->id, "143444");
  EXPECT_FALSE(storefrontForCountry("XYZ"));
  // Exact decimals: no binary rounding on the way to ICU.
  EXPECT_EQ(formatPrice(dec("1234567.89"), "en_US", "USD"), "$1,234,567.89");
  EXPECT_EQ(formatPrice(dec("0.1"), "de_CH", "CHF"), "CHF\xC2\xA0" "0.10");
  EXPECT_FALSE(formatPrice(dec("1"), "en_US", "US"));
}

}  // namespace
}  // namespace storekit::testing
