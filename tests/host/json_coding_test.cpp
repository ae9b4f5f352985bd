#include "host/json_coding.h"

#include <boost/json/serialize.hpp>
#include <boost/json/string.hpp>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace vorn::tesk {
namespace {

// A small nested record, enough to exercise keyed and unkeyed containers and coding paths.
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

struct Priced {
  OptionalDecimalValue price;

  void encode(Encoder& encoder) const {
    auto c = encoder.keyedContainer();
    c.encode("price", price);
  }
  static Priced decode(const Decoder& decoder) {
    return {decoder.keyedContainer().decode<OptionalDecimalValue>("price")};
  }
};

template <class T>
std::string encoded(const T& value) {
  return TeskJSONCoding::makeEncoder().encode(value);
}

template <class T>
T decoded(std::string_view text) {
  return TeskJSONCoding::makeDecoder().decode<T>(text);
}

// The description of the DecodingError that decoding `text` as T raises ("" if none).
template <class T>
std::string decodingError(std::string_view text) {
  try {
    (void)decoded<T>(text);
  } catch (const DecodingError& error) {
    return error.description();
  }
  return "";
}

TEST(JSONCodingTest, WritesCompactNestedContainers) {
  const Basket basket{{{"a", 2}, {"b", std::nullopt}}, Item{"c", -1}};
  EXPECT_EQ(encoded(basket),
            R"({"items":[{"name":"a","quantity":2},{"name":"b"}],"featured":{"name":"c","quantity":-1}})");
  EXPECT_EQ(encoded(Basket{}), R"({"items":[]})");
  const Basket back = decoded<Basket>(encoded(basket));
  ASSERT_EQ(back.items.size(), 2u);
  EXPECT_EQ(back.items[0].quantity, 2);
  EXPECT_FALSE(back.items[1].quantity.has_value());
  EXPECT_EQ(back.featured->name, "c");
}

TEST(JSONCodingTest, EscapesStringsAsThePlatformSerialiserDoes) {
  // Every ASCII byte, alone and inside a longer run, against Boost.JSON's own escaping.
  for (int byte = 0; byte < 0x80; ++byte) {
    const std::string alone(1, static_cast<char>(byte));
    const std::string inRun = "ab" + alone + "cd" + alone;
    for (const std::string& text : {alone, inRun}) {
      EXPECT_EQ(encoded(std::string_view(text)), boost::json::serialize(boost::json::string(text)))
          << "byte " << byte;
    }
  }
  EXPECT_EQ(encoded("q\"b\\s/\b\f\n\r\t\x01\x1f"), R"("q\"b\\s/\b\f\n\r\t\u0001\u001f")");
  EXPECT_EQ(encoded(std::string_view("nul\0x", 5)), R"("nul\u0000x")");
  // UTF-8 is copied unescaped.
  EXPECT_EQ(encoded("caf\xC3\xA9 \xE2\x82\xAC\xF0\x9F\x98\x80\"\xC3\xA9"),
            "\"caf\xC3\xA9 \xE2\x82\xAC\xF0\x9F\x98\x80\\\"\xC3\xA9\"");
  for (const char* text : {"x\xC3\xA9y", "\t\xE2\x82\xAC\n", "\xF0\x9F\x98\x80"}) {
    EXPECT_EQ(decoded<std::string>(encoded(text)), text);
  }
}

TEST(JSONCodingTest, RefusesInvalidUTF8NamingTheCodingPath) {
  for (const char* bad : {"\xC3", "ok\xC3(", "\x80", "\xC0\xAF", "\xED\xA0\x80",
                          "\xF4\x90\x80\x80", "\xC3\xA9\xFF", "\xE2\x82"}) {
    const Basket basket{{{"fine", 1}, {bad, 2}}, std::nullopt};
    try {
      (void)encoded(basket);
      ADD_FAILURE() << "encoded invalid UTF-8";
    } catch (const EncodingError& error) {
      EXPECT_NE(error.description().find("items[1].name"), std::string::npos)
          << error.description();
    }
  }
  // Appending to a larger text leaves it untouched on failure.
  std::string text = R"({"success":)";
  EXPECT_THROW(TeskJSONCoding::makeEncoder().encode(Basket{{}, Item{"\xFE", 1}}, text),
               EncodingError);
  EXPECT_EQ(text, R"({"success":)");
}

TEST(JSONCodingTest, WritesAndReadsIntegersAtTheirLimits) {
  EXPECT_EQ(encoded(std::numeric_limits<std::uint64_t>::max()), "18446744073709551615");
  EXPECT_EQ(encoded(std::numeric_limits<std::int64_t>::min()), "-9223372036854775808");
  EXPECT_EQ(encoded(std::numeric_limits<std::int32_t>::min()), "-2147483648");
  EXPECT_EQ(encoded(std::int64_t{0}), "0");
  EXPECT_EQ(encoded(std::vector<bool>{true, false}), "[true,false]");

  EXPECT_EQ(decoded<std::uint64_t>("18446744073709551615"),
            std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(decoded<std::int64_t>("-9223372036854775808"),
            std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(decoded<std::int32_t>("2147483647"), 2147483647);
  EXPECT_EQ(decoded<std::int32_t>("-2147483648"), std::numeric_limits<std::int32_t>::min());
  EXPECT_EQ(decoded<std::int32_t>("2.0"), 2);
  EXPECT_EQ(decoded<std::int64_t>("-1e2"), -100);
  EXPECT_EQ(decoded<std::uint64_t>("4.5e15"), 4500000000000000u);

  for (const char* text : {"2147483648", "-2147483649", "2.5", "\"1\"", "true", "1e300"}) {
    EXPECT_NE(decodingError<std::int32_t>(text).find("expected a 32-bit integer"),
              std::string::npos) << text;
  }
  // Written with a fraction or exponent, large whole numbers no longer read back exactly.
  for (const char* text : {"-1", "18446744073709551616", "0.5", "9007199254740993.0",
                           "4503599627370496.0", "1e19"}) {
    EXPECT_NE(decodingError<std::uint64_t>(text), "") << text;
  }
  for (const char* text : {"9223372036854775808", "-9007199254740991.0"}) {
    EXPECT_NE(decodingError<std::int64_t>(text), "") << text;
  }
}

TEST(JSONCodingTest, DatesAreUTCWithMillisecondsAndReadFromAnyOffset) {
  const platform::Date date = platform::dateFromMillisecondsSince1970(1'795'774'530'007);
  EXPECT_EQ(encoded(date), R"("2026-11-27T10:15:30.007Z")");
  EXPECT_EQ(encoded(platform::dateFromMillisecondsSince1970(1'795'774'530'000)),
            R"("2026-11-27T10:15:30.000Z")");
  for (const char* text : {R"("2026-11-27T10:15:30.007Z")", R"("2026-11-27T11:45:30.007+01:30")",
                           R"("2026-11-27T05:15:30.007999999-05:00")"}) {
    EXPECT_EQ(decoded<platform::Date>(text), date) << text;
  }
  EXPECT_EQ(decoded<platform::Date>(R"("2026-11-27T10:15:30Z")"),
            platform::dateFromMillisecondsSince1970(1'795'774'530'000));
  EXPECT_EQ(decodingError<platform::Date>(R"("2026-11-27")").rfind("dataCorrupted", 0), 0u);
  EXPECT_EQ(decodingError<platform::Date>("1795774530007").rfind("typeMismatch", 0), 0u);
}

TEST(JSONCodingTest, DecimalsAreStringsOfPlainText) {
  const auto decimal = [](const char* text) { return DecimalValue{*platform::Decimal::parse(text)}; };
  EXPECT_EQ(encoded(decimal("0.99")), R"("0.99")");
  EXPECT_EQ(encoded(decimal("-0.001")), R"("-0.001")");
  EXPECT_EQ(encoded(decimal("1.2345e3")), R"("1234.5")");
  EXPECT_EQ(encoded(decimal("7E2")), R"("700")");
  EXPECT_EQ(decoded<DecimalValue>(R"("1.5e-3")"), decimal("0.0015"));
  EXPECT_EQ(decoded<DecimalValue>(R"("-12.345")"), decimal("-12.345"));
  EXPECT_EQ(decodingError<DecimalValue>("0.99").rfind("typeMismatch", 0), 0u);
  EXPECT_EQ(decodingError<DecimalValue>("1").rfind("typeMismatch", 0), 0u);
  EXPECT_EQ(decodingError<DecimalValue>(R"("0,99")").rfind("dataCorrupted", 0), 0u);

  // An empty optional decimal leaves its key out; a missing key and null read as empty.
  EXPECT_EQ(encoded(Priced{}), "{}");
  EXPECT_EQ(encoded(Priced{{decimal("29").value}}), R"({"price":"29"})");
  EXPECT_FALSE(decoded<Priced>("{}").price.value.has_value());
  EXPECT_FALSE(decoded<Priced>(R"({"price":null})").price.value.has_value());
  EXPECT_EQ(decoded<Priced>(R"({"price":"2.9e1"})").price.value, decimal("29").value);
  EXPECT_EQ(decodingError<Priced>(R"({"price":29})").rfind("typeMismatch at price", 0), 0u);
}

TEST(JSONCodingTest, ParsesOneWholeDocument) {
  EXPECT_EQ(decoded<std::int32_t>(" 3 "), 3);
  EXPECT_EQ(decoded<std::string>(R"("")"), "");
  EXPECT_TRUE(decoded<bool>("true"));
  for (const char* text : {"", " ", "{} x", "1 2", "{}}", R"({"items":[]},)", "[1,]",
                           "{'a':1}", "\"\xC3\"", "nul"}) {
    EXPECT_EQ(decodingError<Basket>(text).rfind("dataCorrupted", 0), 0u) << text;
  }
}

TEST(JSONCodingTest, DecodingErrorsNameKindAndPath) {
  struct Case {
    const char* text;
    const char* description;
  };
  const Case cases[] = {
      {R"({})", R"(keyNotFound: "items")"},
      {R"({"items":[{"name":"a"},{}]})", R"(keyNotFound at items[1]: "name")"},
      {R"({"items":[],"featured":{"name":"c","quantity":"2"}})",
       "typeMismatch at featured.quantity: expected a 32-bit integer but found a string"},
      {R"({"items":[{"name":null}]})",
       "valueNotFound at items[0].name: expected a string but found null"},
      {R"({"items":null})", "valueNotFound at items: expected an array but found null"},
      {R"({"items":{}})", "typeMismatch at items: expected an array but found an object"},
      {"null", "valueNotFound: expected an object but found null"},
      {"[]", "typeMismatch: expected an object but found an array"},
  };
  for (const Case& c : cases) EXPECT_EQ(decodingError<Basket>(c.text), c.description) << c.text;

  // Missing and null optional values are both absent; unknown keys are ignored.
  for (const char* text : {R"({"items":[{"name":"a","quantity":null}],"featured":null})",
                           R"({"items":[{"name":"a","extra":[1]}],"more":{}})"}) {
    const Basket basket = decoded<Basket>(text);
    EXPECT_FALSE(basket.items.at(0).quantity.has_value()) << text;
    EXPECT_FALSE(basket.featured.has_value()) << text;
  }
}

}  // namespace
}  // namespace vorn::tesk
