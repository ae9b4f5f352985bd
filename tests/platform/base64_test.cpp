#include "platform/base64.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace platform {
namespace {

TEST(Base64Test, EncodesAndDecodesRFC4648Vectors) {
  const std::pair<std::string_view, std::string_view> vectors[] = {{"", ""},
                                                                   {"f", "Zg=="},
                                                                   {"fo", "Zm8="},
                                                                   {"foo", "Zm9v"},
                                                                   {"foob", "Zm9vYg=="},
                                                                   {"fooba", "Zm9vYmE="},
                                                                   {"foobar", "Zm9vYmFy"}};
  for (const auto& [plain, encoded] : vectors) {
    EXPECT_EQ(base64Encode(plain), encoded);
    EXPECT_EQ(base64Decode(encoded), std::string(plain));
    std::string unpadded(encoded.substr(0, encoded.find('=')));
    EXPECT_EQ(base64URLEncode(plain), unpadded);
    EXPECT_EQ(base64URLDecode(unpadded), std::string(plain));
  }
}

TEST(Base64Test, AlphabetsDifferInTheLastTwoSymbols) {
  const std::string bytes("\xFB\xEF\xBE\xFF\xFF", 5);
  EXPECT_EQ(base64Encode(bytes), "++++//8=");
  EXPECT_EQ(base64URLEncode(bytes), "----__8");
  EXPECT_EQ(base64Decode("++++//8="), bytes);
  EXPECT_EQ(base64URLDecode("----__8"), bytes);
  EXPECT_EQ(base64Decode("----__8="), std::nullopt);
  EXPECT_EQ(base64URLDecode("++++//8"), std::nullopt);

  std::string all;
  for (int i = 0; i < 256; ++i) all.push_back(static_cast<char>(i));
  EXPECT_EQ(base64Decode(base64Encode(all)), all);
  EXPECT_EQ(base64URLDecode(base64URLEncode(all)), all);
}

TEST(Base64Test, RejectsBadCharactersPaddingAndTrailingBits) {
  for (const std::string_view text : {"Zm9v!", "Zm 9v", "Zm9", "Zg=", "Zg", "Z===", "====",
                                      "Zg==Zg==", "Zm=v", "Zm9vYg=Z", "Zh==", "Zm9=", "Zm9vYmF"}) {
    EXPECT_EQ(base64Decode(text), std::nullopt) << text;
  }
  for (const std::string_view text : {"Zg==", "Zm8=", "Z", "Zm9vY", "Zh", "Zm9", "Zm+v", "Zm/v"}) {
    EXPECT_EQ(base64URLDecode(text), std::nullopt) << text;
  }
  EXPECT_EQ(base64URLDecode("Zm8"), "fo");
}

}  // namespace
}  // namespace platform
