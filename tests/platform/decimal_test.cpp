#include "platform/decimal.h"

#include <gtest/gtest.h>

#include <limits>
#include <ostream>
#include <string>
#include <utility>

namespace platform {

// Lets failures show the value rather than its bytes.
void PrintTo(const Decimal& value, std::ostream* out) { *out << value.toString(); }

namespace {

Decimal dec(std::string_view text) {
  const auto value = Decimal::parse(text);
  EXPECT_TRUE(value.has_value()) << text;
  return value.value_or(Decimal{});
}

const std::string k38Nines(38, '9');

TEST(DecimalTest, ParsesAndFormatsWithoutExponent) {
  const std::pair<const char*, const char*> cases[] = {
      {"0.99", "0.99"},     {"-12.345", "-12.345"}, {"12.00", "12"},    {"0012.50", "12.5"},
      {"1.5e-3", "0.0015"}, {"7E2", "700"},         {"1e+2", "100"},    {"+3", "3"},
      {"-0.000", "0"},      {"10.05", "10.05"},     {"120e-1", "12"},   {"-1e3", "-1000"},
      {"0.001", "0.001"},   {"-0.001", "-0.001"},   {"0.000e500", "0"}, {"100", "100"}};
  for (const auto& [text, printed] : cases) EXPECT_EQ(dec(text).toString(), printed) << text;
  EXPECT_EQ(dec("12.00"), dec("12"));
  EXPECT_FALSE(dec("-0").isNegative());
  // The edges of the range: 38 digits, exponents -128 and 127 (1e164 keeps zeros).
  EXPECT_EQ(dec(k38Nines).toString(), k38Nines);
  EXPECT_EQ(dec("1e-128").toString(), "0." + std::string(127, '0') + "1");
  EXPECT_EQ(dec("1e164").toString(), "1" + std::string(164, '0'));
  EXPECT_EQ(Decimal::fromInteger(std::numeric_limits<std::int64_t>::min()).toString(),
            "-9223372036854775808");
}

TEST(DecimalTest, RejectsGarbageAndOutOfRange) {
  for (const char* text : {"", "-", "+", ".", "1.2.3", "1e", "1e+", "e5", "abc", " 1", "1 ", "1,5",
                           "--1", "0x10", "NaN", "1e-129", "1e165", "4e165"}) {
    EXPECT_FALSE(Decimal::parse(text).has_value()) << text;
  }
  EXPECT_FALSE(Decimal::parse("1" + k38Nines).has_value());  // 39 significant digits
  EXPECT_FALSE(Decimal::parse("0.1" + k38Nines).has_value());
}

TEST(DecimalTest, OrdersAcrossExponentsAndSigns) {
  const char* ascending[] = {"-1e100", "-100",  "-99.5", "-12.345", "-12.34", "-1e-128", "0",
                             "1e-128", "0.001", "0.99",  "1",       "9.5",    "10",      "1e100"};
  for (std::size_t i = 0; i + 1 < std::size(ascending); ++i) {
    EXPECT_LT(dec(ascending[i]), dec(ascending[i + 1])) << ascending[i];
  }
}

TEST(DecimalTest, ScalesAndMultipliesExactlyOrNotAtAll) {
  EXPECT_EQ(dec("990").scaledByPowerOfTen(-3), dec("0.99"));
  EXPECT_EQ(dec("1e-128").scaledByPowerOfTen(292), dec("1e164"));
  EXPECT_EQ(dec("1e164").scaledByPowerOfTen(-256), dec("1e-92"));
  EXPECT_EQ(dec("1e-128").scaledByPowerOfTen(-1), std::nullopt);
  EXPECT_EQ(dec("4e127").scaledByPowerOfTen(38), std::nullopt);
  EXPECT_EQ(dec("12").scaledByPowerOfTen(std::numeric_limits<int>::min()), std::nullopt);

  EXPECT_EQ(dec("0.99").multipliedBy(3), dec("2.97"));
  EXPECT_EQ(dec("-0.25").multipliedBy(-4), dec("1"));
  EXPECT_EQ(dec("1").multipliedBy(std::numeric_limits<std::int64_t>::min()),
            dec("-9223372036854775808"));
  EXPECT_EQ(dec(k38Nines).multipliedBy(10), dec(k38Nines + "0"));
  EXPECT_EQ(dec(k38Nines).multipliedBy(2), std::nullopt);
  EXPECT_EQ(dec("4e164").multipliedBy(10), std::nullopt);
}

TEST(DecimalTest, ConvertsToInt64) {
  EXPECT_EQ(dec("-7E2").toInt64(), -700);
  EXPECT_EQ(dec("9223372036854775807").toInt64(), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(dec("-9223372036854775808").toInt64(), std::numeric_limits<std::int64_t>::min());
  for (const char* text : {"1.5", "9223372036854775808", "-9223372036854775809", "1e19",
                           // Ten times 38 digits: the product no longer fits in 128 bits.
                           "340282366920938463463374607431768211460"}) {
    EXPECT_EQ(dec(text).toInt64(), std::nullopt) << text;
  }
}

}  // namespace
}  // namespace platform
