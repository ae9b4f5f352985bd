#include "platform/uuid.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <set>
#include <string>

namespace platform {
namespace {

TEST(UUIDTest, ParsesEitherCaseAndPrintsUpperCase) {
  const auto lower = UUID::fromString("e621e1f8-c36c-495a-93fc-0c247a3e6e5f");
  ASSERT_TRUE(lower.has_value());
  EXPECT_EQ(lower, UUID::fromString("E621E1F8-C36C-495A-93fc-0C247A3E6E5F"));
  EXPECT_EQ(lower->uuidString(), "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
}

TEST(UUIDTest, RejectsWrongLengthOrCharacters) {
  const std::string good = "e621e1f8-c36c-495a-93fc-0c247a3e6e5f";
  for (const std::string& text : std::initializer_list<std::string>{
           std::string(), good.substr(1), good + "0", "{" + good + "}", good.substr(0, 35) + "g",
           good.substr(0, 35) + " ", good.substr(0, 35) + '\0', "e621e1f8c36c495a93fc0c247a3e6e5f",
           "e621e1f-8c36c-495a-93fc-0c247a3e6e5f", "e621e1f8xc36c-495a-93fc-0c247a3e6e5f"}) {
    EXPECT_FALSE(UUID::fromString(text).has_value()) << text;
  }
}

TEST(UUIDTest, RandomIsVersion4AndDistinct) {
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) {
    const UUID id = UUID::random();
    EXPECT_EQ(id.bytes()[6] >> 4, 4);
    EXPECT_EQ(id.bytes()[8] & 0xC0, 0x80);  // RFC 4122 variant
    EXPECT_EQ(UUID::fromString(id.uuidString()), id);
    seen.insert(id.uuidString());
  }
  EXPECT_EQ(seen.size(), 1000u);
}

}  // namespace
}  // namespace platform
