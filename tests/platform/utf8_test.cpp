#include "platform/utf8.h"

#include <gtest/gtest.h>

#include <string>

namespace platform {
namespace {

TEST(UTF8Test, AcceptsValidSequencesOfEveryLength) {
  for (const std::string_view text :
       {"", "plain ASCII text longer than eight bytes", "\x7F", "\xC2\x80", "\xDF\xBF",
        "caf\xC3\xA9", "\xE0\xA0\x80", "\xE2\x82\xAC", "\xED\x9F\xBF", "\xEE\x80\x80",
        "\xEF\xBF\xBF", "\xF0\x90\x80\x80", "\xF0\x9F\x98\x80", "\xF4\x8F\xBF\xBF",
        "0123456\xE2\x82\xAC"
        "89abcdef\xF0\x9F\x98\x80"}) {
    EXPECT_TRUE(isValidUTF8(text)) << text;
  }
  EXPECT_TRUE(isValidUTF8(std::string_view("a\0b", 3)));
}

TEST(UTF8Test, RejectsMalformedSequences) {
  for (const std::string_view text : {"\x80",  // continuation without a lead
                                      "\xBF",
                                      "\xC0\xAF",          // overlong '/'
                                      "\xC1\xBF",          // overlong
                                      "\xE0\x80\xAF",      // overlong 3-byte
                                      "\xE0\x9F\xBF",      // overlong 3-byte, highest
                                      "\xF0\x80\x80\xAF",  // overlong 4-byte
                                      "\xF0\x8F\xBF\xBF",  // overlong 4-byte, highest
                                      "\xED\xA0\x80",      // U+D800, a surrogate
                                      "\xED\xBF\xBF",      // U+DFFF
                                      "\xF4\x90\x80\x80",  // U+110000
                                      "\xF5\x80\x80\x80",
                                      "\xFE",
                                      "\xFF",
                                      "\xC3",  // truncated sequences
                                      "\xE2\x82",
                                      "\xF0\x9F\x98",
                                      "\xC3\x28",  // continuation byte missing
                                      "\xE2\x28\xAC",
                                      "\xE2\x82\x28",
                                      "\xF0\x9F\x28\x80",
                                      "\xF0\x9F\x98\x28"}) {
    EXPECT_FALSE(isValidUTF8(text)) << testing::PrintToString(std::string(text));
  }
}

TEST(UTF8Test, PrefixLengthStopsBeforeTheFirstBadSequence) {
  EXPECT_EQ(validUTF8PrefixLength("abc"), 3u);
  EXPECT_EQ(validUTF8PrefixLength("abc\xE2\x82"), 3u);
  EXPECT_EQ(validUTF8PrefixLength("caf\xC3\xA9\xED\xA0\x80x"), 5u);
  EXPECT_EQ(validUTF8PrefixLength("\xF0\x9F\x98\x80\xF4\x90\x80\x80"), 4u);
  // The bad byte sits after a run of eight ASCII bytes and inside the next one.
  EXPECT_EQ(validUTF8PrefixLength("01234567890\xC0\xAF"
                                  "abcdefgh"),
            11u);
  EXPECT_EQ(validUTF8PrefixLength("01234567\x80"), 8u);
  EXPECT_EQ(validUTF8PrefixLength("\xC2\x80"
                                  "0123456789abcdef\xFF"),
            18u);
}

}  // namespace
}  // namespace platform
