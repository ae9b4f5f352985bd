// The service's picture of a store product: AppleProduct, and for auto-renewable
// subscriptions its SubscriptionInfo with the subscription Period and the Offers.
// Plain values; JSON keys are the field names, written in declaration order.
#pragma once

#include "host/json_coding.h"
#include "platform/decimal.h"
#include "records/enumerations.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace VornTeskPaymentsAddonApple {

struct Period {
  std::int32_t value = 0;
  ApplePeriodUnit unit = ApplePeriodUnit::unspecified;

  void encode(vorn::tesk::Encoder& encoder) const;
  static Period decode(const vorn::tesk::Decoder& decoder);
};

struct Offer {
  std::optional<std::string> id;
  AppleOfferType type = AppleOfferType::unspecified;
  platform::Decimal price;  // coded through the host's DecimalValue
  std::string displayPrice;
  Period period;
  std::int32_t periodCount = 0;
  ApplePaymentMode paymentMode = ApplePaymentMode::unspecified;

  void encode(vorn::tesk::Encoder& encoder) const;
  static Offer decode(const vorn::tesk::Decoder& decoder);
};

struct SubscriptionInfo {
  std::string subscriptionGroupId;
  Period subscriptionPeriod;
  std::optional<Offer> introductoryOffer;
  std::vector<Offer> promotionalOffers;  // written as [] when empty, never left out

  void encode(vorn::tesk::Encoder& encoder) const;
  static SubscriptionInfo decode(const vorn::tesk::Decoder& decoder);
};

struct AppleProduct {
  std::string id;
  std::string displayName;
  std::string description;
  std::string displayPrice;
  platform::Decimal price;  // coded through the host's DecimalValue
  std::string priceLocale;
  AppleProductType productType = AppleProductType::unspecified;
  std::optional<SubscriptionInfo> subscription;
  bool isFamilyShareable = false;

  void encode(vorn::tesk::Encoder& encoder) const;
  static AppleProduct decode(const vorn::tesk::Decoder& decoder);
};

}  // namespace VornTeskPaymentsAddonApple
