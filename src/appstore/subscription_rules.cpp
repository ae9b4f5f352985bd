#include "appstore/subscription_rules.h"

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

}  // namespace

platform::Date periodEnd(platform::Date start, const SubscriptionPeriod& period, int timeRate) {
  using namespace std::chrono;
  const auto days = period.approximateDays();
  switch (timeRate) {
    case time_rate::kMonthlyRenewalEveryHour: return start + days * milliseconds(hours(1)) / 30;
    case time_rate::kMonthlyRenewalEveryThirtyMinutes: return start + days * milliseconds(minutes(30)) / 30;
    case time_rate::kMonthlyRenewalEveryFifteenMinutes: return start + days * milliseconds(minutes(15)) / 30;
    case time_rate::kMonthlyRenewalEveryFiveMinutes: return start + days * milliseconds(minutes(5)) / 30;
    case time_rate::kMonthlyRenewalEveryThirtySeconds: return start + days * milliseconds(seconds(30)) / 30;
    case time_rate::kOneRenewalEveryFifteenMinutes: return start + minutes(15);
    case time_rate::kOneRenewalEveryFiveMinutes: return start + minutes(5);
    case time_rate::kOneRenewalEveryMinute: return start + minutes(1);
    case time_rate::kOneRenewalEveryThirtySeconds: return start + seconds(30);
    case time_rate::kOneRenewalEveryTenSeconds: return start + seconds(10);
    case time_rate::kOneRenewalEveryTwoSeconds: return start + seconds(2);
    default: break;
  }
  // The older day-scaled rates: a day of subscription passes in a second.
  if (timeRate >= 1 && timeRate <= 6) return start + days * milliseconds(seconds(1));
  return addCalendar(start, period);
}

}  // namespace appstore
