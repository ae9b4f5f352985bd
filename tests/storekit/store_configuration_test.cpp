// .storekit files: every format version read, broken files refused naming the place, prices.
#include <gtest/gtest.h>

#include <sstream>

#include "appstore/local_store.h"
#include "storekit/app_store.h"
#include "storekit/price_format.h"
#include "storekit/product.h"

namespace storekit {
namespace {

using appstore::ConfigurationError;
using appstore::LocalStore;
using appstore::StoreConfiguration;
using appstore::StoreKitAPI;

const std::string kData = VORNTESK_SOURCE_DIR "/tests/storekit/data/";

// A product on one line: everything the configuration file gives it, as the store localizes it.
std::string describe(const Product& p) {
  std::ostringstream s;
  auto period = [](const SubscriptionPeriod& d) {
    return std::to_string(d.value) + "DWMY"[static_cast<int>(d.unit)];
  };
  auto offers = [&](const char* kind, const std::vector<SubscriptionOffer>& list) {
    for (const auto& o : list) {
      s << " " << kind << "(" << o.type.rawValue << " " << o.id.value_or("-") << " "
        << o.paymentMode.rawValue << " " << o.periodCount << "x" << period(o.period) << " "
        << o.price.toString() << " " << o.displayPrice << ")";
    }
  };
  s << p.id << ": " << p.type.rawValue << ", " << p.displayName << ", " << p.price.toString() << " "
    << p.displayPrice << " " << p.priceFormatStyle.locale << "/" << p.priceFormatStyle.currencyCode
    << (p.isFamilyShareable ? ", family" : "");
  if (const auto& sub = p.subscription) {
    s << "; " << sub->subscriptionGroupID << " " << sub->groupDisplayName << " level "
      << sub->groupLevel << " every " << period(sub->subscriptionPeriod);
    if (sub->introductoryOffer) offers("intro", {*sub->introductoryOffer});
    offers("promo", sub->promotionalOffers);
    offers("winBack", sub->winBackOffers());
  }
  return s.str();
}

TEST(StoreConfiguration, ReadsEveryFormatVersion) {
  struct Row {
    std::string file;
    std::vector<std::string> ids;       // requested
    std::vector<std::string> products;  // in the store's order
    std::string store;                  // the store's settings, then what a purchase gives
  };
  const std::string eur = "\xC2\xA0\xE2\x82\xAC", yen = "\xEF\xBF\xA5", gbp = "\xC2\xA3";
  const std::string sub = "Auto-Renewable Subscription, ";
  const std::vector<Row> rows = {
      {"format_1_1.storekit",  // a null introductory offer, empty settings
       {"lessons.monthly", "hints.10", "lessons.year"},
       {"hints.10: Consumable, Hint Pack, 1.99 $1.99 en_US/USD",
        "lessons.year: Non-Renewing Subscription, Lesson Year, 29 $29.00 en_US/USD",
        "lessons.monthly: " + sub +
            "Lessons Monthly, 9.99 $9.99 en_US/USD; G100 Lessons level 1 "
            "every 1M"},
       "USA 143441 USD, askToBuy 0, timeRate 0, bought verified"},
      {"format_2_0.storekit",
       {"album.full", "photo.monthly"},
       {"album.full: Non-Consumable, Album complet, 3.49 3,49" + eur + " fr_FR/EUR, family",
        "photo.monthly: " + sub + "Photo Plus mensuel, 4.99 4,99" + eur +
            " fr_FR/EUR; G200 Photo Plus (FR) level 1 every 1M intro(introductory - FREE_TRIAL "
            "1x3D 0 0,00" +
            eur + ") promo(promotional photo.winter PAY_AS_YOU_GO 2x1M 1.49 1,49" + eur + ")"},
       "FRA 143442 EUR, askToBuy 0, timeRate 0, bought verified"},
      {"format_3_1.storekit",  // no localization: the reference name
       {"guild.yearly", "gems.bundle"},
       {"gems.bundle: Consumable, Gem Bundle, 120 " + yen + "120 ja_JP/JPY",
        "guild.yearly: " + sub + "Guild Yearly, 9800 " + yen + "9,800 ja_JP/JPY, family; G300 " +
            "Guild level 1 every 1Y intro(introductory - PAY_UP_FRONT 1x1Y 4800 " + yen + "4,800)"},
       "JPN 143462 JPY, askToBuy 1, timeRate 0, bought verified"},
      {"format_4_0.storekit",  // de_AT's name for de_DE; simulated errors
       {"reader.monthly"},
       {"reader.monthly: " + sub + "Leser, 7.99 7,99" + eur + " de_DE/EUR; G400 Lesezirkel " +
        "level 2 every 1M winBack(winBack reader.welcomeback PAY_AS_YOU_GO 3x1M 1.99 1,99" + eur +
        ")"},
       "loadProducts fails with networkError, DEU 143443 EUR, askToBuy 0, timeRate 0, bought "
       "invalidSignature"},
      {"format_5_0.storekit",
       {"arcade.weekly", "life.one"},
       {"life.one: Consumable, Extra Life, 0.49 " + gbp + "0.49 en_GB/GBP",
        "arcade.weekly: " + sub + "Arcade Weekly, 1.49 " + gbp + "1.49 en_GB/GBP; G500 Arcade " +
            "level 1 every 1W intro(introductory - FREE_TRIAL 1x3D 0 " + gbp + "0.00)"},
       "GBR 143444 GBP, askToBuy 0, timeRate 15, bought verified"},
      {"format_6_3.storekit",  // introductory offers as a list, an unknown setting
       {"studio.bimonthly"},
       {"studio.bimonthly: " + sub + "Studio, 15.99 CA$15.99 en_US/CAD; G600 Studio level 1 " +
        "every 2M intro(introductory - PAY_AS_YOU_GO 2x2M 5.99 CA$5.99)"},
       "CAN 143455 CAD, askToBuy 0, timeRate 1004, bought verified"},
  };
  const auto previous = LocalStore::setShared(nullptr);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.file);
    const auto store = LocalStore::createFromFile(kData + row.file);
    LocalStore::setShared(store);
    std::ostringstream summary;
    try {
      Product::products(row.ids);
    } catch (const StoreKitError& error) {
      // A simulated error from the file itself.
      summary << "loadProducts fails with " << error.caseName() << ", ";
      store->setSimulatedError(StoreKitAPI::loadProducts, std::nullopt);
    }
    std::vector<std::string> products;
    for (const auto& product : Product::products(row.ids)) products.push_back(describe(product));
    EXPECT_EQ(products, row.products);
    const auto storefront = Storefront::current().value();
    summary << storefront.countryCode << " " << storefront.id << " " << storefront.currency
            << ", askToBuy " << store->askToBuyEnabled() << ", timeRate " << store->timeRate();
    store->buyProduct(row.ids.at(0));
    const auto bought = Transaction::all().next();
    summary << ", bought "
            << (bought->isVerified() ? "verified" : bought->verificationError()->caseName());
    EXPECT_EQ(summary.str(), row.store);
  }
  LocalStore::setShared(previous);
}

