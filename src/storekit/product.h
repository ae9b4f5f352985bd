// Product: an in-app purchase as the store describes it in the current storefront and
// locale, with its subscription terms, and the purchase call. Products are plain values made
// by Product::products (from the process's LocalStore) or by tests; purchase() goes to the
// process's LocalStore by product id. Blocking calls, meant to run inside tasks; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "platform/decimal.h"
#include "platform/uuid.h"
#include "storekit/errors.h"
#include "storekit/subscription_status.h"
#include "storekit/transaction.h"
#include "storekit/values.h"
#include "storekit/verification_result.h"

namespace storekit {

// Product.SubscriptionOffer.
struct SubscriptionOffer {
  struct OfferType {
    std::string rawValue;

    static OfferType introductory() { return {"introductory"}; }
    static OfferType promotional() { return {"promotional"}; }
    static OfferType winBack();  // iOS 18.0

    friend bool operator==(const OfferType&, const OfferType&) = default;
  };
  using PaymentMode = OfferPaymentMode;

  std::optional<std::string> id;  // absent for introductory offers
  OfferType type;
  platform::Decimal price;
  std::string displayPrice;
  SubscriptionPeriod period;     // one offer period
  std::int64_t periodCount = 1;  // discounted periods (pay as you go); 1 otherwise
  PaymentMode paymentMode;
};

// Product.SubscriptionInfo.
class SubscriptionInfo {
 public:
  using RenewalState = storekit::RenewalState;
  using RenewalInfo = storekit::RenewalInfo;
  using Status = SubscriptionStatus;
  // Product.SubscriptionInfo.status(for:): the group's subscription as it stands.
  static std::vector<Status> status(const std::string& groupID) { return Status::status(groupID); }

  std::string subscriptionGroupID;
  SubscriptionPeriod subscriptionPeriod;
  std::optional<SubscriptionOffer> introductoryOffer;
  std::vector<SubscriptionOffer> promotionalOffers;
  std::int64_t groupLevel = 1;  // 1 is the highest tier
  std::string groupDisplayName;

  const std::vector<SubscriptionOffer>& winBackOffers() const;  // iOS 18.0
  void setWinBackOffers(std::vector<SubscriptionOffer> offers) { winBackOffers_ = std::move(offers); }

 private:
  std::vector<SubscriptionOffer> winBackOffers_;
};

// Product.PurchaseOption: one entry of the option set handed to purchase().
struct PurchaseOption {
  struct AppAccountToken {
    platform::UUID value;
    friend bool operator==(const AppAccountToken&, const AppAccountToken&) = default;
  };
  struct Quantity {
    std::int64_t value;
    friend bool operator==(const Quantity&, const Quantity&) = default;
  };
  struct PromotionalOffer {
    std::string offerID;
    std::string keyID;
    platform::UUID nonce;
    std::string signature;  // Base64
    std::int64_t timestamp;
    friend bool operator==(const PromotionalOffer&, const PromotionalOffer&) = default;
  };
  struct WinBackOffer {
    std::string offerID;
    friend bool operator==(const WinBackOffer&, const WinBackOffer&) = default;
  };
  struct SimulatesAskToBuyInSandbox {
    bool value;
    friend bool operator==(const SimulatesAskToBuyInSandbox&,
                           const SimulatesAskToBuyInSandbox&) = default;
  };

  static PurchaseOption appAccountToken(platform::UUID token) { return {AppAccountToken{token}}; }
  static PurchaseOption quantity(std::int64_t count) { return {Quantity{count}}; }
  static PurchaseOption promotionalOffer(std::string offerID, std::string keyID,
                                         platform::UUID nonce, std::string signature,
                                         std::int64_t timestamp) {
    return {PromotionalOffer{std::move(offerID), std::move(keyID), nonce, std::move(signature),
                             timestamp}};
  }
  static PurchaseOption winBackOffer(const SubscriptionOffer& offer);  // iOS 18.0
  static PurchaseOption simulatesAskToBuyInSandbox(bool value) {
    return {SimulatesAskToBuyInSandbox{value}};
  }

  std::variant<AppAccountToken, Quantity, PromotionalOffer, WinBackOffer,
               SimulatesAskToBuyInSandbox>
      value;

  friend bool operator==(const PurchaseOption&, const PurchaseOption&) = default;
};

// Product.PurchaseResult. `Other` stands for a case that a newer system adds; the store
// answers it only when told to, so that callers' handling of unknown results is exercised.
struct PurchaseResult {
  struct Success {
    VerificationResult<Transaction> verification;
  };
  struct UserCancelled {};
  struct Pending {};
  struct Other {
    std::string name;
  };

  std::variant<Success, UserCancelled, Pending, Other> value;
};

struct PriceFormatStyle {
  std::string locale;        // identifier, "en_US"
  std::string currencyCode;  // ISO 4217

  friend bool operator==(const PriceFormatStyle&, const PriceFormatStyle&) = default;
};

struct Product {
  using ProductType = storekit::ProductType;
  using SubscriptionInfo = storekit::SubscriptionInfo;
  using SubscriptionOffer = storekit::SubscriptionOffer;
  using SubscriptionPeriod = storekit::SubscriptionPeriod;
  using PurchaseOption = storekit::PurchaseOption;
  using PurchaseResult = storekit::PurchaseResult;
  using PurchaseError = storekit::PurchaseError;

  std::string id;
  std::string displayName;
  std::string description;
  std::string displayPrice;
  platform::Decimal price;
  PriceFormatStyle priceFormatStyle;
  ProductType type;
  std::optional<SubscriptionInfo> subscription;
  bool isFamilyShareable = false;
  std::string jsonRepresentation;

  // The products the store knows among `ids`, in the store's order; unknown identifiers are
  // left out, repeated ones repeated. Throws StoreKitError.
  static std::vector<Product> products(const std::vector<std::string>& ids);

  // Buys the product. Throws StoreKitError or PurchaseError.
  PurchaseResult purchase(const std::vector<PurchaseOption>& options = {}) const;
};

}  // namespace storekit
