#include "appstore/storefronts.h"

#include <algorithm>
#include <cctype>
#include <string>

namespace appstore {

const std::vector<Storefront>& knownStorefronts() {
  // The largest App Store markets first, then others that configuration files often pick.
  // Never destroyed: the store's threads may still look storefronts up while the process exits.
  static const auto& table = *new std::vector<Storefront>{
      {"USA", "143441", "USD"}, {"CHN", "143465", "CNY"}, {"JPN", "143462", "JPY"},
      {"GBR", "143444", "GBP"}, {"KOR", "143466", "KRW"}, {"DEU", "143443", "EUR"},
      {"FRA", "143442", "EUR"}, {"CAN", "143455", "CAD"}, {"AUS", "143460", "AUD"},
      {"ITA", "143450", "EUR"}, {"RUS", "143469", "RUB"}, {"BRA", "143503", "BRL"},
      {"ESP", "143454", "EUR"}, {"MEX", "143468", "MXN"}, {"IND", "143467", "INR"},
      {"NLD", "143452", "EUR"}, {"CHE", "143459", "CHF"}, {"SWE", "143456", "SEK"},
      {"TWN", "143470", "TWD"}, {"HKG", "143463", "HKD"}, {"TUR", "143480", "TRY"},
      {"SAU", "143479", "SAR"}, {"ARE", "143481", "AED"}, {"IDN", "143476", "IDR"},
      {"SGP", "143464", "SGD"}, {"POL", "143478", "PLN"}, {"NOR", "143457", "NOK"},
      {"DNK", "143458", "DKK"}, {"AUT", "143445", "EUR"}, {"BEL", "143446", "EUR"},
      {"IRL", "143449", "EUR"}, {"NZL", "143461", "NZD"}, {"THA", "143475", "THB"},
      {"MYS", "143473", "MYR"}, {"PHL", "143474", "PHP"}, {"ISR", "143491", "ILS"},
      {"ZAF", "143472", "ZAR"}, {"FIN", "143447", "EUR"}, {"PRT", "143453", "EUR"},
      {"VNM", "143471", "VND"}, {"CHL", "143483", "CLP"}, {"COL", "143501", "COP"},
      {"EGY", "143516", "EGP"},
  };
  return table;
}

std::optional<Storefront> storefrontForCountry(std::string_view countryCode) {
  std::string upper(countryCode);
  std::transform(upper.begin(), upper.end(), upper.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  for (const auto& storefront : knownStorefronts()) {
    if (storefront.countryCode == upper) return storefront;
  }
  return std::nullopt;
}

}  // namespace appstore
