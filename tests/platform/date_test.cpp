#include "platform/date.h"

#include <gtest/gtest.h>

namespace platform {
namespace {

std::int64_t parsedMs(std::string_view text) {
  const auto date = parseRFC3339(text);
  EXPECT_TRUE(date.has_value()) << text;
  return date ? millisecondsSince1970(*date) : -1;
}

TEST(DateTest, FormatsUTCWithThreeFractionDigits) {
  EXPECT_EQ(formatRFC3339(dateFromMillisecondsSince1970(0)), "1970-01-01T00:00:00.000Z");
  EXPECT_EQ(formatRFC3339(dateFromMillisecondsSince1970(1'795'774'530'007)),
            "2026-11-27T10:15:30.007Z");
  EXPECT_EQ(formatRFC3339(dateFromMillisecondsSince1970(-1)), "1969-12-31T23:59:59.999Z");
  EXPECT_EQ(formatRFC3339(dateFromMillisecondsSince1970(-62'135'596'800'000)),
            "0001-01-01T00:00:00.000Z");
  std::string out = "at ";
  appendRFC3339(out, dateFromMillisecondsSince1970(951'782'400'000));
  EXPECT_EQ(out, "at 2000-02-29T00:00:00.000Z");
}

TEST(DateTest, ParsesFractionsAndZones) {
  EXPECT_EQ(parsedMs("2026-11-27T10:15:30Z"), 1'795'774'530'000);
  EXPECT_EQ(parsedMs("2026-11-27T10:15:30.5z"), 1'795'774'530'500);
  EXPECT_EQ(parsedMs("2026-11-27T10:15:30.007Z"), 1'795'774'530'007);
  // Digits below the millisecond are dropped, never rounded up.
  EXPECT_EQ(parsedMs("2026-11-27T10:15:30.123999999Z"), 1'795'774'530'123);
  EXPECT_EQ(parsedMs("2026-11-27t10:15:30.123456Z"), 1'795'774'530'123);
  EXPECT_EQ(parsedMs("2026-11-27T11:45:30+01:30"), 1'795'774'530'000);
  EXPECT_EQ(parsedMs("2026-11-27T05:15:30.25-05:00"), 1'795'774'530'250);
  EXPECT_EQ(parsedMs("2026-11-28T00:15:30+14:00"), 1'795'774'530'000);
  EXPECT_EQ(parsedMs("1969-12-31T23:59:59.999Z"), -1);
  EXPECT_EQ(parsedMs("2024-02-29T00:00:00Z"), 1'709'164'800'000);
}

TEST(DateTest, RejectsMalformedText) {
  for (const std::string_view text : {"",
                                      "2026-11-27",
                                      "2026-11-27T10:15:30",
                                      "2026-11-27T10:15:30.",
                                      "2026-11-27T10:15:30.1234567890Z",
                                      "2026-11-27T10:15:30Zx",
                                      "2026-11-27T10:15:30Z ",
                                      "2026-13-01T00:00:00Z",
                                      "2026-00-01T00:00:00Z",
                                      "2026-02-29T00:00:00Z",
                                      "2026-04-31T00:00:00Z",
                                      "2026-11-00T00:00:00Z",
                                      "2026-11-27T24:00:00Z",
                                      "2026-11-27T10:60:00Z",
                                      "2026-11-27T10:15:61Z",
                                      "2026-11-27T10:15:30+01",
                                      "2026-11-27T10:15:30+0100",
                                      "2026-11-27T10:15:30+24:00",
                                      "2026-11-27T10:15:30+01:60",
                                      "26-11-27T10:15:30Z",
                                      "2026-1-27T10:15:30Z",
                                      "2026-11-27X10:15:30Z",
                                      "2026-11-27T10:5:30Z",
                                      "+2026-11-27T10:15:30Z",
                                      "2026-11-27T10:15:3aZ"}) {
    EXPECT_FALSE(parseRFC3339(text).has_value()) << text;
  }
}

TEST(DateTest, RoundTripsToTheMillisecond) {
  for (const std::int64_t ms :
       {std::int64_t{0}, std::int64_t{1}, std::int64_t{-1}, std::int64_t{-86'400'001},
        std::int64_t{-2'208'988'800'123}, std::int64_t{1'795'774'530'999},
        std::int64_t{253'402'300'799'999}, std::int64_t{-62'135'596'800'000}}) {
    const Date date = dateFromMillisecondsSince1970(ms);
    const auto parsed = parseRFC3339(formatRFC3339(date));
    ASSERT_TRUE(parsed.has_value()) << ms;
    EXPECT_EQ(*parsed, date) << formatRFC3339(date);
  }
  const Date current = now();
  EXPECT_EQ(parseRFC3339(formatRFC3339(current)), current);
}

}  // namespace
}  // namespace platform
