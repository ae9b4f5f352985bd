// The App Store storefronts the local store knows: country (alpha-3), the App Store's
// storefront identifier and the currency prices are charged in. Read-only table; any thread.
#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include "storekit/app_store.h"

namespace storekit {

// The storefront of an alpha-3 country code (either letter case); nothing if unknown.
std::optional<Storefront> storefrontForCountry(std::string_view countryCode);
const std::vector<Storefront>& knownStorefronts();

}  // namespace storekit
