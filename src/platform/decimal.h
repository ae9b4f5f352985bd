// An exact decimal number with the range of the platform decimal type: up to 38
// significant digits, a power-of-ten exponent from -128 to 127, and a sign. Prices are
// always held in this type, never in binary floating point.
// Values are kept normalised (no trailing zeros in the mantissa), so "12.00" and "12"
// are the same value and print the same. A plain value; safe to share between threads.
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

class Decimal {
 public:
  static constexpr int kMaxDigits = 38;
  static constexpr int kMinExponent = -128;
  static constexpr int kMaxExponent = 127;

  Decimal() = default;  // zero

  static Decimal fromInteger(std::int64_t value);

  // Plain ("-12.345", "0.99", "29") or exponent ("1.5e-3", "7E2") notation. Yields nothing
  // for malformed text and for numbers that need more than 38 significant digits or an
  // exponent outside the range.
  static std::optional<Decimal> parse(std::string_view text);

  // Plain text without exponent: "0.99", "1234.5", "-0.001", "0".
  std::string toString() const;
  void appendTo(std::string& out) const;

  // Exact multiplication and division by 10^power; nothing when the exponent would leave
  // the range (digits are never rounded away).
  std::optional<Decimal> scaledByPowerOfTen(int power) const;

  // Exact product with an integer; nothing when it needs more than 38 digits.
  std::optional<Decimal> multipliedBy(std::int64_t factor) const;

  // The value as an integer; nothing when it has a fraction or does not fit.
  std::optional<std::int64_t> toInt64() const;

  bool isZero() const { return mantissa_ == 0; }
  bool isNegative() const { return negative_; }
  int exponent() const { return exponent_; }

  friend bool operator==(const Decimal& a, const Decimal& b) = default;
  friend std::strong_ordering operator<=>(const Decimal& a, const Decimal& b);

 private:
  __extension__ using Mantissa = unsigned __int128;

  static std::optional<Decimal> make(bool negative, Mantissa mantissa, int exponent);

  bool negative_ = false;  // never set for zero
  Mantissa mantissa_ = 0;  // at most 38 digits, no trailing zeros
  int exponent_ = 0;       // value = (negative ? -1 : 1) * mantissa * 10^exponent
};

}  // namespace platform
