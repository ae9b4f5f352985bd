// How long subscription periods last on the store clock: calendar periods in real time, or
// one of SKTestSession's accelerated time rates. Pure; any thread.
#pragma once

#include "appstore/subscription_period.h"
#include "platform/date.h"

namespace appstore {

// SKTestSession.TimeRate raw values the store understands.
namespace time_rate {
constexpr int kRealTime = 0;
constexpr int kMonthlyRenewalEveryHour = 10;
constexpr int kMonthlyRenewalEveryThirtyMinutes = 11;
constexpr int kMonthlyRenewalEveryFifteenMinutes = 12;
constexpr int kMonthlyRenewalEveryFiveMinutes = 13;
constexpr int kMonthlyRenewalEveryThirtySeconds = 15;
constexpr int kOneRenewalEveryFifteenMinutes = 1000;
constexpr int kOneRenewalEveryFiveMinutes = 1001;
constexpr int kOneRenewalEveryMinute = 1002;
constexpr int kOneRenewalEveryThirtySeconds = 1003;
constexpr int kOneRenewalEveryTenSeconds = 1004;
constexpr int kOneRenewalEveryTwoSeconds = 1005;
}  // namespace time_rate

// The end of a subscription period that starts at `start`, on a store running at `timeRate`.
platform::Date periodEnd(platform::Date start, const SubscriptionPeriod& period, int timeRate);

}  // namespace appstore
