#include "platform/base64.h"

#include <array>
#include <cstdint>

namespace platform {

namespace {

constexpr std::string_view kStandard =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::string_view kURLSafe =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

std::string encode(std::string_view bytes, std::string_view alphabet, bool pad) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  std::size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    const std::uint32_t n = static_cast<std::uint8_t>(bytes[i]) << 16 |
                            static_cast<std::uint8_t>(bytes[i + 1]) << 8 |
                            static_cast<std::uint8_t>(bytes[i + 2]);
    out.push_back(alphabet[n >> 18 & 63]);
    out.push_back(alphabet[n >> 12 & 63]);
    out.push_back(alphabet[n >> 6 & 63]);
    out.push_back(alphabet[n & 63]);
  }
  const std::size_t rest = bytes.size() - i;
  if (rest > 0) {
    std::uint32_t n = static_cast<std::uint8_t>(bytes[i]) << 16;
    if (rest == 2) n |= static_cast<std::uint8_t>(bytes[i + 1]) << 8;
    out.push_back(alphabet[n >> 18 & 63]);
    out.push_back(alphabet[n >> 12 & 63]);
    if (rest == 2) out.push_back(alphabet[n >> 6 & 63]);
    if (pad) out.append(rest == 1 ? "==" : "=");
  }
  return out;
}

std::optional<std::string> decode(std::string_view text, std::string_view alphabet,
                                  bool padded) {
  std::array<int, 256> table{};
  table.fill(-1);
  for (std::size_t i = 0; i < alphabet.size(); ++i) {
    table[static_cast<std::uint8_t>(alphabet[i])] = static_cast<int>(i);
  }
  if (padded) {
    if (text.size() % 4 != 0) return std::nullopt;
    if (!text.empty() && text.back() == '=') text.remove_suffix(1);
    if (!text.empty() && text.back() == '=') text.remove_suffix(1);
  }
  if (text.size() % 4 == 1) return std::nullopt;
  std::string out;
  out.reserve(text.size() * 3 / 4);
  std::uint32_t buffer = 0;
  int bits = 0;
  for (const char c : text) {
    const int value = table[static_cast<std::uint8_t>(c)];
    if (value < 0) return std::nullopt;
    buffer = buffer << 6 | static_cast<std::uint32_t>(value);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out.push_back(static_cast<char>(buffer >> bits & 0xFF));
    }
  }
  // Leftover bits must be zero, so that every text has one decoding and one encoding.
  if ((buffer & ((1U << bits) - 1)) != 0) return std::nullopt;
  return out;
}

}  // namespace

std::string base64Encode(std::string_view bytes) { return encode(bytes, kStandard, true); }

std::optional<std::string> base64Decode(std::string_view text) {
  return decode(text, kStandard, true);
}

std::string base64URLEncode(std::string_view bytes) { return encode(bytes, kURLSafe, false); }

std::optional<std::string> base64URLDecode(std::string_view text) {
  return decode(text, kURLSafe, false);
}

}  // namespace platform
