#include "platform/date.h"

#include <array>
#include <charconv>

namespace platform {

namespace {

using std::chrono::days;
using std::chrono::milliseconds;

// "00" to "99", for writing two digits at a time.
constexpr std::array<char, 200> makeDigitPairs() {
  std::array<char, 200> pairs{};
  for (int i = 0; i < 100; ++i) {
    pairs[static_cast<std::size_t>(2 * i)] = static_cast<char>('0' + i / 10);
    pairs[static_cast<std::size_t>(2 * i + 1)] = static_cast<char>('0' + i % 10);
  }
  return pairs;
}
constexpr auto kDigitPairs = makeDigitPairs();

// Writes `value` (below 100) as two digits at `at` and returns the end.
char* writeTwoDigits(char* at, unsigned value) {
  at[0] = kDigitPairs[2 * value];
  at[1] = kDigitPairs[2 * value + 1];
  return at + 2;
}

// Reads exactly `width` digits at `pos`.
bool readDigits(std::string_view text, std::size_t& pos, int width, int& value) {
  if (pos + static_cast<std::size_t>(width) > text.size()) return false;
  value = 0;
  for (int i = 0; i < width; ++i) {
    const char c = text[pos++];
    if (c < '0' || c > '9') return false;
    value = value * 10 + (c - '0');
  }
  return true;
}

bool expect(std::string_view text, std::size_t& pos, char c) {
  if (pos >= text.size() || text[pos] != c) return false;
  ++pos;
  return true;
}

}  // namespace

Date now() {
  return std::chrono::time_point_cast<milliseconds>(std::chrono::system_clock::now());
}

char* writeRFC3339(char* at, Date date) {
  const auto dayPoint = std::chrono::floor<days>(date);
  const std::chrono::year_month_day ymd{dayPoint};
  const auto sinceMidnight = date - dayPoint;
  const auto ms = static_cast<unsigned>(sinceMidnight.count());
  const int year = static_cast<int>(ymd.year());
  if (year < 0 || year > 9999) {
    // RFC 3339 has four-digit years only; out-of-range years keep their sign and digits.
    at = std::to_chars(at, at + 12, year).ptr;
  } else {
    at = writeTwoDigits(at, static_cast<unsigned>(year) / 100);
    at = writeTwoDigits(at, static_cast<unsigned>(year) % 100);
  }
  *at++ = '-';
  at = writeTwoDigits(at, static_cast<unsigned>(ymd.month()));
  *at++ = '-';
  at = writeTwoDigits(at, static_cast<unsigned>(ymd.day()));
  *at++ = 'T';
  at = writeTwoDigits(at, ms / 3'600'000);
  *at++ = ':';
  at = writeTwoDigits(at, ms / 60'000 % 60);
  *at++ = ':';
  at = writeTwoDigits(at, ms / 1000 % 60);
  *at++ = '.';
  *at++ = static_cast<char>('0' + ms % 1000 / 100);
  at = writeTwoDigits(at, ms % 100);
  *at++ = 'Z';
  return at;
}

void appendRFC3339(std::string& out, Date date) {
  std::array<char, kMaxRFC3339Length> text{};
  out.append(text.data(), writeRFC3339(text.data(), date));
}

std::string formatRFC3339(Date date) {
  std::string out;
  out.reserve(24);
  appendRFC3339(out, date);
  return out;
}

std::optional<Date> parseRFC3339(std::string_view text) {
  std::size_t pos = 0;
  int year = 0;
  int month = 0;
  int day = 0;
  int hour = 0;
  int minute = 0;
  int second = 0;
  if (!readDigits(text, pos, 4, year) || !expect(text, pos, '-') ||
      !readDigits(text, pos, 2, month) || !expect(text, pos, '-') ||
      !readDigits(text, pos, 2, day)) {
    return std::nullopt;
  }
  if (pos >= text.size() || (text[pos] != 'T' && text[pos] != 't' && text[pos] != ' ')) {
    return std::nullopt;
  }
  ++pos;
  if (!readDigits(text, pos, 2, hour) || !expect(text, pos, ':') ||
      !readDigits(text, pos, 2, minute) || !expect(text, pos, ':') ||
      !readDigits(text, pos, 2, second)) {
    return std::nullopt;
  }
  int fractionMs = 0;
  if (pos < text.size() && text[pos] == '.') {
    ++pos;
    int count = 0;
    while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') {
      if (count < 3) fractionMs = fractionMs * 10 + (text[pos] - '0');
      ++count;
      ++pos;
    }
    if (count == 0 || count > 9) return std::nullopt;
    for (int i = count; i < 3; ++i) fractionMs *= 10;
  }
  int offsetMinutes = 0;
  if (pos >= text.size()) return std::nullopt;
  if (text[pos] == 'Z' || text[pos] == 'z') {
    ++pos;
  } else if (text[pos] == '+' || text[pos] == '-') {
    const int sign = text[pos] == '-' ? -1 : 1;
    ++pos;
    int offsetHours = 0;
    int offsetMins = 0;
    if (!readDigits(text, pos, 2, offsetHours) || !expect(text, pos, ':') ||
        !readDigits(text, pos, 2, offsetMins) || offsetHours > 23 || offsetMins > 59) {
      return std::nullopt;
    }
    offsetMinutes = sign * (offsetHours * 60 + offsetMins);
  } else {
    return std::nullopt;
  }
  if (pos != text.size()) return std::nullopt;

  const std::chrono::year_month_day ymd{std::chrono::year{year},
                                        std::chrono::month{static_cast<unsigned>(month)},
                                        std::chrono::day{static_cast<unsigned>(day)}};
  // A leap second (":60") is accepted by RFC 3339 and folds into the next second.
  if (!ymd.ok() || hour > 23 || minute > 59 || second > 60) return std::nullopt;
  const auto local = std::chrono::sys_days{ymd} + std::chrono::hours{hour} +
                     std::chrono::minutes{minute} + std::chrono::seconds{second} +
                     milliseconds{fractionMs};
  return Date{local - std::chrono::minutes{offsetMinutes}};
}

}  // namespace platform
