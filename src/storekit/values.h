// Small value types that products and transactions share: the product type, the App Store
// environment, subscription periods and offer payment modes. Those that StoreKit keeps open
// for new cases are structs over a raw value with the known cases as static members, so a
// value outside the known set can exist (and must be handled by whoever reads it).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace storekit {

// Product.ProductType; the raw values are the App Store's type names.
struct ProductType {
  std::string rawValue;

  static ProductType consumable() { return {"Consumable"}; }
  static ProductType nonConsumable() { return {"Non-Consumable"}; }
  static ProductType nonRenewable() { return {"Non-Renewing Subscription"}; }
  static ProductType autoRenewable() { return {"Auto-Renewable Subscription"}; }

  friend bool operator==(const ProductType&, const ProductType&) = default;
};

// AppStore.Environment (also Transaction.environment).
struct Environment {
  std::string rawValue;

  static Environment production() { return {"Production"}; }
  static Environment sandbox() { return {"Sandbox"}; }
  static Environment xcode() { return {"Xcode"}; }

  friend bool operator==(const Environment&, const Environment&) = default;
};

// Product.SubscriptionPeriod: a count of calendar units. The value is a native integer, as
// on the platform; only configuration files limit it.
struct SubscriptionPeriod {
  enum class Unit : int { day = 0, week = 1, month = 2, year = 3 };

  std::int64_t value = 1;
  Unit unit = Unit::month;

  // ISO 8601 durations of one unit as configuration files and signed payloads write them:
  // "P3D", "P1W", "P1M", "P1Y". Nothing for anything else.
  static std::optional<SubscriptionPeriod> parse(std::string_view iso);
  std::string isoString() const;
  // Length in days (months as 30, years as 365), for scaled store clocks.
  std::int64_t approximateDays() const;

  friend bool operator==(const SubscriptionPeriod&, const SubscriptionPeriod&) = default;
};

// The payment mode of an offer, in the App Store's spelling. Product.SubscriptionOffer and
// Transaction.Offer both use it.
struct OfferPaymentMode {
  std::string rawValue;

  static OfferPaymentMode freeTrial() { return {"FREE_TRIAL"}; }
  static OfferPaymentMode payAsYouGo() { return {"PAY_AS_YOU_GO"}; }
  static OfferPaymentMode payUpFront() { return {"PAY_UP_FRONT"}; }
  static OfferPaymentMode oneTime() { return {"ONE_TIME"}; }

  friend bool operator==(const OfferPaymentMode&, const OfferPaymentMode&) = default;
};

}  // namespace storekit
