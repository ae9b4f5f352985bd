#include "platform/system_version.h"

#include <gtest/gtest.h>

namespace platform {
namespace {

class SystemVersionTest : public testing::Test {
 protected:
  void TearDown() override { SystemVersion::set(SystemVersion::kDefault); }
};

TEST_F(SystemVersionTest, ComparesAcrossMajorAndMinor) {
  EXPECT_EQ(SystemVersion::current(), (OperatingSystemVersion{26, 0}));
  EXPECT_TRUE(SystemVersion::atLeast(26));
  EXPECT_FALSE(SystemVersion::atLeast(26, 1));
  SystemVersion::set({17, 1});
  EXPECT_TRUE(SystemVersion::atLeast(17));
  EXPECT_TRUE(SystemVersion::atLeast(16, 9));
  EXPECT_FALSE(SystemVersion::atLeast(17, 2));
  EXPECT_FALSE(SystemVersion::atLeast(18));
  SystemVersion::set({18, 0});
  EXPECT_TRUE(SystemVersion::atLeast(17, 2));
  EXPECT_FALSE(SystemVersion::atLeast(18, 1));
  // Any pair of numbers reads back as set, never folded into a neighbouring version.
  SystemVersion::set({17, 1000});
  EXPECT_EQ(SystemVersion::current(), (OperatingSystemVersion{17, 1000}));
}

TEST_F(SystemVersionTest, ParsesMajorAndOptionalMinor) {
  EXPECT_EQ(SystemVersion::parse("17"), (OperatingSystemVersion{17, 0}));
  EXPECT_EQ(SystemVersion::parse("17.2"), (OperatingSystemVersion{17, 2}));
  for (const char* text : {"", "17.", ".2", "x", "-1", "17.-1", "17.2.1", " 17", "17 ", "+17",
                           "1000", "99999999999"}) {
    EXPECT_EQ(SystemVersion::parse(text), std::nullopt) << text;
  }
  EXPECT_EQ(SystemVersion::toString({17, 2}), "17.2");
}

}  // namespace
}  // namespace platform
