// SubscriptionPeriod: a count of calendar units, as configuration files and signed payloads
// write it ("P3D", "P1W", "P1M", "P1Y"). A plain value; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace appstore {

// A count of calendar units. The value is a native integer, as
// on the platform; only configuration files limit it.
struct SubscriptionPeriod {
  enum class Unit : int { day = 0, week = 1, month = 2, year = 3 };

  std::int64_t value = 1;
  Unit unit = Unit::month;

  // ISO 8601 durations of one unit as configuration files and signed payloads write them:
  // "P3D", "P1W", "P1M", "P1Y". Nothing for anything else.
  static std::optional<SubscriptionPeriod> parse(std::string_view iso);
  std::string isoString() const;
  // Length in days (months as 30, years as 365), for scaled store clocks.
  std::int64_t approximateDays() const;

  friend bool operator==(const SubscriptionPeriod&, const SubscriptionPeriod&) = default;
};

}  // namespace appstore
