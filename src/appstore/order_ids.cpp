#include "appstore/order_ids.h"

namespace appstore {
namespace {

__extension__ using Wide = unsigned __int128;  // holds the product of two ids below 2^47

constexpr std::string_view kDigits = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";
constexpr int kLength = 9;  // after the "M"
// 36^9: the order ids' range. Transaction ids are multiplied by a number prime to it (and
// back by its inverse), so that consecutive purchases get ids that look unrelated, as the App
// Store's do, while each id still names exactly one transaction.
constexpr std::uint64_t kRange = 101'559'956'668'416ULL;
constexpr std::uint64_t kMultiplier = 68'603'640'077'597ULL;
constexpr std::uint64_t kInverse = 91'435'072'671'029ULL;
static_assert(static_cast<Wide>(kMultiplier) * kInverse % kRange == 1);

std::uint64_t mix(std::uint64_t value, std::uint64_t by) {
  return static_cast<std::uint64_t>(static_cast<Wide>(value) * by % kRange);
}

}  // namespace

std::string orderIDForTransaction(std::uint64_t transactionID) {
  std::uint64_t value = mix(transactionID % kRange, kMultiplier);
  std::string digits(kLength, '0');
  for (int i = kLength - 1; i >= 0; --i) {
    digits[i] = kDigits[value % 36];
    value /= 36;
  }
  return "M" + digits;
}

std::optional<std::uint64_t> transactionForOrderID(std::string_view orderID) {
  if (orderID.size() != kLength + 1 || orderID.front() != 'M') return std::nullopt;
  std::uint64_t value = 0;
  for (const char c : orderID.substr(1)) {
    const auto digit = kDigits.find(c);
    if (digit == std::string_view::npos) return std::nullopt;
    value = value * 36 + digit;
  }
  return mix(value, kInverse);
}

}  // namespace appstore
