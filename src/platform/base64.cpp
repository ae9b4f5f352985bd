#include "platform/base64.h"

#include <array>
#include <cstdint>

namespace platform {

namespace {

constexpr std::string_view kStandard =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::string_view kURLSafe =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

// The value of each symbol of an alphabet, -1 for every byte outside it. Built once, at
// compile time: a token's text is decoded a few thousand bytes at a time, many times a second.
using DecodingTable = std::array<std::int8_t, 256>;

constexpr DecodingTable decodingTable(std::string_view alphabet) {
  DecodingTable table{};
  for (auto& value : table) value = -1;
  for (std::size_t i = 0; i < alphabet.size(); ++i) {
    table[static_cast<std::uint8_t>(alphabet[i])] = static_cast<std::int8_t>(i);
  }
  return table;
}

constexpr DecodingTable kStandardValues = decodingTable(kStandard);
constexpr DecodingTable kURLSafeValues = decodingTable(kURLSafe);

std::string encode(std::string_view bytes, std::string_view alphabet, bool pad) {
  const std::size_t whole = bytes.size() / 3;
  const std::size_t rest = bytes.size() % 3;
  std::string out(whole * 4 + (rest == 0 ? 0 : pad ? 4 : rest + 1), '\0');
  const auto* in = reinterpret_cast<const std::uint8_t*>(bytes.data());
  char* o = out.data();
  for (std::size_t i = 0; i < whole; ++i, in += 3, o += 4) {
    const std::uint32_t n = std::uint32_t{in[0]} << 16 | std::uint32_t{in[1]} << 8 | in[2];
    o[0] = alphabet[n >> 18 & 63];
    o[1] = alphabet[n >> 12 & 63];
    o[2] = alphabet[n >> 6 & 63];
    o[3] = alphabet[n & 63];
  }
  if (rest > 0) {
    std::uint32_t n = std::uint32_t{in[0]} << 16;
    if (rest == 2) n |= std::uint32_t{in[1]} << 8;
    o[0] = alphabet[n >> 18 & 63];
    o[1] = alphabet[n >> 12 & 63];
    if (rest == 2) o[2] = alphabet[n >> 6 & 63];
    if (pad) {
      o[2 + (rest == 2)] = '=';
      if (rest == 1) o[3] = '=';
    }
  }
  return out;
}

std::optional<std::string> decode(std::string_view text, const DecodingTable& table,
                                  bool padded) {
  if (padded) {
    if (text.size() % 4 != 0) return std::nullopt;
    if (!text.empty() && text.back() == '=') text.remove_suffix(1);
    if (!text.empty() && text.back() == '=') text.remove_suffix(1);
  }
  const std::size_t whole = text.size() / 4;
  const std::size_t rest = text.size() % 4;
  if (rest == 1) return std::nullopt;
  std::string out(whole * 3 + (rest == 0 ? 0 : rest - 1), '\0');
  const auto* in = reinterpret_cast<const std::uint8_t*>(text.data());
  auto* o = reinterpret_cast<std::uint8_t*>(out.data());
  for (std::size_t i = 0; i < whole; ++i, in += 4, o += 3) {
    const int a = table[in[0]], b = table[in[1]], c = table[in[2]], d = table[in[3]];
    if ((a | b | c | d) < 0) return std::nullopt;
    const auto n = static_cast<std::uint32_t>(a << 18 | b << 12 | c << 6 | d);
    o[0] = static_cast<std::uint8_t>(n >> 16);
    o[1] = static_cast<std::uint8_t>(n >> 8);
    o[2] = static_cast<std::uint8_t>(n);
  }
  // Two or three symbols left: one or two bytes, and bits after them that must be zero, so
  // that every text has one decoding and one encoding.
  if (rest == 2) {
    const int a = table[in[0]], b = table[in[1]];
    if ((a | b) < 0 || (b & 0x0F) != 0) return std::nullopt;
    o[0] = static_cast<std::uint8_t>(a << 2 | b >> 4);
  } else if (rest == 3) {
    const int a = table[in[0]], b = table[in[1]], c = table[in[2]];
    if ((a | b | c) < 0 || (c & 0x03) != 0) return std::nullopt;
    const auto n = static_cast<std::uint32_t>(a << 12 | b << 6 | c);
    o[0] = static_cast<std::uint8_t>(n >> 10);
    o[1] = static_cast<std::uint8_t>(n >> 2);
  }
  return out;
}

}  // namespace

std::string base64Encode(std::string_view bytes) { return encode(bytes, kStandard, true); }

std::optional<std::string> base64Decode(std::string_view text) {
  return decode(text, kStandardValues, true);
}

std::string base64URLEncode(std::string_view bytes) { return encode(bytes, kURLSafe, false); }

std::optional<std::string> base64URLDecode(std::string_view text) {
  return decode(text, kURLSafeValues, false);
}

}  // namespace platform
