// Small value types that products and transactions share: the product type, the App Store
// environment, subscription periods (the App Store's) and offer payment modes. Those that StoreKit keeps open
// for new cases are structs over a raw value with the known cases as static members, so a
// value outside the known set can exist (and must be handled by whoever reads it).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "appstore/subscription_period.h"

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

// Product.SubscriptionPeriod: the App Store's period values.
using SubscriptionPeriod = appstore::SubscriptionPeriod;

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