// (Arbitrary files: the store_configuration fuzzer.)
TEST(StoreConfiguration, RefusesBrokenFilesNamingThePlace) {
  const std::string product = R"({"productID":"a","type":"Consumable","displayPrice":"1.00"})";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"{\n  \"products\": [\n    {,]}", "bad.storekit: line 3, column 6: not valid JSON"},
      {R"({"products":[{"productID":"a","type":"Consumable","displayPrice":"1,99"}]})",
       "bad.storekit: products[0].displayPrice: not a decimal price"},
      {R"({"products":[)" + product + R"(,{"productID":"b","type":"Gift","displayPrice":"1"}]})",
       "bad.storekit: products[1].type: unknown product type \"Gift\""},
      {R"({"products":[)" + product + "," + product + "]}", "product id \"a\" is used twice"},
      {R"({"subscriptionGroups":[{"id":"G","subscriptions":[{"productID":"s","displayPrice":"1",)"
       R"("type":"RecurringSubscription","recurringSubscriptionPeriod":"P1X"}]}]})",
       "bad.storekit: subscriptionGroups[0].subscriptions[0].recurringSubscriptionPeriod: not a "
       "subscription period"},
      {R"({"settings":{"_timeRate":7}})", "bad.storekit: settings._timeRate: unknown time rate 7 ("},
      // Period values stop at 999 units, so that date arithmetic on them cannot overflow.
      {R"({"subscriptionGroups":[{"id":"G","subscriptions":[{"productID":"s","displayPrice":"1",)"
       R"("type":"RecurringSubscription","recurringSubscriptionPeriod":"P1000Y"}]}]})",
       "bad.storekit: subscriptionGroups[0].subscriptions[0].recurringSubscriptionPeriod: not a "
       "subscription period: \"P1000Y\""},
      {R"({"subscriptionGroups":[{"id":"G","subscriptions":[{"productID":"s","displayPrice":"1",)"
       R"("type":"RecurringSubscription","recurringSubscriptionPeriod":"P1M","introductoryOffer":)"
       R"({"internalID":"i","paymentMode":"free","subscriptionPeriod":"P1000D"}}]}]})",
       "bad.storekit: subscriptionGroups[0].subscriptions[0].introductoryOffer.subscriptionPeriod: "
       "not a subscription period: \"P1000D\""},
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
  // Parsed, but the store refuses a storefront it does not know.
  auto config = StoreConfiguration::parse(R"({"settings":{"_storefront":"XYZ"}})", "s.storekit");
  EXPECT_THROW(LocalStore::create(config), ConfigurationError);
}

