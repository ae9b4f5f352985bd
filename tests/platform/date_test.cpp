#include "platform/date.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <utility>

namespace platform {
namespace {

constexpr std::int64_t kNov27 = 1'795'774'530'000;  // 2026-11-27T10:15:30Z

TEST(DateTest, FormatsUTCWithThreeFractionDigits) {
  EXPECT_EQ(formatRFC3339(dateFromMillisecondsSince1970(kNov27 + 7)), "2026-11-27T10:15:30.007Z");
  EXPECT_EQ(formatRFC3339(dateFromMillisecondsSince1970(-1)), "1969-12-31T23:59:59.999Z");
  std::string out = "at ";
  appendRFC3339(out, dateFromMillisecondsSince1970(951'782'400'000));
  EXPECT_EQ(out, "at 2000-02-29T00:00:00.000Z");
}

TEST(DateTest, ParsesFractionsAndZones) {
  const std::pair<const char*, std::int64_t> cases[] = {
      {"2026-11-27T10:15:30Z", kNov27},
      {"2026-11-27t10:15:30.5z", kNov27 + 500},
      {"2026-11-27T10:15:30.123999999Z", kNov27 + 123},  // dropped, never rounded up
      {"2026-11-27T11:45:30+01:30", kNov27},
      {"2026-11-27T05:15:30.25-05:00", kNov27 + 250},
      {"1969-12-31T23:59:59.999Z", -1},
      {"2024-02-29T00:00:00Z", 1'709'164'800'000}};
  for (const auto& [text, ms] : cases) {
    const auto date = parseRFC3339(text);
    ASSERT_TRUE(date.has_value()) << text;
    EXPECT_EQ(millisecondsSince1970(*date), ms) << text;
  }
}

TEST(DateTest, RejectsMalformedText) {
  const std::string time = "2026-11-27T10:15:30";
  for (const std::string suffix :
       {"", ".", ".1234567890Z", "Zx", "Z ", "+01", "+0100", "+24:00", "+01:60", "X"}) {
    EXPECT_FALSE(parseRFC3339(time + suffix).has_value()) << time + suffix;
  }
  for (const char* text : {"", "2026-11-27", "2026-13-01T00:00:00Z", "2026-00-01T00:00:00Z",
                           "2026-02-29T00:00:00Z", "2026-04-31T00:00:00Z", "2026-11-00T00:00:00Z",
                           "2026-11-27T24:00:00Z", "2026-11-27T10:60:00Z", "2026-1-27T10:15:30Z",
                           "2026-11-27X10:15:30Z", "2026-11-27T10:15:3aZ"}) {
    EXPECT_FALSE(parseRFC3339(text).has_value()) << text;
  }
}

TEST(DateTest, RoundTripsToTheMillisecond) {
  for (const std::int64_t ms : std::initializer_list<std::int64_t>{
           0, -1, -86'400'001, -2'208'988'800'123, kNov27 + 999, 253'402'300'799'999,
           -62'135'596'800'000, millisecondsSince1970(now())}) {
    const Date date = dateFromMillisecondsSince1970(ms);
    EXPECT_EQ(parseRFC3339(formatRFC3339(date)), date) << formatRFC3339(date);
  }
}

}  // namespace
}  // namespace platform
