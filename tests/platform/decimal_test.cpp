#include "platform/decimal.h"

#include <gtest/gtest.h>

#include <limits>
#include <ostream>
#include <string>

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

TEST(DecimalTest, ParsesPlainAndExponentForms) {
  EXPECT_EQ(dec("0.99").toString(), "0.99");
  EXPECT_EQ(dec("-12.345").toString(), "-12.345");
  EXPECT_EQ(dec("12.00"), dec("12"));
  EXPECT_EQ(dec("12.00").toString(), "12");
  EXPECT_EQ(dec("1.5e-3").toString(), "0.0015");
  EXPECT_EQ(dec("7E2").toString(), "700");
  EXPECT_EQ(dec("1e+2"), dec("100"));
  EXPECT_EQ(dec("+3"), Decimal::fromInteger(3));
  EXPECT_EQ(dec("0012.50"), dec("12.5"));
  EXPECT_EQ(dec("1005"), Decimal::fromInteger(1005));
  EXPECT_EQ(dec("120e-1"), dec("12"));
  EXPECT_TRUE(dec("-0.000").isZero());
  EXPECT_FALSE(dec("-0.000").isNegative());
  EXPECT_EQ(dec("-0"), Decimal{});
  EXPECT_EQ(Decimal::fromInteger(std::numeric_limits<std::int64_t>::min()).toString(),
            "-9223372036854775808");
}

TEST(DecimalTest, RejectsGarbageAndOutOfRange) {
  for (const std::string_view text :
       {"",        "-",   "+",   ".",      "1.2.3", "1e",    "1e+",
        "e5",      "abc", " 1",  "1 ",     "1,5",   "--1",   "0x10",
        "1.5e3.2", "NaN", "inf", "1e-129", "1e165", "4e165", "1000e162"}) {
    EXPECT_FALSE(Decimal::parse(text).has_value()) << text;
  }
  EXPECT_FALSE(Decimal::parse("1" + k38Nines).has_value());  // 39 significant digits
  EXPECT_FALSE(Decimal::parse("0.1" + k38Nines).has_value());
  // Range limits: 38 digits, exponent -128...127, and the largest value 10^165 - 10^127.
  EXPECT_EQ(dec(k38Nines).toString(), k38Nines);
  EXPECT_EQ(dec("-" + k38Nines + "e127"), dec("-9." + std::string(37, '9') + "e164"));
  EXPECT_EQ(dec("1" + std::string(38, '0')).toString(), "1" + std::string(38, '0'));
  EXPECT_EQ(dec("1e-128").toString(), "0." + std::string(127, '0') + "1");
  EXPECT_EQ(dec("1e164").toString(), "1" + std::string(164, '0'));
  EXPECT_EQ(dec("0.000e500"), Decimal{});
}

TEST(DecimalTest, FormatsWithoutExponent) {
  EXPECT_EQ(Decimal{}.toString(), "0");
  EXPECT_EQ(dec("0.001").toString(), "0.001");
  EXPECT_EQ(dec("-0.001").toString(), "-0.001");
  EXPECT_EQ(dec("1234.5").toString(), "1234.5");
  EXPECT_EQ(dec("100").toString(), "100");
  EXPECT_EQ(dec("-1e3").toString(), "-1000");
  EXPECT_EQ(dec("10.05").toString(), "10.05");
  std::string out = "price ";
  dec("0.99").appendTo(out);
  EXPECT_EQ(out, "price 0.99");
}

TEST(DecimalTest, OrdersAcrossExponentsAndSigns) {
  const char* ascending[] = {"-1e100", "-100",   "-99.5", "-12.345", "-12.34", "-1e-128",
                             "0",      "1e-128", "0.001", "0.99",    "1",      "9.5",
                             "10",     "99.999", "100",   "1e100"};
  for (std::size_t i = 0; i + 1 < std::size(ascending); ++i) {
    EXPECT_LT(dec(ascending[i]), dec(ascending[i + 1])) << ascending[i];
    EXPECT_GT(dec(ascending[i + 1]), dec(ascending[i])) << ascending[i];
  }
  EXPECT_EQ(dec("1e2") <=> dec("100.0"), std::strong_ordering::equal);
  EXPECT_NE(dec("0.99"), dec("-0.99"));
}

TEST(DecimalTest, ScalesByPowersOfTen) {
  EXPECT_EQ(dec("990").scaledByPowerOfTen(-3), dec("0.99"));
  EXPECT_EQ(dec("0.99").scaledByPowerOfTen(2), dec("99"));
  EXPECT_EQ(dec("-1.5").scaledByPowerOfTen(0), dec("-1.5"));
  EXPECT_EQ(Decimal{}.scaledByPowerOfTen(1000), Decimal{});
  EXPECT_EQ(dec("1e-128").scaledByPowerOfTen(292), dec("1e164"));
  EXPECT_EQ(dec("1e164").scaledByPowerOfTen(-256), dec("1e-92"));
  EXPECT_EQ(dec("1e-128").scaledByPowerOfTen(-1), std::nullopt);
  EXPECT_EQ(dec("1e164").scaledByPowerOfTen(1), std::nullopt);
  EXPECT_EQ(dec("4e127").scaledByPowerOfTen(38), std::nullopt);
  EXPECT_EQ(dec("12").scaledByPowerOfTen(std::numeric_limits<int>::max()), std::nullopt);
  EXPECT_EQ(dec("12").scaledByPowerOfTen(std::numeric_limits<int>::min()), std::nullopt);
}

TEST(DecimalTest, MultipliesExactly) {
  EXPECT_EQ(dec("0.99").multipliedBy(3), dec("2.97"));
  EXPECT_EQ(dec("1.5").multipliedBy(-2), dec("-3"));
  EXPECT_EQ(dec("-0.25").multipliedBy(-4), dec("1"));
  EXPECT_EQ(dec("12.5").multipliedBy(100), dec("1250"));
  EXPECT_EQ(dec("12.5").multipliedBy(0), Decimal{});
  EXPECT_EQ(dec("1").multipliedBy(std::numeric_limits<std::int64_t>::min()),
            dec("-9223372036854775808"));
  EXPECT_EQ(dec(k38Nines).multipliedBy(2), std::nullopt);
  EXPECT_EQ(dec(k38Nines).multipliedBy(10), dec(k38Nines + "0"));
  EXPECT_EQ(dec("4e127").multipliedBy(10'000'000'000), dec("4e137"));
  EXPECT_EQ(dec("4e164").multipliedBy(10), std::nullopt);
}

TEST(DecimalTest, ConvertsToInt64) {
  EXPECT_EQ(dec("12").toInt64(), 12);
  EXPECT_EQ(dec("-7E2").toInt64(), -700);
  EXPECT_EQ(Decimal{}.toInt64(), 0);
  EXPECT_EQ(dec("1e18").toInt64(), 1'000'000'000'000'000'000);
  EXPECT_EQ(dec("9223372036854775807").toInt64(), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(dec("-9223372036854775808").toInt64(), std::numeric_limits<std::int64_t>::min());
  for (const char* text :
       {"1.5", "-0.001", "9223372036854775808", "-9223372036854775809", "1e19", "1e20", "1e100",
        // 38 digits times ten: the product no longer fits in 128 bits.
        "340282366920938463463374607431768211460"}) {
    EXPECT_EQ(dec(text).toInt64(), std::nullopt) << text;
  }
}

}  // namespace
}  // namespace platform
