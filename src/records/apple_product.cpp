#include "records/apple_product.h"

namespace VornTeskPaymentsAddonApple {

using vorn::tesk::DecimalValue;

void Period::encode(vorn::tesk::Encoder& encoder) const {
  auto c = encoder.keyedContainer();
  c.encode("value", value);
  c.encode("unit", unit);
}

Period Period::decode(const vorn::tesk::Decoder& decoder) {
  const auto c = decoder.keyedContainer();
  Period period;
  period.value = c.decode<std::int32_t>("value");
  period.unit = c.decode<ApplePeriodUnit>("unit");
  return period;
}

void Offer::encode(vorn::tesk::Encoder& encoder) const {
  auto c = encoder.keyedContainer();
  c.encodeIfPresent("id", id);
  c.encode("type", type);
  c.encode("price", DecimalValue{price});
  c.encode("displayPrice", displayPrice);
  c.encode("period", period);
  c.encode("periodCount", periodCount);
  c.encode("paymentMode", paymentMode);
}

Offer Offer::decode(const vorn::tesk::Decoder& decoder) {
  const auto c = decoder.keyedContainer();
  Offer offer;
  offer.id = c.decodeIfPresent<std::string>("id");
  offer.type = c.decode<AppleOfferType>("type");
  offer.price = c.decode<DecimalValue>("price").value;
  offer.displayPrice = c.decode<std::string>("displayPrice");
  offer.period = c.decode<Period>("period");
  offer.periodCount = c.decode<std::int32_t>("periodCount");
  offer.paymentMode = c.decode<ApplePaymentMode>("paymentMode");
  return offer;
}

void SubscriptionInfo::encode(vorn::tesk::Encoder& encoder) const {
  auto c = encoder.keyedContainer();
  c.encode("subscriptionGroupId", subscriptionGroupId);
  c.encode("subscriptionPeriod", subscriptionPeriod);
  c.encodeIfPresent("introductoryOffer", introductoryOffer);
  c.encode("promotionalOffers", promotionalOffers);
}

SubscriptionInfo SubscriptionInfo::decode(const vorn::tesk::Decoder& decoder) {
  const auto c = decoder.keyedContainer();
  SubscriptionInfo info;
  info.subscriptionGroupId = c.decode<std::string>("subscriptionGroupId");
  info.subscriptionPeriod = c.decode<Period>("subscriptionPeriod");
  info.introductoryOffer = c.decodeIfPresent<Offer>("introductoryOffer");
  info.promotionalOffers = c.decode<std::vector<Offer>>("promotionalOffers");
  return info;
}

void AppleProduct::encode(vorn::tesk::Encoder& encoder) const {
  auto c = encoder.keyedContainer();
  c.encode("id", id);
  c.encode("displayName", displayName);
  c.encode("description", description);
  c.encode("displayPrice", displayPrice);
  c.encode("price", DecimalValue{price});
  c.encode("priceLocale", priceLocale);
  c.encode("productType", productType);
  c.encodeIfPresent("subscription", subscription);
  c.encode("isFamilyShareable", isFamilyShareable);
}

AppleProduct AppleProduct::decode(const vorn::tesk::Decoder& decoder) {
  const auto c = decoder.keyedContainer();
  AppleProduct product;
  product.id = c.decode<std::string>("id");
  product.displayName = c.decode<std::string>("displayName");
  product.description = c.decode<std::string>("description");
  product.displayPrice = c.decode<std::string>("displayPrice");
  product.price = c.decode<DecimalValue>("price").value;
  product.priceLocale = c.decode<std::string>("priceLocale");
  product.productType = c.decode<AppleProductType>("productType");
  product.subscription = c.decodeIfPresent<SubscriptionInfo>("subscription");
  product.isFamilyShareable = c.decode<bool>("isFamilyShareable");
  return product;
}

}  // namespace VornTeskPaymentsAddonApple
