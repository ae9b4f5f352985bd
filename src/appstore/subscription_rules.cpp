#include "appstore/subscription_rules.h"

#include <cstdint>

namespace appstore {
namespace {

platform::Date addCalendar(platform::Date start, const SubscriptionPeriod& period) {
  using namespace std::chrono;
  const auto day = floor<days>(start);
  const auto timeOfDay = start - day;
  year_month_day date{day};
  switch (period.unit) {
    case SubscriptionPeriod::Unit::day: return start + days(period.value);
    case SubscriptionPeriod::Unit::week: return start + days(7 * period.value);
    case SubscriptionPeriod::Unit::month: date += months(period.value); break;
    case SubscriptionPeriod::Unit::year: date += years(period.value); break;
  }
  // The 31st plus a month ends on the last day of a shorter month.
  if (!date.ok()) date = date.year() / date.month() / last;
  return platform::Date(sys_days(date)) + timeOfDay;
}

// An accelerated rate: the length of a weekly, a monthly and a yearly period (zero where one
// length serves every period), of the grace period of weekly and other subscriptions, and of
// billing retry.
struct ScaledLengths {
  int timeRate;
  std::chrono::milliseconds week, month, year, weeklyGrace, otherGrace, billingRetry;
};

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;
constexpr milliseconds kEvery{0};
const ScaledLengths kScaledLengths[] = {
    {time_rate::kMonthlyRenewalEveryHour, minutes(15), hours(1), hours(12),
     minutes(12) + seconds(51), minutes(30), hours(2)},
    {time_rate::kMonthlyRenewalEveryThirtyMinutes, minutes(10), minutes(30), hours(6),
     minutes(8) + seconds(34), minutes(15), hours(1)},
    {time_rate::kMonthlyRenewalEveryFifteenMinutes, minutes(5), minutes(15), hours(3),
     minutes(4) + seconds(17), minutes(7) + seconds(30), minutes(30)},
    {time_rate::kMonthlyRenewalEveryFiveMinutes, minutes(3), minutes(5), hours(1),
     minutes(2) + seconds(34), minutes(2) + seconds(30), minutes(10)},
    {time_rate::kMonthlyRenewalEveryThirtySeconds, seconds(10), seconds(30), minutes(6), seconds(9),
     seconds(15), minutes(1)},
    {time_rate::kOneRenewalEveryFifteenMinutes, kEvery, minutes(15), kEvery, minutes(15),
     minutes(15), minutes(30)},
    {time_rate::kOneRenewalEveryFiveMinutes, kEvery, minutes(5), kEvery, minutes(5), minutes(5),
     minutes(10)},
    {time_rate::kOneRenewalEveryMinute, kEvery, minutes(1), kEvery, minutes(1), minutes(1),
     minutes(2)},
    {time_rate::kOneRenewalEveryThirtySeconds, kEvery, seconds(30), kEvery, seconds(30),
     seconds(30), minutes(1)},
    {time_rate::kOneRenewalEveryTenSeconds, kEvery, seconds(10), kEvery, seconds(10), seconds(10),
     seconds(20)},
    {time_rate::kOneRenewalEveryTwoSeconds, kEvery, seconds(2), kEvery, seconds(2), seconds(2),
     seconds(4)},
};

const ScaledLengths* scaledLengths(int timeRate) {
  for (const auto& row : kScaledLengths) {
    if (row.timeRate == timeRate) return &row;
  }
  return nullptr;
}

bool isDayScaled(std::int64_t timeRate) { return timeRate >= 1 && timeRate <= 6; }

// In real time: 6 days of grace for weekly subscriptions, 16 for the others; 60 of retry.
constexpr int kWeeklyGraceDays = 6, kOtherGraceDays = 16, kBillingRetryDays = 60;

bool isWeekly(const SubscriptionPeriod& period) {
  return (period.unit == SubscriptionPeriod::Unit::week && period.value == 1) ||
         (period.unit == SubscriptionPeriod::Unit::day && period.value == 7);
}

}  // namespace

bool isKnownTimeRate(std::int64_t timeRate) {
  return timeRate == time_rate::kRealTime || isDayScaled(timeRate) ||
         (timeRate >= INT32_MIN && timeRate <= INT32_MAX && scaledLengths(static_cast<int>(timeRate)));
}

std::string unknownTimeRateMessage(std::int64_t timeRate) {
  return "unknown time rate " + std::to_string(timeRate) +
         " (known: 0 real time; 1 to 6, a day a second; 10, 11, 12, 13, 15 a monthly renewal "
         "every hour, 30, 15, 5 minutes, 30 seconds; 1000 to 1005 one renewal every 15, 5, 1 "
         "minutes, 30, 10, 2 seconds)";
}

std::chrono::milliseconds gracePeriodLength(const SubscriptionPeriod& period, int timeRate) {
  const bool weekly = isWeekly(period);
  if (const auto* row = scaledLengths(timeRate)) return weekly ? row->weeklyGrace : row->otherGrace;
  const auto days = weekly ? kWeeklyGraceDays : kOtherGraceDays;
  if (isDayScaled(timeRate)) return seconds(days);
  return hours(24 * days);
}

std::chrono::milliseconds billingRetryLength(int timeRate) {
  if (const auto* row = scaledLengths(timeRate)) return row->billingRetry;
  if (isDayScaled(timeRate)) return seconds(kBillingRetryDays);
  return hours(24 * kBillingRetryDays);
}

std::chrono::milliseconds scaledDays(std::int64_t days, int timeRate) {
  if (const auto* row = scaledLengths(timeRate)) return days * row->month / 30;
  if (isDayScaled(timeRate)) return days * milliseconds(seconds(1));
  return days * milliseconds(hours(24));
}

platform::Date periodEnd(platform::Date start, const SubscriptionPeriod& period, int timeRate) {
  using Unit = SubscriptionPeriod::Unit;
  if (const auto* row = scaledLengths(timeRate)) {
    if (row->week == kEvery) return start + row->month;
    // Longer periods are multiples of these (two months take two monthly lengths); periods
    // counted in days other than a week scale a month as 30 days.
    switch (period.unit) {
      case Unit::week: return start + period.value * row->week;
      case Unit::month: return start + period.value * row->month;
      case Unit::year: return start + period.value * row->year;
      case Unit::day:
        if (period.value % 7 == 0) return start + period.value / 7 * row->week;
        return start + period.value * row->month / 30;
    }
  }
  // The older day-scaled rates: a day of subscription passes in a second.
  if (isDayScaled(timeRate)) return start + period.approximateDays() * milliseconds(seconds(1));
  return addCalendar(start, period);
}

}  // namespace appstore
