#include "storekit/product.h"

#include "storekit/availability.h"
#include "storekit/device.h"
#include "storekit/price_format.h"

namespace storekit {
namespace {

using appstore::ConfiguredOffer;
using appstore::ConfiguredProduct;
using Kind = ConfiguredProduct::Kind;

ProductType typeOfKind(Kind kind) {
  switch (kind) {
    case Kind::consumable: return ProductType::consumable();
    case Kind::nonConsumable: return ProductType::nonConsumable();
    case Kind::nonRenewable: return ProductType::nonRenewable();
    case Kind::autoRenewable: return ProductType::autoRenewable();
  }
  return ProductType::consumable();
}

OfferPaymentMode paymentModeOf(ConfiguredOffer::Mode mode) {
  switch (mode) {
    case ConfiguredOffer::Mode::freeTrial: return OfferPaymentMode::freeTrial();
    case ConfiguredOffer::Mode::payAsYouGo: return OfferPaymentMode::payAsYouGo();
    case ConfiguredOffer::Mode::payUpFront: return OfferPaymentMode::payUpFront();
  }
  return OfferPaymentMode::freeTrial();
}

const appstore::ConfiguredGroup* groupOf(const appstore::ProductListing& listing, const std::string& id) {
  for (const auto& group : listing.groups) {
    if (group.id == id) return &group;
  }
  return nullptr;
}

Product makeProduct(const ConfiguredProduct& configured, const appstore::ProductListing& listing) {
  const auto& currency = listing.storefront.currency;
  auto format = [&](const platform::Decimal& amount) {
    return formatPrice(amount, listing.locale, currency).value_or(amount.toString());
  };
  Product product;
  product.id = configured.productID;
  product.displayName = configured.referenceName;
  if (const auto* localization = appstore::pickLocalization(configured.localizations, listing.locale)) {
    product.displayName = localization->displayName;
    product.description = localization->description;
  }
  product.price = configured.price;
  product.displayPrice = format(configured.price);
  product.priceFormatStyle = {listing.locale, currency};
  product.type = typeOfKind(configured.kind);
  product.isFamilyShareable = configured.familyShareable;
  product.jsonRepresentation = configured.json;
  if (configured.kind != Kind::autoRenewable) return product;

  auto offer = [&](const ConfiguredOffer& terms, SubscriptionOffer::OfferType type,
                   std::optional<std::string> id) {
    return SubscriptionOffer{std::move(id),         std::move(type),
                             terms.price,           format(terms.price),
                             terms.period,          terms.numberOfPeriods,
                             paymentModeOf(terms.paymentMode)};
  };
  SubscriptionInfo info;
  info.subscriptionGroupID = configured.subscriptionGroupID;
  info.subscriptionPeriod = configured.period;
  info.groupLevel = configured.groupLevel;
  if (const auto* group = groupOf(listing, configured.subscriptionGroupID)) {
    info.groupDisplayName = group->name;
    if (const auto* localization = appstore::pickLocalization(group->localizations, listing.locale)) {
      if (!localization->displayName.empty()) info.groupDisplayName = localization->displayName;
    }
  }
  if (configured.introductoryOffer) {
    info.introductoryOffer = offer(*configured.introductoryOffer,
                                   SubscriptionOffer::OfferType::introductory(), std::nullopt);
  }
  for (const auto& terms : configured.promotionalOffers) {
    info.promotionalOffers.push_back(
        offer(terms, SubscriptionOffer::OfferType::promotional(), terms.offerID));
  }
  std::vector<SubscriptionOffer> winBack;
  for (const auto& terms : configured.winBackOffers) {
    // Spelled out: reading the named case would end the process on older systems, but a
    // store always has its offers.
    winBack.push_back(offer(terms, SubscriptionOffer::OfferType{"winBack"}, terms.offerID));
  }
  info.setWinBackOffers(std::move(winBack));
  product.subscription = std::move(info);
  return product;
}

appstore::PurchaseRequest requestFor(const std::string& productID,
                                     const std::vector<PurchaseOption>& options) {
  appstore::PurchaseRequest request;
  request.productID = productID;
  for (const auto& option : options) {
    if (const auto* quantity = std::get_if<PurchaseOption::Quantity>(&option.value)) {
      request.quantity = quantity->value;
    } else if (const auto* token = std::get_if<PurchaseOption::AppAccountToken>(&option.value)) {
      request.appAccountToken = token->value;
    } else if (const auto* promo = std::get_if<PurchaseOption::PromotionalOffer>(&option.value)) {
      request.promotionalOffer = {promo->offerID, promo->keyID, promo->nonce, promo->signature,
                                  promo->timestamp};
    } else if (const auto* winBack = std::get_if<PurchaseOption::WinBackOffer>(&option.value)) {
      request.winBackOfferID = winBack->offerID;
    } else if (const auto* ask = std::get_if<PurchaseOption::SimulatesAskToBuyInSandbox>(&option.value)) {
      request.askToBuy = ask->value;
    }
  }
  return request;
}

}  // namespace


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
  const auto device = Device::current();
  const auto listing = askStore([&] { return device->store()->products(ids); });
  std::vector<Product> products;
  products.reserve(listing.products.size());
  for (const auto& configured : listing.products) products.push_back(makeProduct(configured, listing));
  return products;
}

PurchaseResult Product::purchase(const std::vector<PurchaseOption>& options) const {
  const auto device = Device::current();
  auto outcome = askStore([&] { return device->store()->purchase(requestFor(id, options)); });
  using Kind = appstore::PurchaseOutcome::Kind;
  switch (outcome.kind) {
    case Kind::success: return {PurchaseResult::Success{device->verify(outcome.transaction)}};
    case Kind::pending: return {PurchaseResult::Pending{}};
    case Kind::userCancelled: return {PurchaseResult::UserCancelled{}};
    case Kind::unrecognized: break;
  }
  return {PurchaseResult::Other{"unrecognized"}};
}

}  // namespace storekit
