#include "appstore/store_failure.h"

#include <array>
#include <cctype>
#include <utility>

namespace appstore {
namespace {

constexpr std::array<const char*, 7> kStoreKitErrorNames = {
    "unknown",     "userCancelled", "networkError", "systemError", "notAvailableInStorefront",
    "notEntitled", "unsupported"};
constexpr std::array<const char*, 8> kPurchaseErrorNames = {
    "invalidQuantity",        "productUnavailable",    "purchaseNotAllowed",
    "ineligibleForOffer",     "invalidOfferIdentifier", "invalidOfferPrice",
    "invalidOfferSignature",  "missingOfferParameters"};
constexpr std::array<const char*, 6> kVerificationErrorNames = {
    "revokedCertificate", "invalidCertificateChain", "invalidDeviceVerification",
    "invalidEncoding",    "invalidSignature",        "missingRequiredProperties"};

}  // namespace

std::string foldName(std::string_view name) {
  std::string folded;
  for (char c : name) {
    if (c == ' ' || c == '_' || c == '-') continue;
    folded.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
  }
  return folded;
}

std::optional<StoreKitAPI> storeKitAPINamed(std::string_view name) {
  static constexpr std::array<std::pair<const char*, StoreKitAPI>, 18> kNames = {{
      {"loadProducts", StoreKitAPI::loadProducts},
      {"purchase", StoreKitAPI::purchase},
      {"verification", StoreKitAPI::verification},
      {"appStoreSync", StoreKitAPI::appStoreSync},
      {"appTransaction", StoreKitAPI::appTransaction},
      {"subscriptionStatus", StoreKitAPI::subscriptionStatus},
      {"manageSubscriptions", StoreKitAPI::manageSubscriptions},
      {"refundRequest", StoreKitAPI::refundRequest},
      {"offerCodeRedeem", StoreKitAPI::offerCodeRedeem},
      {"manageSubscriptionsSheet", StoreKitAPI::manageSubscriptions},
      {"refundRequestSheet", StoreKitAPI::refundRequest},
      {"offerCodeRedeemSheet", StoreKitAPI::offerCodeRedeem},
      {"loadProduct", StoreKitAPI::loadProducts},
      {"purchases", StoreKitAPI::purchase},
      {"sync", StoreKitAPI::appStoreSync},
      {"subscriptionStatuses", StoreKitAPI::subscriptionStatus},
      {"appTransactions", StoreKitAPI::appTransaction},
      {"verify", StoreKitAPI::verification},
  }};
  const auto folded = foldName(name);
  for (const auto& [known, api] : kNames) {
    if (foldName(known) == folded) return api;
  }
  return std::nullopt;
}

std::span<const char* const> StoreFailure::caseNames(Family family) {
  switch (family) {
    case Family::storeKit: return kStoreKitErrorNames;
    case Family::purchase: return kPurchaseErrorNames;
    case Family::verification: return kVerificationErrorNames;
  }
  return {};
}

std::optional<StoreFailure> StoreFailure::named(std::string_view name) {
  const auto folded = foldName(name);
  for (const auto family : {Family::storeKit, Family::purchase, Family::verification}) {
    for (const char* known : caseNames(family)) {
      if (foldName(known) == folded) return StoreFailure{family, known};
    }
  }
  return std::nullopt;
}

bool StoreFailure::fits(StoreKitAPI api) const {
  if ((family == Family::verification) != (api == StoreKitAPI::verification)) return false;
  return family != Family::purchase || api == StoreKitAPI::purchase;
}

}  // namespace appstore
