#include "platform/date.h"

#include <array>
#include <charconv>

namespace platform {

namespace {

using std::chrono::days;
using std::chrono::milliseconds;

void appendDigits(std::string& out, unsigned value, int width) {
  std::array<char, 10> digits{};
  for (int i = width - 1; i >= 0; --i) {
    digits[static_cast<std::size_t>(i)] = static_cast<char>('0' + value % 10);
    value /= 10;
  }
  out.append(digits.data(), static_cast<std::size_t>(width));
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

void appendRFC3339(std::string& out, Date date) {
  const auto dayPoint = std::chrono::floor<days>(date);
  const std::chrono::year_month_day ymd{dayPoint};
  const auto sinceMidnight = date - dayPoint;
  const auto ms = static_cast<unsigned>(sinceMidnight.count());
  const int year = static_cast<int>(ymd.year());
  if (year < 0 || year > 9999) {
    // RFC 3339 has four-digit years only; out-of-range years keep their sign and digits.
    std::array<char, 12> buffer{};
    auto [end, ec] = std::to_chars(buffer.data(), buffer.data() + buffer.size(), year);
    (void)ec;
    out.append(buffer.data(), end);
  } else {
    appendDigits(out, static_cast<unsigned>(year), 4);
  }
  out.push_back('-');
  appendDigits(out, static_cast<unsigned>(ymd.month()), 2);
  out.push_back('-');
  appendDigits(out, static_cast<unsigned>(ymd.day()), 2);
  out.push_back('T');
  appendDigits(out, ms / 3'600'000, 2);
  out.push_back(':');
  appendDigits(out, ms / 60'000 % 60, 2);
  out.push_back(':');
  appendDigits(out, ms / 1000 % 60, 2);
  out.push_back('.');
  appendDigits(out, ms % 1000, 3);
  out.push_back('Z');
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
