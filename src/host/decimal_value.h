// Codable wrappers of the platform decimal: every price on the wire is held in one of
// these, so prices are never binary floating point. A present decimal is written as a JSON
// string of its plain text ("0.99", "-12.345"); it is read from a string in plain or
// exponent notation. An empty OptionalDecimalValue leaves its key out, and a missing key
// or null reads as empty (see KeyedEncodingContainer / KeyedDecodingContainer).
#pragma once

#include "platform/decimal.h"

#include <optional>

namespace vorn::tesk {

struct DecimalValue {
  platform::Decimal value;
  friend bool operator==(const DecimalValue&, const DecimalValue&) = default;
};

struct OptionalDecimalValue {
  std::optional<platform::Decimal> value;
  friend bool operator==(const OptionalDecimalValue&, const OptionalDecimalValue&) = default;
};

}  // namespace vorn::tesk
