// Points in time as the store and the wire see them: milliseconds since 1970 (UTC).
// Pure functions; callable from any thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

using Date = std::chrono::sys_time<std::chrono::milliseconds>;

// The system clock, truncated to the millisecond.
Date now();

constexpr std::int64_t millisecondsSince1970(Date date) {
  return date.time_since_epoch().count();
}

constexpr Date dateFromMillisecondsSince1970(std::int64_t milliseconds) {
  return Date{std::chrono::milliseconds{milliseconds}};
}

// RFC 3339 in UTC with exactly three fraction digits: "2026-11-21T10:15:30.123Z".
std::string formatRFC3339(Date date);
void appendRFC3339(std::string& out, Date date);
// The same text written at `at`, which has room for kMaxRFC3339Length bytes; returns its end.
constexpr std::size_t kMaxRFC3339Length = 32;
char* writeRFC3339(char* at, Date date);

// Accepts RFC 3339 with 0 to 9 fraction digits and "Z" or a "+hh:mm"/"-hh:mm" offset.
// Digits below the millisecond are dropped (rounded toward the past).
std::optional<Date> parseRFC3339(std::string_view text);

}  // namespace platform
