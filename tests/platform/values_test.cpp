// The plain value types: Date and its RFC 3339 text, Decimal, SystemVersion.
#include "platform/date.h"
#include "platform/decimal.h"
#include "platform/system_version.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <limits>
#include <ostream>
#include <string>

namespace platform {

void PrintTo(const Decimal& value, std::ostream* out) { *out << value.toString(); }

namespace {

constexpr std::int64_t kNov27 = 1'795'774'530'000;  // 2026-11-27T10:15:30Z

TEST(DateTest, WritesUTCToTheMillisecondAndReadsFractionsAndZones) {
  EXPECT_EQ(formatRFC3339(dateFromMillisecondsSince1970(kNov27 + 7)), "2026-11-27T10:15:30.007Z");
  EXPECT_EQ(formatRFC3339(dateFromMillisecondsSince1970(951'782'400'000)),
            "2000-02-29T00:00:00.000Z");
  for (const std::int64_t ms : {-1L, -86'400'001L, -2'208'988'800'123L, kNov27 + 999,
                                253'402'300'799'999L, -62'135'596'800'000L}) {
    const Date date = dateFromMillisecondsSince1970(ms);
    EXPECT_EQ(parseRFC3339(formatRFC3339(date)), date) << formatRFC3339(date);
  }
  const std::pair<const char*, std::int64_t> cases[] = {
      {"2026-11-27t10:15:30.5z", kNov27 + 500},
      {"2026-11-27T10:15:30.123999999Z", kNov27 + 123},  // dropped, never rounded up
      {"2026-11-27T11:45:30+01:30", kNov27},
      {"2026-11-27T05:15:30.25-05:00", kNov27 + 250},
      {"1969-12-31T23:59:59.999Z", -1}};
  for (const auto& [text, ms] : cases) {
    EXPECT_EQ(parseRFC3339(text), dateFromMillisecondsSince1970(ms)) << text;
  }
  const std::string time = "2026-11-27T10:15:30";
  for (const std::string suffix :
       {"", ".", ".1234567890Z", "Zx", "+01", "+0100", "+24:00", "+01:60"}) {
    EXPECT_FALSE(parseRFC3339(time + suffix).has_value()) << time + suffix;
  }
  for (const char* text : {"2026-11-27", "2026-13-01T00:00:00Z", "2026-02-29T00:00:00Z",
                           "2026-04-31T00:00:00Z", "2026-11-27T24:00:00Z", "2026-11-27T10:60:00Z",
                           "2026-1-27T10:15:30Z", "2026-11-27X10:15:30Z", "2026-11-27T10:15:3aZ"}) {
    EXPECT_FALSE(parseRFC3339(text).has_value()) << text;
  }
}

Decimal dec(std::string_view text) {
  const auto value = Decimal::parse(text);
  EXPECT_TRUE(value.has_value()) << text;
  return value.value_or(Decimal{});
}

const std::string k38Nines(38, '9');

TEST(DecimalTest, ParsesAndFormatsExactlyWithinTheRange) {
  const std::pair<const char*, const char*> cases[] = {
      {"0.99", "0.99"},     {"-12.345", "-12.345"}, {"12.00", "12"},  {"0012.50", "12.5"},
      {"1.5e-3", "0.0015"}, {"7E2", "700"},         {"1e+2", "100"},  {"+3", "3"},
      {"-0.000", "0"},      {"10.05", "10.05"},     {"120e-1", "12"}, {"-1e3", "-1000"},
      {"-0.001", "-0.001"}, {"0.000e500", "0"}};
  for (const auto& [text, printed] : cases) EXPECT_EQ(dec(text).toString(), printed) << text;
  EXPECT_FALSE(dec("-0").isNegative());
  // The edges of the range: 38 digits, exponents -128 and 127 (1e164 keeps zeros).
  EXPECT_EQ(dec(k38Nines).toString(), k38Nines);
  EXPECT_EQ(dec("1e-128").toString(), "0." + std::string(127, '0') + "1");
  EXPECT_EQ(dec("1e164").toString(), "1" + std::string(164, '0'));
  for (const char* text : {"", "-", ".", "1.2.3", "1e", "1e+", "e5", " 1", "1 ", "1,5", "--1",
                           "0x10", "1e-129", "1e165"}) {
    EXPECT_FALSE(Decimal::parse(text).has_value()) << text;
  }
  EXPECT_FALSE(Decimal::parse("1" + k38Nines).has_value());  // 39 significant digits
  const char* ascending[] = {"-1e100", "-100", "-99.5", "-12.345", "-12.34", "-1e-128", "0",
                             "1e-128", "0.99", "1",     "9.5",     "10",     "123",     "1e100"};
  for (std::size_t i = 0; i + 1 < std::size(ascending); ++i) {
    EXPECT_LT(dec(ascending[i]), dec(ascending[i + 1])) << ascending[i];
  }
}

TEST(DecimalTest, ScalesMultipliesAndConvertsExactlyOrNotAtAll) {
  EXPECT_EQ(dec("990").scaledByPowerOfTen(-3), dec("0.99"));
  EXPECT_EQ(dec("1e-128").scaledByPowerOfTen(292), dec("1e164"));
  EXPECT_EQ(dec("1e-128").scaledByPowerOfTen(-1), std::nullopt);
  EXPECT_EQ(dec("4e127").scaledByPowerOfTen(38), std::nullopt);
  EXPECT_EQ(dec(k38Nines).multipliedBy(2), std::nullopt);
  EXPECT_EQ(dec("-9223372036854775808").toInt64(), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(dec("1.5").toInt64(), std::nullopt);
}

TEST(SystemVersionTest, DefaultsTo26ComparesAndParses) {
  EXPECT_EQ(SystemVersion::current(), (OperatingSystemVersion{26, 0}));
  EXPECT_FALSE(SystemVersion::atLeast(26, 1));
  SystemVersion::set({17, 1000});  // read back as set, never folded into a neighbour
  EXPECT_EQ(SystemVersion::current(), (OperatingSystemVersion{17, 1000}));
  EXPECT_TRUE(SystemVersion::atLeast(16, 9));
  EXPECT_FALSE(SystemVersion::atLeast(18));
  SystemVersion::set(SystemVersion::kDefault);
  EXPECT_EQ(SystemVersion::parse("17"), (OperatingSystemVersion{17, 0}));
  EXPECT_EQ(SystemVersion::parse("17.2"), (OperatingSystemVersion{17, 2}));
  for (const char* text : {"", "17.", "x", "17.-1", "17.2.1", " 17", "17 ", "+17", "1000"}) {
    EXPECT_EQ(SystemVersion::parse(text), std::nullopt) << text;
  }
  EXPECT_EQ(SystemVersion::toString({17, 2}), "17.2");
}

}  // namespace
}  // namespace platform
