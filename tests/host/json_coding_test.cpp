#include "host/json_coding.h"

#include "support/json_coding_helpers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/json/array.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/string.hpp>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace vorn::tesk {
namespace {

using testing::HasSubstr;
using testing::StartsWith;
using testsupport::decoded;
using testsupport::decodingError;
using testsupport::encoded;

// Small nested records: keyed and unkeyed containers, optional keys and coding paths.
struct Item {
  std::string name;
  std::optional<std::int32_t> quantity;
  void encode(Encoder& encoder) const {
    auto c = encoder.keyedContainer();
    c.encode("name", name);
    c.encodeIfPresent("quantity", quantity);
  }
  static Item decode(const Decoder& decoder) {
    const auto c = decoder.keyedContainer();
    return {c.decode<std::string>("name"), c.decodeIfPresent<std::int32_t>("quantity")};
  }
};

struct Basket {
  std::vector<Item> items;
  std::optional<Item> featured;
  void encode(Encoder& encoder) const {
    auto c = encoder.keyedContainer();
    c.encode("items", items);
    c.encodeIfPresent("featured", featured);
  }
  static Basket decode(const Decoder& decoder) {
    const auto c = decoder.keyedContainer();
    return {c.decode<std::vector<Item>>("items"), c.decodeIfPresent<Item>("featured")};
  }
};

TEST(JSONCodingTest, WritesCompactContainersAndReadsThemBack) {
  const Basket basket{{{"a", 2}, {"b", std::nullopt}}, Item{"c", -1}};
  const std::string text =
      R"({"items":[{"name":"a","quantity":2},{"name":"b"}],"featured":{"name":"c","quantity":-1}})";
  EXPECT_EQ(encoded(basket), text);
  EXPECT_EQ(encoded(Basket{}), R"({"items":[]})");
  EXPECT_EQ(encoded(decoded<Basket>(text)), text);
  // Missing and null optional values are both absent; unknown keys are ignored.
  EXPECT_EQ(encoded(decoded<Basket>(
                R"({"items":[{"name":"b","quantity":null,"x":[1]}],"featured":null,"y":{}})")),
            R"({"items":[{"name":"b"}]})");
}

TEST(JSONCodingTest, EscapesLikeThePlatformSerialiserAndPassesUTF8Through) {
  for (int byte = 0; byte < 0x80; ++byte) {
    const std::string text = "ab" + std::string(1, static_cast<char>(byte)) + "cd";
    EXPECT_EQ(encoded(text), boost::json::serialize(boost::json::string(text))) << byte;
  }
  EXPECT_EQ(encoded(std::string_view("q\"\\/\b\f\n\r\t\x01\x1f\0", 12)),
            R"("q\"\\/\b\f\n\r\t\u0001\u001f\u0000")");
  const std::string utf8 = "caf\xC3\xA9\"\xE2\x82\xAC\xF0\x9F\x98\x80";
  EXPECT_EQ(encoded(utf8), "\"caf\xC3\xA9\\\"\xE2\x82\xAC\xF0\x9F\x98\x80\"");
  EXPECT_EQ(decoded<std::string>(encoded(utf8)), utf8);
}

TEST(JSONCodingTest, RefusesInvalidUTF8NamingTheCodingPath) {
  for (const char* bad : {"\xC3", "ok\xC3(", "\x80", "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80",
                          "\xC3\xA9\xFF"}) {
    EXPECT_THAT(testsupport::encodingError(Basket{{{"fine", 1}, {bad, 2}}, std::nullopt}),
                StartsWith("invalidValue at items[1].name:"))
        << bad;
  }
  // Appending to a larger text leaves it as it was.
  std::string text = R"({"success":)";
  EXPECT_THROW(TeskJSONCoding::makeEncoder().encode(Basket{{}, Item{"\xFE", 1}}, text),
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
        EXPECT_EQ(encoded(text), boost::json::serialize(boost::json::string(text)))
            << length << " " << at;
      }
      std::string bad(length, 'a');
      bad[at] = '\xFF';
      EXPECT_THAT(testsupport::encodingError(bad),
                  HasSubstr("(byte offset " + std::to_string(at) + ")"));
      if (at + 2 <= length) {
        std::string utf8(length, 'a');
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

TEST(JSONCodingTest, IntegersKeepTheirFullRange) {
  EXPECT_EQ(encoded(std::numeric_limits<std::uint64_t>::max()), "18446744073709551615");
  EXPECT_EQ(encoded(std::numeric_limits<std::int64_t>::min()), "-9223372036854775808");
  EXPECT_EQ(decoded<std::uint64_t>("18446744073709551615"), 18446744073709551615u);
  EXPECT_EQ(decoded<std::int64_t>("-9223372036854775808"),
            std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(decoded<std::int32_t>("-2147483648"), std::numeric_limits<std::int32_t>::min());
  EXPECT_EQ(decoded<std::int32_t>("2.0"), 2);
  EXPECT_EQ(decoded<std::uint64_t>("4.5e15"), 4500000000000000u);
  for (const char* text : {"2147483648", "-2147483649", "2.5", "\"1\"", "true", "1e300"}) {
    EXPECT_THAT(decodingError<std::int32_t>(text),
                StartsWith("typeMismatch: expected a 32-bit integer"))
        << text;
  }
  // Large whole numbers written with a fraction or exponent no longer read back exactly.
  for (const char* text :
       {"-1", "18446744073709551616", "9007199254740993.0", "4503599627370496.0"}) {
    EXPECT_NE(decodingError<std::uint64_t>(text), "") << text;
  }
  for (const char* text : {"9223372036854775808", "-9007199254740991.0"}) {
    EXPECT_NE(decodingError<std::int64_t>(text), "") << text;
  }
}

TEST(JSONCodingTest, DatesAndDecimalsHaveOneTextForm) {
  const platform::Date date = platform::dateFromMillisecondsSince1970(1'795'774'530'007);
  EXPECT_EQ(encoded(date), R"("2026-11-27T10:15:30.007Z")");
  EXPECT_EQ(encoded(date - std::chrono::milliseconds(7)), R"("2026-11-27T10:15:30.000Z")");
  for (const char* text :
       {R"("2026-11-27T11:45:30.007+01:30")", R"("2026-11-27T05:15:30.007999999-05:00")"}) {
    EXPECT_EQ(decoded<platform::Date>(text), date) << text;
  }
  EXPECT_EQ(decoded<platform::Date>(R"("2026-11-27T10:15:30Z")"),
            date - std::chrono::milliseconds(7));
  EXPECT_THAT(decodingError<platform::Date>(R"("2026-11-27")"), StartsWith("dataCorrupted"));
  EXPECT_THAT(decodingError<platform::Date>("1795774530007"), StartsWith("typeMismatch"));

  const auto decimal = [](const char* text) {
    return DecimalValue{*platform::Decimal::parse(text)};
  };
  EXPECT_EQ(encoded(decimal("0.99")), R"("0.99")");
  EXPECT_EQ(encoded(decimal("-1e-3")), R"("-0.001")");
  EXPECT_EQ(encoded(decimal("1.2345e3")), R"("1234.5")");
  EXPECT_EQ(decoded<DecimalValue>(R"("1.5e-3")"), decimal("0.0015"));
  EXPECT_THAT(decodingError<DecimalValue>("0.99"), StartsWith("typeMismatch"));
  EXPECT_THAT(decodingError<DecimalValue>(R"("0,99")"), StartsWith("dataCorrupted"));
}

TEST(JSONCodingTest, DecodesOneWholeDocumentAndNamesKindAndPathOfErrors) {
  EXPECT_EQ(decoded<std::int32_t>(" 3 "), 3);
  EXPECT_EQ(decoded<std::string>(R"("")"), "");
  for (const char* text : {"", "{} x", "1 2", "{}}", "[1,]", "{'a':1}", "\"\xC3\"", "nul"}) {
    EXPECT_THAT(decodingError<Basket>(text), StartsWith("dataCorrupted")) << text;
  }
  const std::pair<const char*, const char*> cases[] = {
      {R"({})", R"(keyNotFound: "items")"},
      {R"({"items":[{"name":"a"},{}]})", R"(keyNotFound at items[1]: "name")"},
      {R"({"items":[],"featured":{"name":"c","quantity":"2"}})",
       "typeMismatch at featured.quantity: expected a 32-bit integer but found a string"},
      {R"({"items":[{"name":null}]})",
       "valueNotFound at items[0].name: expected a string but found null"},
      {R"({"items":{}})", "typeMismatch at items: expected an array but found an object"},
      {"null", "valueNotFound: expected an object but found null"},
  };
  for (const auto& [text, description] : cases) EXPECT_EQ(decodingError<Basket>(text), description);
}

}  // namespace
}  // namespace vorn::tesk
