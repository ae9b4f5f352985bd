// The App Store storefronts the local store knows: country (alpha-3), the App Store's
// storefront identifier and the currency prices are charged in. Read-only table; any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace appstore {

// A storefront as the App Store names it.
struct Storefront {
  std::string countryCode;  // ISO 3166-1 alpha-3
  std::string id;           // the App Store's storefront identifier, "143441" for the USA
  std::string currency;     // ISO 4217

  friend bool operator==(const Storefront&, const Storefront&) = default;
};

// The storefront of an alpha-3 country code (either letter case); nothing if unknown.
std::optional<Storefront> storefrontForCountry(std::string_view countryCode);
const std::vector<Storefront>& knownStorefronts();

}  // namespace appstore
