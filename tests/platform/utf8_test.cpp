#include "platform/utf8.h"

#include <gtest/gtest.h>

#include <string>

namespace platform {
namespace {

TEST(UTF8Test, AcceptsValidSequencesOfEveryLength) {
  for (const char* text :
       {"", "plain ASCII longer than eight bytes", "\x7F", "\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80",
        "\xED\x9F\xBF", "\xEE\x80\x80", "\xEF\xBF\xBF", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"}) {
    EXPECT_TRUE(isValidUTF8(text)) << testing::PrintToString(std::string(text));
  }
  EXPECT_TRUE(isValidUTF8(std::string_view("a\0b", 3)));
}

TEST(UTF8Test, PrefixStopsBeforeOverlongSurrogateTooLargeOrTruncatedSequences) {
  for (const char* bad :
       {"\x80", "\xC0\xAF", "\xC1\xBF", "\xE0\x80\xAF", "\xE0\x9F\xBF", "\xF0\x80\x80\xAF",
        "\xF0\x8F\xBF\xBF", "\xED\xA0\x80", "\xED\xBF\xBF", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80",
        "\xFF", "\xC3", "\xE2\x82", "\xF0\x9F\x98", "\xC3\x28", "\xE2\x82\x28", "\xF0\x9F\x28\x80",
        "\xF0\x9F\x98\x28"}) {
    EXPECT_FALSE(isValidUTF8(bad)) << testing::PrintToString(std::string(bad));
    // After a valid prefix, and where the prefix ends inside or after an eight-byte run.
    for (const std::string prefix : {"caf\xC3\xA9", "\xF0\x9F\x98\x80-0123", "0123456789"}) {
      EXPECT_EQ(validUTF8PrefixLength(prefix + bad + "tail"), prefix.size())
          << testing::PrintToString(prefix + bad);
    }
  }
  EXPECT_EQ(validUTF8PrefixLength("01234567\x80"), 8u);
}

}  // namespace
}  // namespace platform
