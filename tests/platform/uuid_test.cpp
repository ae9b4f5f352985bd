#include "platform/uuid.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace platform {
namespace {

TEST(UUIDTest, ParsesEitherCaseAndPrintsUpperCase) {
  const auto lower = UUID::fromString("e621e1f8-c36c-495a-93fc-0c247a3e6e5f");
  const auto upper = UUID::fromString("E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
  ASSERT_TRUE(lower.has_value());
  ASSERT_TRUE(upper.has_value());
  EXPECT_EQ(*lower, *upper);
  EXPECT_EQ(lower->uuidString(), "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
  EXPECT_EQ(lower->bytes()[0], 0xE6);
  EXPECT_EQ(lower->bytes()[15], 0x5F);
  const UUID::Bytes bytes{0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07,
                          0x08, 0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F};
  EXPECT_EQ(UUID(bytes).uuidString(), "00010203-0405-0607-0809-0A0B0C0D0E0F");
}

TEST(UUIDTest, RejectsWrongLengthOrCharacters) {
  using namespace std::string_literals;
  for (const std::string& text :
       {""s, "e621e1f8-c36c-495a-93fc-0c247a3e6e5"s, "e621e1f8-c36c-495a-93fc-0c247a3e6e5f0"s,
        "e621e1f8c36c495a93fc0c247a3e6e5f"s, "{e621e1f8-c36c-495a-93fc-0c247a3e6e5f}"s,
        "e621e1f8-c36c-495a-93fc-0c247a3e6e5g"s, "e621e1f8xc36c-495a-93fc-0c247a3e6e5f"s,
        "e621e1f8-c36c-495a-93fc-0c247a3e6e5 "s, " e621e1f8-c36c-495a-93fc-0c247a3e6e5"s,
        "e621e1f8-c36c-495a-93fc-0c247a3e6e\0f"s, "e621e1f-8c36c-495a-93fc-0c247a3e6e5f"s}) {
    EXPECT_FALSE(UUID::fromString(text).has_value()) << text;
  }
}

TEST(UUIDTest, RandomIsVersion4AndDistinct) {
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) {
    const UUID id = UUID::random();
    EXPECT_EQ(id.bytes()[6] >> 4, 4);
    EXPECT_EQ(id.bytes()[8] & 0xC0, 0x80);  // RFC 4122 variant
    const std::string text = id.uuidString();
    EXPECT_EQ(UUID::fromString(text), id);
    seen.insert(text);
  }
  EXPECT_EQ(seen.size(), 1000u);
}

}  // namespace
}  // namespace platform
