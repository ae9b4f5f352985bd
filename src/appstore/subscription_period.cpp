#include "appstore/subscription_period.h"

#include <charconv>

namespace appstore {

std::optional<SubscriptionPeriod> SubscriptionPeriod::parse(std::string_view iso) {
  if (iso.size() < 3 || iso.front() != 'P') return std::nullopt;
  const auto digits = iso.substr(1, iso.size() - 2);
  std::int64_t value = 0;
  const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  // Periods this long exist nowhere; refusing them keeps date arithmetic far from overflow.
  if (ec != std::errc() || end != digits.data() + digits.size() || value <= 0 || value > 100000) {
    return std::nullopt;
  }
  switch (iso.back()) {
    case 'D': return SubscriptionPeriod{value, Unit::day};
    case 'W': return SubscriptionPeriod{value, Unit::week};
    case 'M': return SubscriptionPeriod{value, Unit::month};
    case 'Y': return SubscriptionPeriod{value, Unit::year};
    default: return std::nullopt;
  }
}

std::string SubscriptionPeriod::isoString() const {
  const char* letter = "?";
  switch (unit) {
    case Unit::day: letter = "D"; break;
    case Unit::week: letter = "W"; break;
    case Unit::month: letter = "M"; break;
    case Unit::year: letter = "Y"; break;
  }
  // Appended piece by piece: g++ 12 at -O3 mistakes `"P" + std::to_string(...)` for an
  // overlapping copy (-Wrestrict), which fails the release build.
  std::string text = "P";
  text += std::to_string(value);
  text += letter;
  return text;
}

std::int64_t SubscriptionPeriod::approximateDays() const {
  switch (unit) {
    case Unit::day: return value;
    case Unit::week: return value * 7;
    case Unit::month: return value * 30;
    case Unit::year: return value * 365;
  }
  return value;
}

}  // namespace appstore
