// The text forms of bytes: Base64 in both alphabets, UTF-8 validation, UUID strings.
#include "platform/base64.h"
#include "platform/utf8.h"
#include "platform/uuid.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>

namespace platform {
namespace {

// Bit by bit, as the RFC describes it: the reference the table-driven coder is held to.
std::string referenceEncoding(std::string_view bytes, std::string_view alphabet, bool pad) {
  std::string out;
  std::uint32_t bits = 0;
  int count = 0;
  for (const char c : bytes) {
    bits = bits << 8 | static_cast<std::uint8_t>(c);
    count += 8;
    while (count >= 6) {
      count -= 6;
      out += alphabet[bits >> count & 63];
    }
  }
  if (count > 0) out += alphabet[bits << (6 - count) & 63];
  while (pad && out.size() % 4 != 0) out += '=';
  return out;
}

TEST(Base64Test, EveryLengthAndByteRoundTripsAndEverySymbolOutsideTheAlphabetIsRefused) {
  constexpr std::string_view kStandard =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  constexpr std::string_view kURLSafe =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
  std::string bytes;
  std::uint32_t seed = 12345;
  for (std::size_t length = 0; length <= 200; ++length) {
    seed = seed * 1103515245 + 12345;
    bytes += static_cast<char>(length < 128 ? seed >> 16 : length);  // then 128 to 200
    const auto standard = base64Encode(bytes);
    const auto url = base64URLEncode(bytes);
    ASSERT_EQ(standard, referenceEncoding(bytes, kStandard, true)) << length;
    ASSERT_EQ(url, referenceEncoding(bytes, kURLSafe, false)) << length;
    ASSERT_EQ(base64Decode(standard), bytes) << length;
    ASSERT_EQ(base64URLDecode(url), bytes) << length;
    // A symbol of the other alphabet, or of none, anywhere before the padding.
    const auto symbols = url.size();
    for (std::size_t at = 0; at < symbols; ++at) {
      for (const char wrong : {'!', '=', '\0', '\xC3'}) {
        auto damaged = url;
        damaged[at] = wrong;
        ASSERT_EQ(base64URLDecode(damaged), std::nullopt) << length << " at " << at;
        damaged = standard;
        damaged[at] = wrong == '=' ? '-' : wrong;
        ASSERT_EQ(base64Decode(damaged), std::nullopt) << length << " at " << at;
      }
    }
    // Bits after the last byte that are not zero.
    if (bytes.size() % 3 != 0) {
      auto loose = url;
      loose.back() = kURLSafe[kURLSafe.find(loose.back()) | 1];
      ASSERT_EQ(base64URLDecode(loose), std::nullopt) << length;
    }
  }
  // Lengths and padding no encoder writes, and loose bits in the standard form.
  for (const char* text : {"Zm9", "Zg=", "Zg==Zg==", "Zh==", "Zm9="}) {
    EXPECT_EQ(base64Decode(text), std::nullopt) << text;
  }
  for (const char* text : {"Z", "++++//8"}) EXPECT_EQ(base64URLDecode(text), std::nullopt) << text;
}

TEST(UTF8Test, AcceptsEveryLengthAndStopsBeforeOverlongSurrogateTooLargeOrCutSequences) {
  for (const char* text :
       {"", "plain ASCII longer than eight bytes", "\x7F", "\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80",
        "\xED\x9F\xBF", "\xEE\x80\x80", "\xEF\xBF\xBF", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"}) {
    EXPECT_TRUE(isValidUTF8(text)) << testing::PrintToString(std::string(text));
  }
  for (const char* bad :
       {"\x80", "\xC0\xAF", "\xC1\xBF", "\xE0\x80\xAF", "\xE0\x9F\xBF", "\xF0\x80\x80\xAF",
        "\xF0\x8F\xBF\xBF", "\xED\xA0\x80", "\xED\xBF\xBF", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80",
        "\xFF", "\xC3", "\xE2\x82", "\xF0\x9F\x98", "\xC3\x28", "\xE2\x82\x28", "\xF0\x9F\x28\x80",
        "\xF0\x9F\x98\x28"}) {
    // Alone, after a valid prefix, and where the prefix ends inside or after an eight-byte run.
    for (const std::string prefix : {"", "caf\xC3\xA9", "\xF0\x9F\x98\x80-0123", "0123456789"}) {
      EXPECT_EQ(validUTF8PrefixLength(prefix + bad + "tail"), prefix.size())
          << testing::PrintToString(prefix + bad);
    }
  }
  EXPECT_EQ(validUTF8PrefixLength("01234567\x80"), 8u);
}

TEST(UUIDTest, ReadsEitherCaseWritesUpperCaseAndRandomIsVersion4) {
  const std::string good = "e621e1f8-c36c-495a-93fc-0c247a3e6e5f";
  EXPECT_EQ(UUID::fromString(good), UUID::fromString("E621E1F8-C36C-495A-93fc-0C247A3E6E5F"));
  EXPECT_EQ(UUID::fromString(good)->uuidString(), "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
  for (const std::string& text : {good.substr(1), good + "0", good.substr(0, 35) + "g",
                                  std::string("e621e1f-8c36c-495a-93fc-0c247a3e6e5f")}) {
    EXPECT_FALSE(UUID::fromString(text).has_value()) << text;
  }
  const UUID random = UUID::random();
  EXPECT_NE(random, UUID::random());
  EXPECT_EQ(random.bytes()[6] >> 4, 4);
  EXPECT_EQ(UUID::fromString(random.uuidString()), random);
}

}  // namespace
}  // namespace platform
