#include "platform/system_version.h"

#include <gtest/gtest.h>

namespace platform {
namespace {

class SystemVersionTest : public testing::Test {
 protected:
  void TearDown() override { SystemVersion::set(SystemVersion::kDefault); }
};

TEST_F(SystemVersionTest, DefaultsTo26) {
  EXPECT_EQ(SystemVersion::current(), (OperatingSystemVersion{26, 0}));
  EXPECT_TRUE(SystemVersion::atLeast(26));
  EXPECT_TRUE(SystemVersion::atLeast(17, 2));
  EXPECT_FALSE(SystemVersion::atLeast(26, 1));
  EXPECT_FALSE(SystemVersion::atLeast(27));
}

TEST_F(SystemVersionTest, ComparesAcrossMajorAndMinor) {
  SystemVersion::set({17, 1});
  EXPECT_EQ(SystemVersion::current(), (OperatingSystemVersion{17, 1}));
  EXPECT_TRUE(SystemVersion::atLeast(17));
  EXPECT_TRUE(SystemVersion::atLeast(17, 1));
  EXPECT_TRUE(SystemVersion::atLeast(16, 9));
  EXPECT_FALSE(SystemVersion::atLeast(17, 2));
  EXPECT_FALSE(SystemVersion::atLeast(18));

  SystemVersion::set({18, 0});
  EXPECT_TRUE(SystemVersion::atLeast(17, 2));
  EXPECT_TRUE(SystemVersion::atLeast(18, 0));
  EXPECT_FALSE(SystemVersion::atLeast(18, 1));

  // Any pair of numbers is kept as set, not folded into a neighbouring version.
  SystemVersion::set({17, 1000});
  EXPECT_EQ(SystemVersion::current(), (OperatingSystemVersion{17, 1000}));
  EXPECT_FALSE(SystemVersion::atLeast(18));
  SystemVersion::set({1000, 2});
  EXPECT_EQ(SystemVersion::current(), (OperatingSystemVersion{1000, 2}));
}

TEST_F(SystemVersionTest, ParsesMajorAndOptionalMinor) {
  EXPECT_EQ(SystemVersion::parse("17"), (OperatingSystemVersion{17, 0}));
  EXPECT_EQ(SystemVersion::parse("17.2"), (OperatingSystemVersion{17, 2}));
  EXPECT_EQ(SystemVersion::parse("0.0"), (OperatingSystemVersion{0, 0}));
  for (const std::string_view text : {"", "17.", ".2", "x", "-1", "17.-1", "17.2.1", " 17", "17 ",
                                      "17.x", "+17", "17,2", "1000", "99999999999"}) {
    EXPECT_EQ(SystemVersion::parse(text), std::nullopt) << text;
  }
  EXPECT_EQ(SystemVersion::toString({17, 2}), "17.2");
  EXPECT_EQ(SystemVersion::toString(*SystemVersion::parse("18")), "18.0");
}

}  // namespace
}  // namespace platform
