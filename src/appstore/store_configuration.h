// Xcode StoreKit configuration files (.storekit, format versions 1.x to 6.x) read into plain
// values: products of the four kinds with their localizations and offers, subscription
// groups, and the settings the local store honours. Keys this reader does not use are
// ignored, since newer Xcode versions keep adding some. A file that cannot be used is refused
// with a ConfigurationError whose message names the file and the offending place. Pure.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "platform/decimal.h"
#include "appstore/store_failure.h"
#include "appstore/subscription_period.h"

namespace appstore {

class ConfigurationError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};


struct Localization {
  std::string locale;
  std::string displayName;
  std::string description;
};

struct ConfiguredOffer {
  enum class Mode { freeTrial, payAsYouGo, payUpFront };

  std::string internalID;
  std::optional<std::string> offerID;  // promotional, code and win-back offers
  std::string referenceName;
  Mode paymentMode = Mode::freeTrial;
  SubscriptionPeriod period;            // one offer period
  std::int64_t numberOfPeriods = 1;     // pay as you go
  platform::Decimal price;              // zero for free trials
};

struct ConfiguredProduct {
  enum class Kind { consumable, nonConsumable, nonRenewable, autoRenewable };

  std::string productID;
  std::string referenceName;
  std::string internalID;
  Kind kind = Kind::consumable;
  platform::Decimal price;
  bool familyShareable = false;
  std::vector<Localization> localizations;
  std::string json;  // the entry as the file has it

  // Auto-renewable subscriptions only.
  std::string subscriptionGroupID;
  std::int64_t groupLevel = 1;
  SubscriptionPeriod period;
  std::optional<ConfiguredOffer> introductoryOffer;
  std::vector<ConfiguredOffer> promotionalOffers;
  std::vector<ConfiguredOffer> codeOffers;
  std::vector<ConfiguredOffer> winBackOffers;
};

struct ConfiguredGroup {
  std::string id;
  std::string name;
  std::vector<Localization> localizations;  // displayName is the group's display name
};

struct StoreSettings {
  std::string storefront = "USA";
  std::string locale = "en_US";
  bool askToBuyEnabled = false;
  bool interruptedPurchasesEnabled = false;
  bool failTransactionsEnabled = false;
  // A renewal fails for a billing issue, and the subscription enters billing retry (or first
  // the billing grace period, when that is on).
  bool shouldEnterBillingRetryOnRenewal = false;
  bool billingGracePeriodIsEnabled = false;
  bool disableDialogs = false;
  int timeRate = 0;  // a known SKTestSession.TimeRate raw value (isKnownTimeRate)
  std::vector<std::pair<StoreKitAPI, StoreFailure>> simulatedErrors;
};

struct StoreConfiguration {
  std::string identifier;
  int versionMajor = 1;
  int versionMinor = 0;
  std::vector<ConfiguredProduct> products;  // in file order: products, non-renewing, groups
  std::vector<ConfiguredGroup> groups;
  StoreSettings settings;

  // `name` is used in messages only.
  static StoreConfiguration parse(std::string_view text, std::string_view name);
  static StoreConfiguration load(const std::string& path);

  const ConfiguredProduct* product(std::string_view productID) const;
  const ConfiguredGroup* group(std::string_view groupID) const;
};

// The localization for `locale`: the same identifier; else the same language in the same
// script (Chinese scripts implied by region), preferring the same region; else the same
// language; else the first.
const Localization* pickLocalization(const std::vector<Localization>& localizations,
                                     std::string_view locale);

}  // namespace appstore
