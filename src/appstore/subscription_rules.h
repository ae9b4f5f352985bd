// How long subscription periods last on the store clock: calendar periods in real time, or
// one of SKTestSession's accelerated time rates. Pure; any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

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

// Whether `timeRate` is one of SKTestSession's rates: those above, and 1 to 6, the older
// rates Xcode still writes, on which a day of subscription passes in a second.
bool isKnownTimeRate(std::int64_t timeRate);
// "unknown time rate N (known: ...)", for the errors that refuse one.
std::string unknownTimeRateMessage(std::int64_t timeRate);

// The end of a subscription period that starts at `start`, on a store running at `timeRate`.
platform::Date periodEnd(platform::Date start, const SubscriptionPeriod& period, int timeRate);

// How long the billing grace period of a subscription of `period` lasts, and how long the App
// Store retries billing before the subscription expires, on a store running at `timeRate`.
std::chrono::milliseconds gracePeriodLength(const SubscriptionPeriod& period, int timeRate);
std::chrono::milliseconds billingRetryLength(int timeRate);
// `days` of subscription on a store running at `timeRate` (a month's worth of days takes a
// monthly period's length).
std::chrono::milliseconds scaledDays(std::int64_t days, int timeRate);

}  // namespace appstore
