// The host's coders on their own: strings escaped and checked wherever a byte falls in the
// vectorised scans, long lists, integer ranges and whole documents. Records, dates, decimals
// and coding paths are checked through the records that use them (tests/records).
#include "host/json_coding.h"

#include "support/json_coding_helpers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/json/array.hpp>
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
  EXPECT_EQ(encoded(std::string_view("q\"\\/\b\f\n\r\t\x01\x1f\0", 12)),
            R"("q\"\\/\b\f\n\r\t\u0001\u001f\u0000")");
  const std::string utf8 = "caf\xC3\xA9\"\xE2\x82\xAC\xF0\x9F\x98\x80";
  EXPECT_EQ(encoded(utf8), "\"caf\xC3\xA9\\\"\xE2\x82\xAC\xF0\x9F\x98\x80\"");
  EXPECT_EQ(decoded<std::string>(encoded(utf8)), utf8);
  for (const char* bad : {"\xC3", "ok\xC3(", "\x80", "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80",
                          "\xC3\xA9\xFF"}) {
    EXPECT_THAT(encodingError(std::vector<std::string>{"fine", bad}),
                StartsWith("invalidValue at [1]: the string is not valid UTF-8"))
        << bad;
  }
  // Appending to a larger text leaves it as it was.
  std::string text = R"({"success":)";
  EXPECT_THROW(TeskJSONCoding::makeEncoder().encode(std::vector<std::string>{"a", "\xFE"}, text),
               EncodingError);
  EXPECT_EQ(text, R"({"success":)");
}

TEST(JSONCodingTest, LongTextIsEscapedAndCheckedWhereverTheByteFalls) {
  // Text is checked many bytes at a time, the last step overlapping the one before: a byte
  // that needs a look must be found at every position of every step.
  for (const std::size_t length : {15u, 16u, 17u, 31u, 32u, 33u, 47u, 63u, 64u, 65u, 130u}) {
    std::string plain(length, 'a');
    for (std::size_t i = 0; i < length; ++i) plain[i] = static_cast<char>('a' + i % 26);
    EXPECT_EQ(encoded(plain), '"' + plain + '"');
    for (std::size_t at = 0; at < length; ++at) {
      for (const char byte : {'"', '\\', '\n', '\x1f'}) {
        std::string text = plain;
        text[at] = byte;
        EXPECT_EQ(encoded(text), serialised(text)) << length << " " << at;
      }
      std::string bad = plain;
      bad[at] = '\xFF';
      EXPECT_THAT(encodingError(bad), HasSubstr("(byte offset " + std::to_string(at) + ")"));
      if (at + 2 <= length) {
        std::string utf8 = plain;
        utf8.replace(at, 2, "\xC3\xA9");
        EXPECT_EQ(encoded(utf8), '"' + utf8 + '"') << length << " " << at;
      }
    }
  }
}

TEST(JSONCodingTest, LongListsComeOutWhole) {
  // Thousands of elements of uneven size: the text is sized from the elements written so
  // far and passes through the encoder's staging buffer many times over.
  std::vector<std::string> values;
  boost::json::array expected;
  for (int i = 0; i < 3000; ++i) {
    values.push_back(std::string(static_cast<std::size_t>(i * 7919 % 700), 'a') + "\n");
    expected.emplace_back(values.back());
  }
  EXPECT_EQ(encoded(values), boost::json::serialize(expected));
}

TEST(JSONCodingTest, IntegersKeepTheirRangeAndADocumentIsReadWhole) {
  EXPECT_EQ(decoded<std::int32_t>(" -2147483648 "), std::numeric_limits<std::int32_t>::min());
  EXPECT_EQ(decoded<std::int32_t>("2.0"), 2);
  EXPECT_EQ(decoded<std::uint64_t>("4.5e15"), 4500000000000000u);
  for (const char* text : {"2147483648", "-2147483649", "2.5", "true", "1e300"}) {
    EXPECT_THAT(decodingError<std::int32_t>(text),
                StartsWith("typeMismatch: expected a 32-bit integer"))
        << text;
  }
  // Large whole numbers written with a fraction or exponent no longer read back exactly.
  for (const char* text : {"18446744073709551616", "9007199254740993.0", "4503599627370496.0"}) {
    EXPECT_NE(decodingError<std::uint64_t>(text), "") << text;
  }
  for (const char* text : {"9223372036854775808", "-9007199254740991.0"}) {
    EXPECT_NE(decodingError<std::int64_t>(text), "") << text;
  }
  for (const char* text : {"", "{} x", "1 2", "[]]", "[1,]", "{'a':1}", "\"\xC3\"", "nul"}) {
    EXPECT_THAT(decodingError<std::vector<std::string>>(text),
                StartsWith("dataCorrupted: the data is not valid JSON"))
        << text;
  }
  EXPECT_EQ(decodingError<std::vector<std::string>>("{}"),
            "typeMismatch: expected an array but found an object");
}

}  // namespace
}  // namespace vorn::tesk
