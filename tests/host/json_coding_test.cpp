// The host's coders on their own: string escaping and checks, integer ranges, whole documents.
#include "host/json_coding.h"

#include "support/json_coding_helpers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/json/serialize.hpp>
#include <boost/json/string.hpp>

#include <limits>
#include <vector>

namespace vorn::tesk {
namespace {

using testing::HasSubstr;
using testing::StartsWith;
using testsupport::decoded;
using testsupport::decodingError;
using testsupport::encoded;
using testsupport::encodingError;

std::string serialised(const std::string& text) {
  return boost::json::serialize(boost::json::string(text));
}

TEST(JSONCodingTest, EscapesLikeThePlatformSerialiserAndRefusesInvalidUTF8) {
  for (int byte = 0; byte < 0x80; ++byte) {
    const std::string text = "ab" + std::string(1, static_cast<char>(byte)) + "cd";
    EXPECT_EQ(encoded(text), serialised(text)) << byte;
  }
  const std::string utf8 = "caf\xC3\xA9\"\xE2\x82\xAC\xF0\x9F\x98\x80";
  EXPECT_EQ(encoded(utf8), "\"caf\xC3\xA9\\\"\xE2\x82\xAC\xF0\x9F\x98\x80\"");
  EXPECT_EQ(decoded<std::string>(encoded(utf8)), utf8);
  for (const char* bad : {"ok\xC3(", "\xC0\xAF", "\xC3\xA9\xFF"}) {
    EXPECT_THAT(encodingError(std::vector<std::string>{"fine", bad}),
                StartsWith("invalidValue at [1]: the string is not valid UTF-8"))
        << bad;
  }
}

TEST(JSONCodingTest, LongTextIsEscapedAndCheckedWhereverTheByteFalls) {
  // Text is scanned many bytes at a time, the last step overlapping the one before.
  for (const std::size_t length : {15u, 16u, 17u, 31u, 32u, 33u, 47u, 63u, 64u, 65u, 130u}) {
    std::string plain(length, 'a');
    for (std::size_t i = 0; i < length; ++i) plain[i] = static_cast<char>('a' + i % 26);
    EXPECT_EQ(encoded(plain), '"' + plain + '"');
    for (std::size_t at = 0; at < length; ++at) {
      for (const std::string bytes : {"\"", "\\", "\n", "\x1f", "\xC3\xA9"}) {
        const std::string text = plain.substr(0, at) + bytes + plain.substr(at + 1);
        EXPECT_EQ(encoded(text), serialised(text)) << length << " " << at;
      }
      EXPECT_THAT(encodingError(plain.substr(0, at) + '\xFF' + plain.substr(at + 1)),
                  HasSubstr("(byte offset " + std::to_string(at) + ")"));
    }
  }
}

TEST(JSONCodingTest, IntegersKeepTheirRangeAndADocumentIsReadWhole) {
  EXPECT_EQ(decoded<std::int32_t>(" -2147483648 "), std::numeric_limits<std::int32_t>::min());
  EXPECT_EQ(decoded<std::int32_t>("2.0"), 2);
  EXPECT_EQ(decoded<std::uint64_t>("4.5e15"), 4500000000000000u);
  for (const char* text : {"2147483648", "-2147483649", "2.5", "true"}) {
    EXPECT_THAT(decodingError<std::int32_t>(text),
                StartsWith("typeMismatch: expected a 32-bit integer"))
        << text;
  }
  // From 2^52 on, whole numbers written with a fraction no longer read back exactly.
  for (const char* text : {"4503599627370496.0", "-4503599627370496.0", "9223372036854775808"}) {
    EXPECT_NE(decodingError<std::int64_t>(text), "") << text;
  }
  for (const char* text : {"", "{} x", "\"\xC3\""}) {
    EXPECT_THAT(decodingError<std::vector<std::string>>(text),
                StartsWith("dataCorrupted: the data is not valid JSON"))
        << text;
  }
  EXPECT_EQ(decodingError<std::vector<std::string>>("{}"),
            "typeMismatch: expected an array but found an object");
}

}  // namespace
}  // namespace vorn::tesk
