#include "storekit/product.h"

#include "storekit/availability.h"
#include "storekit/local_store.h"

namespace storekit {

SubscriptionOffer::OfferType SubscriptionOffer::OfferType::winBack() {
  requireSystem(18, 0, "Product.SubscriptionOffer.OfferType.winBack");
  return {"winBack"};
}

const std::vector<SubscriptionOffer>& SubscriptionInfo::winBackOffers() const {
  requireSystem(18, 0, "Product.SubscriptionInfo.winBackOffers");
  return winBackOffers_;
}

PurchaseOption PurchaseOption::winBackOffer(const SubscriptionOffer& offer) {
  requireSystem(18, 0, "Product.PurchaseOption.winBackOffer");
  return {WinBackOffer{offer.id.value_or("")}};
}

std::vector<Product> Product::products(const std::vector<std::string>& ids) {
  return LocalStore::shared()->products(ids);
}

PurchaseResult Product::purchase(const std::vector<PurchaseOption>& options) const {
  return LocalStore::shared()->purchase(id, options);
}

}  // namespace storekit
