// Subscription periods, grace periods and billing retry on the store clock at each time rate.
#include <gtest/gtest.h>

#include "appstore/subscription_rules.h"

namespace appstore {
namespace {

using namespace std::chrono;
using Unit = SubscriptionPeriod::Unit;

TEST(SubscriptionRules, PeriodsGraceAndRetryFollowTheTimeRate) {
  const SubscriptionPeriod week{1, Unit::week}, month{1, Unit::month}, year{1, Unit::year},
      quarter{3, Unit::month}, sevenDays{7, Unit::day};
  // 2027-01-31 12:00 UTC: a month later is the last day of February.
  const platform::Date start = sys_days(2027y / January / 31) + hours(12);
  const struct {
    int rate;
    SubscriptionPeriod period;
    milliseconds length, grace, retry;
  } cases[] = {
      {0, month, days(28), days(16), days(60)},
      {0, week, days(7), days(6), days(60)},
      {0, sevenDays, days(7), days(6), days(60)},
      {0, year, days(365), days(16), days(60)},
      {10, month, hours(1), minutes(30), hours(2)},
      {10, week, minutes(15), minutes(12) + seconds(51), hours(2)},
      {10, quarter, hours(3), minutes(30), hours(2)},
      {10, year, hours(12), minutes(30), hours(2)},
      {11, year, hours(6), minutes(15), hours(1)},
      {11, week, minutes(10), minutes(8) + seconds(34), hours(1)},
      {11, month, minutes(30), minutes(15), hours(1)},
      {12, week, minutes(5), minutes(4) + seconds(17), minutes(30)},
      {12, sevenDays, minutes(5), minutes(4) + seconds(17), minutes(30)},
      {13, month, minutes(5), minutes(2) + seconds(30), minutes(10)},
      {13, year, hours(1), minutes(2) + seconds(30), minutes(10)},
      {15, month, seconds(30), seconds(15), minutes(1)},
      {15, week, seconds(10), seconds(9), minutes(1)},
      {15, SubscriptionPeriod{6, Unit::month}, minutes(3), seconds(15), minutes(1)},
      {1000, year, minutes(15), minutes(15), minutes(30)},
      {1002, week, minutes(1), minutes(1), minutes(2)},
      {1004, month, seconds(10), seconds(10), seconds(20)},
      {1005, year, seconds(2), seconds(2), seconds(4)},
      // The older rates: a day a second.
      {1, month, seconds(30), seconds(16), seconds(60)},
      {6, week, seconds(7), seconds(6), seconds(60)},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE("rate " + std::to_string(row.rate) + ", " + row.period.isoString());
    EXPECT_TRUE(isKnownTimeRate(row.rate));
    EXPECT_EQ(periodEnd(start, row.period, row.rate) - start, row.length);
    EXPECT_EQ(gracePeriodLength(row.period, row.rate), row.grace);
    EXPECT_EQ(billingRetryLength(row.rate), row.retry);
  }
  for (const std::int64_t rate : {-1L, 7L, 9L, 14L, 16L, 999L, 1006L, 4294967296L + 10}) {
    EXPECT_FALSE(isKnownTimeRate(rate)) << rate;
    EXPECT_EQ(unknownTimeRateMessage(rate).rfind("unknown time rate " + std::to_string(rate) + " (", 0), 0u);
  }
}

}  // namespace
}  // namespace appstore
