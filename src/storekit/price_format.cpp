#include "storekit/price_format.h"

#include <unicode/locid.h>
#include <unicode/numberformatter.h>
#include <unicode/unistr.h>

namespace storekit {

std::optional<std::string> formatPrice(const platform::Decimal& amount, std::string_view locale,
                                       std::string_view currencyCode) {
  if (currencyCode.size() != 3) return std::nullopt;
  UErrorCode status = U_ZERO_ERROR;
  const icu::Locale icuLocale(std::string(locale).c_str());
  if (icuLocale.isBogus()) return std::nullopt;
  auto currency = icu::UnicodeString::fromUTF8(
      icu::StringPiece(currencyCode.data(), static_cast<std::int32_t>(currencyCode.size())));
  const icu::CurrencyUnit unit(currency.getTerminatedBuffer(), status);
  if (U_FAILURE(status)) return std::nullopt;
  // The amount goes to ICU as decimal text, so nothing passes through binary floating point.
  const auto digits = amount.toString();
  const auto formatted = icu::number::NumberFormatter::withLocale(icuLocale)
                             .unit(unit)
                             .formatDecimal(icu::StringPiece(digits.c_str()), status);
  if (U_FAILURE(status)) return std::nullopt;
  const auto text = formatted.toString(status);
  if (U_FAILURE(status)) return std::nullopt;
  std::string result;
  text.toUTF8String(result);
  return result;
}

}  // namespace storekit
