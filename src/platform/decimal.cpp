#include "platform/decimal.h"

#include <algorithm>
#include <limits>

namespace platform {

namespace {

__extension__ using Mantissa = unsigned __int128;

constexpr Mantissa tenToThe(int power) {
  Mantissa value = 1;
  for (int i = 0; i < power; ++i) value *= 10;
  return value;
}

constexpr Mantissa kMantissaLimit = tenToThe(Decimal::kMaxDigits);  // exclusive

int digitCount(Mantissa value) {
  int count = 0;
  do {
    ++count;
    value /= 10;
  } while (value != 0);
  return count;
}

std::string digitsOf(Mantissa value) {
  std::string digits;
  do {
    digits.push_back(static_cast<char>('0' + static_cast<int>(value % 10)));
    value /= 10;
  } while (value != 0);
  std::reverse(digits.begin(), digits.end());
  return digits;
}

}  // namespace

std::optional<Decimal> Decimal::make(bool negative, Mantissa mantissa, int exponent) {
  Decimal result;
  if (mantissa == 0) return result;
  if (mantissa >= kMantissaLimit) return std::nullopt;
  while (mantissa % 10 == 0) {
    mantissa /= 10;
    ++exponent;
  }
  // Large values whose normalised exponent is too big may still fit with zeros kept.
  // (Compared before multiplying: ten times a 38-digit mantissa can exceed 128 bits.)
  while (exponent > kMaxExponent && mantissa < kMantissaLimit / 10) {
    mantissa *= 10;
    --exponent;
  }
  if (exponent > kMaxExponent || exponent < kMinExponent) return std::nullopt;
  result.negative_ = negative;
  result.mantissa_ = mantissa;
  result.exponent_ = exponent;
  return result;
}

Decimal Decimal::fromInteger(std::int64_t value) {
  const bool negative = value < 0;
  const Mantissa magnitude =
      negative ? static_cast<Mantissa>(-(value + 1)) + 1 : static_cast<Mantissa>(value);
  return *make(negative, magnitude, 0);
}

std::optional<Decimal> Decimal::parse(std::string_view text) {
  std::size_t pos = 0;
  bool negative = false;
  if (pos < text.size() && (text[pos] == '-' || text[pos] == '+')) {
    negative = text[pos] == '-';
    ++pos;
  }
  std::string digits;  // every digit of the mantissa text, point removed
  int fractionDigits = 0;
  bool sawPoint = false;
  bool sawDigit = false;
  for (; pos < text.size(); ++pos) {
    const char c = text[pos];
    if (c >= '0' && c <= '9') {
      sawDigit = true;
      if (!(digits.empty() && c == '0')) digits.push_back(c);
      if (sawPoint) ++fractionDigits;
    } else if (c == '.' && !sawPoint) {
      sawPoint = true;
    } else {
      break;
    }
  }
  if (!sawDigit) return std::nullopt;
  long long exponent = 0;
  if (pos < text.size() && (text[pos] == 'e' || text[pos] == 'E')) {
    ++pos;
    bool negativeExponent = false;
    if (pos < text.size() && (text[pos] == '-' || text[pos] == '+')) {
      negativeExponent = text[pos] == '-';
      ++pos;
    }
    bool sawExponentDigit = false;
    for (; pos < text.size() && text[pos] >= '0' && text[pos] <= '9'; ++pos) {
      sawExponentDigit = true;
      exponent = std::min<long long>(exponent * 10 + (text[pos] - '0'), 1'000'000);
    }
    if (!sawExponentDigit) return std::nullopt;
    if (negativeExponent) exponent = -exponent;
  }
  if (pos != text.size()) return std::nullopt;

  // Leading zeros were skipped; fraction digits that are zeros at the end carry no value.
  // `digits` may still hold zeros in the middle or at its end (integral part).
  long long scale = exponent - fractionDigits;
  while (!digits.empty() && digits.back() == '0') {
    digits.pop_back();
    ++scale;
  }
  if (digits.empty()) return Decimal{};
  if (static_cast<int>(digits.size()) > kMaxDigits) return std::nullopt;
  if (scale > kMaxExponent + kMaxDigits || scale < kMinExponent) return std::nullopt;
  Mantissa mantissa = 0;
  for (const char c : digits) mantissa = mantissa * 10 + static_cast<unsigned>(c - '0');
  return make(negative, mantissa, static_cast<int>(scale));
}

void Decimal::appendTo(std::string& out) const {
  if (negative_) out.push_back('-');
  const std::string digits = digitsOf(mantissa_);
  if (exponent_ >= 0) {
    out += digits;
    if (mantissa_ != 0) out.append(static_cast<std::size_t>(exponent_), '0');
    return;
  }
  const auto fraction = static_cast<std::size_t>(-exponent_);
  if (fraction >= digits.size()) {
    out += "0.";
    out.append(fraction - digits.size(), '0');
    out += digits;
  } else {
    out.append(digits, 0, digits.size() - fraction);
    out.push_back('.');
    out.append(digits, digits.size() - fraction, fraction);
  }
}

std::string Decimal::toString() const {
  std::string out;
  appendTo(out);
  return out;
}

std::optional<Decimal> Decimal::scaledByPowerOfTen(int power) const {
  if (mantissa_ == 0) return *this;
  const long long exponent = static_cast<long long>(exponent_) + power;
  // A mantissa kept with trailing zeros (exponent at its maximum) gains up to 37 exponent
  // steps when make() strips them, so only rule out what no mantissa can bring in range.
  if (exponent > kMaxExponent + kMaxDigits || exponent < kMinExponent - kMaxDigits) {
    return std::nullopt;
  }
  return make(negative_, mantissa_, static_cast<int>(exponent));
}

std::optional<Decimal> Decimal::multipliedBy(std::int64_t factor) const {
  if (factor == 0 || mantissa_ == 0) return Decimal{};
  const bool negativeFactor = factor < 0;
  Mantissa magnitude = negativeFactor ? static_cast<Mantissa>(-(factor + 1)) + 1
                                      : static_cast<Mantissa>(factor);
  int exponent = exponent_;
  while (magnitude % 10 == 0) {
    magnitude /= 10;
    ++exponent;
  }
  if (mantissa_ > (kMantissaLimit - 1) / magnitude) return std::nullopt;
  return make(negative_ != negativeFactor, mantissa_ * magnitude, exponent);
}

std::optional<std::int64_t> Decimal::toInt64() const {
  if (exponent_ < 0) return std::nullopt;
  // More than 19 integer digits never fit, and checking first keeps the product in 128 bits.
  if (mantissa_ != 0 && digitCount(mantissa_) + exponent_ > 19) return std::nullopt;
  const Mantissa magnitude = mantissa_ * tenToThe(exponent_);
  const auto limit = static_cast<Mantissa>(std::numeric_limits<std::int64_t>::max());
  if (!negative_) {
    if (magnitude > limit) return std::nullopt;
    return static_cast<std::int64_t>(magnitude);
  }
  if (magnitude > limit + 1) return std::nullopt;
  if (magnitude == limit + 1) return std::numeric_limits<std::int64_t>::min();
  return -static_cast<std::int64_t>(magnitude);
}

std::strong_ordering operator<=>(const Decimal& a, const Decimal& b) {
  if (a.negative_ != b.negative_) {
    return a.negative_ ? std::strong_ordering::less : std::strong_ordering::greater;
  }
  // Same sign: compare magnitudes, then flip for negatives.
  auto magnitudeOrder = [&] {
    if (a.mantissa_ == 0 || b.mantissa_ == 0) return a.mantissa_ <=> b.mantissa_;
    const int aTop = digitCount(a.mantissa_) + a.exponent_;
    const int bTop = digitCount(b.mantissa_) + b.exponent_;
    if (aTop != bTop) return aTop <=> bTop;
    // Same leading position: align the mantissas on the smaller exponent.
    const int common = std::min(a.exponent_, b.exponent_);
    const Mantissa aAligned = a.mantissa_ * tenToThe(a.exponent_ - common);
    const Mantissa bAligned = b.mantissa_ * tenToThe(b.exponent_ - common);
    return aAligned <=> bAligned;
  }();
  if (a.negative_) return 0 <=> magnitudeOrder;
  return magnitudeOrder;
}

}  // namespace platform