TEST(StoreConfiguration, LocalizationsMatchTheScriptBeforeTheRegion) {
  using appstore::Localization;
  const auto pick = [](std::vector<std::string> offered, const std::string& wanted) {
    std::vector<Localization> localizations;
    for (auto& locale : offered) localizations.push_back({std::move(locale), "", ""});
    return appstore::pickLocalization(localizations, wanted)->locale;
  };
  const std::vector<std::string> byScript = {"zh_Hans", "zh_Hant"}, byRegion = {"zh_CN", "zh_TW"};
  const std::vector<std::string> reversed = {"zh_Hant", "zh_Hans"};
  const struct {
    std::vector<std::string> offered;
    std::string wanted, expected;
  } cases[] = {
      {byScript, "zh_TW", "zh_Hant"}, {byScript, "zh_HK", "zh_Hant"}, {byScript, "zh-MO", "zh_Hant"},
      {reversed, "zh_CN", "zh_Hans"}, {reversed, "zh_SG", "zh_Hans"}, {reversed, "zh", "zh_Hans"},
      {byRegion, "zh_HK", "zh_TW"},   {byRegion, "zh_Hant", "zh_TW"}, {byRegion, "zh_SG", "zh_CN"},
      {{"zh_Hant_HK", "zh_Hant_TW"}, "zh_TW", "zh_Hant_TW"},
      {{"en_GB", "en_US", "fr_FR"}, "en-US", "en_US"}, {{"en_GB", "fr_FR"}, "en_US", "en_GB"},
      {{"fr_CA", "fr_FR"}, "fr_FR", "fr_FR"},           {{"de_DE", "ja_JP"}, "ko_KR", "de_DE"},
  };
  for (const auto& row : cases) EXPECT_EQ(pick(row.offered, row.wanted), row.expected) << row.wanted;
}

TEST(StoreConfiguration, PricesFormatExactly) {
  // Exact decimals: no binary rounding on the way to ICU.
  EXPECT_EQ(formatPrice(*platform::Decimal::parse("1234567.89"), "en_US", "USD"), "$1,234,567.89");
  EXPECT_FALSE(formatPrice(platform::Decimal::fromInteger(1), "en_US", "US"));
}

}  // namespace
}  // namespace storekit
