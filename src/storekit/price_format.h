// Display prices: an exact decimal amount formatted as a currency for a locale with ICU, the
// way the system formats Product.displayPrice. Pure; any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/decimal.h"

namespace storekit {

// `locale` is an identifier such as "en_US" or "de_DE"; `currencyCode` is ISO 4217. Nothing
// when ICU cannot format with them.
std::optional<std::string> formatPrice(const platform::Decimal& amount, std::string_view locale,
                                       std::string_view currencyCode);

}  // namespace storekit
